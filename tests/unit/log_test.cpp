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
