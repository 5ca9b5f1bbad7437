#include "scenario.h"

class Bus : public CleanSet {};

// Without the bus nothing is sent, and without the state object none of its signals.
SCENARIOS(
    Bus, AStepThatFails_IsLogged,
    "add 300 '16 07:00'; stop_bus; expire; refuse $1; forget; start_bus => is $2 log '~$3 > $4';"
    "trusted 1 => told ''; stop_bus; refuse; start_bus => is 0 events ''",
    R"(
  e_dbus_init                              | -1 | init_edbus_handler | e_dbus_init() failed
  e_dbus_bus_get                           | -1 | init_edbus_handler | e_dbus_bus_get() failed
  e_dbus_request_name                      | -1 | init_edbus_handler | e_dbus_request_name() failed
  e_dbus_object_add                        | -1 | init_edbus_handler | e_dbus_object_add() failed
  e_dbus_interface_new                     | -1 | init_edbus_handler | e_dbus_interface_new() failed
  /org/olvara/tv/system/dravel/state       | 0  | init_state_object  | the state object could not
  org.olvara.tv.system.dravel.state        | 0  | init_state_object  | the state object could not
)")

SCENARIOS(Bus, ATimerOfType13_ReplacesOnlyItsEqual,
          "take $1; pass; take $2 => listed '$3' told '$4'", R"(
  13 '16 07:00' daily | 13 '16 07:00' daily     | 2   | Removed 1 replaced, Added 2, Armed, Wakeup
  13 '16 07:00'       | 13 '16 07:00'           | 2   | Removed 1 replaced, Added 2, Armed, Wakeup
  13 '16 07:00' daily | 13 '17 07:00' daily     | 2 1 | Added 2, Armed, Stored
  13 '16 07:00' daily | 13 '16 07:00' mon       | 1 2 | Added 2, Armed, Stored
  13 '16 07:00' daily | 13 '16 07:00'           | 2 1 | Added 2, Armed, Stored
  13 '16 07:00' wed rtc holidays priority=7 | 13 '16 07:00' wed rtc | 2 |
    Removed 1 replaced, Added 2, Armed, Wakeup
  13 '16 07:00' | 13 '16 07:00:01' | 2 1 | Added 2, Armed, Stored
  13 '16 07:00' | 13 '16 07:00' rtc | 2 1 | Added 2, Armed, Stored
  2 '16 07:00' daily  | 13 '16 07:00' daily     | 2 1 | Added 2, Armed, Stored
  13 '16 07:00' daily | 2 '16 07:00' daily      | 2 1 | Added 2, Armed, Stored
)")

SCENARIOS(Bus, ACall_ReArmsOnlyWhereTimersMayHaveChanged,
          "arm 1 '18 14:00'; call $1 => is $2 armed '$3'", R"(
  request_remove_disabled_period 7       | -1 | 18 14:00
  request_halt_ontimers 1                | 0  | 18 14:00
  request_halt_offtimers 1               | 0  | 18 14:00
  cancel_timer 7                         | -1 | 18 14:00
  request_set_disable_period_effect 7 1  | -1 | 18 14:00
  request_set_disable_period_effect 1 1  | 0  | 15 14:00
)")

SCENARIOS(Bus, ATransientTimer_IsFound_AndHeedsHolidays, R"(
  arm 10 '18 14:00'; call request_set_disable_period_effect @ 1 => is 0;
    call dravel_get_timer_by_id @ => is '0 @ 10 0 0 0 0 14 18 11 126 5 351 0 0 0 0 0 1 0';
    period '18 00:00' '18 00:00' => next '19 14:00'
)")

SCENARIOS(Bus, TheTimerThatWokeTheSet_IsKnownWhenItIsGone, R"(
  power 2; arm 3 '16 07:00' priority=7; fire_at '16 07:00' => listed '';
    call request_wakeup_timer 0 => is '0 1 3 7 0 0 0 7 16 11 126 3 349 0 0 0 0 0 0 0'
)")
