#include "machine.h"
#include "state.h"

#include <screen_manager.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace {

// Timers of type 0 turn the set on and have reason 2; those of type 7 have reason 33.
constexpr std::uint32_t kOn = 0;
constexpr std::uint32_t kOther = 7;

constexpr std::uint8_t kIsOn = 0, kIsOff = 1;

class Sleep : public Machine {
protected:
  // Sleeps with a timer programmed for an hour ahead and comes back at that time plus `late`, when
  // the daemon has another one. Returns what was called then.
  static std::string sleep_and_wake(std::uint32_t type, int late) {
    set_now(kNow);
    EXPECT_EQ(set_wakeup(type, kNow + kHour), 0);
    prepare_for("Sleep", true);
    calls();
    set_now(kNow + kHour + static_cast<std::uint32_t>(late));
    clear_wakeup();
    step_clock(); // the kernel is earlier than logind
    prepare_for("Sleep", false);
    return calls();
  }
};

TEST_F(Sleep, EndsByTheAlarmOrTheUser_AndIsCaughtUpWhenItEndsLate) {
  static constexpr struct {
    std::uint32_t type;
    int late; // after the on-time
    int reason;
    int state;
    const char *called;
    const char *timers;
  } kCases[] = {{kOn, -15, 2, 2, "", "135"},
                {kOn, -18, 0, 0, "", ""},
                {kOn, 0, 2, 0, "; RestartUnit dravel-on.target", "1"},
                {kOn, 301, 0, 0, "", ""}, // the order of before is forgotten
                {kOn, 300, 2, 0, "; RestartUnit dravel-on.target", "1"},
                {kOther, 1, 33, 2, "; RestartUnit dravel-wakeup@33.target", "120"}};
  start();
  for (const auto &row : kCases) {
    SCOPED_TRACE(row.late);
    EXPECT_EQ(sleep_and_wake(row.type, row.late),
              std::string("Inhibit sleep:shutdown") + row.called);
    step_clock();
    EXPECT_EQ(events(),
              "standby in time; wakeup " + std::to_string(row.reason) + "; time update; time_set");
    EXPECT_EQ(device_power_get_wakeup_reason(), row.reason);
    EXPECT_EQ(device_power_get_state(), row.state);
    EXPECT_EQ(timers(), row.timers);
  }
}

class Booting : public Machine, public testing::WithParamInterface<int> {};

TEST_P(Booting, IsCreditedByWhatTheLastRunLeft) {
  const bool by_alarm = GetParam() == -60;
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  const auto on_time = static_cast<std::uint32_t>(kNow - up.tv_sec - GetParam());
  std::filesystem::create_directory("/tmp/state");
  std::ofstream("/tmp/state/wake-up") << "[wake-up]\ntype=" << kOther << "\non-time=" << on_time
                                      << "\nalarm=" << on_time - 90 << '\n';
  rtc.alarm = on_time - 90;
  start();
  EXPECT_EQ(rtc.alarm, std::nullopt);
  EXPECT_EQ(kept_wake_up(), wake_up{}) << "it is credited once";
  EXPECT_EQ(reason_at_first, by_alarm ? 33 : 0);
  EXPECT_EQ(device_power_get_state(), by_alarm ? 2 : 0);
  if (!by_alarm)
    return;
  begin_session(); // by itself
  calls();
  fire(120 + std::max(0.0, static_cast<double>(on_time) - kNow));
  EXPECT_EQ(calls(), "PowerOff");
}

// The seconds from the on-time, for an alarm 90 seconds before it, to the boot.
INSTANTIATE_TEST_SUITE_P(, Booting, testing::Values(-60, -100, 305));

TEST_F(Sleep, IsReturnedTo_UnlessAUserOrTheScreenIsActive) {
  static constexpr struct {
    void (*activity)();
    const char *called;
    const char *timers;
  } kCases[] = {
      {[] {}, "", "135"},
      {begin_session, "", ""},
      {[] { set_property(kLogind, "IdleHint", "false"); }, "", ""},
      {[] { set_property(kLogind, "IdleHint", "true"); }, "", "135"},
      {[] {
         television_says({0x90, kIsOn});
       },
       "", ""},
      {[] { screen_manager_set_ambient_mode(1, 1); }, "RestartUnit dravel-ambient.target", "135"},
      {[] { screen_manager_set_ambient_mode(0, 0); }, "StopUnit dravel-ambient.target", "135"},
      {[] { device_power_set_wakeup_reason(20); }, "RestartUnit dravel-wakeup@20.target", "120"},
      {[] { device_power_set_state(0, 1); }, "RestartUnit dravel-on.target", "1"},
      {[] { fire(135), device_power_set_state(0, 1); }, "RestartUnit dravel-on.target", "1"},
      {[] { device_power_set_state(0, 1), television_stays(kIsOff); },
       "RestartUnit dravel-on.target", "120"}};
  start();
  for (const auto &row : kCases) {
    SCOPED_TRACE(&row - kCases);
    sleep_and_wake(kOther, -15);
    row.activity();
    EXPECT_EQ(calls(), row.called);
    EXPECT_EQ(timers(), row.timers);
  }
}

