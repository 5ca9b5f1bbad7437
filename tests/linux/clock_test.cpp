#include "configuration.h"
#include "machine.h"
#include "state.h"

#include <CTimeUtil.h>
#include <settings.h>
#include <system_info.h>
#include <system_log.h>

#include <filesystem>
#include <fstream>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

class Configuration : public Machine {};
class Journal : public Machine {};

TEST_F(Machine, TheAlarmIsALeadEarlier_AndNeverCloserThanFiveSeconds) {
  static constexpr std::pair<std::uint32_t, int> kCases[] = {
      {3600, 3585}, {21, 6}, {19, 5}, {3, 5}}; // from now: the on-time, the alarm
  start();
  for (const std::int64_t ahead : {0, 3600, -1'000'000}) { // of the device's clock
    rtc.ahead = ahead;
    for (const auto &[on_time, alarm] : kCases) {
      EXPECT_EQ(set_wakeup(0, kNow + on_time), 0);
      EXPECT_EQ(rtc.alarm, kNow + ahead + alarm) << on_time;
      EXPECT_EQ(clear_wakeup(), 0);
      EXPECT_FALSE(rtc.alarm);
    }
  }
  set_wakeup(0, kNow + 100);
  EXPECT_EQ(set_wakeup(0, kNow), 0);
  EXPECT_FALSE(rtc.alarm) << "one that is past";
}

TEST_F(Machine, AnAlarmThatIsForgottenOrHasNoDevice_IsNotCredited) {
  std::filesystem::create_directories("/tmp/state/wake-up.new");
  start();
  rtc.refused = KEEP_ALARM;
  EXPECT_EQ(set_wakeup(0, kNow + 100), -1);
  EXPECT_EQ(kept_wake_up(), wake_up{}) << "it could not be written";
  std::filesystem::remove("/tmp/state/wake-up.new");
  EXPECT_EQ(set_wakeup(0, kNow + 100), -1);
  EXPECT_EQ(kept_wake_up(), (wake_up{0, kNow + 100, 0}));
  rtc.is_there = false;
  EXPECT_EQ(set_wakeup(0, kNow + 200), 0);
  EXPECT_EQ(kept_wake_up(), (wake_up{0, kNow + 200, 0}));
}

TEST_F(Machine, ABusyDevice_IsTriedOnceMore) {
  start();
  rtc.refused = kAllOperations;
  EXPECT_EQ(set_wakeup(0, kNow + 5), 0);
  EXPECT_EQ(kept_wake_up().alarm, 0U);
  rtc.refused = 0;
  fire(1);
  EXPECT_EQ(rtc.alarm, kNow + 5);
  EXPECT_EQ(kept_wake_up().alarm, kNow + 5);
  rtc.refused = kAllOperations;
  EXPECT_EQ(clear_wakeup(), 0);
  EXPECT_EQ(seen_after(1), "/dev/rtc0: the alarm is not switched off: Device or resource busy; "
                           "the machine is not woken by it");
}

TEST_F(Machine, TheTvClock_IsLocalTime_AndAutomaticFromTheFirstSynchronisationOn) {
  static constexpr struct {
    const char *property;
    const char *value;
    const char *seen;
    int mode;
    std::uint32_t ahead; // of UTC
  } kCases[] = {{"Timezone", "'Europe/Berlin'", "time_zone", 1, kHour},
                {"NTP", "true", "", 1, kHour},
                {"NTPSynchronized", "true", "time update; clock_mode", 0, kHour},
                {"Timezone", "'Asia/Tokyo'", "time_zone", 0, 9 * kHour},
                {"NTPSynchronized", "false", "", 0, 9 * kHour},
                {"NTP", "false", "time update; clock_mode", 1, 9 * kHour}};
  start();
  for (const auto &row : kCases) {
    int mode = 7;
    set_property(kTimedated, row.property, row.value);
    EXPECT_EQ(seen(), row.seen);
    EXPECT_EQ(settings_get_int(kSettingsClockMode, &mode), 0);
    EXPECT_EQ(mode, row.mode);
    EXPECT_EQ(CTimeUtil::GetClockMode(), row.mode);
    EXPECT_EQ(CTimeUtil::GetCurrentTime(), kNow + row.ahead);
    // The daemon gives UTC in the automatic mode only.
    EXPECT_EQ(set_wakeup(0, kNow + kHour + (row.mode == 0 ? 0 : row.ahead)), 0);
    EXPECT_EQ(rtc.alarm, kNow + kHour - 15);
    clear_wakeup();
  }
}

TEST_F(Machine, AClockBeforeTheDayOfTheBuild_IsConfirmedOnceItIsSynchronised) {
  set_now(1'700'000'000);
  start();
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0U);
  EXPECT_EQ(seen_after(10), "10");
  set_property(kTimedated, "NTP", "true");
  set_now(kNow);
  EXPECT_EQ(seen_after(10), "10") << "the network has not given it";
  set_property(kTimedated, "NTPSynchronized", "true");
  EXPECT_EQ(seen(), "time update; clock_mode");
}

