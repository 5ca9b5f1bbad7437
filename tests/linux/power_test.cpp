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

class Sleep : public Machine {};

// "Sleep" or "Shutdown", as logind announces it; waits for what becomes of the inhibitor.
static void prepare_for(const std::string &what, bool begins) {
  tell(kLogind, "EmitSignal",
       "'PrepareFor" + what + "', 'b', [<" + (begins ? "true" : "false") + ">]");
  wait_until([=] { return inhibitor_is_held() != begins; });
}

static void begin_session() {
  tell(kLogind, "EmitSignal", "'SessionNew', 'so', [<'1'>, <objectpath '/1'>]");
}

static void end_hooks() {
  tell(kSystemd, "EmitSignal",
       "'JobRemoved', 'uoss', [<uint32 1>, <objectpath '/1'>, <'dravel-off.target'>, <'done'>]");
}

// Sleeps with a timer programmed for an hour ahead and comes back at that time plus `late`, when
// the daemon has another one.
static void sleep_and_wake(std::uint32_t type, int late) {
  set_now(kNow);
  EXPECT_EQ(set_wakeup(type, kNow + kHour), 0);
  prepare_for("Sleep", true);
  EXPECT_EQ(seen(), "standby in time | 3590");
  set_now(kNow + kHour + static_cast<std::uint32_t>(late));
  clear_wakeup();
  step_clock(); // the kernel is earlier than logind
  prepare_for("Sleep", false);
}

TEST_F(Sleep, EndsByTheAlarmOrTheUser_AndIsCaughtUpWhenItEndsLate) {
  static constexpr struct {
    std::uint32_t type;
    int late; // after the on-time
    int reason;
    int state;
    const char *seen;
  } kCases[] = {{kOn, -15, 2, 2, " | 135"},
                {kOn, -18, 0, 0, ""},
                {kOn, 0, 2, 0, "; RestartUnit dravel-on.target | 1"},
                {kOn, 301, 0, 0, ""}, // the order of before is forgotten
                {kOn, 300, 2, 0, "; RestartUnit dravel-on.target | 1"},
                {kOther, 1, 33, 2, "; RestartUnit dravel-wakeup@33.target | 120"}};
  start();
  for (const auto &row : kCases) {
    SCOPED_TRACE(row.late);
    sleep_and_wake(row.type, row.late);
    EXPECT_EQ(seen(), "wakeup " + std::to_string(row.reason) +
                          "; time update; Inhibit sleep:shutdown" + row.seen);
    EXPECT_EQ(device_power_get_wakeup_reason(), row.reason);
    EXPECT_EQ(device_power_get_state(), row.state);
  }
  step_clock();
  EXPECT_EQ(seen(), "time_set | 120");
}

class Boot : public Machine {
protected:
  static std::uint32_t boot() {
    timespec up{};
    clock_gettime(CLOCK_BOOTTIME, &up);
    return kNow - static_cast<std::uint32_t>(up.tv_sec);
  }
  static void leave_wake_up(int type, std::uint32_t on_time, std::uint32_t alarm) {
    std::filesystem::create_directory("/tmp/state");
    std::ofstream("/tmp/state/wake-up")
        << "[wake-up]\ntype=" << type << "\non-time=" << on_time << "\nalarm=" << alarm << '\n';
  }
};

class Booting : public Boot, public testing::WithParamInterface<int> {};

TEST_P(Booting, IsCreditedByWhatTheLastRunLeft) {
  const bool by_alarm = GetParam() < 0;
  const std::uint32_t on_time = boot() - static_cast<std::uint32_t>(GetParam());
  leave_wake_up(7, on_time, on_time - 90);
  rtc.alarm = on_time - 90;
  start();
  EXPECT_EQ(rtc.alarm, std::nullopt);
  EXPECT_EQ(kept_wake_up(), wake_up{}) << "it is credited once";
  EXPECT_EQ(reason_at_first, by_alarm ? 33 : 0);
  EXPECT_EQ(device_power_get_state(), by_alarm ? 2 : 0);
  if (!by_alarm)
    return;
  begin_session(); // by itself
  seen();
  EXPECT_EQ(seen_after(120 + std::max(0.0, static_cast<double>(on_time) - kNow)), "PowerOff");
}