TEST_F(Sleep, IsReturnedTo_OnceNobodyBlocksIt) {
  start("return-to-sleep=60");
  sleep_and_wake(kOther, 0);
  set_property(kLogind, "BlockInhibited", "'handle-power-key:sleep'");
  fire(60);
  EXPECT_EQ(calls(), "");
  set_property(kLogind, "BlockInhibited", "'shutdown'");
  set_property(kLogind, "IdleSinceHint", "uint64 " + std::to_string(kNow + kHour + 5) + "000000");
  set_now(kNow + kHour + 60);
  fire(60);
  EXPECT_EQ(calls(), "") << "a user was active";
  fire(60);
  EXPECT_EQ(calls(), "Suspend");
}

TEST_F(Machine, ARestart_KeepsTheStateAndTheCredit) {
  std::filesystem::create_directory("/tmp/run");
  std::ofstream("/tmp/run/power")
      << "[power]\nstate=2\nwakeup-reason=33\nwas-booted=1\nreturns=1\n";
  start();
  EXPECT_EQ(reason_at_first, 33);
  EXPECT_EQ(device_power_get_state(), 2);
  fire(120);
  EXPECT_EQ(calls(), "PowerOff");
  device_power_set_state(0, 1);
  EXPECT_EQ(kept_power(), (power_record{0, 33, true, false}));
}

TEST_F(Sleep, ThatIsBlocked_IsTriedAgain_WhateverHappensMeanwhile) {
  start("off-action=poweroff\nreturn-to-sleep=0");
  set_property(kLogind, "BlockInhibited", "'shutdown'");
  device_power_request_poweroff(1);
  television_says({0x90, kIsOff});
  end_hooks();
  calls();
  begin_session();
  device_power_set_wakeup_reason(33);
  calls();
  EXPECT_EQ(timers(), "30");
  set_property(kLogind, "BlockInhibited", "''");
  fire(30);
  EXPECT_EQ(calls(), "PowerOff");
}

TEST_F(Sleep, IsTheOffAction_AfterTheScreenAndTheHooks) {
  static constexpr struct {
    const char *configuration;
    const char *called;
  } kCases[] = {{"", "Suspend"},
                {"off-action=poweroff", "PowerOff"},
                {"off-action=hibernate", "Hibernate"},
                {"off-action=none", ""}};
  start();
  for (const auto &row : kCases) {
    device_power_set_state(0, 1);
    reload(row.configuration);
    cec.sent.clear();
    EXPECT_EQ(device_power_request_poweroff(1), 0);
    EXPECT_EQ(device_power_get_state(), 2);
    EXPECT_EQ(cec.sent, "0:36");
    EXPECT_EQ(calls(), "RestartUnit dravel-off.target");
    television_says({0x90, kIsOff});
    EXPECT_EQ(calls(), "");
    end_hooks();
    EXPECT_EQ(calls(), row.called);
  }
}

TEST_F(Sleep, FollowsAnOffOrder_ThatTheTelevisionDenies_OrAHookDelays) {
  start();
  EXPECT_EQ(stderr_of([] {
              device_power_request_poweroff(1);
              television_stays(kIsOn);
              fire(90);
              EXPECT_EQ(calls(), "RestartUnit dravel-off.target; Suspend");
            }),
            "DRAVEL_LINUX: the television is not off after 15 seconds\n"
            "DRAVEL_LINUX: dravel-off.target has not started within 90 seconds; the machine does "
            "not wait for its hooks\n");
}

TEST_F(Sleep, WithoutABus_IsOneLineACall) {
  start();
  end_bus();
  services->wait();
  EXPECT_EQ(stderr_of([] { device_power_set_state(0, 1); }),
            "DRAVEL_LINUX: org.freedesktop.systemd1: RestartUnit: Transport endpoint is not "
            "connected\n");
  device_power_request_poweroff(1);
  EXPECT_EQ(timers(), "1") << "no hook is waited for";
}

TEST_F(Sleep, ThatIsRefused_IsOneLine) {
  start();
  refuse(kLogind, "Suspend");
  cec.is_there = false;
  EXPECT_EQ(stderr_of([] {
              device_power_request_poweroff(1);
              end_hooks();
              EXPECT_EQ(calls(), "RestartUnit dravel-off.target; Suspend");
            }),
            "DRAVEL_LINUX: org.freedesktop.login1: no; the machine is not sent to sleep\n");
}

TEST_F(Machine, ServicesMayAppearLater_AndStartAgain) {
  EXPECT_NE(stderr_of([this] { start("", false); }).find("a sleep may begin before"),
            std::string::npos);
  for (int run = 0; run < 2; ++run) {
    start_services();
    wait_until(inhibitor_is_held);
    EXPECT_EQ(calls(), "Inhibit sleep:shutdown");
    services.reset();
  }
}

TEST_F(Sleep, ThatIsAShutdown_HasTheLeadOfABoot_UntilItIsCalledOff) {
  start();
  ASSERT_EQ(set_wakeup(kOn, kNow + kHour), 0);
  device_power_request_poweroff(1);
  prepare_for("Shutdown", true);
  EXPECT_EQ(rtc.alarm, kNow + kHour - 90);
  EXPECT_EQ(events(), "standby in time");
  EXPECT_EQ(timers(), "3590") << "the order of before is forgotten";
  set_wakeup(kOn, kNow + 100);
  EXPECT_EQ(rtc.alarm, kNow + 60);
  set_wakeup(kOn, kNow + kHour);
  rtc.alarm.reset();
  reload("");
  EXPECT_EQ(rtc.alarm, kNow + kHour - 90);
  prepare_for("Shutdown", false);
  EXPECT_EQ(rtc.alarm, kNow + kHour - 15);
}

} // namespace
