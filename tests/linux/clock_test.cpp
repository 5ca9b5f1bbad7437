#include "configuration.h"
#include "machine.h"
#include "state.h"

#include <CTimeUtil.h>
#include <settings.h>
#include <system_info.h>
#include <system_log.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string_view>
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
  start();
  rtc.forgets = true;
  EXPECT_EQ(set_wakeup(0, kNow + 100), -1);
  EXPECT_EQ(kept_wake_up(), (wake_up{0, kNow + 100, 0}));
  rtc.is_there = false;
  EXPECT_EQ(set_wakeup(0, kNow + 200), 0);
  EXPECT_EQ(kept_wake_up(), (wake_up{0, kNow + 200, 0}));
}

TEST_F(Machine, ABusyDevice_IsTriedOnceMore) {
  start();
  rtc.is_busy = true;
  EXPECT_EQ(set_wakeup(0, kNow + 5), 0);
  EXPECT_EQ(kept_wake_up().alarm, 0U);
  rtc.is_busy = false;
  fire(1);
  EXPECT_EQ(rtc.alarm, kNow + 5);
  EXPECT_EQ(kept_wake_up().alarm, kNow + 5);
  rtc.is_busy = true;
  testing::internal::CaptureStderr();
  EXPECT_EQ(clear_wakeup(), 0);
  fire(1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "DRAVEL_LINUX: /dev/rtc0: the alarm is not switched off: Device or resource busy; the "
            "machine is not woken by it\n");
  EXPECT_EQ(timers(), "");
}

TEST_F(Machine, AWakeUpThatCouldNotBeKept_IsKeptTheNextTime) {
  std::filesystem::create_directories("/tmp/state/wake-up.new");
  start();
  set_wakeup(0, kNow + kHour);
  std::filesystem::remove("/tmp/state/wake-up.new");
  set_wakeup(0, kNow + kHour);
  EXPECT_EQ(kept_wake_up(), (wake_up{0, kNow + kHour, kNow + kHour - 15}));
}

TEST_F(Machine, TheTvClock_IsLocalTime_AndUnknownBeforeTheDayOfTheBuild) {
  start();
  set_property("timedate1", "Timezone", "Europe/Berlin");
  wait_until([] { return CTimeUtil::GetCurrentTime() == kNow + kHour; });
  EXPECT_EQ(events(), "time_zone");
  EXPECT_EQ(set_wakeup(0, kNow + 2 * kHour), 0); // local time, in the manual clock mode
  EXPECT_EQ(rtc.alarm, kNow + kHour - 15);
  set_now(1'700'000'000);
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0U);
}

TEST_F(Machine, TheClockModeIsAutomatic_FromTheFirstSynchronisationOn) {
  start();
  int mode = 7;
  set_property("timedate1", "NTP", true);
  calls();
  EXPECT_EQ(settings_get_int(kSettingsClockMode, &mode), 0);
  EXPECT_EQ(mode, 1);
  set_property("timedate1", "NTPSynchronized", true);
  wait_until([] { return CTimeUtil::GetClockMode() == 0; });
  EXPECT_EQ(events(), "time update; clock_mode");
  set_property("timedate1", "Timezone", "Europe/Berlin");
  wait_until([] { return events() == "time_zone"; });
  EXPECT_EQ(set_wakeup(0, kNow + kHour), 0); // UTC
  EXPECT_EQ(rtc.alarm, kNow + kHour - 15);
  set_property("timedate1", "NTP", false);
  wait_until([] { return CTimeUtil::GetClockMode() == 1; });
  EXPECT_EQ(events(), "time update; clock_mode");
}

