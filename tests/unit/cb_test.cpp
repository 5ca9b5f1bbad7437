#include "fixture.h"

#include <cstdlib>

class Expiry : public CleanSet {};

TEST_F(Expiry, EachType_ActsOnTheSet) {
  const std::tuple<int, int, int, const char *> cases[] = {
      {0, 2, 0, "wakeup_reason 2 0; state 0 1"},
      {0, 4, 2, "wakeup_reason 2 0; ambient_mode 0 0"},
      {0, 2, 2, "wakeup_reason 2 0; ambient_mode 0 0"},
      {0, 4, 1, ""},
      {0, 0, 0, ""},
      {0, 1, 2, ""},
      {1, 0, 0, "poweroff 1 0"},
      {1, 2, 1, ""},
      {1, 4, 2, ""},
      {2, 2, 0, "wakeup_reason 20 0"},
      {2, 4, 2, "wakeup_reason 20 0; ambient_mode 0 0"},
      {2, 3, 0, ""},
      {3, 2, 0, "wakeup_reason 5 0"},
      {4, 2, 0, ""},
      {5, 2, 0, "wakeup_reason 28 0"},
      {6, 2, 0, "wakeup_reason 30 0"},
      {7, 2, 0, "wakeup_reason 33 0"},
      {8, 2, 0, "wakeup_reason 36 0"},
      {9, 2, 0, ""},
      {10, 4, 2, "poweroff 2 0"},
      {11, 2, 0, "wakeup_reason 74 0"},
      {12, 2, 0, ""},
      {13, 2, 0, "wakeup_reason 92 0"},
      {14, 2, 0, "wakeup_reason 99 0"},
      {15, 2, 0, "wakeup_reason 89 0; ambient_mode 1 1"},
      {15, 4, 2, "wakeup_reason 89 0; ambient_mode 1 1"},
      {16, 4, 2, "poweroff 1073741850 0"},
      {17, 2, 0, ""},
      {-1, 2, 0, ""}};
  for (const auto &[type, state, ambient, expected] : cases) {
    restart(std::to_string(type));
    standin().power_state = state;
    standin().ambient_mode = ambient;
    // A refused request is not the end of the others.
    standin().refused = {"device_power_set_wakeup_reason", "device_power_set_state"};
    dravel_expire_cb(add({type, "16 07:00"}), nullptr);
    const std::string requests = asked();
    EXPECT_EQ(requests, expected);
    EXPECT_EQ(get_wakeup_timer() != nullptr, requests.starts_with("wakeup_reason"));
  }
  dravel_expire_cb(nullptr, nullptr);
}

TEST_F(Expiry, AHalt_KeepsItsTimersFromActing) {
  dravel_item *on = add({0, kNoon}), *off = add({1, kNoon});
  standin().power_state = 2;
  const std::tuple<int, int, const char *> cases[] = {
      {5, 0, "poweroff 1 0"}, {0, -1, "wakeup_reason 2 0; state 0 1"}, {1, 1, ""}};
  for (const auto &[on_halt, off_halt, expected] : cases) {
    ontimer_halt = on_halt;
    offtimer_halt = off_halt;
    dravel_expire_cb(on, nullptr);
    dravel_expire_cb(off, nullptr);
    EXPECT_EQ(asked(), expected);
    EXPECT_EQ(get_wakeup_timer() == nullptr, on_halt == 5);
  }
}

TEST_F(Expiry, AnOnTimer_IsKeptAsTheOneThatWokeTheSet_AndTheProgrammedOneIsMarked) {
  arm({0, "16 07:00"});
  standin().power_state = 2;
  process_on_timer(add({2, "16 08:00"}));
  EXPECT_EQ(get_wakeup_timer()->timer_id, 2);
  EXPECT_EQ(rows("SELECT micom_flag FROM dravel"), "1 0");
  EXPECT_EQ(rows("SELECT timer_id FROM dravel", kWakeupDb), "1");
}

TEST_F(Expiry, InADisabledPeriod_OnlyRepeatingTimersThatOptIn_AreSkipped) {
  using row = std::tuple<const char *, timer_spec, const char *>;
  const row cases[] = {{kNoon, {1, kNoon, Daily, 1}, ""},
                       {kNoon, {1, kNoon, Daily, 0}, "poweroff 1 0"},
                       {kNoon, {1, kNoon, 0, 1}, "poweroff 1 0"},
                       // Without the TV clock it is judged by the real-time clock, or not at all.
                       {"", {1, kNoon, Daily, 1, TIME_TYPE_INTERNET}, ""},
                       {"", {1, kNoon, Daily, 1, TIME_TYPE_RTC}, "poweroff 1 0"}};
  for (const auto &[tv, timer, expected] : cases) {
    restart(expected);
    dravel_item *item = add(timer);
    add_period("10 00:00", "20 00:00");
    set_clocks(tv, kNoon, kNoon);
    dravel_expire_cb(item, nullptr);
    EXPECT_EQ(asked(), expected);
  }
}

TEST_F(Expiry, AOneShotTimerInADisabledPeriod_ActsAndIsMovedPastIt) {
  const int id = arm({1, "16 07:00", 0, 1})->timer_id;
  add_period("10 00:00", "20 00:00");
  set_now("16 07:00");
  fire(id);
  EXPECT_EQ(asked(), "poweroff 1 0");
  EXPECT_EQ(armed(id), "21 07:00");
}
