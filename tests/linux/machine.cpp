#include "machine.h"

#include "bus.h"
#include "configuration.h"
#include "screen.h"
#include "start.h"
#include "state.h"

#include <Ecore.h>
#include <KintoAPI.h>
#include <settings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct loop_timer {
  double seconds;
  Ecore_Task_Cb callback;
};

} // namespace

static constexpr std::uint64_t kLongestWait = 10'000'000; // us

static std::time_t wall_clock = kNow;
static std::vector<std::unique_ptr<loop_timer>> live_timers;
static std::vector<std::string> called;
static std::string delivered;
static sd_bus *control; // the case's own connection

// --- time ---

extern "C" {

std::time_t time(std::time_t *timer) noexcept {
  return timer == nullptr ? wall_clock : *timer = wall_clock;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *) {
  live_timers.push_back(std::make_unique<loop_timer>(loop_timer{seconds, callback}));
  return reinterpret_cast<Ecore_Timer *>(live_timers.back().get());
}

void *ecore_timer_del(Ecore_Timer *timer) {
  EXPECT_EQ(std::erase_if(live_timers,
                          [=](const auto &live) {
                            return reinterpret_cast<Ecore_Timer *>(live.get()) == timer;
                          }),
            1U)
      << "a main-loop timer is deleted that has already ended";
  return nullptr;
}
}

void set_now(std::uint32_t time) { wall_clock = time; }

std::uint32_t uptime() {
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  return static_cast<std::uint32_t>(up.tv_sec);
}

std::string timers() {
  std::vector<int> seconds;
  seconds.reserve(live_timers.size());
  for (const auto &live : live_timers)
    seconds.push_back(static_cast<int>(live->seconds));
  std::ranges::sort(seconds);
  std::string out;
  for (const int each : seconds)
    out += (out.empty() ? "" : " ") + std::to_string(each);
  return out;
}

void fire(double seconds) {
  const auto found =
      std::ranges::find_if(live_timers, [=](const auto &live) { return live->seconds == seconds; });
  ASSERT_NE(found, live_timers.end()) << "no timer of " << seconds << " s among " << timers();
  loop_timer *timer = found->get();
  if (!timer->callback(nullptr))
    ecore_timer_del(reinterpret_cast<Ecore_Timer *>(timer));
}

void step_clock() {
  ecore_event_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, nullptr, nullptr, nullptr);
  calls();
}

// --- devices ---

std::optional<std::int64_t> fake_rtc::read_clock() {
  errno = EBUSY;
  return is_busy ? std::nullopt : std::optional(wall_clock + ahead);
}

bool fake_rtc::read_alarm(std::optional<std::int64_t> &out) {
  out = forgets ? std::nullopt : alarm;
  errno = EBUSY;
  return !is_busy;
}

bool fake_rtc::set_alarm(std::int64_t time) {
  alarm = time;
  return true;
}

bool fake_rtc::clear_alarm() {
  errno = EBUSY;
  if (is_busy)
    return false;
  alarm.reset();
  cleared = configuration().rtc;
  return true;
}

void fake_cec::send(std::uint8_t destination, std::span<const std::uint8_t> message) {
  char text[8];
  std::snprintf(text, sizeof text, "%s%x:", sent.empty() ? "" : " ", destination);
  sent += text;
  for (const std::uint8_t byte : message) {
    std::snprintf(text, sizeof text, "%02x", byte);
    sent += text;
  }
}

void television_says(std::initializer_list<std::uint8_t> message) {
  screen_received(0, std::span(message.begin(), message.size()));
}

// --- services ---

