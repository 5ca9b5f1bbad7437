#include "loop.h"

#include "dravel-bus.h"
#include "dravel-runtime.h"
#include "standin.h"

#include <gtest/gtest.h>
#include <system_log.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>
#include <utility>

static std::vector<std::unique_ptr<loop_timer>> timers;
static std::vector<std::pair<Ecore_Task_Cb, void *>> idle_steps;
static double loop_time;
static std::time_t system_clock;

// Operations fail where the stand-in's record names them.
static bool refuses(const char *operation) { return standin().refused.contains(operation); }

// --- the main loop and the clock ---

static auto find_live(const void *handle) {
  return std::ranges::find(timers, handle, [](const auto &live) { return live.get(); });
}

extern "C" {

std::time_t time(std::time_t *timer) noexcept {
  timespec now{system_clock, 0};
  if (system_clock == 0)
    clock_gettime(CLOCK_REALTIME, &now);
  return timer == nullptr ? now.tv_sec : *timer = now.tv_sec;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *data) {
  EXPECT_TRUE(std::isfinite(seconds) && seconds >= 0) << "a main-loop timer for no time";
  if (refuses(__func__))
    return nullptr;
  timers.push_back(
      std::make_unique<loop_timer>(loop_timer{seconds, callback, const_cast<void *>(data)}));
  timers.back()->made_while = "trusted " + std::to_string(get_kinto_time_updated()) + " awake " +
                              std::to_string(get_wakeup_state()) +
                              (access(kFinishMarkerPath, F_OK) == 0 ? " finish" : "");
  return reinterpret_cast<Ecore_Timer *>(timers.back().get());
}

void *ecore_timer_del(Ecore_Timer *timer) {
  const auto found = find_live(timer);
  if (found == timers.end()) {
    ADD_FAILURE() << "a main-loop timer is deleted that has ended";
    return nullptr;
  }
  void *data = (*found)->data;
  EXPECT_TRUE((*found)->frozen) << "a main-loop timer is deleted that was not frozen";
  EXPECT_FALSE((*found)->running) << "a main-loop timer is deleted by its own callback";
  timers.erase(found);
  return data;
}

void ecore_timer_freeze(Ecore_Timer *timer) {
  const auto found = find_live(timer);
  EXPECT_NE(found, timers.end()) << "a main-loop timer is frozen that has ended";
  if (found != timers.end())
    (*found)->frozen = true;
}

double ecore_loop_time_get() { return loop_time; }

// Any address will do for a handle.
Ecore_Idler *ecore_idler_add(Ecore_Task_Cb callback, const void *data) {
  idle_steps.emplace_back(callback, const_cast<void *>(data));
  return reinterpret_cast<Ecore_Idler *>(&idle_steps);
}

Ecore_Idle_Enterer *ecore_idle_enterer_add(Ecore_Task_Cb callback, const void *data) {
  return reinterpret_cast<Ecore_Idle_Enterer *>(ecore_idler_add(callback, data));
}
}

const std::vector<std::unique_ptr<loop_timer>> &live_timers() { return timers; }

const loop_timer *find_timer(const void *handle) {
  const auto found = find_live(handle);
  return found == timers.end() ? nullptr : found->get();
}

std::vector<double> waits(Ecore_Task_Cb callback) {
  std::vector<double> seconds;
  for (const auto &timer : timers)
    if (timer->callback == callback)
      seconds.push_back(timer->seconds);
  return seconds;
}

int pending(Ecore_Task_Cb callback) { return static_cast<int>(waits(callback).size()); }

void pass(double seconds) {
  for (const auto &timer : timers)
    timer->seconds -= seconds;
}

bool fire(const loop_timer &timer) {
  auto &running = *const_cast<loop_timer *>(&timer);
  running.running = true;
  const Eina_Bool again = running.callback(running.data);
  EXPECT_LE(again, ECORE_CALLBACK_RENEW);
  running.running = false;
  if (again == ECORE_CALLBACK_CANCEL)
    timers.erase(find_live(&running));
  return again != ECORE_CALLBACK_CANCEL;
}

bool fire(Ecore_Task_Cb callback) {
  for (const auto &timer : timers)
    if (timer->callback == callback)
      return fire(*timer);
  ADD_FAILURE() << "no such main-loop timer";
  return false;
}

void forget_timers() {
  timers.clear();
  idle_steps.clear();
}

void run_idle_steps(double later) {
  loop_time += later;
  for (const auto &[step, data] : std::exchange(idle_steps, {}))
    EXPECT_EQ(step(data), ECORE_CALLBACK_CANCEL);
}

void set_system_clock(std::time_t now) { system_clock = now; }

// --- the bus binding ---

// Nothing stands behind these; the daemon only hands them back.
struct E_DBus_Connection {};
struct E_DBus_Object {};
struct E_DBus_Interface {};

