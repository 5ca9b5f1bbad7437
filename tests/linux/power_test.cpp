#include "machine.h"
#include "state.h"

#include <screen_manager.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

// Timers of type 0 turn the set on and have reason 2; those of type 7 have reason 33.
constexpr std::uint32_t kOn = 0;
constexpr std::uint32_t kOther = 7;

class Sleep : public Machine {
protected:
  // Sleeps with a timer programmed for an hour ahead and comes back at that time plus `late`.
  void sleep_and_wake(std::uint32_t type, int late) {
    ASSERT_EQ(set_wakeup(type, kNow + kHour), 0);
    emit("login1", "PrepareForSleep", {true});
    wait_until([] { return !inhibitor_is_held(); });
    set_now(kNow + kHour + static_cast<std::uint32_t>(late));
    emit("login1", "PrepareForSleep", {false});
    wait_until(inhibitor_is_held);
    EXPECT_EQ(calls().substr(0, 22), "Inhibit sleep:shutdown");
  }
};

TEST_F(Sleep, IsDelayedUntilTheDaemonHasProgrammed_AndHeardTwice) {
  start();
  sleep_and_wake(kOn, -15);
  EXPECT_EQ(events(), "standby in time; wakeup 2; time update");
  device_power_set_state(0, 1);
  calls();
  sleep_and_wake(kOn, -1000);
  EXPECT_EQ(events(), "standby in time; wakeup 0; time update");
  clear_wakeup();
  EXPECT_EQ(timers(), "") << "the order of before is forgotten";
}

TEST_F(Sleep, HidesStepsOfTheClock_UntilItIsKnownWhoWokeTheMachine) {
  start();
  emit("login1", "PrepareForSleep", {true});
  wait_until([] { return !inhibitor_is_held(); });
  step_clock();
  EXPECT_EQ(events(), "standby in time");
  emit("login1", "PrepareForSleep", {false});
  wait_until(inhibitor_is_held);
  step_clock();
  EXPECT_EQ(events(), "wakeup 0; time update; time_set");
}

struct waking {
  const char *name;
  std::uint32_t type;
  int late; // after the on-time
  int reason;
  int state;
  const char *called;
  const char *timers;

  friend void PrintTo(const waking &row, std::ostream *out) { *out << row.name; }
};

class Waking : public Sleep, public testing::WithParamInterface<waking> {};

TEST_P(Waking, IsCreditedToTheAlarmOrTheUser_AndCaughtUpWhenItIsLate) {
  const waking &row = GetParam();
  start();
  ASSERT_EQ(set_wakeup(row.type, kNow + kHour), 0);
  emit("login1", "PrepareForSleep", {true});
  wait_until([] { return !inhibitor_is_held(); });
  set_now(kNow + kHour + static_cast<std::uint32_t>(row.late));
  clear_wakeup(); // the daemon has another one by then
  emit("login1", "PrepareForSleep", {false});
  wait_until(inhibitor_is_held);
  EXPECT_EQ(calls(), std::string("Inhibit sleep:shutdown") + row.called);
  EXPECT_EQ(device_power_get_wakeup_reason(), row.reason);
  EXPECT_EQ(device_power_get_state(), row.state);
  EXPECT_EQ(timers(), row.timers);
}

INSTANTIATE_TEST_SUITE_P(
    , Waking,
    testing::Values(waking{"ByTheAlarm", kOn, -15, 2, 2, "", "135"},
                    waking{"ByTheUser", kOn, -18, 0, 0, "", ""},
                    waking{"OnTheSecond", kOn, 0, 2, 0, "; RestartUnit dravel-on.target", "1"},
                    waking{"Late", kOn, 300, 2, 0, "; RestartUnit dravel-on.target", "1"},
                    waking{"LateForAnotherType", kOther, 1, 33, 2,
                           "; RestartUnit dravel-wakeup@33.target", "120"},
                    waking{"TooLate", kOn, 301, 0, 0, "", ""}),
    [](const auto &test) { return std::string(test.param.name); });

class Booting : public Machine, public testing::WithParamInterface<waking> {};

TEST_P(Booting, IsCreditedByWhatTheLastRunLeft) {
  const waking &row = GetParam();
  const std::uint32_t on_time = kNow - uptime() - static_cast<std::uint32_t>(row.late);
  std::filesystem::create_directory("/tmp/state");
  std::ofstream("/tmp/state/wake-up") << "[wake-up]\ntype=" << row.type << "\non-time=" << on_time
                                      << "\nalarm=" << on_time - 90 << '\n';
  rtc.alarm = on_time - 90;
  start();
  EXPECT_EQ(rtc.alarm, std::nullopt);
  EXPECT_EQ(kept_wake_up(), wake_up{}) << "it is credited once";
  EXPECT_EQ(reason_at_first, row.reason);
  EXPECT_EQ(device_power_get_state(), row.state);
  if (row.state == 0)
    return;
  emit("login1", "SessionNew", {"1", object_path{"/1"}}); // by itself
  calls();
  fire(120 + std::max(0.0, static_cast<double>(on_time) - kNow));
  wait_for_call("PowerOff");
}