// The seconds from the on-time, for an alarm 90 seconds before it, to the boot.
INSTANTIATE_TEST_SUITE_P(, Booting, testing::Values(-60, 305));

TEST_F(Boot, JustBeforeTheOnTime_ActsWhenTheDaemonWasTooLateToArmIt) {
  leave_wake_up(0, kNow + 5, boot());
  start();
  EXPECT_EQ(timers(), "7 125");
  set_now(kNow + 7);
  EXPECT_EQ(seen_after(7), "RestartUnit dravel-on.target | 1");
}

class BootInTime : public Boot, public testing::WithParamInterface<int> {};

TEST_P(BootInTime, IsLeftToTheDaemon) {
  static constexpr void (*kEnds[])() = {[] { device_power_set_wakeup_reason(2); },
                                        [] { television_reports(IS_ON); },
                                        [] { prepare_for("Shutdown", true); }};
  leave_wake_up(0, kNow + 1, boot());
  start();
  EXPECT_EQ(timers(), "3 121");
  kEnds[GetParam()]();
  seen();
  EXPECT_FALSE(timers().starts_with("3")) << timers();
}

INSTANTIATE_TEST_SUITE_P(, BootInTime, testing::Values(0, 1, 2));

TEST_F(Boot, JustBeforeTheTimeOfATimerThatIsOnlyAnnounced_IsNotLookedAtAgain) {
  leave_wake_up(4, kNow + 1, boot());
  start();
  EXPECT_EQ(timers(), "121");
}

TEST_F(Sleep, IsReturnedTo_UnlessAUserOrTheScreenIsActive) {
  static constexpr struct {
    void (*activity)();
    const char *seen;
  } kCases[] = {
      {[] {}, "135"},
      {begin_session, ""},
      {[] { set_property(kLogind, "IdleHint", "false"); }, ""},
      {[] { set_property(kLogind, "IdleHint", "true"); }, "135"},
      {[] { television_reports(TURNS_ON); }, "state 0"},
      {[] { screen_manager_set_ambient_mode(1, 1); }, "RestartUnit dravel-ambient.target | 135"},
      {[] { screen_manager_set_ambient_mode(0, 0); }, "StopUnit dravel-ambient.target | 135"},
      {[] { device_power_set_wakeup_reason(20); }, "RestartUnit dravel-wakeup@20.target | 120"},
      {[] { device_power_set_state(0, 1); }, "RestartUnit dravel-on.target | 1"},
      {[] { fire(135), device_power_set_state(0, 1); }, "RestartUnit dravel-on.target | 1"},
      {[] { device_power_set_state(0, 1), television_stays(IS_OFF); },
       "state 2; the television is not on after 15 seconds; RestartUnit dravel-on.target | 120"}};
  start();
  for (const auto &row : kCases) {
    SCOPED_TRACE(&row - kCases);
    sleep_and_wake(kOther, -15);
    EXPECT_EQ(seen(), "wakeup 33; time update; Inhibit sleep:shutdown | 135");
    row.activity();
    EXPECT_EQ(seen(), row.seen);
  }
}

TEST_F(Sleep, IsReturnedTo_OnceNobodyBlocksIt) {
  start("return-to-sleep=60");
  sleep_and_wake(kOther, 0);
  seen();
  set_property(kLogind, "BlockInhibited", "'handle-power-key:sleep'");
  EXPECT_EQ(seen_after(60), "60");
  set_property(kLogind, "BlockInhibited", "'shutdown'");
  set_property(kLogind, "IdleSinceHint", "uint64 " + std::to_string(kNow + kHour + 5) + "000000");
  set_now(kNow + kHour + 60);
  EXPECT_EQ(seen_after(60), "60") << "a user was active";
  EXPECT_EQ(seen_after(60), "Suspend");
}