played_services::played_services(const char *names) {
  const std::string command = std::string("exec " SERVICES " ") + names;
  std::string shell = "sh", option = "-c", text = command;
  char *const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  int ready[2];
  EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
  EXPECT_EQ(posix_spawnp(&pid_, "sh", &actions, nullptr, arguments, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(ready[1]);
  char last = '\0';
  while (last != '\n' && read(ready[0], &last, 1) == 1)
    continue;
  EXPECT_EQ(last, '\n') << "python3-dbusmock does not start";
  close(ready[0]);
}

played_services::~played_services() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

static std::string name_of(const char *service) {
  return std::string("org.freedesktop.") + service;
}
static std::string path_of(const char *service) {
  return std::string("/org/freedesktop/") + service;
}
static std::string interface_of(const char *service) {
  return name_of(service) + (service == std::string_view{"timedate1"} ? "" : ".Manager");
}

static int method_called(sd_bus_message *message, void *, sd_bus_error *) {
  const char *method = "";
  sd_bus_message_read(message, "s", &method);
  std::string call = method;
  sd_bus_message_enter_container(message, 'a', "v");
  const char *type = nullptr;
  if (sd_bus_message_peek_type(message, nullptr, &type) > 0 && *type == 's') {
    const char *text = "";
    sd_bus_message_read(message, "v", "s", &text);
    call += std::string(" ") + text;
  }
  if (call != "Subscribe")
    called.push_back(call);
  return 0;
}

static void connect() {
  ASSERT_GE(sd_bus_open_system(&control), 0);
  ASSERT_GE(sd_bus_match_signal(control, nullptr, nullptr, nullptr, "org.freedesktop.DBus.Mock",
                                "MethodCalled", method_called, nullptr),
            0);
  sd_bus_attach_event(control, bus_events(), SD_EVENT_PRIORITY_NORMAL);
}

// Calls dbusmock's own method with the arguments that are appended.
static void call_mock(const char *service, const char *method,
                      const std::function<void(sd_bus_message *)> &append) {
  sd_bus_message *message = nullptr;
  sd_bus_message_new_method_call(control, &message, name_of(service).c_str(),
                                 path_of(service).c_str(), "org.freedesktop.DBus.Mock", method);
  append(message);
  sd_bus_error error{};
  EXPECT_GE(sd_bus_call(control, message, 0, &error, nullptr), 0) << method << error.message;
  sd_bus_error_free(&error);
  sd_bus_message_unref(message);
}

static char type_of(const bus_value &value) { return "butso"[value.index()]; }

static void append_variant(sd_bus_message *message, const bus_value &value) {
  const char signature[] = {type_of(value), '\0'};
  std::visit(
      [&](auto plain) {
        if constexpr (std::is_same_v<decltype(plain), object_path>)
          sd_bus_message_append(message, "v", signature, plain.text);
        else
          sd_bus_message_append(message, "v", signature, plain);
      },
      value);
}

void emit(const char *service, const char *signal, std::initializer_list<bus_value> values) {
  std::string signature;
  for (const bus_value &value : values)
    signature += type_of(value);
  call_mock(service, "EmitSignal", [&](sd_bus_message *message) {
    sd_bus_message_append(message, "sss", interface_of(service).c_str(), signal, signature.c_str());
    sd_bus_message_open_container(message, 'a', "v");
    for (const bus_value &value : values)
      append_variant(message, value);
    sd_bus_message_close_container(message);
  });
}

void set_property(const char *service, const char *property, const bus_value &value) {
  call_mock(service, "UpdateProperties", [&](sd_bus_message *message) {
    sd_bus_message_append(message, "s", interface_of(service).c_str());
    sd_bus_message_open_container(message, 'a', "{sv}");
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append(message, "s", property);
    append_variant(message, value);
    sd_bus_message_close_container(message);
    sd_bus_message_close_container(message);
  });
}

void refuse(const char *service, const char *method) {
  call_mock(service, "AddMethod", [&](sd_bus_message *message) {
    sd_bus_message_append(message, "sssss", interface_of(service).c_str(), method, "b", "",
                          "raise dbus.exceptions.DBusException('no', "
                          "name='org.freedesktop.DBus.Error.AccessDenied')");
  });
}

void end_bus() {
  sd_bus_message *reply = nullptr;
  std::uint32_t pid = 0;
  sd_bus_call_method(control, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                     "GetConnectionUnixProcessID", nullptr, &reply, "s", "org.freedesktop.DBus");
  ASSERT_GE(sd_bus_message_read(reply, "u", &pid), 0);
  sd_bus_message_unref(reply);
  kill(static_cast<pid_t>(pid), SIGTERM);
  wait_until([] { return sd_bus_is_open(control) <= 0; });
}

// --- waiting ---

static int wait_is_over(sd_event_source *, std::uint64_t, void *) {
  std::fflush(stdout);
  std::abort();
}

void wait_until(const std::function<bool()> &happened) {
  sd_event_source *limit = nullptr;
  sd_event_add_time_relative(bus_events(), &limit, CLOCK_MONOTONIC, kLongestWait, 0, wait_is_over,
                             nullptr);
  for (ecore_main_loop_iterate(); !happened(); ecore_main_loop_iterate())
    sd_event_run(bus_events(), kLongestWait);
  sd_event_source_disable_unref(limit);
}

void wait_for_call(const std::string &call) {
  SCOPED_TRACE(call);
  wait_until([&] { return std::ranges::find(called, call) != called.end(); });
  called.erase(std::ranges::find(called, call));
}

// As often as an answer can lead to another call.
static void let_everything_happen() {
  for (int hop = 0; hop < 4; ++hop) {
    ecore_main_loop_iterate();
    sd_bus_call_method(control, "org.freedesktop.login1", "/org/freedesktop/login1",
                       "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, "");
  }
  ecore_main_loop_iterate();
}

std::string calls() {
  let_everything_happen();
  std::string out;
  for (const std::string &call : std::exchange(called, {}))
    out += (out.empty() ? "" : "; ") + call;
  return out;
}

// --- the daemon's side ---

static void deliver(const std::string &event) {
  delivered += (delivered.empty() ? "" : "; ") + event;
}

std::string events() { return std::exchange(delivered, ""); }

bool inhibitor_is_held() {
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == "/tmp/inhibitor")
      return true;
  }
  return false;
}

static int standby_event(int, void *) {
  deliver(inhibitor_is_held() ? "standby in time" : "standby");
  return 0;
}

static int wakeup_event(int reason, void *) {
  deliver("wakeup " + std::to_string(reason));
  return 0;
}

static int state_event(const void *event, void *) {
  deliver("state " + std::to_string(static_cast<const device_power_event *>(event)->state));
  return 0;
}

static int time_event(ESignalType, EProfile, std::uint16_t, TSSignalData, void *) {
  deliver("time update");
  return 0;
}

static void setting_event(settings_key *, void *key) {
  deliver(std::string_view(static_cast<const char *>(key)).substr(26).data());
}

static void subscribe() {
  for (const char *key : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
    ASSERT_EQ(settings_notify_key_changed(key, setting_event, const_cast<char *>(key)), 0);
  device_power_subscribe_standby(standby_event, nullptr);
  device_power_subscribe_wakeup(wakeup_event, nullptr);
  device_power_subscribe_state_changed_event(state_event, nullptr);
  ISignalSubscriber *subscriber = nullptr;
  KintoAPI::CreateSignalSubscriber(time_event, &subscriber);
  subscriber->Subscribe(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0);
}

void Machine::start(const char *configuration, const char *names) {
  ASSERT_EQ(bus_events(), nullptr) << "each case needs a process of its own: use ctest";
  setenv("STATE_DIRECTORY", "/tmp/state", 1);
  setenv("RUNTIME_DIRECTORY", "/tmp/run", 1);
  setenv("DRAVEL_CONFIGURATION", "/tmp/machine.conf", 1);
  setenv("DRAVEL_LOG_STDERR", "1", 1);
  std::ofstream("/tmp/machine.conf") << "[linux]\n" << configuration << '\n';
  if (*names != '\0')
    services.emplace(names);
  ecore_init();
  use_devices(rtc, *adapter);
  reason_at_first = device_power_get_wakeup_reason(); // the daemon asks before it subscribes
  subscribe();
  connect();
  if (std::string_view(names).starts_with("login1"))
    wait_until(inhibitor_is_held);
  calls();
  events();
}

void Machine::TearDown() {
  sd_bus_unref(control);
  ecore_shutdown();
}
