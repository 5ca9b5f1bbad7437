#include "machine.h"

#include "screen.h"
#include "start.h"

#include <Ecore.h>
#include <KintoAPI.h>
#include <settings.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

static constexpr auto kLongestWait = std::chrono::seconds(10);
static constexpr int kTurnsOfAnOrder = 6; // until what it leads to has been called and is known
static constexpr std::string_view kError = "PRIORITY=3\nSYSLOG_IDENTIFIER=DRAVEL_LINUX\nMESSAGE=";
static constexpr const char *kMock = "org.freedesktop.DBus.Mock";

static std::time_t wall_clock = kNow;
static std::multimap<double, Ecore_Task_Cb> live_timers; // by their seconds
static std::optional<bus_client> client;                 // the case's own connection
static std::string happened;
static int journal = -1;

void append(std::string &list, const std::string &entry, const char *separator) {
  list += (list.empty() ? "" : separator) + entry;
}

static int happens(const std::string &what) {
  append(happened, what);
  return 0;
}

// --- time ---

extern "C" {

std::time_t time(std::time_t *timer) noexcept {
  return timer == nullptr ? wall_clock : *timer = wall_clock;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *) {
  return reinterpret_cast<Ecore_Timer *>(&*live_timers.emplace(seconds, callback));
}

void *ecore_timer_del(Ecore_Timer *timer) {
  const auto is_same = [=](const auto &live) { return static_cast<const void *>(&live) == timer; };
  EXPECT_EQ(std::erase_if(live_timers, is_same), 1U)
      << "a main-loop timer is deleted that has already ended";
  return nullptr;
}
}

void set_now(std::uint32_t time) { wall_clock = time; }

std::string timers() {
  std::string out;
  for (const auto &[seconds, callback] : live_timers)
    append(out, std::to_string(static_cast<int>(seconds)), " ");
  return out;
}

void fire(double seconds) {
  const auto found = live_timers.find(seconds);
  ASSERT_NE(found, live_timers.end()) << "no timer of " << seconds << " s among " << timers();
  auto *timer = reinterpret_cast<Ecore_Timer *>(&*found);
  if (!found->second(nullptr))
    ecore_timer_del(timer);
}

// --- devices ---

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

void television_stays(power_status status) {
  for (int second = 1; second <= 15; ++second) {
    television_reports(status);
    fire(1);
  }
}

// --- services ---

static bus_target mock_of(const bus_service &service, const char *interface) {
  return {service.name, service.path, interface};
}

void tell(const bus_service &service, const char *method, const std::string &arguments) {
  EXPECT_EQ(client->ask(mock_of(service, kMock), method,
                        std::string("('") + service.interface + "', " + arguments + ")"),
            "()");
}

void set_property(const bus_service &service, const char *property, const std::string &value) {
  tell(service, "UpdateProperties", std::string("{'") + property + "': <" + value + ">}");
}

void Machine::start_services() {
  services.emplace(std::vector<std::string>{SERVICES});
  services->wait_name(*client, mock_of(kSystemd, kMock)); // the last one of them
}

// --- waiting ---

// The platform runs; then everything has arrived that was sent before.
static void take_turn() {
  ecore_main_loop_iterate();
  client->ask(mock_of(kLogind, DBUS_INTERFACE_PEER), "Ping", "()");
}

static void take_turns() {
  for (int turn = 0; turn < kTurnsOfAnOrder; ++turn)
    take_turn();
  ecore_main_loop_iterate();
}

void wait_until(const std::function<bool()> &is_done) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  for (take_turn(); !is_done(); take_turn())
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("what is waited for does not happen");
}

std::string next_entry() {
  char entry[1024];
  const ssize_t size = recv(journal, entry, sizeof entry, MSG_DONTWAIT);
  return {entry, static_cast<std::size_t>(std::max(size, ssize_t{0}))};
}

static void take_call(DBusMessage *arrived) {
  char method[32] = "";
  char argument[64] = "";
  if (dbus_message_is_signal(arrived, kMock, "MethodCalled") == 0)
    return;
  const std::string call = body_text(arrived); // as "('StopUnit', [<'x.target'>, <'replace'>])"
  std::sscanf(call.c_str(), "('%31[^']', [<'%63[^']", method, argument);
  if (method != std::string_view{"Subscribe"})
    happens(method + (*argument == '\0' ? "" : std::string(" ") + argument));
}

std::string seen() {
  take_turns();
  for (std::string entry = next_entry(); !entry.empty(); entry = next_entry())
    if (entry.starts_with(kError))
      happens(entry.substr(kError.size(), entry.size() - kError.size() - 1));
  client->drain(take_call);
  if (!live_timers.empty())
    append(happened, timers(), " | ");
  return std::exchange(happened, "");
}

std::string seen_after(double seconds) {
  fire(seconds);
  return seen();
}

void step_clock() {
  ecore_event_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, nullptr, nullptr, nullptr);
  take_turns();
}

void end_bus() {
  const pid_t bus = client->pid_of(DBUS_SERVICE_DBUS);
  kill(bus, SIGTERM);
  wait_until([=] { return kill(bus, 0) != 0; });
  take_turns(); // the platform's connection is closed then
}

// --- the daemon's side ---

bool inhibitor_is_held() {
  const std::filesystem::directory_iterator open_files("/proc/self/fd");
  return std::ranges::any_of(open_files, [](const std::filesystem::path &file) {
    std::error_code closed;
    return std::filesystem::read_symlink(file, closed) == "/tmp/inhibitor";
  });
}

static int standby(int, void *) {
  return happens(inhibitor_is_held() ? "standby in time" : "standby");
}

static int wakeup(int reason, void *) { return happens("wakeup " + std::to_string(reason)); }

static int state_changed(const void *event, void *) {
  return happens("state " + std::to_string(static_cast<const device_power_event *>(event)->state));
}

static void setting_changed(settings_key *, void *key) {
  happens(std::filesystem::path(static_cast<const char *>(key)).filename());
}

static int time_update(ESignalType, EProfile, std::uint16_t, TSSignalData, void *) {
  return happens("time update");
}

static void subscribe() {
  ISignalSubscriber *subscriber = nullptr;
  for (const char *key : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
    ASSERT_EQ(settings_notify_key_changed(key, setting_changed, const_cast<char *>(key)), 0);
  device_power_subscribe_standby(standby, nullptr);
  device_power_subscribe_wakeup(wakeup, nullptr);
  device_power_subscribe_state_changed_event(state_changed, nullptr);
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
  take_turns();
}

Machine::Machine() {
  const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
  EXPECT_EQ(bus_events(), nullptr) << "each case needs a process of its own: use ctest";
  std::filesystem::create_directories("/run/systemd/journal");
  journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(journal, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  set_environment();
  ecore_init();
}

Machine::~Machine() { ecore_shutdown(); }

std::string Machine::start(const char *configuration, bool with_services) {
  configure(configuration);
  client.emplace();
  client->listen("type='signal',interface='org.freedesktop.DBus.Mock'");
  if (with_services)
    start_services();
  use_devices(rtc, *adapter);
  reason_at_first = device_power_get_wakeup_reason(); // the daemon asks before it subscribes
  subscribe();
  if (with_services)
    wait_until(inhibitor_is_held);
  return seen();
}