INSTANTIATE_TEST_SUITE_P(, Booting,
                         testing::Values(waking{"ByTheAlarm", kOther, -60, 33, 2, "", ""},
                                         waking{"ByTheUser", kOther, -100, 0, 0, "", ""},
                                         waking{"Later", kOther, 305, 0, 0, "", ""}),
                         [](const auto &test) { return std::string(test.param.name); });

struct kept_awake {
  const char *name;
  void (*by)();
  const char *timers;

  friend void PrintTo(const kept_awake &row, std::ostream *out) { *out << row.name; }
};

class ReturnToSleep : public Sleep, public testing::WithParamInterface<kept_awake> {};

TEST_P(ReturnToSleep, IsPutOffByUsersAndTheScreen) {
  start();
  sleep_and_wake(kOther, -15);
  clear_wakeup();
  GetParam().by();
  calls();
  EXPECT_EQ(timers(), GetParam().timers);
}

INSTANTIATE_TEST_SUITE_P(
    , ReturnToSleep,
    testing::Values(kept_awake{"Nothing", [] {}, "135"},
                    kept_awake{"Login",
                               [] {
                                 emit("login1", "SessionNew", {"1", object_path{"/1"}});
                               },
                               ""},
                    kept_awake{"Activity", [] { set_property("login1", "IdleHint", false); }, ""},
                    kept_awake{"Idleness", [] { set_property("login1", "IdleHint", true); }, "135"},
                    kept_awake{"Television",
                               [] {
                                 television_says({0x90, 0});
                               },
                               ""},
                    kept_awake{"OnTimer", [] { device_power_set_state(0, 1); }, "1"},
                    kept_awake{"Expiry", [] { device_power_set_wakeup_reason(33); }, "120"}),
    [](const auto &test) { return std::string(test.param.name); });

TEST_F(Sleep, IsReturnedTo_OnceNobodyBlocksIt) {
  start("return-to-sleep=60");
  sleep_and_wake(kOther, 0);
  clear_wakeup();
  set_property("login1", "BlockInhibited", "handle-power-key:sleep");
  fire(60);
  EXPECT_EQ(calls(), "");
  set_property("login1", "BlockInhibited", "shutdown");
  set_property("login1", "IdleSinceHint", std::uint64_t{kNow + kHour + 5} * 1'000'000);
  set_now(kNow + kHour + 60);
  fire(60);
  EXPECT_EQ(calls(), "") << "a user was active";
  fire(60);
  wait_for_call("Suspend");
}

TEST_F(Sleep, IsNotReturnedTo_WhenAnOnTimerExpiresBeforeLogindAnswers) {
  start();
  sleep_and_wake(kOther, 0);
  calls();
  fire(120);
  device_power_set_state(0, 1);
  EXPECT_EQ(calls(), "RestartUnit dravel-on.target");
}

TEST_F(Sleep, IsReturnedTo_WhenTheTelevisionStaysOff) {
  start();
  sleep_and_wake(kOn, 0);
  clear_wakeup();
  device_power_set_state(0, 1);
  for (int second = 1; second <= 15; ++second) {
    television_says({0x90, 1});
    fire(1);
  }
  EXPECT_EQ(timers(), "120");
}

TEST_F(Machine, ARestart_KeepsTheStateAndTheCredit) {
  std::filesystem::create_directory("/tmp/run");
  std::ofstream("/tmp/run/power")
      << "[power]\nstate=2\nwakeup-reason=33\nwas-booted=1\nreturns=1\n";
  start();
  EXPECT_EQ(reason_at_first, 33);
  EXPECT_EQ(device_power_get_state(), 2);
  fire(120);
  wait_for_call("PowerOff");
  device_power_set_state(0, 1);
  EXPECT_EQ(kept_power(), (power_record{0, 33, true, false}));
}

TEST_F(Sleep, ThatIsBlocked_IsTriedAgain_WhateverHappensMeanwhile) {
  start("off-action=poweroff\nreturn-to-sleep=0");
  set_property("login1", "BlockInhibited", "shutdown");
  device_power_request_poweroff(1);
  television_says({0x90, 1});
  emit("systemd1", "JobRemoved", {1U, object_path{"/1"}, "dravel-off.target", "done"});
  calls();
  emit("login1", "SessionNew", {"1", object_path{"/1"}});
  device_power_set_wakeup_reason(33);
  calls();
  EXPECT_EQ(timers(), "30");
  set_property("login1", "BlockInhibited", "");
  fire(30);
  wait_for_call("PowerOff");
}

