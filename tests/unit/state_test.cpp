#include "fixture.h"

class State : public CleanSet {};

static void adjust(const char *now) {
  set_now(now);
  adjust_dravel_all_items(nullptr, nullptr);
}

static void reschedule(const char *tv, const char *system) {
  set_clocks(tv, system, tv);
  reschedule_all_timers();
}

static void fire_at(const char *now) {
  set_now(now);
  fire(ecore_timer_cb);
}

static void fill_list() {
  for (int i = 0; i < 80; ++i)
    add({0, "16 07:00"});
  state_changes();
}

static const new_timer kToday{1, "15 14:00", 0, 1};
static const new_timer kTomorrow{1, "16 07:00"};
static const new_timer kInDays{1, "18 14:00", 0, 1};
static const new_timer kWithSeconds{0, "16 07:00:01"};
static const new_timer kSystemTime{1, "15 11:00", 0, 0, TIME_TYPE_INTERNET};
static const new_timer kOnWorkdays{1, "15 11:00", kDaily, 1};
static const new_timer kInAYear{0, "2027-12-15 12:01"};
static const new_timer kWakes{0, "16 07:00"};

// The timers of a row are listed in a pass before. A move counts once in a pass.
static const struct {
  std::vector<new_timer> listed;
  void (*happen)();
  std::string expected;
} kPasses[] = {
    {{kTomorrow}, [] { fire_at("16 07:00"); }, "Removed 1 fired, Armed, Stored"},
    {{kTomorrow},
     [] { cancel_dravel_item(find_dravel_item(1)); },
     "Removed 1 cancelled, Armed, Stored"},
    {{}, [] { fill_list(), add(kTomorrow); }, "Removed 1 evicted, Added 81"},
    {{kTomorrow}, [] { adjust("16 07:00"); }, "Removed 1 past, Armed, Stored"},
    {{kWithSeconds},
     [] { reschedule("16 07:00", kNoon); },
     "Removed 1 past, Clock, Armed, Wakeup, Stored"},
    {{kSystemTime}, [] { reschedule("15 10:00", "15 12:00"); }, "Removed 1 past, Clock, Stored"},
    {{kInAYear}, [] { reschedule(kNoon, kNoon); }, "Removed 1 never, Clock, Stored"},
    {{kInAYear, {1, "20 07:00"}},
     [] { cancel_dravel_item(find_dravel_item(2)); },
     "Removed 2 cancelled, Removed 1 never, Armed, Stored"},
    {{kOnWorkdays},
     [] { add_period("2026-01-01 00:00", "31 00:00"), adjust(kNoon); },
     "Removed 1 never, Armed, Stored, DisabledPeriods"},
    {{kTomorrow},
     [] { close_dravel_db(), cancel_dravel_item(find_dravel_item(1)); },
     "Removed 1 lost, Armed, Stored"},
    {{kToday, kTomorrow},
     [] { cancel_dravel_item(find_dravel_item(2)), add(kTomorrow); },
     "Removed 2 cancelled, Added 3, Armed"},
    {{kInDays}, [] { adjust(kNoon); }, "Changed 1, Armed"},
    {{kToday}, [] { adjust(kNoon); }, ""},
    {{kToday},
     [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); },
     "Changed 1, Armed, DisabledPeriods"},
    {{kInDays},
     [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); },
     "Changed 1, DisabledPeriods"},
    {{},
     [] { add_period("18 00:00", "20 00:00"), add(kInDays); },
     "Added 1, Stored, DisabledPeriods"},
    {{},
     [] {
       disabled_period_item *period = add_period("18 00:00", "20 00:00");
       state_changes();
       remove_disabled_period_item(period);
     },
     "DisabledPeriods"},
    {{kTomorrow, kTomorrow},
     [] { fire_at("16 07:00"); },
     "Removed 1 fired, Removed 2 past, Armed, Stored"},
    {{}, [] { standin_power_off(0); }, "ClockConfirmed"},
    {{}, standin_announce_time_set, "Clock"},
    {{}, [] { set_now("16 07:00"), run_idle_steps(); }, ""},
    {{}, [] { call("request_halt_ontimers", 1); }, "HaltOn"},
    {{}, [] { call("request_halt_offtimers", 1); }, "HaltOff"},
    {{kToday}, [] { call("request_set_disable_period_effect", 1, 1); }, ""},
    {{kToday}, [] { call("request_set_disable_period_effect", 1, 0); }, "Changed 1"},
    {{}, [] { call("request_set_disable_period_effect", 1, 0); }, ""},
    {{}, [] { rows("INSERT INTO dravel(type) VALUES(2)"), load_dravel_list(); }, "Stored"},
    {{kWakes}, [] { cancel_ecore_timer(1); }, "Armed"},
    {{kWakes}, disable_micom_ontimer, "Wakeup"},
    {{kWakes}, [] { standin().clock_mode = 0, update_micom_ontimer(); }, "Wakeup"},
};

TEST_F(State, WhatHappensToTimersInAPass_IsToldInOrder_WithTheReasonsOfThoseThatGo) {
  for (const auto &[listed, happen, expected] : kPasses) {
    restart(expected);
    state_changes();
    for (const new_timer &timer : listed)
      schedule_dravel_item(add(timer), dravel_expire_cb, nullptr);
    state_changes();
    happen();
    EXPECT_EQ(state_changes(), expected);
  }
}

// It has no row that brings it back.
TEST_F(State, ACancelledTransientTimer_IsNeverLost) {
  state_changes();
  dravel_item *item = add({10, "16 07:00"});
  state_changes();
  const std::string id = std::to_string(item->timer_id);
  close_dravel_db();
  cancel_dravel_item(item);
  EXPECT_EQ(state_changes(), "Removed " + id + " cancelled");
}

// Every 20 ms. What changes nothing begins no burst; what changes back within one is told.
TEST_F(State, ABurst_IsGathered) {
  const auto halt = [](int value, double later) {
    call("request_halt_ontimers", value);
    run_idle_steps(later);
  };
  run_idle_steps();
  state_changes();
  halt(1, 1);
  halt(2, 0.005);
  halt(3, 0.005);
  const loop_timer &end = *live_timers().back();
  EXPECT_NEAR(end.seconds, 0.015, 1e-6);
  EXPECT_FALSE(fire(end));
  EXPECT_EQ(state_changes(), "HaltOn, HaltOn");
  halt(3, 1);
  halt(4, 0);
  halt(5, 0.005);
  halt(4, 0.005);
  fire(*live_timers().back());
  EXPECT_EQ(state_changes(), "HaltOn, HaltOn");
}
