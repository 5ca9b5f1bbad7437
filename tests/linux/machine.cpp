#include "machine.h"

#include "configuration.h"
#include "screen.h"
#include "start.h"

#include <Ecore.h>
#include <KintoAPI.h>
#include <settings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

struct loop_timer {
  double seconds;
  Ecore_Task_Cb callback;
};

} // namespace

static constexpr auto kLongestWait = std::chrono::seconds(10);
static constexpr int kTurnsOfAnOrder = 6; // until what it leads to has been called and is known
static constexpr const char *kMock = "org.freedesktop.DBus.Mock";

static std::time_t wall_clock = kNow;
static std::list<loop_timer> live_timers;
static std::optional<bus_client> client; // the case's own connection
static std::string called;
static std::string delivered;

static void append(std::string &list, const std::string &entry, const char *separator = "; ") {
  list += (list.empty() ? "" : separator) + entry;
}

// --- time ---

extern "C" {

std::time_t time(std::time_t *timer) noexcept {
  return timer == nullptr ? wall_clock : *timer = wall_clock;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *) {
  live_timers.push_back({seconds, callback});
  return reinterpret_cast<Ecore_Timer *>(&live_timers.back());
}

void *ecore_timer_del(Ecore_Timer *timer) {
  const auto is_same = [=](loop_timer &live) {
    return reinterpret_cast<Ecore_Timer *>(&live) == timer;
  };
  EXPECT_EQ(std::erase_if(live_timers, is_same), 1U)
      << "a main-loop timer is deleted that has already ended";
  return nullptr;
}
}

void set_now(std::uint32_t time) { wall_clock = time; }

std::string timers() {
  std::multiset<int> seconds;
  for (const loop_timer &live : live_timers)
    seconds.insert(static_cast<int>(live.seconds));
  std::string out;
  for (const int each : seconds)
    append(out, std::to_string(each), " ");
  return out;
}

void fire(double seconds) {
  const auto found = std::ranges::find(live_timers, seconds, &loop_timer::seconds);
  ASSERT_NE(found, live_timers.end()) << "no timer of " << seconds << " s among " << timers();
  if (!found->callback(nullptr))
    ecore_timer_del(reinterpret_cast<Ecore_Timer *>(&*found));
}

void step_clock() {
  ecore_event_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, nullptr, nullptr, nullptr);
  calls();
}

// --- devices ---

bool fake_rtc::does(unsigned operation) const {
  errno = error;
  return (refused & operation) == 0;
}

std::optional<std::int64_t> fake_rtc::read_clock() {
  return does(READ_CLOCK) ? std::optional(wall_clock + ahead) : std::nullopt;
}

bool fake_rtc::read_alarm(std::optional<std::int64_t> &out) {
  out = alarm;
  return does(READ_ALARM);
}

bool fake_rtc::set_alarm(std::int64_t time) {
  if (!does(SET_ALARM))
    return false;
  alarm = does(KEEP_ALARM) ? std::optional(time) : std::nullopt;
  return true;
}

bool fake_rtc::clear_alarm() {
  if (!does(CLEAR_ALARM))
    return false;
  alarm.reset();
  cleared = configuration().rtc;
  return true;
}

std::string hex_of(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes)
    text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 0xf]};
  return text;
}

void fake_cec::send(std::uint8_t destination, std::span<const std::uint8_t> bytes) {
  EXPECT_TRUE(destination < 16 && !bytes.empty() && bytes.size() < 16);
  append(sent, hex_of({&destination, 1}).substr(1) + ":" + hex_of(bytes), " ");
}

void television_says(std::initializer_list<std::uint8_t> bytes) {
  screen_received(0, std::span(bytes.begin(), bytes.size()));
}

void television_stays(std::uint8_t status) {
  for (int second = 1; second <= 15; ++second) {
    television_says({0x90, status});
    fire(1);
  }
}

// --- services ---

static bus_target mock_of(const bus_service &service, const char *interface) {
  return {service.name, service.path, interface};
}

// Calls dbusmock's own method.
static void tell(const bus_service &service, const char *method, const std::string &arguments) {
  EXPECT_EQ(client->ask(mock_of(service, kMock), method,
                        std::string("('") + service.interface + "', " + arguments + ")"),
            "()");
}

static std::string quoted(const std::string &text) { return "'" + text + "'"; }

void emit(const bus_service &service, const std::string &signal, const char *signature,
          const std::string &values) {
  tell(service, "EmitSignal", quoted(signal) + ", " + quoted(signature) + ", [" + values + "]");
}

void set_property(const bus_service &service, const char *property, const std::string &value) {
  tell(service, "UpdateProperties", "{" + quoted(property) + ": <" + value + ">}");
}

void refuse(const bus_service &service, const char *method) {
  tell(service, "AddMethod",
       quoted(method) + ", 'b', '', \"raise dbus.exceptions.DBusException('no', "
                        "name='org.freedesktop.DBus.Error.AccessDenied')\"");
}

