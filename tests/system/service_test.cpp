// What a client gets from the running daemon, and what of it outlives the process.
#include "daemon.h"

#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

class Service : public daemon_test {};

TEST_F(Service, Timer_IsStoredListedAndProgrammed_UntilItIsCancelled) {
  start();
  EXPECT_EQ(call("request_timer_list", "(0,)"), "(0, [])");
  EXPECT_EQ(schedule({2, "15 14:00", kDaily, 0, 0, 7}), 1);
  EXPECT_EQ(schedule({0, "15 13:00"}), 2);
  EXPECT_EQ(schedule({0, "15 11:00"}), -1);
  EXPECT_EQ(schedule({10, "15 13:00"}), -10);
  EXPECT_EQ(schedule({13, "15 15:00"}), 4); // which an equal one replaces
  EXPECT_EQ(schedule({13, "15 15:00"}), 5);
  EXPECT_EQ(timer_ids(), (words{-10, 2, 1, 5}));
  EXPECT_EQ(call("cancel_timer", "(5,)"), "(0,)");

  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|7|0|0|0|14|15|11|126|2|348|0|0|127|0|0|0 "
                                          "2|0|0|0|0|0|13|15|11|126|2|348|0|0|0|0|0|0");
  EXPECT_EQ(image("dravel_get_timer_by_id", 2),
            (words{0, 2, 0, 0, 0, 0, 0, 13, 15, 11, 126, 2, 348, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(timer_ids(), (words{-10, 2, 1}));
  EXPECT_EQ(bus.property("Stored", kState), u32(2));
  EXPECT_EQ(get("WakeupTime"), u32(time_of("15 13:00")));

  EXPECT_EQ(call("cancel_timer", "(2,)"), "(0,)");
  EXPECT_EQ(call("cancel_timer", "(2,)"), "(-1,)");
  EXPECT_EQ(get("WakeupTime"), u32(time_of("15 14:00")));
  EXPECT_EQ(call("cancel_timer", "(1, 'surplus')"), "(0,)");
  EXPECT_EQ(get("WakeupTime"), u32(0));
  EXPECT_EQ(timer_ids(), words{-10});
  EXPECT_EQ(rows("SELECT * FROM dravel"), "");
  for (const char *method : {"dravel_get_timer_by_id", "request_wakeup_timer"})
    EXPECT_EQ(image(method, 2),
              (words{-1, -1, -1, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1, -1, 0, 0}))
        << method;
}

TEST_F(Service, UnreadableArguments_GetNoAnswer_ButReleaseAHalt) {
  start();
  for (const char *method :
       {"schedule_timer", "cancel_timer", "request_timer_list", "request_wakeup_timer",
        "request_get_timers_halt_effect", "request_set_disable_period",
        "request_remove_disabled_period", "request_disabled_period_list",
        "request_set_disable_period_effect", "request_copy_db", "dravel_get_timer_by_id"}) {
    EXPECT_FALSE(bus.is_answered(kDaemon, method, "('/tmp',)")) << method;
    EXPECT_FALSE(bus.is_answered(kDaemon, method, "()")) << method;
  }
  EXPECT_TRUE(bus.is_answered(kDaemon, "cancel_timer", "(1,)"));

  EXPECT_EQ(call("request_halt_ontimers", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_halt_offtimers", "(5,)"), "(0,)");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(1, 5)");
  EXPECT_EQ(call("request_halt_ontimers", "('one',)"), "()");
  EXPECT_EQ(call("request_halt_offtimers", "()"), "()");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(0, 0)");
}

// On the simulated set's object, whose properties can be written.
TEST_F(Service, WhatIsUnknownOrReadOnly_IsRefusedWithTheStandardErrors) {
  start();
  const bus_target properties = {kStandin.name, kStandin.path, DBUS_INTERFACE_PROPERTIES};
  const struct {
    bus_target target;
    const char *method, *arguments, *answer;
  } calls[] = {
      {properties, "Get", "('', 'SyncDb')", "(<0>,)"},
      {properties, "Get", "('org.olvara.tv.standin', 'Colour')", DBUS_ERROR_UNKNOWN_PROPERTY},
      {properties, "Get", "('org.olvara.other', 'SyncDb')", DBUS_ERROR_UNKNOWN_INTERFACE},
      {properties, "Get", "('org.olvara.tv.standin',)", DBUS_ERROR_INVALID_ARGS},
      {properties, "Set", "('', 'SyncDb', <1>)", "()"},
      {properties, "Set", "('', 'SyncDb', <7>)", DBUS_ERROR_INVALID_ARGS},
      {properties, "Set", "('', 'SyncDb', <true>)", DBUS_ERROR_INVALID_ARGS},
      {properties, "Set", "('', 'WakeupTime', <uint32 1>)", DBUS_ERROR_PROPERTY_READ_ONLY},
      {properties, "Get", "('org.olvara.tv.standin', 'SyncDb')", "(<1>,)"},
      {properties, "GetAll", "('org.freedesktop.DBus.Introspectable',)", "({},)"},
      {properties, "GetAll", "('org.olvara.other',)", DBUS_ERROR_UNKNOWN_INTERFACE},
      {kDaemon, "nothing", "()", DBUS_ERROR_UNKNOWN_METHOD},
      {{kDravelBusName, kDravelObjectPath, "a.b"}, "c", "()", DBUS_ERROR_UNKNOWN_INTERFACE},
      {{kDravelBusName, "/no", kDravelBusName}, "c", "()", DBUS_ERROR_UNKNOWN_OBJECT}};
  for (const auto &[target, method, arguments, answer] : calls)
    EXPECT_EQ(bus.ask(target, method, arguments), answer) << method << arguments;
}

// All calls wait in the daemon's socket when it goes on; those of the first client are too many.
// What two calls change and change back is told.
TEST_F(Service, ClientsTakeTurns_AndACallBehindTooManyIsRefused) {
  start();
  bus_client other;
  const auto add = [](bus_client &from, const char *time) {
    from.post(request_with(kDaemon, "schedule_timer", arguments_of({0, time})));
    from.pid_of(DBUS_SERVICE_DBUS); // answered once the bus has passed the call on
  };
  const auto ask = [&](int times) {
    const message question = request_of(kDaemon, "request_get_timers_halt_effect", "(0,)");
    dbus_message_set_no_reply(question.get(), TRUE);
    for (; times > 0; --times)
      bus.post(message(dbus_message_copy(question.get())));
  };
  const pid_t daemon = bus.pid_of(kDaemon.name);
  kill(daemon, SIGSTOP);
  add(bus, "15 13:00");
  ask(60);
  add(bus, "15 14:00");
  add(other, "15 15:00");
  ask(75);
  add(bus, "15 16:00");
  kill(daemon, SIGCONT);
  bus.receive([](DBusMessage *answer) {
    return dbus_message_is_error(answer, DBUS_ERROR_LIMITS_EXCEEDED) != 0;
  });
  while (call("request_wakeup_timer", "(0,)") == DBUS_ERROR_LIMITS_EXCEEDED)
    continue;
  EXPECT_EQ(timer_ids(), (words{1, 3, 2}));

  bus.listen("member='PropertiesChanged'");
  kill(daemon, SIGSTOP);
  for (const char *halt : {"(1,)", "(0,)"})
    bus.post(request_of(kDaemon, "request_halt_ontimers", halt));
  bus.pid_of(DBUS_SERVICE_DBUS);
  kill(daemon, SIGCONT);
  bus.receive(
      [](DBusMessage *signal) { return body_text(signal).find("HaltOn") != std::string::npos; });
}

// Any user may send them. The daemon may have 192 here, of which 79 at most are of messages.
TEST_F(Service, DescriptorsThatNoCallNeeds_DoNotEndTheDaemon) {
  start();
  const message laden = request_of(kDaemon, "request_get_timers_halt_effect", "(0,)");
  dbus_message_set_no_reply(laden.get(), TRUE);
  for (int i = 0; i < 16; ++i) {
    constexpr int kAny = STDIN_FILENO;
    dbus_message_append_args(laden.get(), DBUS_TYPE_UNIX_FD, &kAny, DBUS_TYPE_INVALID);
  }
  const pid_t daemon = bus.pid_of(kDaemon.name);
  ASSERT_GT(daemon, 0);
  const rlimit few{192, 192};
  ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, &few, nullptr), 0);
  kill(daemon, SIGSTOP);
  for (int i = 0; i < 40; ++i)
    bus.post(message(dbus_message_copy(laden.get())));
  bus.pid_of(DBUS_SERVICE_DBUS);
  kill(daemon, SIGCONT);
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(0, 0)");
}

TEST_F(Service, ALostBus_EndsTheDaemon) {
  constexpr const char *kOtherBus = "unix:path=/run/bench/other-bus";
  const outcome other =
      shell(std::string("dbus-daemon --session --fork --print-pid --address=") + kOtherBus);
  launch(kOtherBus);
  wait_log("end scheduling...");
  kill(std::stoi(other.said), SIGTERM);
  EXPECT_EQ(wait_exit(), 0);
}

TEST_F(Service, AStartThatIsRefusedWhatItNeeds_EndsWithStatus255) {
  const struct {
    const char *address, *refused, *logged;
  } cases[] = {{"unix:path=/run/bench/nowhere", "", "init_edbus_handler() failed"},
               {kSandboxBus, "settings_notify_key_changed", "init_settings_handler() failed"},
               {kSandboxBus, "device_power_subscribe_wakeup", "init_poweroff_handler() failed"}};
  for (const auto &[address, refused, logged] : cases) {
    launch(address, std::string("Refuse=") + refused);
    EXPECT_EQ(wait_exit(), 255);
    EXPECT_THAT(daemon_log(), HasSubstr(logged));
  }
}

TEST_F(Service, ACopy_GoesOutAndIn_OrSaysInTheLogWhyNot) {
  fs::remove_all("/opt/copies");
  fs::create_directories("/opt/copies/taken/.dravel.db/x");
  fs::create_directories("/opt/copies/pipe");
  ASSERT_EQ(mkfifo("/opt/copies/pipe/.dravel.db", 0600), 0); // which nobody reads or writes
  start();
  EXPECT_EQ(schedule({2, "15 13:00"}), 1);
  EXPECT_FALSE(bus.is_answered(kDaemon, "request_copy_db", "(1, '/opt/copies')"));
  wait_log("/opt/copies/.dravel.db is not exit");
  EXPECT_FALSE(bus.is_answered(kDaemon, "request_copy_db", "(0, '/opt/copies/taken')"));
  wait_log("failed to copy file: /opt/copies/taken/.dravel.db Is a directory");
  EXPECT_EQ(shell("ls -A /opt/copies/taken").said, ".dravel.db\n");
  EXPECT_FALSE(bus.is_answered(kDaemon, "request_copy_db", "(1, '/opt/copies/pipe')"));
  wait_log("failed to copy file: /opt/copies/pipe/.dravel.db is no regular file");
  EXPECT_EQ(call("request_copy_db", "(0, '/opt/copies/pipe')"), "(0,)");
  EXPECT_EQ(call("request_copy_db", "(0, '/opt/copies')"), "(0,)");
  EXPECT_EQ(rows("SELECT timer_id FROM dravel", "/opt/copies/.dravel.db"), "1");

  // The copy's permissions are the source's. The store may be named in other ways: it stays open.
  fs::resize_file("/opt/copies/.dravel.db", 0);
  fs::permissions("/opt/copies/.dravel.db", fs::perms(0600));
  fs::create_directory_symlink("/opt/dbspace", "/opt/copies/store");
  EXPECT_EQ(call("request_copy_db", "(0, '/opt/copies')"), "(0,)");
  for (const char *same : {"(0, '/opt/dbspace')", "(1, '/opt/dbspace')",
                           "(0, '/opt/../opt/dbspace/')", "(1, '/opt/copies/store')"})
    EXPECT_EQ(call("request_copy_db", same), "(0,)") << same;
  EXPECT_EQ(fs::status("/opt/copies/.dravel.db").permissions(), fs::perms(0664));
  EXPECT_EQ(schedule({2, "15 14:00"}), 2);
  EXPECT_EQ(call("cancel_timer", "(2,)"), "(0,)");

  // A copy-in is for the next start: until then reads go on and writes are refused.
  EXPECT_EQ(call("cancel_timer", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_copy_db", "(-2, '/opt/copies')"), "(0,)"); // any flag but 0
  EXPECT_EQ(schedule({2, "15 13:00"}), -1);
  EXPECT_EQ(stop(), 0);
  start();
  EXPECT_EQ(timer_ids(), words{1});
}

TEST_F(Service, TheSimulatedSet_IsDrivenAndHeardOverTheBus) {
  static constexpr const char *kEvents[][3] = {
      {"TimeSet", "()", "adjust_all_timers"},
      {"Standby", "(0,)", "standby option: 0"},
      {"Wakeup", "(3,)", "wakeup reason: 3"},
      {"AmbientPowerOff", "()", "into the ambient suspend mode"},
      {"StateChanged", "(4, 2)", "power_state_changed, [4], [2]"},
      {"MiddlewareSignal", "(108,)", "SIGNAL_SYSTEM_TIME_UPDATED event"},
      {"PowerOff", "(12,)", "poweroff option: 12"}};
  bus.listen("type='signal',member='Requested'");
  start();
  for (const auto &[event, arguments, logged] : kEvents) {
    EXPECT_EQ(bus.ask(kStandin, event, arguments), "()");
    wait_log(logged);
  }
  schedule({2, "15 13:00"});
  const std::string requested =
      "('set_wakeup_time', 2, " + std::to_string(time_of("15 13:00")) + ")";
  bus.receive([&](DBusMessage *sent) { return body_text(sent) == requested; });
}

} // namespace
