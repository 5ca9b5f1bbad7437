// What a client gets from the running daemon, and what of it outlives the process.
#include "daemon.h"

namespace {

constexpr int daily = 0x7f;

using Service = daemon_test;

std::string properties_changed(const std::string &what) {
  return "PropertiesChanged('org.olvara.tv.system.dravel.state', " + what + ")";
}

TEST_F(Service, Timer_IsStoredListedAndProgrammed_UntilItIsCancelled) {
  start();
  EXPECT_EQ(call("request_timer_list", "(0,)"), "(0, [])");
  EXPECT_EQ(schedule({.type = 2, .at = noon + 2 * hour, .week_flag = daily, .priority = 7}), 1);
  EXPECT_EQ(schedule({.at = noon + hour}), 2);
  EXPECT_EQ(schedule({.at = noon - hour}), -1);
  EXPECT_EQ(schedule({.type = 10}), -10);
  EXPECT_EQ(schedule({.type = 13, .at = noon + 3 * hour}), 4); // which an equal one replaces
  EXPECT_EQ(schedule({.type = 13, .at = noon + 3 * hour}), 5);
  EXPECT_EQ(timer_ids(), (words{-10, 2, 1, 5}));
  EXPECT_EQ(call("cancel_timer", "(5,)"), "(0,)");

  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|7|0|0|0|14|24|10|124|0|328|0|0|127|0|0|0 "
                                          "2|0|0|0|0|0|13|24|10|124|0|328|0|0|0|0|0|0");
  EXPECT_EQ(image("dravel_get_timer_by_id", "(2,)"),
            (words{0, 2, 0, 0, 0, 0, 0, 13, 24, 10, 124, 0, 328, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(timer_ids(), (words{-10, 2, 1}));
  EXPECT_EQ(get("WakeupTime"), u32(noon + hour));

  EXPECT_EQ(call("cancel_timer", "(2,)"), "(0,)");
  EXPECT_EQ(call("cancel_timer", "(2,)"), "(-1,)");
  EXPECT_EQ(get("WakeupTime"), u32(noon + 2 * hour));
  EXPECT_EQ(call("cancel_timer", "(1, 'surplus')"), "(0,)");
  EXPECT_EQ(get("WakeupTime"), u32(0));
  EXPECT_EQ(timer_ids(), words{-10});
  EXPECT_EQ(rows("SELECT * FROM dravel"), "");
  for (const char *method : {"dravel_get_timer_by_id", "request_wakeup_timer"}) {
    words missing = image(method, "(2,)");
    missing.resize(5);
    EXPECT_EQ(missing, words(5, -1)) << method;
  }
}

TEST_F(Service, UnreadableArguments_GetNoAnswer_ButReleaseAHalt) {
  start();
  for (const char *method :
       {"schedule_timer", "cancel_timer", "request_timer_list", "request_wakeup_timer",
        "request_get_timers_halt_effect", "request_set_disable_period",
        "request_remove_disabled_period", "request_disabled_period_list",
        "request_set_disable_period_effect", "request_copy_db", "dravel_get_timer_by_id"}) {
    EXPECT_FALSE(is_answered(method, "('one',)")) << method;
    EXPECT_FALSE(is_answered(method, "()")) << method;
  }
  EXPECT_TRUE(is_answered("cancel_timer", "(1,)"));

  EXPECT_EQ(call("request_halt_ontimers", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_halt_offtimers", "(5,)"), "(0,)");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(1, 5)");
  EXPECT_EQ(call("request_halt_ontimers", "('one',)"), "()");
  EXPECT_EQ(call("request_halt_offtimers", "()"), "()");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(0, 0)");
}

TEST_F(Service, State_ShowsWhatTheDaemonWillDo_AndWhatChangesOnceAPass) {
  start();
  schedule({.at = noon + 26 * hour, .priority = 2});
  schedule({.type = 1, .at = noon + 3 * hour, .week_flag = daily});
  schedule({.type = 10});
  EXPECT_EQ(state("Armed"), "[(-10, uint32 1732453200), (2, 1732460400), (1, 1732543200)]");
  EXPECT_EQ(state("Wakeup"), "(1, uint32 1732543200, 0, false)");
  EXPECT_EQ(state("Stored") + state("Limit"), u32(2) + u32(80));
  schedule({.type = 13, .at = noon + 4 * hour});
  state_signals("'Stored': <uint32 3>");
  schedule({.type = 13, .at = noon + 4 * hour});
  EXPECT_EQ(
      state_signals("Wakeup"),
      (strings{"TimerRemoved(3, 'replaced')", "TimerAdded(4,)",
               properties_changed("{'Wakeup': <(4, uint32 1732464000, 13, false)>}, ['Armed']")}));

  set("TvClock", u32(noon + hour));
  EXPECT_EQ(state("Clock"), u32(noon + hour));
  standin("TimeSet", "()");
  EXPECT_EQ(state_signals("Wakeup"),
            (strings{"TimerChanged(1,)", properties_changed("{'Wakeup': <(1, uint32 1732456800, 0, "
                                                            "false)>}, ['Clock', 'Armed']")}));
  standin("Standby", "(0,)");
  EXPECT_EQ(state_signals("Confirmed"),
            strings{properties_changed("{'ClockConfirmed': <false>}, []")});
  call("request_halt_ontimers", "(0,)"); // as it was
  call("request_halt_offtimers", "(5,)");
  EXPECT_EQ(state_signals("HaltOff"), strings{properties_changed("{'HaltOff': <5>}, []")});
}

TEST_F(Service, StartWithoutABus_EndsWithStatus255) {
  launch("unix:path=/run/bench/nowhere", "");
  wait_log("init_edbus_handler() failed");
  EXPECT_EQ(wait_exit(), 255);
}

} // namespace