void prepare_for(const std::string &what, bool begins) {
  emit(kLogind, "PrepareFor" + what, "b", begins ? "<true>" : "<false>");
  wait_until([=] { return inhibitor_is_held() != begins; });
}

void begin_session() { emit(kLogind, "SessionNew", "so", "<'1'>, <objectpath '/1'>"); }

void end_hooks() {
  emit(kSystemd, "JobRemoved", "uoss",
       "<uint32 1>, <objectpath '/1'>, <'dravel-off.target'>, <'done'>");
}

void end_bus() {
  const pid_t bus = client->pid_of(DBUS_SERVICE_DBUS);
  kill(bus, SIGTERM);
  wait_until([=] { return kill(bus, 0) != 0; });
  calls(); // the platform's connection is closed then
}

void Machine::start_services() {
  services.emplace(std::vector<std::string>{SERVICES});
  services->wait_name(*client, mock_of(kSystemd, kMock)); // the last one of them
}

// --- waiting ---

static void take_call(DBusMessage *arrived) {
  const char *method = "";
  if (dbus_message_is_signal(arrived, kMock, "MethodCalled") == 0)
    return;
  dbus_message_get_args(arrived, nullptr, DBUS_TYPE_STRING, &method, DBUS_TYPE_INVALID);
  std::string call = method;
  const std::string text = body_text(arrived); // as "('StopUnit', [<'x.target'>, <'replace'>])"
  if (const std::size_t at = text.find("[<'"); at != std::string::npos)
    call += " " + text.substr(at + 3, text.find('\'', at + 3) - at - 3);
  if (call != "Subscribe")
    append(called, call);
}

// The platform runs; then everything has arrived that was sent before.
static void take_turn() {
  ecore_main_loop_iterate();
  client->ask(mock_of(kLogind, DBUS_INTERFACE_PEER), "Ping", "()");
}

void wait_until(const std::function<bool()> &happened) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  for (take_turn(); !happened(); take_turn())
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("what is waited for does not happen");
}

static std::string taken(std::string &list) {
  for (int turn = 0; turn < kTurnsOfAnOrder; ++turn)
    take_turn();
  ecore_main_loop_iterate();
  client->drain(take_call);
  return std::exchange(list, "");
}

std::string calls() { return taken(called); }

std::string events() { return taken(delivered); }

std::string stderr_of(const std::function<void()> &action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

// --- the daemon's side ---

bool inhibitor_is_held() {
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == "/tmp/inhibitor")
      return true;
  }
  return false;
}

static void subscribe() {
  const auto setting_changed = [](settings_key *, void *key) {
    const std::string path = static_cast<const char *>(key);
    append(delivered, path.substr(path.rfind('/') + 1));
  };
  const auto standby = [](int, void *) {
    append(delivered, inhibitor_is_held() ? "standby in time" : "standby");
    return 0;
  };
  const auto wakeup = [](int reason, void *) {
    append(delivered, "wakeup " + std::to_string(reason));
    return 0;
  };
  const auto state_changed = [](const void *event, void *) {
    const int state = static_cast<const device_power_event *>(event)->state;
    append(delivered, "state " + std::to_string(state));
    return 0;
  };
  const auto time_update = [](ESignalType, EProfile, std::uint16_t, TSSignalData, void *) {
    append(delivered, "time update");
    return 0;
  };
  for (const char *key : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
    ASSERT_EQ(settings_notify_key_changed(key, setting_changed, const_cast<char *>(key)), 0);
  device_power_subscribe_standby(standby, nullptr);
  device_power_subscribe_wakeup(wakeup, nullptr);
  device_power_subscribe_state_changed_event(state_changed, nullptr);
  ISignalSubscriber *subscriber = nullptr;
  KintoAPI::CreateSignalSubscriber(time_update, &subscriber);
  subscriber->Subscribe(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0);
}

void set_environment() {
  setenv("STATE_DIRECTORY", "/tmp/state", 1);
  setenv("RUNTIME_DIRECTORY", "/tmp/run", 1);
  setenv("DRAVEL_CONFIGURATION", kConfigurationPath, 1);
  setenv("DRAVEL_LOG_STDERR", "1", 1);
}

static void configure(const std::string &lines) {
  std::ofstream(kConfigurationPath) << "[linux]\n" << lines << '\n';
}

void reload(const std::string &lines) {
  configure(lines);
  raise(SIGUSR1);
  calls();
}

void Machine::start(const char *configuration, bool with_services) {
  ASSERT_EQ(bus_events(), nullptr) << "each case needs a process of its own: use ctest";
  set_environment();
  configure(configuration);
  client.emplace();
  client->listen("type='signal',interface='org.freedesktop.DBus.Mock'");
  if (with_services)
    start_services();
  ecore_init();
  use_devices(rtc, *adapter);
  reason_at_first = device_power_get_wakeup_reason(); // the daemon asks before it subscribes
  subscribe();
  if (with_services)
    wait_until(inhibitor_is_held);
  calls();
  events();
}

void Machine::TearDown() { ecore_shutdown(); }
