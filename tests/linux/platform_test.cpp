// The platform as a whole, from the daemon's calls to the devices; its configuration, its record
// and its journal.
#include "configuration.h"
#include "journal.h"
#include "machine.h"
#include "record.h"

#include <CTimeUtil.h>
#include <E_DBus.h>
#include <Ecore.h>
#include <IPowerControl.h>
#include <KintoAPI.h>
#include <device_power.h>
#include <screen_manager.h>
#include <settings.h>
#include <system_info.h>
#include <system_log.h>
#include <time_values.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

// --- configuration ---

class Configuration : public Machine {};

auto all_values() {
  const linux_configuration &read = configuration();
  const settings &set = read.decisions;
  return std::tuple(read.rtc, read.cec, read.cec_standby_all, read.cec_physical_address,
                    read.keep_timers, set.off, set.lead_suspend, set.lead_poweroff,
                    set.return_to_sleep, set.hop_boots, set.follow_screen, set.screen_follows);
}

TEST_F(Configuration, ABadValueIsOneLine_AndTheDefaultHoldsAtTheStart) {
  static constexpr const char *kCases[][2] = {
      {"rtc=rtc1", "rtc cannot be \"rtc1\", only auto or a device such as /dev/rtc0"},
      {"cec=cec0", "cec cannot be"},
      {"cec-standby=none", "cec-standby cannot be"},
      {"cec-physical-address=0.0.0.0", "cec-physical-address cannot be"},
      {"cec-physical-address=1-0-0-0", "cec-physical-address cannot be"},
      {"cec-physical-address=1.0.0", "cec-physical-address cannot be"},
      {"off-action=Suspend", "off-action cannot be"},
      {"lead-suspend=soon", "only 0 to 86400 seconds; the default is used"},
      {"lead-suspend=86401", "lead-suspend cannot be"},
      {"lead-poweroff=-1", "lead-poweroff cannot be"},
      {"return-to-sleep=120 # seconds", "return-to-sleep cannot be"},
      {"hop-boots=on", "hop-boots cannot be"},
      {"follow-screen=yes", "follow-screen cannot be"},
      {"screen-follows=1", "screen-follows cannot be"},
      {"keep-timers=1", "keep-timers cannot be"},
      {"colour=red", "there is no key \"colour\""}};
  const auto defaults = all_values();
  for (const auto &[line, reported] : kCases) {
    if (fork() == 0) { // the first reading is one of the process
      configure(line);
      read_configuration();
      const std::string entry = next_entry();
      const bool is_told = entry.find(reported) != entry.npos && next_entry().empty() &&
                           configuration_faults().size() == 1 &&
                           entry.find(configuration_faults()[0]) != entry.npos;
      _exit(is_told && all_values() == defaults ? 0 : 1);
    }
    int status = 1;
    wait(&status);
    EXPECT_EQ(status, 0) << line;
  }
}

TEST_F(Configuration, OfAReload_KeepsWhatIsInForce_WhereItIsBad) {
  configure("off-action=none\nlead-suspend=20\nreturn-to-sleep=86400\nrtc=/dev/rtc1\n"
            "follow-screen=sleep\nhop-boots=false\nscreen-follows=true");
  read_configuration();
  const settings expected = {off_action::kNone, 20, 90, 86400, false, true, true};
  EXPECT_EQ(configuration().decisions, expected);
  for (const char *bad :
       {"off-action=nothing\nlead-suspend=20\nreturn-to-sleep=86400\nrtc=/dev/rtc1\n"
        "follow-screen=sleep\nhop-boots=no\nscreen-follows=yes",
        "x\ny"}) {
    configure(bad);
    read_configuration();
    EXPECT_NE(next_entry().find("what is in force stays"), std::string::npos);
    EXPECT_EQ(configuration().decisions, expected);
  }
  std::ofstream(kConfigurationPath) << "[Linux]\n";
  read_configuration();
  EXPECT_NE(next_entry().find("there is no group [linux]"), std::string::npos);
  EXPECT_EQ(configuration().rtc, "/dev/rtc1");
  configure("follow-screen=false");
  read_configuration();
  EXPECT_EQ(configuration().decisions, settings{});
  std::filesystem::remove(kConfigurationPath);
  read_configuration();
  EXPECT_EQ(configuration().decisions, settings{});
  EXPECT_EQ(next_entry(), "");
  EXPECT_EQ(configuration_faults(), std::vector<std::string>{});
}

