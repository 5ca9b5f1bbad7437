#include "scenario.h"

class Expiry : public CleanSet {};

// Every expiry is announced, whatever its action does. A refused request is not the end of the
// others. The timer that wakes the set is the one that woke it.
static const std::string kExpiry =
    "arm $1 '16 07:00'; times 2 pass; now '16 07:00'; power $2; ambient $3;"
    "refuse device_power_set_wakeup_reason device_power_set_state; $4;"
    "expire => events 'dravel_week_flag_expired 0; dravel_expired @; dravel_type_expired $1$5'"
    " woken_by $6";

// Only a set that sleeps is woken: in the state 2, or in 4 while its ambient mode is 2.
SCENARIOS(Expiry, OfAnOnTimer_WakesASleepingSet, kExpiry, R"(
  0  | 2  | 0 |                                      | ; wakeup_reason 2 0; state 0 1         | 1
  0  | 2  | 1 | call request_halt_offtimers 5        | ; wakeup_reason 2 0; state 0 1         | 1
  0  | 2  | 0 | refuse device_power_get_ambient_mode | ; wakeup_reason 2 0; state 0 1         | 1
  0  | 2  | 2 |                                      | ; wakeup_reason 2 0; ambient_mode 0 0  | 1
  0  | 4  | 2 |                                      | ; wakeup_reason 2 0; ambient_mode 0 0  | 1
  2  | 4  | 2 |                                      | ; wakeup_reason 20 0; ambient_mode 0 0 | 1
  2  | 2  | 0 |                                      | ; wakeup_reason 20 0                   | 1
  3  | 2  | 0 |                                      | ; wakeup_reason 5 0                    | 1
  5  | 2  | 0 |                                      | ; wakeup_reason 28 0                   | 1
  6  | 2  | 0 |                                      | ; wakeup_reason 30 0                   | 1
  7  | 2  | 0 |                                      | ; wakeup_reason 33 0                   | 1
  8  | 2  | 0 |                                      | ; wakeup_reason 36 0                   | 1
  11 | 2  | 0 |                                      | ; wakeup_reason 74 0                   | 1
  13 | 2  | 0 |                                      | ; wakeup_reason 92 0                   | 1
  14 | 2  | 0 |                                      | ; wakeup_reason 99 0                   | 1
  15 | 2  | 0 |                                      | ; wakeup_reason 89 0; ambient_mode 1 1 | 1
  15 | 4  | 2 |                                      | ; wakeup_reason 89 0; ambient_mode 1 1 | 1
  0  | -1 | 2 |                                      |                                        | -
  0  | 0  | 2 |                                      |                                        | -
  2  | 1  | 2 |                                      |                                        | -
  15 | 3  | 2 |                                      |                                        | -
  0  | 4  | 1 |                                      |                                        | -
  0  | 4  | 2 | refuse device_power_get_ambient_mode |                                        | -
  0  | 5  | 2 |                                      |                                        | -
  0  | 2  | 0 | call request_halt_ontimers -1        |                                        | -
  2  | 2  | 0 | call request_halt_ontimers -1        |                                        | -
)")

// One of type 1 leaves the set alone while its ambient mode shows, or cannot be read.
SCENARIOS(Expiry, OfAnOffTimer_PowersTheSetOff_AndOfOtherTypesDoesNothing, kExpiry, R"(
  1   | 0 | 0 | call request_halt_ontimers 5         | ; poweroff 1 0          | -
  1   | 4 | 1 |                                      |                         | -
  1   | 4 | 2 |                                      |                         | -
  1   | 0 | 0 | refuse device_power_get_ambient_mode |                         | -
  10  | 0 | 0 |                                      | ; poweroff 2 0          | -
  10  | 4 | 2 | call request_halt_ontimers 1         | ; poweroff 2 0          | -
  10  | 0 | 0 | refuse device_power_get_ambient_mode | ; poweroff 2 0          | -
  16  | 0 | 0 |                                      | ; poweroff 1073741850 0 | -
  16  | 4 | 2 |                                      | ; poweroff 1073741850 0 | -
  1   | 0 | 0 | call request_halt_offtimers 5        |                         | -
  10  | 0 | 0 | call request_halt_offtimers 5        |                         | -
  4   | 2 | 0 |                                      |                         | -
  9   | 2 | 0 |                                      |                         | -
  12  | 2 | 0 |                                      |                         | -
  254 | 2 | 0 |                                      |                         | -
  -1  | 2 | 0 |                                      |                         | -
)")

// A one-shot timer is removed, a transient one stays listed, a repeating one is armed for its next
// day. The row of a repeating one that woke the set is marked.
SCENARIOS(Expiry, IsFollowedByTheNextDays,
          "arm $1 '16 07:00' $2; pass; power 2; fire_at '16 07:00' => listed '$3' armed '$4'"
          " marked '$5' asked '$6'",
          R"(
  0  |       |   |          |   | wakeup_reason 2 0; state 0 1; clear_wakeup_time 0 0
  2  | daily | 1 | 17 07:00 | 1 | ~reason 20 0; clear_wakeup_time 0 0; set_wakeup_time 2 17 07:00
  1  | wed   | 1 | 23 07:00 |   | poweroff 1 0
  9  | daily | 1 | 17 07:00 |   | clear_wakeup_time 0 0; set_wakeup_time 9 17 07:00
  10 |       | @ | -        |   | poweroff 2 0
)")

// Without the TV clock an occurrence is judged by the real-time clock, or not at all.
SCENARIOS(Expiry, InADisabledPeriod_OnlyRepeatingTimersThatOptIn_AreSkipped,
          "add $2 '15 12:00' $3; period '10 00:00' '20 00:00'; clocks '$1' '15 12:00' '15 12:00';"
          "expire => events '$4' row $5",
          R"(
  15 12:00    | 1 | daily holidays        |                       | 15
  15 12:00    | 1 | daily                | ~127; dravel_expired 1; dravel_type_expired 1; poweroff |
    15
  # moved past the period
  15 12:00    | 1 | holidays              | ~dravel_type_expired 1; poweroff 1 0 | 21
  15 12:00    | 9 | holidays              | ~dravel_type_expired 9 | 15
  21 12:00    | 1 | daily holidays        | ~dravel_type_expired 1; poweroff 1 0 | 15
  09 23:59:59 | 1 | daily holidays        | ~dravel_type_expired 1; poweroff 1 0 | 15
              | 1 | daily holidays system |                       | 15
              | 1 | daily holidays rtc    | ~dravel_type_expired 1; poweroff 1 0 | 15
)")

SCENARIOS(Expiry, AtNoKnownTime_IsThatOf1970, R"(
  # the real-time clock shows no date
  add 4 '15 12:00' system; refuse Unsigned_timegm; tv ''; forget; expire =>
    log '~dravel_expire_cb > cur time:[0]'
)")