TEST_F(Machine, AnUnknownClock_IsConfirmedOnceItIsSynchronised) {
  set_now(1'700'000'000);
  start();
  EXPECT_EQ(timers(), "10");
  fire(10);
  EXPECT_EQ(calls(), "");
  EXPECT_EQ(events(), "");
  set_property("timedate1", "NTP", true);
  set_now(kNow);
  fire(10);
  EXPECT_EQ(calls(), "");
  EXPECT_EQ(events(), "") << "the network has not given it";
  set_property("timedate1", "NTPSynchronized", true);
  wait_until([] { return events() == "time update; clock_mode"; });
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
  setenv("DRAVEL_CONFIGURATION", "/tmp/machine.conf", 1);
  setenv("DRAVEL_LOG_STDERR", "1", 1);
  for (const auto &row : kCases) {
    std::ofstream("/tmp/machine.conf") << row.text << '\n';
    testing::internal::CaptureStderr();
    read_configuration();
    const std::string said = testing::internal::GetCapturedStderr();
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
  std::ofstream("/tmp/machine.conf")
      << "[linux]\nrtc=/dev/rtc9\nlead-suspend=100\nkeep-timers=false\n";
  raise(SIGUSR1);
  wait_until([this] { return rtc.alarm == kNow + kHour - 100; });
  EXPECT_EQ(rtc.cleared, "/dev/rtc0");
  bool kept = true;
  EXPECT_EQ(system_info_get_custom_bool(kFeatureSyncDb, &kept), 0);
  EXPECT_FALSE(kept);
}

TEST_F(Machine, ASecondDaemon_IsRefusedItsFirstSubscription) {
  setenv("STATE_DIRECTORY", "/tmp", 1);
  setenv("DRAVEL_LOG_STDERR", "1", 1);
  const int first = open("/tmp/lock", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
  ASSERT_EQ(flock(first, LOCK_EX), 0);
  testing::internal::CaptureStderr();
  const auto ignored = [](settings_key *, void *) {};
  EXPECT_LT(settings_notify_key_changed(kSettingsTimeZone, ignored, nullptr), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "DRAVEL_LINUX: another dravel-manager runs on this machine, this one ends\n");
  close(first);
}

TEST_F(Machine, ADaemonWithoutAccessToTheState_IsRefused) {
  setenv("STATE_DIRECTORY", "/tmp/state", 1);
  std::filesystem::create_directory("/tmp/state");
  std::filesystem::permissions("/tmp/state", std::filesystem::perms::none);
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
  const auto ignored = [](settings_key *, void *) {};
  EXPECT_LT(settings_notify_key_changed(kSettingsTimeZone, ignored, nullptr), 0);
  EXPECT_EQ(seteuid(user), 0);
}

// Receives what is written to the journal.
class played_journal {
public:
  played_journal() {
    std::filesystem::create_directories("/run/systemd/journal");
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  }
  ~played_journal() { close(socket_); }
  played_journal(const played_journal &) = delete;
  played_journal &operator=(const played_journal &) = delete;

  std::string next() const {
    char line[512] = "";
    EXPECT_GT(recv(socket_, line, sizeof line - 1, MSG_DONTWAIT), 0);
    return line;
  }

  std::string find(const char *part) const {
    std::string line = next();
    while (!line.empty() && line.find(part) == std::string::npos)
      line = next();
    return line;
  }

private:
  int socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

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
  const played_journal journal;
  for (const auto &row : kCases) {
    system_log_print(row.priority, row.tag, row.text, 7);
    const std::string fields = journal.next();
    EXPECT_EQ(fields.at(fields.find("PRIORITY=") + 9), row.level) << fields;
    EXPECT_NE(fields.find(std::string("SYSLOG_IDENTIFIER=") + row.tag + '\n'), fields.npos);
    EXPECT_NE(fields.find("MESSAGE="), fields.npos);
  }
}

TEST_F(Machine, WithoutAnAdapter_IsNoError_UnlessOneIsNamed) {
  const played_journal journal;
  cec.is_there = false;
  start("", "");
  EXPECT_NE(journal.find("no CEC adapter").find("PRIORITY=6"), std::string::npos);
  std::ofstream("/tmp/machine.conf") << "[linux]\ncec=/dev/cec7\n";
  raise(SIGUSR1);
  wait_until([] { return configuration().cec == "/dev/cec7"; });
  EXPECT_NE(journal.find("no CEC adapter").find("PRIORITY=3"), std::string::npos);
}

} // namespace