struct off_case {
  const char *name;
  const char *configuration;
  const char *call;

  friend void PrintTo(const off_case &row, std::ostream *out) { *out << row.name; }
};

class TurningOff : public Machine, public testing::WithParamInterface<off_case> {};

TEST_P(TurningOff, DoesTheOffAction_AfterTheScreenAndTheHooks) {
  start(GetParam().configuration);
  EXPECT_EQ(device_power_request_poweroff(1), 0);
  EXPECT_EQ(device_power_get_state(), 2);
  EXPECT_EQ(cec.sent, "0:8f 0:36"); // asked at the start
  EXPECT_EQ(calls(), "RestartUnit dravel-off.target");
  television_says({0x90, 1});
  EXPECT_EQ(calls(), "");
  emit("systemd1", "JobRemoved", {1U, object_path{"/1"}, "dravel-off.target", "done"});
  if (*GetParam().call == '\0')
    EXPECT_EQ(calls(), "");
  else
    wait_for_call(GetParam().call);
}

INSTANTIATE_TEST_SUITE_P(, TurningOff,
                         testing::Values(off_case{"Default", "", "Suspend"},
                                         off_case{"Poweroff", "off-action=poweroff", "PowerOff"},
                                         off_case{"Hibernate", "off-action=hibernate", "Hibernate"},
                                         off_case{"None", "off-action=none", ""}),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(Sleep, FollowsAnOffOrder_ThatTheTelevisionDenies_OrAHookDelays) {
  start();
  testing::internal::CaptureStderr();
  device_power_request_poweroff(1);
  for (int second = 1; second <= 15; ++second) {
    television_says({0x90, 0});
    fire(1);
  }
  fire(90);
  wait_for_call("Suspend");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "DRAVEL_LINUX: the television is not off after 15 seconds\n"
            "DRAVEL_LINUX: dravel-off.target has not started within 90 seconds; the machine does "
            "not wait for its hooks\n");
}

TEST_F(Sleep, WithoutABus_IsOneLineACall) {
  start();
  end_bus();
  testing::internal::CaptureStderr();
  device_power_set_state(0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "DRAVEL_LINUX: org.freedesktop.systemd1: RestartUnit: Transport endpoint is not "
            "connected\n");
  device_power_request_poweroff(1);
  EXPECT_EQ(timers(), "1") << "no hook is waited for";
}

TEST_F(Sleep, ThatIsRefused_IsOneLine) {
  start();
  refuse("login1", "Suspend");
  cec.is_there = false;
  testing::internal::CaptureStderr();
  device_power_request_poweroff(1);
  emit("systemd1", "JobRemoved", {1U, object_path{"/1"}, "dravel-off.target", "failed"});
  wait_for_call("Suspend");
  calls();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "DRAVEL_LINUX: org.freedesktop.login1: no; the machine is not sent to sleep\n");
}

TEST_F(Machine, ServicesMayAppearLater_AndStartAgain) {
  testing::internal::CaptureStderr();
  start("", "");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("a sleep may begin before"),
            std::string::npos);
  for (int run = 0; run < 2; ++run) {
    services.emplace("login1 timedate1 systemd1");
    wait_for_call("Inhibit sleep:shutdown");
    wait_until(inhibitor_is_held);
    services.reset();
  }
}

TEST_F(Machine, TargetsFollowTheScreen) {
  start();
  device_power_set_state(0, 1);
  device_power_set_wakeup_reason(20);
  screen_manager_set_ambient_mode(1, 1);
  screen_manager_set_ambient_mode(0, 0);
  EXPECT_EQ(calls(), "RestartUnit dravel-on.target; RestartUnit dravel-wakeup@20.target; "
                     "RestartUnit dravel-ambient.target; StopUnit dravel-ambient.target");
}

TEST_F(Machine, AShutdown_HasTheLeadOfABoot_UntilItIsCalledOff) {
  start();
  ASSERT_EQ(set_wakeup(kOn, kNow + kHour), 0);
  device_power_request_poweroff(1);
  emit("login1", "PrepareForShutdown", {true});
  wait_until([] { return !inhibitor_is_held(); });
  EXPECT_EQ(rtc.alarm, kNow + kHour - 90);
  EXPECT_EQ(events(), "standby in time");
  EXPECT_EQ(timers(), "3590") << "the order of before is forgotten";
  set_wakeup(kOn, kNow + 100);
  EXPECT_EQ(rtc.alarm, kNow + 60);
  set_wakeup(kOn, kNow + kHour);
  raise(SIGUSR1);
  wait_until([this] { return !rtc.cleared.empty(); });
  EXPECT_EQ(rtc.alarm, kNow + kHour - 90);
  emit("login1", "PrepareForShutdown", {false});
  wait_until(inhibitor_is_held);
  EXPECT_EQ(rtc.alarm, kNow + kHour - 15);
}

} // namespace
