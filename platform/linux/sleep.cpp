#include "sleep.h"

#include "bus.h"
#include "journal.h"
#include "power.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

static constexpr const char *kNoSleep = "the machine is not sent to sleep";

namespace {

// Rows in the order of off_action.
struct sleep_method {
  const char *name;
  const char *blocked_by; // the inhibitor's type
};

struct sleep_request {
  off_action action;
  void (*postponed)();
};

} // namespace

static constexpr sleep_method kMethods[] = {
    {"Suspend", "sleep"}, {"PowerOff", "shutdown"}, {"Hibernate", "sleep"}};

static int inhibitor = -1; // delays sleep and shutdown while it is open
static bool is_inhibitor_due;
static sleep_request request;

// --- the delay ---

static void release_inhibitor() {
  if (inhibitor >= 0)
    close(inhibitor);
  inhibitor = -1;
}

static int inhibit_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  is_inhibitor_due = false;
  if (bus_refused(reply, kLogind, "a sleep may begin before the on-time is programmed"))
    return 0;
  int fd = -1;
  sd_bus_message_read(reply, "h", &fd);
  release_inhibitor();
  inhibitor = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the message closes its own
  return 0;
}

static void take_inhibitor() {
  if (inhibitor >= 0 || is_inhibitor_due)
    return;
  is_inhibitor_due = true;
  bus_call(kLogind, "Inhibit", inhibit_answered, "ssss", "sleep:shutdown", "dravel-manager",
           "The next on-time is programmed", "delay");
}

// A logind that has started again has lost our inhibitor.
static void logind_appeared() {
  release_inhibitor();
  is_inhibitor_due = false;
  take_inhibitor();
}

static bool begins(sd_bus_message *message) {
  int start = 0;
  sd_bus_message_read(message, "b", &start);
  return start != 0;
}

static int prepare_for_sleep(sd_bus_message *message, void *, sd_bus_error *) {
  if (begins(message)) {
    machine_goes_to_sleep();
    release_inhibitor();
  } else {
    take_inhibitor();
    machine_woke_up();
  }
  return 0;
}

static int prepare_for_shutdown(sd_bus_message *message, void *, sd_bus_error *) {
  if (begins(message)) {
    machine_shuts_down();
    release_inhibitor();
  } else {
    take_inhibitor();
    machine_stays_up();
  }
  return 0;
}

// --- users ---

static int session_added(sd_bus_message *, void *, sd_bus_error *) {
  user_is_active();
  return 0;
}

static bool take_idle_hint(const char *name, sd_bus_message *value) {
  if (name != std::string_view{"IdleHint"})
    return false;
  int idle = 1;
  sd_bus_message_read(value, "v", "b", &idle);
  if (idle == 0)
    user_is_active();
  return true;
}

static int logind_changed(sd_bus_message *message, void *, sd_bus_error *) {
  sd_bus_message_skip(message, "s");
  bus_read_properties(message, take_idle_hint);
  return 0;
}

// --- going to sleep ---

static int sleep_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  bus_refused(reply, kLogind, kNoSleep);
  return 0;
}

static int blockers_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  if (bus_refused(reply, kLogind, kNoSleep))
    return 0;
  const char *blocked = "";
  sd_bus_message_read(reply, "v", "s", &blocked);
  const sleep_method &method = kMethods[static_cast<int>(request.action)];
  if (std::strstr(blocked, method.blocked_by) == nullptr) {
    bus_call(kLogind, method.name, sleep_answered, "b", 0);
    return 0;
  }
  note("%s is postponed: it is blocked by another program", method.name);
  request.postponed();
  return 0;
}

void send_to_sleep(off_action action, void (*postponed)()) {
  if (action == off_action::kNone)
    return;
  request = {action, postponed};
  bus_get_property(kLogind, "BlockInhibited", blockers_answered);
}

void start_sleep() {
  const bus_service properties = {kLogind.name, kLogind.path, "org.freedesktop.DBus.Properties"};
  bus_watch_signal(kLogind, "PrepareForSleep", prepare_for_sleep);
  bus_watch_signal(kLogind, "PrepareForShutdown", prepare_for_shutdown);
  bus_watch_signal(kLogind, "SessionNew", session_added);
  bus_watch_signal(properties, "PropertiesChanged", logind_changed);
  bus_watch_service(kLogind, logind_appeared);
}
