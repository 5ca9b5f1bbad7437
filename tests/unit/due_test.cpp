#include "dravel-util.h"
#include "scenario.h"

#include <due_timers.h>

class Due : public CleanSet {};

// Of a set that slept from noon on.
SCENARIOS(Due, TimersThatWouldHaveFired_AreFound_ByTime,
          "period '18 00:00' '20 00:00'; $1; due $2 => is '$3'", R"(
  arm 1 '16 07:00'; arm 0 '16 06:00' | '16 05:55' '16 07:00' | 2/0 16 06:00, 1/1 16 07:00
  arm 1 '16 07:00' | '16 07:00' '16 07:05' |
  arm 1 '16 07:00' | '16 06:55' '16 06:59:59' |
  arm 1 '15 07:00' daily | '17 06:55' '17 07:05' | 1/1 17 07:00
  arm 1 '15 07:00' daily | '15 12:00' '17 07:05' | 1/1 16 07:00, 1/1 17 07:00
  arm 1 '15 07:00' wed | '17 06:55' '17 07:05' |
  arm 0 '15 07:00:30' daily | '15 12:00' '17 07:05' | 1/0 16 07:00, 1/0 17 07:00
  arm 0 '15 07:00:30' wed | '15 12:00' '17 07:05' | 1/0 16 07:00:30
  arm 1 '15 07:00' daily holidays | '18 06:55' '21 07:05' | 1/1 21 07:00
  arm 1 '15 07:00' daily system | '17 06:55' '17 07:05' | 1/1 17 07:00
  arm 4 '16 07:00'; arm 2 '16 07:01'; call request_halt_ontimers 1 | '15 12:00' '16 08:00' |
    1/4 16 07:00
  arm 2 '16 07:00'; arm 1 '16 07:01'; call request_halt_offtimers 1 | '15 12:00' '16 08:00' |
    1/2 16 07:00
  arm 1 '15 07:00' daily; now '16 07:01'; adjust | '16 06:55' '16 07:01' | 1/1 16 07:00
  arm 2 '16 07:00'; start_again '16 07:01'; idle | '16 06:56' '16 07:01' | 1/2 16 07:00
  arm 2 '16 07:00'; start_again '16 07:01'; idle | '16 07:00' '16 07:01' |
  arm 2 '16 07:00'; start_again '16 07:01'; idle; call request_halt_ontimers 1 |
    '16 06:56' '16 07:01' |
  arm 2 '16 07:00'; start_again '16 07:01'; idle; due '15 00:00' '15 00:01' |
    '16 06:56' '16 07:01' |
  arm 1 '16 07:00'; arm 0 '14 07:00' daily; tv ''; adjust; now '16 07:01' |
    '16 06:56' '16 07:01' | 1/1 16 07:00, 2/0 16 07:00
  arm 1 '16 07:00'; tv ''; adjust; now '16 07:01' | '16 07:00' '16 07:01' |
  arm 1 '16 07:00'; tv ''; adjust; adjust; now '16 07:01'; tv '' | '16 06:56' '16 07:01' |
  arm 1 '16 07:00'; tv ''; reschedule; reschedule; now '16 07:01' | '16 06:56' '16 07:01' |
    1/1 16 07:00
  arm 2 '16 07:00'; start_again '16 06:59'; trusted 0; idle; now '16 07:01' |
    '16 06:56' '16 07:01' | 1/2 16 07:00
  add 2 '16 07:00'; add 0 '14 07:00' daily; now '16 07:01' | '16 06:56' '16 07:01' |
  arm 0 '16 07:00'; arm 1 '16 07:00'; now '16 07:01' | '16 06:56' '16 07:01' | 2/1 16 07:00
  arm 0 '16 07:00'; tv ''; adjust; now '15 12:00'; reschedule; disarm 1; now '16 07:01' |
    '16 06:56' '16 07:01' |
  times 3 arm 1 '16 07:00' | '15 12:00' '16 08:00' 2 | 2/1 16 07:00, 3/1 16 07:00
)")

TEST_F(Due, TheLastSecondThatAClockShows_EndsTheSearch) {
  arm({1, "15 06:28:15", 0x7f});
  due_timer last{};
  EXPECT_EQ(dravel_due_timers(kInvalidTime - kSecondsPerDay, kInvalidTime, &last, 1), 1U);
  EXPECT_EQ(last.time, kInvalidTime);
}