// --- record ---

TEST_F(Machine, TheRecord_IsKeptForTheNextRun_AndItsAlarmForTheNextBoot) {
  machine record;
  record.screen.believed = screen_state::kOff;
  record.screen.ordered = screen_order::kOff;
  record.woken.by = cause::kTest;
  record.woken.utc = kNow - 60;
  record.woken.at = 5;
  record.woken.booted = record.woken.stays = true;
  record.power.now = phase::kShuttingDown;
  record.power.went.utc = kNow;
  record.alarm.wanted = {7, kNow + 100};
  record.alarm.stands = {alarm_owner::kTimer, kNow + 85, kNow + 85};
  record.alarm.foreign = {alarm_owner::kForeign, kNow + 900, kNow + 901};
  record.alarm.before_sleep_wanted = {8, kNow + 200};
  record.alarm.before_sleep = {alarm_owner::kHop, kNow + 50, kNow + 51};
  record.alarm.range = 86400;
  record.clock.was_set = true;
  record.use.input_at = 1;
  record.sleep.wish = sleep_wish::kTest;
  record.sleep.method = record.sleep.last_method = off_action::kNone;
  EXPECT_FALSE(load_record(0).exists);
  EXPECT_EQ(store_record(record), 0);
  EXPECT_EQ(load_record(0).record.screen.believed, screen_state::kOff);
  EXPECT_TRUE(load_record(0).same_boot);
  for (const auto left : {std::filesystem::file_size("/tmp/run/machine") - 1, std::uintmax_t{9}}) {
    std::filesystem::resize_file("/tmp/run/machine", left); // as of another build
    EXPECT_TRUE(!load_record(0).same_boot && load_record(0).is_other_build);
  }
  const kept_record kept = load_record(0);
  EXPECT_TRUE(kept.exists);
  EXPECT_EQ(kept.record.woken.by, cause::kTest);
  EXPECT_EQ(kept.record.woken.utc, kNow - 60);
  EXPECT_EQ(kept.record.woken.at, 5);
  EXPECT_EQ(kept.record.screen.ordered, screen_order::kOff);
  EXPECT_TRUE(kept.record.woken.booted && kept.record.woken.stays);
  EXPECT_TRUE(kept.record.screen.ordered_on) << "somebody is there";
  EXPECT_EQ(kept.record.sleep.wish, sleep_wish::kTest);
  EXPECT_EQ(kept.record.sleep.method, off_action::kNone);
  EXPECT_EQ(kept.record.sleep.last_method, off_action::kNone);
  EXPECT_EQ(kept.record.power.now, phase::kShuttingDown);
  EXPECT_EQ(kept.record.power.went.utc, kNow);
  EXPECT_EQ(kept.record.alarm.wanted, record.alarm.wanted);
  EXPECT_EQ(kept.record.alarm.stands, record.alarm.stands);
  EXPECT_EQ(kept.record.alarm.foreign, record.alarm.foreign);
  EXPECT_EQ(kept.record.alarm.before_sleep_wanted, record.alarm.before_sleep_wanted);
  EXPECT_EQ(kept.record.alarm.before_sleep, record.alarm.before_sleep);
  EXPECT_EQ(kept.record.alarm.range, record.alarm.range);
  EXPECT_TRUE(kept.record.clock.was_set);
  EXPECT_EQ(kept.record.screen.believed, screen_state::kUnknown);
  record.sleep.stage = wish_stage::kAsked;
  store_record(record);
  std::filesystem::remove("/tmp/run/machine");
  EXPECT_EQ(load_record(0).record.sleep.wish, sleep_wish::kNone) << "it is over by then";
}