static E_DBus_Connection the_connection;
static E_DBus_Object the_object;
static E_DBus_Interface the_interface;
static std::vector<bound_method> methods;

const std::vector<bound_method> &bound_methods() { return methods; }

int e_dbus_init() { return refuses(__func__) ? 0 : 1; }

int e_dbus_shutdown() { return 0; }

E_DBus_Connection *e_dbus_bus_get(DBusBusType) {
  return refuses(__func__) ? nullptr : &the_connection;
}

// Any address will do: the daemon only compares it with null.
DBusPendingCall *e_dbus_request_name(E_DBus_Connection *, const char *, unsigned int flags,
                                     E_DBus_Method_Return_Cb, const void *) {
  EXPECT_EQ(flags, 0U) << "the name could be taken away";
  return refuses(__func__) ? nullptr : reinterpret_cast<DBusPendingCall *>(&the_connection);
}

// The stand-in gets no object: it is driven directly.
E_DBus_Object *e_dbus_object_add(E_DBus_Connection *, const char *path, void *) {
  const bool is_daemons = std::string_view(path).starts_with(kDravelObjectPath);
  return is_daemons && !refuses(__func__) && !refuses(path) ? &the_object : nullptr;
}

E_DBus_Interface *e_dbus_interface_new(const char *name) {
  return refuses(__func__) || refuses(name) ? nullptr : &the_interface;
}

int e_dbus_interface_method_add(E_DBus_Interface *, const char *member, const char *signature,
                                const char *reply_signature, E_DBus_Method_Cb handler) {
  methods.push_back({member, signature, reply_signature, handler});
  return 1;
}

int e_dbus_interface_signal_add(E_DBus_Interface *, const char *, const char *) { return 1; }

int e_dbus_interface_property_add(E_DBus_Interface *, const char *, const char *,
                                  E_DBus_Property_Change, E_DBus_Property_Get_Cb,
                                  E_DBus_Property_Set_Cb) {
  return 1;
}

static std::string state_sent;

static void add_state_sent(const std::string &text) {
  state_sent += (state_sent.empty() ? "" : ", ") + text;
}

std::string state_changes() {
  run_idle_steps();
  return std::exchange(state_sent, {});
}

void e_dbus_properties_changed(E_DBus_Object *, const E_DBus_Interface *,
                               const char *const *names) {
  for (; *names != nullptr; ++names)
    add_state_sent(*names);
}

void e_dbus_object_interface_attach(E_DBus_Object *, E_DBus_Interface *) {}

// The daemon's signals stand among the requests that it makes of the set, in their order.
DBusPendingCall *e_dbus_message_send(E_DBus_Connection *connection, DBusMessage *message,
                                     E_DBus_Method_Return_Cb, int, void *) {
  EXPECT_NE(connection, nullptr);
  const std::string member = dbus_message_get_member(message);
  dbus_int32_t value = 0;
  const char *reason = "";
  dbus_message_get_args(message, nullptr, DBUS_TYPE_INT32, &value, DBUS_TYPE_STRING, &reason,
                        DBUS_TYPE_INVALID);
  if (member.starts_with("dravel_"))
    standin().requests.push_back({member, static_cast<std::uint32_t>(value), 0});
  else
    add_state_sent(member.substr(5) + " " + std::to_string(value) +
                   (*reason == '\0' ? "" : " " + std::string(reason)));
  return nullptr;
}

// --- the log ---

system_log_priority system_log_threshold = SYSTEM_LOG_DEBUG;
static std::string log_lines;
static std::string log_levels;
static const bool kCopyToStderr = std::getenv("DRAVEL_LOG_STDERR") != nullptr;

std::string logged() {
  log_levels.clear();
  return std::exchange(log_lines, {});
}

std::string logged_levels() { return log_levels; }

static std::string log_events;
static std::string log_text;

std::string logged_events() { return std::exchange(log_events, {}); }

std::string last_logged_text() { return log_text; }

void system_log_event(const char *event, int timer_id, const char *reason, const char *text) {
  log_text = text;
  log_events += (log_events.empty() ? "" : ", ") + std::string(event) + " " +
                std::to_string(timer_id) + (*reason == '\0' ? "" : " " + std::string(reason));
}

void system_log_print(system_log_priority priority, const char *, const char *format, ...) {
  char line[2048];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (kCopyToStderr)
    std::fprintf(stderr, "%s\n", line);
  std::string entry = line;
  if (std::string_view(format).starts_with("%s: %s(%d) > "))
    entry.erase(entry.find('('), entry.find(" > ") - entry.find('(')).erase(0, entry.find(' ') + 1);
  log_levels += "DIEP"[priority];
  log_lines += entry + (entry.ends_with('\n') ? "" : "\n");
}
