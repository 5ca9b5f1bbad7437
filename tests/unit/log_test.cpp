#include "fixture.h"

#include <functional>

class Log : public CleanSet {};

static void cycle_power() {
  standin_standby(0);
  standin_wakeup(1);
  standin_state_changed(4, 2);
  standin_ambient_power_off();
  standin_power_off(13);
}

static void fire_ontimer() {
  arm({0, "16 07:00"});
  set_now("16 07:00");
  standin().power_state = 2;
  logged();
  fire(ecore_timer_cb);
}

static void refuse_all() {
  standin().refused = {"device_power_set_wakeup_reason",
                       "device_power_set_state",
                       "set_wakeup_time",
                       "clear_wakeup_time",
                       "GetCurrentTime",
                       "read_rtc"};
  close_dravel_db();
  standin().power_state = 2;
  dravel_item *item = make({0, kNoon});
  dravel_expire_cb(item, nullptr);
  EXPECT_EQ(add_dravel_item(item), nullptr);
  schedule_micom_ontimer(1, &item->tm, 0, 0);
  disable_micom_ontimer();
  g_free(item);
}

// A line that moves to another priority changes its letter.
TEST_F(Log, LinesHaveTheirPriorities) {
  const struct {
    const char *happens;
    std::function<void()> what;
    const char *levels;
  } cases[] = {
      {"start", [] { start_again(kNoon); }, "PPPPPPIDPPII"},
      {"idle step", [] { run_idle_steps(); }, "PPPPP"},
      {"schedule and cancel",
       [] {
         cancel_dravel_item(arm({1, "16 07:00"}));
       },
       "PPPIIDIIIPIIIDDPPIDPDPP"},
      {"an on-timer fires", fire_ontimer, "IPIIIDDIDDPIIPIDPPIIIIPPP"},
      {"power", cycle_power, "PPDDPPIPIIDPPIPPIII"},
      {"the clock is set",
       [] {
         standin_announce_time_set();
         standin_middleware_signal(108);
       },
       "PPIIPI"},
      {"unknown",
       [] {
         call("dravel_get_timer_by_id", 7);
         call("request_wakeup_timer", 0);
       },
       "IPP"},
      {"refused", refuse_all, "PIIIDDIDEEPEEDPEIEI"},
  };
  for (const auto &[happens, what, levels] : cases) {
    restart(happens);
    logged();
    what();
    EXPECT_EQ(logged_levels(), levels) << logged();
  }
}

// The on-timer at the head of the list has no next expiry.
static void remove_programmed() {
  arm({2, "16 08:00", 0, 0, TIME_TYPE_INTERNET});
  set_clocks("", kNoon, kNoon);
  add({0, "16 06:00"});
  cancel_ecore_timer(1);
  remove_dravel_item(find_dravel_item(1));
  replace_removed_ontimer();
}

static void fire_at(const char *now) {
  set_now(now);
  fire(ecore_timer_cb);
}

// Timer 1 is listed, armed and told of before.
TEST_F(Log, WhatHappensToATimer_IsKeptAsAnEvent_AndAnOnTimeOncePerPass) {
  const struct {
    new_timer timer;
    void (*happen)();
    std::string expected;
  } cases[] = {
      {{1, "16 07:00"}, [] { fire_at("16 07:00"); }, "fired 1, removed 1 fired"},
      {{1, "16 07:00", kDaily}, [] { ++offtimer_halt, fire_at("16 07:00"); }, "fired 1, halted 1"},
      {{2, "16 07:00", kDaily},
       [] { ++ontimer_halt, fire_at("16 07:00"); },
       "fired 1, halted 1, programmed 1"},
      {{1, "16 07:00", kDaily, 1},
       [] { add_period("16 00:00", "16 00:00"), fire_at("16 07:00"); },
       "skipped 1"},
      {{0, "16 07:00"},
       [] { cancel_dravel_item(find_dravel_item(1)); },
       "removed 1 cancelled, programmed 0"},
      {{0, "16 07:00"},
       [] {
         arm({2, "16 06:00"}), arm({2, "16 05:00"});
       },
       "programmed 3"},
      {{2, "16 07:00", 0, 0, TIME_TYPE_INTERNET},
       remove_programmed,
       "removed 1 cancelled, programmed 2"},
      {{0, "16 07:00"}, [] { adjust_dravel_all_items(nullptr, nullptr); }, ""},
      {{0, "16 07:00"},
       [] { standin().refused = {"set_wakeup_time"}, update_micom_ontimer(); },
       "refused 1"},
  };
  for (const auto &[timer, happen, expected] : cases) {
    restart(expected);
    arm(timer);
    run_idle_steps();
    logged_events();
    happen();
    run_idle_steps();
    EXPECT_EQ(logged_events(), expected);
  }
}