TEST_F(Machine, ADamagedRecord_IsReadWhereItIsWhole_AndAnOlderOneUntilItsContentIsStored) {
  write_file("/tmp/state/alarm", "[alarm]\nstands-owner=9\nstands-count=5\nwoken-by=9\nphase=9\n"
                                 "wish=9\nlast-method=9\nscreen-ordered=9\n");
  const machine damaged = load_record(0).record;
  EXPECT_EQ(damaged.alarm.stands, device_alarm{});
  EXPECT_EQ(std::tuple(damaged.woken.by, damaged.power.now, damaged.sleep.wish,
                       damaged.sleep.last_method, damaged.screen.ordered),
            std::tuple(cause::kUser, phase::kAwake, sleep_wish::kNone, off_action::kSuspend,
                       screen_order::kNone));
  write_file("/tmp/state/alarm", "[alarm]\nwish=1\nwish-method=9\n");
  EXPECT_EQ(load_record(0).record.sleep.wish, sleep_wish::kNone);
  std::filesystem::remove("/tmp/state/alarm");
  write_file("/tmp/state/wake-up", "[wake-up]\ntype=7\non-time=1800000100\nalarm=1800000085\n");
  for (const std::int64_t device : {84, 86, 87}) { // of version 1.1
    const auto &alarm = load_record(kNow + device).record.alarm;
    EXPECT_EQ(alarm.wanted, (wanted_alarm{7, kNow + 100}));
    EXPECT_EQ(std::tuple(alarm.stands.count, alarm.stands.utc),
              std::tuple(kNow + (device == 87 ? 85 : device), kNow + 85));
  }
  std::filesystem::create_directories("/tmp/state/alarm.new");
  EXPECT_EQ(store_record({}), EISDIR);
  EXPECT_TRUE(std::filesystem::exists("/tmp/state/wake-up"));
  std::filesystem::remove("/tmp/state/alarm.new");
  EXPECT_EQ(store_record({}), 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/state/wake-up"));
}

TEST_F(Machine, HasOneDaemon_ThatHasAccessToTheState) {
  const auto ignore = [](settings_key *, void *) {};
  write_file("/tmp/state/lock", ""); // of version 1.1
  EXPECT_TRUE(lock_state());
  EXPECT_EQ(std::filesystem::status("/tmp/state/lock").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
      << "whoever can read it can hold it";
  EXPECT_EQ(device_power_get_wakeup_reason(), 0);
  EXPECT_LT(settings_notify_key_changed(kSettingsTimeZone, ignore, nullptr), 0);
  device_power_set_state(0, 1);
  EXPECT_EQ(device_power_get_state(), 2) << "a daemon that ends orders nothing";
  EXPECT_EQ(seen(), "another dravel-manager runs on this machine, this one ends");
  std::filesystem::permissions("/tmp/state", std::filesystem::perms::none);
  std::filesystem::permissions("/run/systemd/journal/socket", std::filesystem::perms::all);
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
  EXPECT_FALSE(lock_state());
  EXPECT_EQ(seteuid(user), 0);
  EXPECT_EQ(seen(), "/tmp/state/lock: Permission denied; this daemon ends");
}

TEST_F(Machine, WithoutItsBusConnection_HearsOfNoSleep_AndEnds) {
  start_bus();
  ASSERT_EQ(kill(client().pid_of(DBUS_SERVICE_DBUS), SIGKILL), 0);
  std::string entry;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (entry.empty() && std::chrono::steady_clock::now() < deadline) {
    ecore_main_loop_iterate();
    entry = next_entry();
  }
  EXPECT_NE(entry.find("the system bus is lost, this daemon ends"), std::string::npos);
}

// --- journal ---

// Prints one line, and returns the level that it has in the journal.
char level_of(system_log_priority priority, const std::string &tag, const char *text) {
  system_log_print(priority, tag.c_str(), text, 7);
  const std::string entry = next_entry(); // begins with "PRIORITY="
  EXPECT_TRUE(entry.ends_with("\nSYSLOG_IDENTIFIER=" + tag + "\nMESSAGE=" + text + "\n")) << entry;
  return entry.at(9);
}

TEST_F(Machine, TheJournal_ShowsProgressAsNotices_AndFailuresAsErrors) {
  EXPECT_EQ(level_of(SYSTEM_LOG_PROGRESS, "DRAVEL_MANAGER", "failed auto_time_set"), '5');
  EXPECT_EQ(level_of(SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "dravel expired"), '3');
  EXPECT_EQ(level_of(SYSTEM_LOG_INFO, "DRAVEL_MANAGER", "failed"), '6');
  EXPECT_EQ(level_of(SYSTEM_LOG_DEBUG, "DRAVEL_MANAGER", "loaded"), '7');
  testing::internal::CaptureStderr();
  system_log_print(SYSTEM_LOG_ERROR, "DRAVEL_MANAGER", "%d timers\n", 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "DRAVEL_MANAGER: 7 timers\n");
  int entries = 0;
  next_entry();
  pass(100);
  for (int line = 0; line < 2000; ++line) {
    system_log_print(SYSTEM_LOG_PROGRESS, "DRAVEL_MANAGER", "flood");
    while (!next_entry().empty())
      ++entries;
  }
  EXPECT_EQ(entries, 1001) << "and one that says so";
  pass(31);
  EXPECT_EQ(level_of(SYSTEM_LOG_PROGRESS, "DRAVEL_MANAGER", "loaded"), '5');
  system_log_event("fired", 7, "", "timer 7 fired");
  EXPECT_TRUE(next_entry().ends_with("\nDRAVEL_EVENT=fired\nDRAVEL_TIMER=7\n"));
  for (const auto late : {order::saying::kTelevisionLate, order::saying::kTelevisionStays}) {
    write_saying({.what = late});
    EXPECT_EQ(next_entry().at(9), '3');
  }
  write_saying({.what = order::saying::kLate, .number = 60, .timer = 9});
  const std::string made_up = next_entry();
  EXPECT_EQ(made_up.at(9), '5');
  EXPECT_TRUE(made_up.ends_with("\nDRAVEL_EVENT=late\nDRAVEL_TIMER=9\n")) << made_up;
}

// --- the daemon's side ---

constexpr std::int64_t kBack = 1'824'944'400; // in Berlin 2027-10-31 03:00:00, which is 02:00:00

int standby(int, void *) {
  happened(inhibitor_is_held() ? "standby in time" : "standby");
  return 0;
}

int wakeup(int reason, void *) {
  happened("wakeup " + std::to_string(reason));
  return 0;
}

int state_changed(const void *event, void *) {
  happened("state " + std::to_string(static_cast<const device_power_event *>(event)->state));
  return 0;
}

void setting_changed(settings_key *, void *key) {
  happened(std::filesystem::path(static_cast<const char *>(key)).filename());
}

int time_update(ESignalType, EProfile, std::uint16_t, TSSignalData, void *) {
  happened("time update");
  return 0;
}

std::uint32_t time_value(std::int64_t utc) { return static_cast<std::uint32_t>(utc); }

int program(std::uint32_t type, std::int64_t utc) {
  return IPowerControl::getInstance()->set_wakeup_time(type, time_value(utc));
}

class Platform : public Machine {
protected:
  ~Platform() override { e_dbus_shutdown(); }

  std::string start(const char *lines = "") {
    configure(lines);
    start_services();
    reason_at_first = device_power_get_wakeup_reason(); // the daemon asks before it subscribes
    for (const char *key : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
      settings_notify_key_changed(key, setting_changed, const_cast<char *>(key));
    e_dbus_init();
    e_dbus_request_name(e_dbus_bus_get(DBUS_BUS_SYSTEM), kMachine.name, 0, nullptr, nullptr);
    device_power_subscribe_standby(standby, nullptr);
    device_power_subscribe_wakeup(wakeup, nullptr);
    device_power_subscribe_state_changed_event(state_changed, nullptr);
    ISignalSubscriber *subscriber = nullptr;
    KintoAPI::CreateSignalSubscriber(time_update, &subscriber);
    subscriber->Subscribe(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0);
    run_until_idle();
    wait_until(inhibitor_is_held);
    return seen();
  }

  // The platform answers while another thread asks.
  static std::string ask(const std::function<std::string(bus_client &other)> &question) {
    auto answer = std::async(std::launch::async, [&] {
      bus_client other;
      return question(other);
    });
    wait_until(
        [&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    return answer.get();
  }
  static std::string property(const char *name) {
    return ask([=](bus_client &other) { return other.property(name, kMachine); });
  }
  static std::string call_method(const char *name, const char *arguments) {
    return ask([=](bus_client &other) { return other.ask(kMachine, name, arguments); });
  }

  static constexpr bus_target kMachine = {kDravelBusName, "/org/olvara/tv/system/dravel/machine",
                                          "org.olvara.tv.system.dravel.machine"};
  int reason_at_first = 0;
};

TEST_F(Platform, WakesForATimer_BeforeTheDaemonActs_AndGoesBackToSleep) {
  start();
  EXPECT_EQ(program(7, kNow + 3600), 0);
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 3585));
  EXPECT_EQ(property("Alarm") + property("AlarmFor"), "uint64 1800003585'timer'");
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  EXPECT_EQ(seen(), "standby in time");
  EXPECT_FALSE(inhibitor_is_held());
  sleep_for(3585);
  write_file(kAlarmPath, ""); // it has gone off
  emit(kLogind, "PrepareForSleep", "b", "<false>");
  EXPECT_EQ(seen(), "wakeup 33; time update; Inhibit 'sleep:shutdown'");
  EXPECT_EQ(device_power_get_wakeup_reason(), 33);
  EXPECT_EQ(property("LastWake"), "(uint64 1800003585, 'timer')");
  EXPECT_NEAR(std::stod(property("SleepsAt").substr(7)), kNow + 3600 + 120, 2);
  EXPECT_EQ(timers(), "135");
  EXPECT_EQ(device_power_set_wakeup_reason(33), 0);
  EXPECT_EQ(seen(), "RestartUnit 'dravel-wakeup@33.target'");
}

TEST_F(Platform, TriesAgain_WhenItsTimeHasCome) {
  start();
  refuse(kLogind, "Inhibit", "ssss");
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  emit(kLogind, "PrepareForSleep", "b", "<false>");
  for (const char *again : {"1", "10", "60"}) {
    EXPECT_NE(seen().find("Inhibit 'sleep:shutdown'"), std::string::npos);
    EXPECT_EQ(timers(), again);
    fire(); // a little early
    EXPECT_EQ(timers(), again);
    pass(std::stol(again));
    fire();
  }
}

TEST_F(Platform, MakesUpForATimer_ThatALateWakeUpHasMissed) {
  setenv("TZ", "Europe/Berlin", 1);
  start();
  program(0, kNow + 3600 + 3600); // local time
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  seen();
  late_timers = {{5, 0, time_value(kNow + 3600 + 3600)}};
  sleep_for(3630);
  write_file(kAlarmPath, "");
  emit(kLogind, "PrepareForSleep", "b", "<false>");
  EXPECT_EQ(seen(), "due 1800006930 1800007230; wakeup 2; time update; Inhibit 'sleep:shutdown'; "
                    "RestartUnit 'dravel-wakeup@2.target'; RestartUnit 'dravel-on.target'");
}

TEST_F(Platform, MakesUpForTimers_OfBothTimesOfAnHourThatComesTwice) {
  constexpr std::int64_t kShown = kBack + 3600; // then
  setenv("TZ", "Europe/Berlin", 1);
  set_now(kBack - 400);
  start();
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  seen();
  late_timers = {{1, 3, time_value(kShown - 60)},
                 {2, 0, time_value(kShown + 60)},
                 {3, 3, time_value(kShown + 1800)},
                 {4, 3, time_value(kShown + 3540)}};
  sleep_for(600);
  emit(kLogind, "PrepareForSleep", "b", "<false>");
  EXPECT_EQ(seen(), "due 1824947900 1824951800; wakeup 0; time_set; time update; "
                    "Inhibit 'sleep:shutdown'; RestartUnit 'dravel-wakeup@5.target'; "
                    "RestartUnit 'dravel-wakeup@2.target'; RestartUnit 'dravel-on.target'");
}

TEST_F(Platform, AsksForLateTimers_OnceTheDaemonHasReadItsOwn) {
  const auto first_pass = [](void *) -> Eina_Bool {
    late_timers = {{5, 0, time_value(kNow)}};
    return ECORE_CALLBACK_CANCEL;
  };
  ecore_init();
  ecore_idler_add(first_pass, nullptr);
  const std::string told = start() + seen();
  ecore_shutdown(); // the platform has its own share
  EXPECT_NE(told.find("RestartUnit 'dravel-on.target'"), std::string::npos) << told;
}

TEST_F(Platform, IsNotCalledBack_BeforeACallHasReturned) {
  setenv("TZ", "Europe/Berlin", 1);
  set_now(kBack - 400);
  start();
  EXPECT_EQ(device_power_get_state(), 2) << "nobody knows the screen";
  device_power_set_state(0, 1);
  EXPECT_EQ(device_power_get_state(), 0);
  device_power_request_poweroff(1);
  EXPECT_EQ(device_power_get_state(), 2);
  screen_manager_set_ambient_mode(1, 1);
  screen_manager_set_ambient_mode(0, 0);
  EXPECT_EQ(seen(), "RestartUnit 'dravel-on.target'; RestartUnit 'dravel-off.target'; "
                    "RestartUnit 'dravel-ambient.target'; StopUnit 'dravel-ambient.target'");
  set_now(kBack);
  program(0, kBack + 7200); // meets the change of the zone's offset
  happened("returned");
  EXPECT_EQ(seen(), "returned; time_set");
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  EXPECT_EQ(seen(), "standby in time") << "it decides what is told in a callback's place";
}

TEST_F(Platform, IsShownAndOrderedOnTheBus) {
  start("off-action=none\nx=1");
  EXPECT_EQ(property("Screen") + property("ScreenBy") + property("Problems"),
            "'unknown''targets'['/tmp/machine.conf: there is no key \"x\"']");
  client().listen("type='signal',path='/org/olvara/tv/system/dravel/machine'");
  EXPECT_EQ(call_method("TurnScreen", "(true,)"), "()");
  const std::string told = seen();
  EXPECT_NE(told.find("dravel-on.target"), std::string::npos) << told;
  EXPECT_NE(told.find(".machine', {'Screen': <'on'>}, "), std::string::npos) << told;
  EXPECT_EQ(property("Screen"), "'on'");
  EXPECT_EQ(call_method("TestWake", "(uint32 5,)"), "org.olvara.tv.system.dravel.machine.Refused");
  const std::string described = ask([](bus_client &other) {
    return other.ask({kMachine.name, kMachine.path, DBUS_INTERFACE_INTROSPECTABLE}, "Introspect",
                     "()");
  });
  EXPECT_NE(described.find("\"TurnScreen\">\\n   <arg type=\"b\" direction=\"in\""),
            std::string::npos)
      << described;
  for (const char *method : {"TestWake", "TurnScreen"})
    EXPECT_EQ(call_method(method, "('x',)"), "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(Platform, IsTriedBySleepingForAMinute) {
  start();
  auto answer = std::async(std::launch::async, [] {
    bus_client other;
    return other.ask(kMachine, "TestWake", "(uint32 60,)");
  });
  std::string told;
  wait_until([&] {
    told += seen();
    return told.find("SuspendWithFlags") != told.npos;
  });
  EXPECT_NEAR(std::stod(read_file(kAlarmPath)), kNow + 60, 1) << "the boot clock is the machine's";
  emit(kLogind, "PrepareForSleep", "b", "<true>");
  seen();
  sleep_for(60);
  write_file(kAlarmPath, "");
  emit(kLogind, "PrepareForSleep", "b", "<false>");
  wait_until([&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  const std::string answered = answer.get();
  EXPECT_TRUE(answered == "(60, 'test')" || answered == "(61, 'test')") << answered;
}

TEST_F(Platform, SaysWhatIsRefused_AndWhenItIsOver) {
  const std::string refused =
      "the real-time clock refuses the alarm: Invalid argument; the machine "
      "is not woken for the next on-timer; it is tried again";
  const std::string unstored = "what is known about the machine cannot be stored: Is a directory; "
                               "after a restart or a boot it is not known what woke it";
  start();
  std::filesystem::create_directories("/tmp/state/alarm.new");
  rtc.refuses = EINVAL;
  program(0, kNow + 3600);
  EXPECT_EQ(seen(), refused + "; " + unstored);
  EXPECT_EQ(property("Problems"), "['" + refused + "', '" + unstored + "']");
  EXPECT_EQ(property("AlarmProblem"), "'" + refused + "'");
  std::filesystem::remove("/tmp/state/alarm.new");
  rtc.refuses = 0;
  program(0, kNow + 7200);
  EXPECT_EQ(property("AlarmProblem") + property("Problems"), "''@as []");
  std::filesystem::remove("/sys/class/rtc/rtc0/since_epoch");
  program(0, kNow + 3600);
  EXPECT_NE(property("AlarmProblem").find("cannot be read: No such file"), std::string::npos);
}

TEST_F(Platform, HasTheMachinesClock_AndItsSettings) {
  int mode = 7;
  bool kept = true;
  rtc_time clock{};
  setenv("TZ", "Europe/Berlin", 1);
  start("keep-timers=false");
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), kNow + 3600);
  EXPECT_EQ(CTimeUtil::ConvertToLocalTime(time_value(kNow)), kNow + 3600);
  std::tm fields{};
  CTimeUtil::Unsigned_gmtime_r(time_value(kNow), &fields);
  EXPECT_EQ(CTimeUtil::Unsigned_timegm(&fields), kNow);
  EXPECT_EQ(settings_get_int(kSettingsClockMode, &mode), 0);
  EXPECT_EQ(mode, 1);
  EXPECT_LT(settings_get_int(kSettingsTimeZone, &mode), 0);
  EXPECT_EQ(program(0, kNow + 3600 + 100), 0); // local time
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 85));
  EXPECT_EQ(IPowerControl::getInstance()->clear_wakeup_time(), 0);
  seen();
  EXPECT_EQ(read_file(kAlarmPath), "") << "written when the daemon has nothing left to do";
  set_property(kTimedated, "NTP", "true");
  set_property(kTimedated, "NTPSynchronized", "true");
  EXPECT_EQ(seen(), "clock_mode; time update");
  EXPECT_EQ(CTimeUtil::GetClockMode(), 0);
  EXPECT_EQ(program(0, kNow + 100), 0); // UTC
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 85));
  EXPECT_EQ(IPowerControl::getInstance()->read_rtc(&clock), 0);
  EXPECT_EQ(
      std::tuple(clock.year, clock.month, clock.day, clock.hours, clock.minutes, clock.seconds),
      std::tuple(27, 1, 15, 8, 0, 0));
  EXPECT_EQ(system_info_get_custom_bool(kFeatureSyncDb, &kept), 0);
  EXPECT_FALSE(kept);
  for (const std::int64_t is : {kBack - 1800, kBack - 1801}) { // a time that comes twice
    set_now(is);
    const std::tm utc = CTimeUtil::ConvertToUTCTime(broken_down(time_value(kBack + 5400)));
    EXPECT_EQ(civil_seconds(utc), is == kBack - 1800 ? kBack + 1800 : kBack - 1800);
  }
}

