#include "fixture.h"

#include <due_timers.h>

class Due : public CleanSet {};

// The armed timers of a set that slept from noon on, until `until`.
TEST_F(Due, TimersThatWouldHaveFired_AreFound_ByTime) {
  const struct {
    std::vector<new_timer> timers;
    const char *from, *until;
    std::string due; // "id/type time"
    int on_halt = 0, off_halt = 0;
    std::size_t room = 8;
  } cases[] = {
      {{{1, "16 07:00"}, {0, "16 06:00"}}, "16 05:55", "16 07:00", "2/0 16 06:00, 1/1 16 07:00"},
      {{{1, "16 07:00"}}, "16 07:00", "16 07:05", ""},
      {{{1, "16 07:00"}}, "16 06:55", "16 06:59:59", ""},
      {{{1, "15 07:00", kDaily}}, "17 06:55", "17 07:05", "1/1 17 07:00"},
      {{{1, "15 07:00", kDaily}}, kNoon, "17 07:05", "1/1 16 07:00, 1/1 17 07:00"},
      {{{1, "15 07:00", kWed}}, "17 06:55", "17 07:05", ""},
      {{{0, "15 07:00:30", kDaily}}, kNoon, "17 07:05", "1/0 16 07:00, 1/0 17 07:00"},
      {{{0, "15 07:00:30", kWed}}, kNoon, "17 07:05", "1/0 16 07:00:30"},
      {{{1, "15 07:00", kDaily, 1}}, "18 06:55", "21 07:05", "1/1 21 07:00"},
      {{{4, "16 07:00"}, {2, "16 07:01"}, {10, "16 07:02"}},
       kNoon,
       "16 08:00",
       "1/4 16 07:00",
       1,
       1},
      {{{1, "16 07:00"}, {1, "16 07:01"}, {1, "16 07:02"}},
       kNoon,
       "16 08:00",
       "2/1 16 07:01, 3/1 16 07:02",
       0,
       0,
       2},
      {{{1, "15 07:00", kDaily, 0, TIME_TYPE_INTERNET}}, "17 06:55", "17 07:05", "1/1 17 07:00"},
  };
  for (const auto &[timers, from, until, expected, on_halt, off_halt, room] : cases) {
    restart(expected + " until " + until);
    add_period("18 00:00", "20 00:00");
    for (const new_timer &timer : timers)
      arm(timer);
    ontimer_halt = on_halt;
    offtimer_halt = off_halt;
    due_timer due[8];
    std::string found;
    const std::size_t count = dravel_due_timers(time_of(from), time_of(until), due, room);
    for (const auto &[id, type, time] : std::span(due).first(count))
      found += (found.empty() ? "" : ", ") + std::to_string(id) + "/" + std::to_string(type) + " " +
               time_text(time);
    EXPECT_EQ(found, expected);
  }
}