TEST_F(Machine, ARestart_KeepsTheStateAndTheCredit) {
  std::filesystem::create_directory("/tmp/run");
  std::ofstream("/tmp/run/power")
      << "[power]\nstate=2\nwakeup-reason=33\nwas-booted=1\nreturns=1\n";
  start();
  EXPECT_EQ(reason_at_first, 33);
  EXPECT_EQ(device_power_get_state(), 2);
  EXPECT_EQ(seen_after(120), "PowerOff");
  device_power_set_state(0, 1);
  EXPECT_EQ(kept_power(), (power_record{0, 33, true, false}));
}

TEST_F(Sleep, ThatIsBlocked_IsTriedAgain_WhateverHappensMeanwhile) {
  start("off-action=poweroff\nreturn-to-sleep=0");
  set_property(kLogind, "BlockInhibited", "'shutdown'");
  device_power_request_poweroff(1);
  television_reports(IS_OFF);
  end_hooks();
  seen();
  begin_session();
  device_power_set_wakeup_reason(33);
  EXPECT_EQ(seen(), "RestartUnit dravel-wakeup@33.target | 30");
  set_property(kLogind, "BlockInhibited", "''");
  EXPECT_EQ(seen_after(30), "PowerOff");
}

static void obey() {
  television_reports(IS_OFF);
  end_hooks();
}

TEST_F(Sleep, IsTheOffAction_AfterTheScreenAndTheHooks) {
  static constexpr struct {
    const char *configuration;
    void (*action)();
    const char *seen;
  } kCases[] = {
      {"", [] { television_reports(IS_OFF); }, "RestartUnit dravel-off.target | 90"},
      {"", end_hooks, "RestartUnit dravel-off.target | 1"},
      {"", obey, "RestartUnit dravel-off.target; Suspend"},
      {"off-action=poweroff", obey, "RestartUnit dravel-off.target; PowerOff"},
      {"off-action=hibernate", obey, "RestartUnit dravel-off.target; Hibernate"},
      {"off-action=none", obey, "RestartUnit dravel-off.target"},
      {"", [] { television_stays(IS_ON), fire(90); },
       "the television is not off after 15 seconds; dravel-off.target has not started within 90 "
       "seconds; the machine does not wait for its hooks; RestartUnit dravel-off.target; Suspend"}};
  start();
  for (const auto &row : kCases) {
    device_power_set_state(0, 1);
    reload(row.configuration);
    seen();
    cec.sent.clear();
    EXPECT_EQ(device_power_request_poweroff(1), 0);
    EXPECT_EQ(device_power_get_state(), 2);
    EXPECT_EQ(cec.sent, "0:36");
    row.action();
    EXPECT_EQ(seen(), row.seen);
  }
}

TEST_F(Sleep, ThatIsRefusedOrNotSent_IsOneLine) {
  start();
  tell(kLogind, "AddMethod", "'Suspend', 'b', '', \"raise dbus.exceptions.DBusException('no')\"");
  cec.is_there = false;
  device_power_request_poweroff(1);
  end_hooks();
  EXPECT_EQ(seen(), "org.freedesktop.login1: no; the machine is not sent to sleep; "
                    "RestartUnit dravel-off.target; Suspend");
  end_bus();
  services->wait();
  device_power_set_state(0, 1);
  EXPECT_EQ(seen(), "org.freedesktop.systemd1: RestartUnit: Transport endpoint is not connected");
  device_power_request_poweroff(1);
  EXPECT_EQ(timers(), "") << "no hook is waited for";
}

TEST_F(Machine, ServicesMayAppearLater_AndStartAgain) {
  EXPECT_NE(start("", false).find("a sleep may begin before"), std::string::npos);
  for (int run = 0; run < 2; ++run) {
    start_services();
    wait_until(inhibitor_is_held);
    EXPECT_TRUE(seen().ends_with("Inhibit sleep:shutdown"));
    services.reset();
  }
}

TEST_F(Sleep, ThatIsAShutdown_HasTheLeadOfABoot_UntilItIsCalledOff) {
  start();
  ASSERT_EQ(set_wakeup(kOn, kNow + kHour), 0);
  device_power_request_poweroff(1);
  prepare_for("Shutdown", true);
  EXPECT_EQ(rtc.alarm, kNow + kHour - 90);
  EXPECT_EQ(seen(), "standby in time; RestartUnit dravel-off.target | 3590")
      << "the order of before is forgotten";
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
