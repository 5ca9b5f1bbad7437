#include "fixture.h"

#include <functional>

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

// The timers of a row are listed in a pass before. A move counts once in a pass.
TEST_F(State, WhatHappensToTimersInAPass_IsToldInOrder_WithTheReasonsOfThoseThatGo) {
  const new_timer today{1, "15 14:00", 0, 1};
  const new_timer tomorrow{1, "16 07:00"};
  const new_timer in_days{1, "18 14:00", 0, 1};
  const new_timer with_seconds{0, "16 07:00:01"};
  const new_timer system_time{1, "15 11:00", 0, 0, TIME_TYPE_INTERNET};
  const new_timer on_workdays{1, "15 11:00", kDaily, 1};
  const new_timer in_a_year{0, "2027-12-15 12:01"};
  const new_timer wakes{0, "16 07:00"};
  const struct {
    std::vector<new_timer> listed;
    std::function<void()> happen;
    std::string expected;
  } cases[] = {
      {{tomorrow}, [] { fire_at("16 07:00"); }, "Removed 1 fired, Armed, Stored"},
      {{tomorrow},
       [] { cancel_dravel_item(find_dravel_item(1)); },
       "Removed 1 cancelled, Armed, Stored"},
      {{}, [=] { fill_list(), add(tomorrow); }, "Removed 1 evicted, Added 81"},
      {{tomorrow}, [] { adjust("16 07:00"); }, "Removed 1 past, Armed, Stored"},
      {{with_seconds},
       [] { reschedule("16 07:00", kNoon); },
       "Removed 1 past, Clock, Armed, Wakeup, Stored"},
      {{system_time}, [] { reschedule("15 10:00", "15 12:00"); }, "Removed 1 past, Clock, Stored"},
      {{in_a_year}, [] { reschedule(kNoon, kNoon); }, "Removed 1 never, Clock, Stored"},
      {{in_a_year, {1, "20 07:00"}},
       [] { cancel_dravel_item(find_dravel_item(2)); },
       "Removed 2 cancelled, Removed 1 never, Armed, Stored"},
      {{on_workdays},
       [] { add_period("2026-01-01 00:00", "31 00:00"), adjust(kNoon); },
       "Removed 1 never, Armed, Stored"},
      {{tomorrow},
       [] { close_dravel_db(), cancel_dravel_item(find_dravel_item(1)); },
       "Removed 1 lost, Armed, Stored"},
      {{today, tomorrow},
       [=] { cancel_dravel_item(find_dravel_item(2)), add(tomorrow); },
       "Removed 2 cancelled, Added 3, Armed"},
      {{in_days}, [] { adjust(kNoon); }, "Changed 1, Armed"},
      {{today}, [] { adjust(kNoon); }, ""},
      {{today}, [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); }, "Changed 1, Armed"},
      {{in_days}, [] { add_period("15 00:00", "17 00:00"), adjust(kNoon); }, "Changed 1"},
      {{}, [=] { add_period("18 00:00", "20 00:00"), add(in_days); }, "Added 1, Stored"},
      {{tomorrow, tomorrow},
       [] { fire_at("16 07:00"); },
       "Removed 1 fired, Removed 2 past, Armed, Stored"},
      {{}, [] { standin_power_off(0); }, "ClockConfirmed"},
      {{}, standin_announce_time_set, "Clock"},
      {{}, [] { set_now("16 07:00"), run_idle_steps(); }, ""},
      {{}, [] { call("request_halt_ontimers", 1); }, "HaltOn"},
      {{}, [] { call("request_halt_offtimers", 1); }, "HaltOff"},
      {{today}, [] { call("request_set_disable_period_effect", 1, 1); }, ""},
      {{today}, [] { call("request_set_disable_period_effect", 1, 0); }, "Changed 1"},
      {{}, [] { call("request_set_disable_period_effect", 1, 0); }, ""},
      {{}, [] { rows("INSERT INTO dravel(type) VALUES(2)"), load_dravel_list(); }, "Stored"},
      {{wakes}, [] { cancel_ecore_timer(1); }, "Armed"},
      {{wakes}, disable_micom_ontimer, "Wakeup"},
      {{wakes}, [] { standin().clock_mode = 0, update_micom_ontimer(); }, "Wakeup"},
  };
  for (const auto &[listed, happen, expected] : cases) {
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

// Every 20 ms. What changes nothing begins no burst.
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
  EXPECT_EQ(state_changes(), "HaltOn");
}
