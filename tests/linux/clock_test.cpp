#include "configuration.h"
#include "machine.h"
#include "state.h"

#include <CTimeUtil.h>
#include <settings.h>
#include <system_info.h>
#include <system_log.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

namespace {

TEST_F(Machine, TheAlarmIsALeadEarlier_AndNeverCloserThanFiveSeconds) {
  start();
  static constexpr struct {
    std::int64_t on_time, alarm; // from now
  } kCases[] = {{3600, 3585}, {21, 6}, {19, 5}, {3, 5}};
  for (const std::int64_t ahead : {0, 3600, -1'000'000}) { // of the device's clock
    rtc.ahead = ahead;
    for (const auto &row : kCases) {
      EXPECT_EQ(set_wakeup(0, static_cast<std::uint32_t>(kNow + row.on_time)), 0);
      EXPECT_EQ(rtc.alarm.value_or(0) - kNow - ahead, row.alarm) << row.on_time;
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
  rtc.refused = ALL_OPERATIONS;
  EXPECT_EQ(set_wakeup(0, kNow + 5), 0);
  EXPECT_EQ(kept_wake_up().alarm, 0U);
  rtc.refused = 0;
  fire(1);
  EXPECT_EQ(rtc.alarm, kNow + 5);
  EXPECT_EQ(kept_wake_up().alarm, kNow + 5);
  rtc.refused = ALL_OPERATIONS;
  EXPECT_EQ(clear_wakeup(), 0);
  EXPECT_EQ(stderr_of([] { fire(1); }),
            "DRAVEL_LINUX: /dev/rtc0: the alarm is not switched off: Device or resource busy; the "
            "machine is not woken by it\n");
  EXPECT_EQ(timers(), "");
}

TEST_F(Machine, TheTvClock_IsLocalTime_AndAutomaticFromTheFirstSynchronisationOn) {
  static constexpr struct {
    const char *property;
    const char *value;
    const char *events;
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
    set_property(kTimedated, row.property, row.value);
    EXPECT_EQ(events(), row.events);
    int mode = 7;
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
  EXPECT_EQ(timers(), "10");
  fire(10);
  EXPECT_EQ(events(), "");
  set_property(kTimedated, "NTP", "true");
  set_now(kNow);
  fire(10);
  EXPECT_EQ(events(), "") << "the network has not given it";
  set_property(kTimedated, "NTPSynchronized", "true");
  EXPECT_EQ(events(), "time update; clock_mode");
  EXPECT_EQ(timers(), "");
}

TEST(Configuration, BadValuesAreReported_AndHaveTheirDefaults) {
  static constexpr struct {
    const char *text;
    const char *said;
  } kCases[] = {
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
      {"[Linux]\nrtc=/dev/rtc1", "there is no group [linux]"},
  };
  set_environment();
  for (const auto &row : kCases) {
    std::ofstream(kConfigurationPath) << row.text << '\n';
    const std::string said = stderr_of(read_configuration);
    EXPECT_EQ(said.empty(), *row.said == '\0') << said;
    EXPECT_NE(said.find(row.said), std::string::npos) << said;
    const auto &[rtc, cec, all, off, resume, boot, back, keep] = configuration();
    EXPECT_EQ(rtc + cec, *row.said == '\0' ? "/dev/rtc1auto" : "/dev/rtc0auto") << row.text;
    EXPECT_EQ(
        std::tuple(all, off, resume, boot, back, keep),
        std::tuple(false, off_action::kSuspend, *row.said == '\0' ? 20U : 15U, 90U, 120U, true))
        << row.text;
  }
}

TEST_F(Machine, TheKeyFileIsReadAgainOnSigusr1) {
  start();
  ASSERT_EQ(set_wakeup(0, kNow + kHour), 0);
  reload("rtc=/dev/rtc9\nlead-suspend=100\nkeep-timers=false");
  EXPECT_EQ(rtc.alarm, kNow + kHour - 100);
  EXPECT_EQ(rtc.cleared, "/dev/rtc0");
  bool kept = true;
  EXPECT_EQ(system_info_get_custom_bool(kFeatureSyncDb, &kept), 0);
  EXPECT_FALSE(kept);
}

static int subscribe() {
  return settings_notify_key_changed(
      kSettingsTimeZone, [](settings_key *, void *) {}, nullptr);
}

TEST(SecondDaemon, IsRefusedItsFirstSubscription) {
  set_environment();
  std::filesystem::create_directory("/tmp/state");
  const int first = open("/tmp/state/lock", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
  ASSERT_EQ(flock(first, LOCK_EX), 0);
  EXPECT_EQ(stderr_of([] { EXPECT_LT(subscribe(), 0); }),
            "DRAVEL_LINUX: another dravel-manager runs on this machine, this one ends\n");
  close(first);
}

TEST(DaemonWithoutAccessToTheState, IsRefusedItsFirstSubscription) {
  set_environment();
  std::filesystem::create_directory("/tmp/state");
  std::filesystem::permissions("/tmp/state", std::filesystem::perms::none);
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
  EXPECT_LT(subscribe(), 0);
  EXPECT_EQ(seteuid(user), 0);
}

// A socket that receives what is written to the journal.
static int open_journal() {
  std::filesystem::create_directories("/run/systemd/journal");
  const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(journal, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  return journal;
}

// The next entry with this part, "" when there is none.
static std::string next_entry(int journal, const char *part) {
  char entry[512] = "";
  while (recv(journal, entry, sizeof entry - 1, MSG_DONTWAIT) > 0) {
    if (std::strstr(entry, part) != nullptr)
      return entry;
    std::ranges::fill(entry, '\0');
  }
  return "";
}

TEST(Journal, ShowsProgressAsNotices_AndFailuresAsErrors) {
  static constexpr struct {
    system_log_priority priority;
    const char *tag;
    const char *text;
    char level;
  } kCases[] = {
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "dravel expired: [%d]", '5'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "get_next_expire_date~~~error code : %d\n", '5'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "failed to get dravel item %d\n", '5'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "failed auto_time_set %d", '5'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "Failed to set micom flag to db %d", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "Error in device_power_set_state : %d\n", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "failed to get rtc time", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "DB open fail: [%d], remove", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "integrity_check[%d] fail, it will recreate", '5'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "integrity_check [%d] SQLITE_CORRUPT", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "db [%d] deleted", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "device_power_subscribe_standby error : %d \n", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "CreateSignalSubscriber error", '3'},
      {SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "out of memory", '3'},
      {SYSTEM_LOG_ERROR, "E_DBUS", "no bus: %d", '3'},
      {SYSTEM_LOG_INFO, "DRAVEL_MANAGER", "failed %d", '6'},
      {SYSTEM_LOG_DEBUG, "DRAVEL_MANAGER", "%d", '7'},
  };
  const int journal = open_journal();
  for (const auto &row : kCases) {
    system_log_print(row.priority, row.tag, row.text, 7);
    const std::string entry = next_entry(journal, "MESSAGE=");
    EXPECT_NE(entry.find(std::string("PRIORITY=") + row.level), entry.npos) << entry;
    EXPECT_NE(entry.find(std::string("SYSLOG_IDENTIFIER=") + row.tag + '\n'), entry.npos);
  }
}

TEST_F(Machine, WithoutAnAdapter_IsNoError_UnlessOneIsNamed) {
  const int journal = open_journal();
  cec.is_there = false;
  start("", false);
  EXPECT_NE(next_entry(journal, "no CEC adapter").find("PRIORITY=6"), std::string::npos);
  reload("cec=/dev/cec7");
  EXPECT_NE(next_entry(journal, "no CEC adapter").find("PRIORITY=3"), std::string::npos);
}

} // namespace