TEST_F(Configuration, BadValuesAreReported_AndHaveTheirDefaults) {
  static constexpr const char *kCases[][2] = {
      {"[linux]\nrtc=/dev/rtc1\nlead-suspend=20", ""},
      {"[linux]\nlead-suspend=soon", "lead-suspend cannot be \"soon\""},
      {"[linux]\nlead-poweroff=-1", "lead-poweroff cannot be"},
      {"[linux]\nreturn-to-sleep=120 # seconds", "return-to-sleep cannot be"},
      {"[linux]\ncec=cec0", "cec cannot be"},
      {"[linux]\ncec-standby=none", "cec-standby cannot be"},
      {"[linux]\noff-action=Suspend", "off-action cannot be"},
      {"[linux]\nkeep-timers=yes", "keep-timers cannot be"},
      {"[linux]\ncolour=red", "there is no key \"colour\""},
      {"linux", "the defaults are used"},
      {"[Linux]\nrtc=/dev/rtc1", "there is no group [linux]"}};
  for (const auto &[text, reported] : kCases) {
    std::ofstream(kConfigurationPath) << text << '\n';
    read_configuration();
    const bool is_good = *reported == '\0';
    const std::string entry = next_entry();
    EXPECT_TRUE(entry.empty() == is_good && entry.find(reported) != entry.npos) << entry;
    const auto &[device, television, all, off, resume, boot, back, keep] = configuration();
    EXPECT_EQ(std::tuple(device + television, all, off, resume, boot, back, keep),
              std::tuple(is_good ? "/dev/rtc1auto" : "/dev/rtc0auto", false, off_action::kSuspend,
                         is_good ? 20U : 15U, 90U, 120U, true));
  }
}

TEST_F(Configuration, IsReadAgainOnSigusr1) {
  start();
  cec.is_there = false;
  ASSERT_EQ(set_wakeup(0, kNow + kHour), 0);
  reload("");
  EXPECT_TRUE(
      next_entry().starts_with("PRIORITY=6\nSYSLOG_IDENTIFIER=DRAVEL_LINUX\nMESSAGE=no CEC"));
  reload("rtc=/dev/rtc9\ncec=/dev/cec9\nlead-suspend=100\nkeep-timers=false");
  EXPECT_EQ(seen(), "no CEC adapter with a television (cec = /dev/cec9); only the targets turn the "
                    "screen on and off | 3590");
  EXPECT_EQ(rtc.alarm, kNow + kHour - 100);
  EXPECT_EQ(rtc.cleared, "/dev/rtc0");
  bool kept = true;
  EXPECT_EQ(system_info_get_custom_bool(kFeatureSyncDb, &kept), 0);
  EXPECT_FALSE(kept);
}

TEST_F(Machine, HasOneDaemon_ThatHasAccessToTheState) {
  const auto ignore = [](settings_key *, void *) {};
  EXPECT_TRUE(lock_state());
  EXPECT_LT(settings_notify_key_changed(kSettingsTimeZone, ignore, nullptr), 0);
  EXPECT_TRUE(
      next_entry().ends_with("another dravel-manager runs on this machine, this one ends\n"));
  std::filesystem::permissions("/tmp/state", std::filesystem::perms::none);
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
  EXPECT_FALSE(lock_state());
  EXPECT_EQ(seteuid(user), 0);
}

// Prints one line, and returns the level that it has in the journal.
static char level_of(system_log_priority priority, const std::string &tag, const char *text) {
  system_log_print(priority, tag.c_str(), text, 7);
  const std::string entry = next_entry(); // begins with "PRIORITY="
  EXPECT_TRUE(entry.ends_with("\nSYSLOG_IDENTIFIER=" + tag + "\nMESSAGE=" + text + "\n")) << entry;
  return entry.at(9);
}

TEST_F(Journal, ShowsProgressAsNotices_AndFailuresAsErrors) {
  EXPECT_EQ(level_of(SYSTEM_LOG_PROGRESS, "DRAVEL_MANAGER", "failed auto_time_set"), '5');
  EXPECT_EQ(level_of(SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "dravel expired"), '3');
  EXPECT_EQ(level_of(SYSTEM_LOG_INFO, "DRAVEL_MANAGER", "failed"), '6');
  EXPECT_EQ(level_of(SYSTEM_LOG_DEBUG, "DRAVEL_MANAGER", "loaded"), '7');
  testing::internal::CaptureStderr();
  system_log_print(SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "%d timers\n", 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "DRAVEL_MANAGER: 7 timers\n");
}

} // namespace