TEST_F(Platform, OfAnUnknownClock_HasNoTime) {
  write_file("/sys/class/rtc/rtc0/since_epoch", "0");
  start();
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0U);
}

TEST_F(Platform, OfALaterRun_KnowsTheScreen) {
  machine record;
  record.screen.believed = screen_state::kOn;
  store_record(record);
  start();
  EXPECT_EQ(property("Screen"), "'on'");
}

TEST_F(Platform, HearsATelevision_AlsoAtAnAdapterThatIsPluggedInLater) {
  for (const char *path : {"/dev/cec6", "/dev/cec7"}) {
    ASSERT_EQ(mkfifo(path, 0600), 0);
    const int fifo = open(path, O_RDWR | O_CLOEXEC);
    if (path == std::string_view{"/dev/cec6"})
      start();
    seen();
    for (const std::uint8_t state : {CEC_OP_POWER_STATUS_ON, CEC_OP_POWER_STATUS_STANDBY}) {
      const cec_msg reports = received({0x04, CEC_MSG_REPORT_POWER_STATUS, state});
      EXPECT_EQ(write(fifo, &reports, sizeof reports), sizeof reports);
      EXPECT_EQ(seen(), state == CEC_OP_POWER_STATUS_ON ? "state 0" : "state 2") << path;
    }
  }
}

