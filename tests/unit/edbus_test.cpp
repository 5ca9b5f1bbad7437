#include "dravel-edbus.h"
#include "scenario.h"

class Bus : public CleanSet {};

TEST_F(Bus, AStepThatFails_IsLogged_AndWhatIsNotOnTheBusSendsNothing) {
  const std::string no_state = "init_state_object > the state object could not be added\n";
  struct {
    std::string refused;
    int result;
    std::string line;
  } cases[] = {{"e_dbus_init", -1, ""},          {"e_dbus_bus_get", -1, ""},
               {"e_dbus_request_name", -1, ""},  {"e_dbus_object_add", -1, ""},
               {"e_dbus_interface_new", -1, ""}, {kStateObjectPath, 0, no_state},
               {kStateInterface, 0, no_state}};
  for (const auto &[refused, result, line] : cases) {
    shutdown_edbus_handler();
    EXPECT_EQ(send_expire_signal(1), 0);
    standin().refused = {refused};
    logged();
    EXPECT_EQ(init_edbus_handler(), result);
    EXPECT_EQ(logged(), result == 0 ? line : "init_edbus_handler > " + refused + "() failed\n");
    set_kinto_time_updated(get_kinto_time_updated() == 0 ? 1 : 0);
    EXPECT_EQ(state_changes(), "");
  }
  shutdown_edbus_handler();
  standin().refused.clear();
  EXPECT_EQ(init_edbus_handler(), 0);
  EXPECT_EQ(events(), "");
}

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
