#include "fixture.h"

class Expiry : public CleanSet {};

struct expiry_row {
  int type;
  std::string expected; // after the signals
  int state = 2;
  int ambient = 0;
  int on_halt = 0;
  int off_halt = 0;
  int week_flag = 0;
};

static std::vector<expiry_row> expiry_rows() {
  std::vector<expiry_row> rows = {
      {.type = 0, .expected = "; wakeup_reason 2 0; state 0 1"},
      {.type = 0, .expected = "; wakeup_reason 2 0; state 0 1", .ambient = 1, .off_halt = 5},
      {.type = 0, .expected = "; wakeup_reason 2 0; ambient_mode 0 0", .ambient = 2},
      {.type = 0, .expected = "; wakeup_reason 2 0; ambient_mode 0 0", .state = 4, .ambient = 2},
      {.type = 2, .expected = "; wakeup_reason 20 0; ambient_mode 0 0", .state = 4, .ambient = 2},
      {.type = 2, .expected = "; wakeup_reason 20 0", .week_flag = kDaily},
      {.type = 15, .expected = "; wakeup_reason 89 0; ambient_mode 1 1"},
      {.type = 15, .expected = "; wakeup_reason 89 0; ambient_mode 1 1", .state = 4, .ambient = 2},
      {.type = 1, .expected = "; poweroff 1 0", .state = 0, .on_halt = 5, .week_flag = kWed},
      {.type = 1, .expected = "", .state = 4, .ambient = 1},
      {.type = 1, .expected = "", .state = 4, .ambient = 2},
      {.type = 10, .expected = "; poweroff 2 0", .state = 4, .ambient = 2, .on_halt = 1},
      {.type = 16, .expected = "; poweroff 1073741850 0", .state = 4, .ambient = 2},
      {.type = 4, .expected = ""},
      {.type = 9, .expected = "", .week_flag = kDaily},
      {.type = 12, .expected = ""},
      {.type = 17, .expected = ""},
      {.type = 254, .expected = ""},
      {.type = -1, .expected = ""}};
  const int reasons[][2] = {{3, 5},  {5, 28},  {6, 30},  {7, 33},
                            {8, 36}, {11, 74}, {13, 92}, {14, 99}};
  for (const auto &[type, reason] : reasons)
    rows.push_back({type, "; wakeup_reason " + std::to_string(reason) + " 0"});
  for (const int state : {-1, 0, 1, 3, 4, 5}) // awake, or not for timers
    for (const int type : {0, 2, 15})
      rows.push_back({.type = type, .expected = "", .state = state, .ambient = state == 4 ? 1 : 2});
  for (const int type : {0, 2, 15})
    rows.push_back({.type = type, .expected = "", .on_halt = -1});
  for (const int type : {1, 10, 16})
    rows.push_back({.type = type, .expected = "", .state = 0, .off_halt = 5});
  return rows;
}

// Every expiry is announced, whatever its action does. Afterwards a one-shot timer is removed,
// a transient one stays listed, a repeating one is armed for its next day.
TEST_F(Expiry, IsAnnounced_AndActsByItsType_UnlessHalted) {
  for (const auto &[type, expected, state, ambient, on_halt, off_halt, week_flag] : expiry_rows()) {
    restart(std::to_string(type) + expected + " in state " + std::to_string(state));
    const int id = arm({type, "16 07:00", week_flag})->timer_id;
    const bool programmed = !events().empty();
    set_now("16 07:00");
    standin().power_state = state;
    standin().ambient_mode = ambient;
    ontimer_halt = on_halt;
    offtimer_halt = off_halt;
    // A refused request is not the end of the others.
    standin().refused = {"device_power_set_wakeup_reason", "device_power_set_state"};
    fire(ecore_timer_cb);
    const std::string signals = "dravel_week_flag_expired " + std::to_string(week_flag) +
                                "; dravel_expired " + std::to_string(id) +
                                "; dravel_type_expired " + std::to_string(type);
    const std::string next_day = week_flag == 0            ? ""
                                 : (week_flag & kThu) != 0 ? "17 07:00"
                                                           : "23 07:00";
    std::string after = programmed ? "; clear_wakeup_time 0 0" : "";
    if (programmed && week_flag != 0)
      after.append("; set_wakeup_time ").append(std::to_string(type)).append(" ").append(next_day);
    EXPECT_EQ(events(), std::string(signals).append(expected).append(after));
    const bool woken = expected.starts_with("; wakeup_reason"); // by this timer, which is marked
    EXPECT_EQ(get_wakeup_timer() != nullptr && get_wakeup_timer()->timer_id == id, woken);
    EXPECT_EQ(rows("SELECT * FROM dravel WHERE micom_flag = 1").empty(), !woken || week_flag == 0);
    EXPECT_EQ(find_dravel_item(id) != nullptr, week_flag != 0 || type == TIMER_TYPE_TRANSIENT);
    EXPECT_EQ(armed(id), next_day);
  }
}

// Without the TV clock an occurrence is judged by the real-time clock, or not at all.
TEST_F(Expiry, InADisabledPeriod_OnlyRepeatingTimersThatOptIn_AreSkipped) {
  const std::string announced = "dravel_week_flag_expired 127; dravel_expired 1; "
                                "dravel_type_expired 1; poweroff 1 0";
  const std::string once = "dravel_week_flag_expired 0; dravel_expired 1; dravel_type_expired ";
  const struct {
    const char *tv;
    int type, week_flag, effect, time_type;
    std::string expected;
    const char *day;
  } cases[] = {{kNoon, 1, kDaily, 1, 0, "", "15"},
               {kNoon, 1, kDaily, 0, 0, announced, "15"},
               {kNoon, 1, 0, 1, 0, once + "1; poweroff 1 0", "21"}, // moved past the period
               {kNoon, 9, 0, 1, 0, once + "9", "15"},
               {"21 12:00", 1, kDaily, 1, 0, announced, "15"},
               {"09 23:59:59", 1, kDaily, 1, 0, announced, "15"},
               {"", 1, kDaily, 1, TIME_TYPE_INTERNET, "", "15"},
               {"", 1, kDaily, 1, TIME_TYPE_RTC, announced, "15"}};
  for (const auto &[tv, type, week_flag, effect, time_type, expected, day] : cases) {
    restart(std::to_string(type) + expected + tv);
    dravel_item *item = add({type, kNoon, week_flag, effect, time_type});
    add_period("10 00:00", "20 00:00");
    set_clocks(tv, kNoon, kNoon);
    dravel_expire_cb(item, nullptr);
    EXPECT_EQ(events(), expected);
    EXPECT_EQ(rows("SELECT tm_mday FROM dravel"), day);
  }
  dravel_expire_cb(nullptr, nullptr);
  standin().refused = {"Unsigned_timegm"}; // the real-time clock shows no date
  standin_set_tv_clock(0);
  logged();
  dravel_expire_cb(add({4, kNoon, 0, 0, TIME_TYPE_INTERNET}), nullptr);
  EXPECT_NE(logged().find("dravel_expire_cb > cur time:[0]\n"), std::string::npos);
}