TEST_F(Platform, OfAMachineThatATimerBooted_KnowsIt) {
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  machine record;
  record.alarm.before_sleep_wanted = record.alarm.wanted = {7, kNow + 60};
  record.alarm.stands = {alarm_owner::kTimer, kNow - up.tv_sec, kNow - up.tv_sec};
  record.alarm.before_sleep = record.alarm.stands;
  store_record(record);
  std::filesystem::remove_all("/tmp/run/machine");
  start();
  EXPECT_EQ(reason_at_first, 33);
}

TEST_F(Platform, ReadsItsConfigurationAgain_AndSettlesTheAlarmAtItsEnd) {
  start("lead-suspend=50");
  program(0, kNow + 3600);
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 3550));
  configure("lead-suspend=100");
  raise(SIGUSR1);
  EXPECT_EQ(seen(), "");
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 3500));
  configure("lead-suspend=100\nrtc=/dev/none");
  raise(SIGUSR1);
  seen();
  EXPECT_EQ(read_file(kAlarmPath), "") << "nothing stays on a device that is left";
  configure("lead-suspend=100");
  raise(SIGUSR1);
  EXPECT_EQ(seen(), "");
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 3500));
  write_file(kAlarmPath, "");
  raise(SIGTERM);
  seen();
  EXPECT_EQ(read_file(kAlarmPath), std::to_string(kNow + 3510)) << "the machine may be going off";
}

TEST_F(Platform, OfAClockWithoutAnAlarm_RefusesAWakeUp_AndSaysWhy) {
  std::filesystem::remove(kAlarmPath);
  EXPECT_EQ(start(),
            "there is no real-time clock with an alarm: No such device; the machine is not "
            "woken for on-timers; Inhibit 'sleep:shutdown'");
  EXPECT_EQ(program(0, kNow + 3600), -1);
  EXPECT_NE(property("AlarmProblem"), "''");
}

} // namespace
