#include "fixture.h"

class Expiry : public CleanSet {};

TEST_F(Expiry, EachType_ActsOnTheSet) {
  struct row {
    int type, state, ambient;
    std::string expected;
  };
  std::vector<row> cases = {{0, 2, 0, "wakeup_reason 2 0; state 0 1"},
                            {0, 4, 2, "wakeup_reason 2 0; ambient_mode 0 0"},
                            {2, 4, 2, "wakeup_reason 20 0; ambient_mode 0 0"},
                            {15, 2, 0, "wakeup_reason 89 0; ambient_mode 1 1"},
                            {15, 4, 2, "wakeup_reason 89 0; ambient_mode 1 1"},
                            {1, 0, 0, "poweroff 1 0"},
                            {10, 4, 2, "poweroff 2 0"},
                            {16, 4, 2, "poweroff 1073741850 0"}};
  for (const auto &[type, reason] :
       {std::pair{2, 20}, {3, 5}, {5, 28}, {6, 30}, {7, 33}, {8, 36}, {11, 74}, {13, 92}, {14, 99}})
    cases.push_back({type, 2, 0, "wakeup_reason " + std::to_string(reason) + " 0"});
  for (const int type : {4, 9, 12, -1})
    cases.push_back({type, 2, 0, ""});
  for (const auto &[type, ambient] : {std::pair{0, 0}, {0, 1}, {1, 1}, {1, 2}, {2, 1}})
    cases.push_back({type, ambient == 0 ? 0 : 4, ambient, ""});
  for (const auto &[type, state, ambient, expected] : cases) {
    restart(std::to_string(type));
    standin().power_state = state;
    standin().ambient_mode = ambient;
    // A refused request is not the end of the others.
    standin().refused = {"device_power_set_wakeup_reason", "device_power_set_state"};
    dravel_expire_cb(add({type, "16 07:00"}), nullptr);
    EXPECT_EQ(requests(), expected);
    EXPECT_EQ(get_wakeup_timer() != nullptr, expected.starts_with("wakeup_reason"));
  }
}

TEST_F(Expiry, AHalt_KeepsItsTimersFromActing) {
  standin().power_state = 2;
  ontimer_halt = 5;
  offtimer_halt = -1;
  for (const int type : {0, 1})
    dravel_expire_cb(add({type, kNoon}), nullptr);
  EXPECT_EQ(requests(), "");
  EXPECT_EQ(get_wakeup_timer(), nullptr);
}

TEST_F(Expiry, AnOnTimer_IsKeptAsTheOneThatWokeTheSet_AndTheProgrammedOneIsMarked) {
  arm({0, "16 07:00"});
  standin().power_state = 2;
  process_on_timer(add({2, "16 08:00"}));
  EXPECT_EQ(get_wakeup_timer()->timer_id, 2);
  EXPECT_EQ(rows("SELECT micom_flag FROM dravel"), "1 0");
}

// Without the TV clock an occurrence is judged by the real-time clock, or not at all.
TEST_F(Expiry, InADisabledPeriod_OnlyRepeatingTimersThatOptIn_AreSkipped) {
  const struct {
    const char *tv;
    int type, week_flag, effect, time_type;
    const char *expected, *day;
  } cases[] = {{kNoon, 1, Daily, 1, 0, "", "15"},
               {kNoon, 1, Daily, 0, 0, "poweroff 1 0", "15"},
               {kNoon, 1, 0, 1, 0, "poweroff 1 0", "21"}, // moved past the period
               {kNoon, 9, 0, 1, 0, "", "15"},
               {"", 1, Daily, 1, TIME_TYPE_INTERNET, "", "15"},
               {"", 1, Daily, 1, TIME_TYPE_RTC, "poweroff 1 0", "15"}};
  for (const auto &[tv, type, week_flag, effect, time_type, expected, day] : cases) {
    restart(std::to_string(type) + expected);
    dravel_item *item = add({type, kNoon, week_flag, effect, time_type});
    add_period("10 00:00", "20 00:00");
    set_clocks(tv, kNoon, kNoon);
    dravel_expire_cb(item, nullptr);
    EXPECT_EQ(requests(), expected);
    EXPECT_EQ(rows("SELECT tm_mday FROM dravel"), day);
  }
}
