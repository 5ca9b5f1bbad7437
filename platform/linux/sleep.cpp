#include "sleep.h"

#include "bus.h"
#include "journal.h"
#include "power.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

static constexpr const char *kNoDelay = "a sleep may begin before the on-time is programmed";
static constexpr const char *kNoSleep = "the machine is not sent to sleep";

namespace {

// Rows in the order of off_action.
struct sleep_method {
  const char *name;
  const char *blocked_by; // the inhibitor's type
};

struct sleep_request {
  off_action action;
  std::uint32_t since;
  void (*postponed)(); // null: answered or taken back
};

// At the request.
struct logind_state {
  std::string blocked; // the types of the block inhibitors
  bool is_idle = true;
  std::uint64_t active_at = 0; // microseconds; while it is not idle
};

} // namespace

static constexpr std::uint64_t kMicroseconds = 1'000'000; // of a second
static constexpr sleep_method kMethods[] = {
    {"Suspend", "sleep"}, {"PowerOff", "shutdown"}, {"Hibernate", "sleep"}};

static int inhibitor = -1; // delays sleep and shutdown while it is open
static bool is_inhibitor_due;
static sleep_request request;
static logind_state found;

// --- the delay ---

static void release_inhibitor() {
  if (inhibitor >= 0)
    close(inhibitor);
  inhibitor = -1;
}

static int inhibit_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  is_inhibitor_due = false;
  if (bus_refused(reply, kLogind, kNoDelay))
    return 0;
  int fd = -1;
  sd_bus_message_read(reply, "h", &fd);
  release_inhibitor();
  inhibitor = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the message closes its own
  if (inhibitor < 0)
    report("the inhibitor: %s; %s", std::strerror(errno), kNoDelay);
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

static bool take_state(const char *name, sd_bus_message *value) {
  int idle = 1;
  const char *blocked = "";
  if (name == std::string_view{"IdleHint"}) {
    sd_bus_message_read(value, "v", "b", &idle);
    found.is_idle = idle != 0;
  } else if (name == std::string_view{"IdleSinceHint"}) {
    sd_bus_message_read(value, "v", "t", &found.active_at);
  } else if (name == std::string_view{"BlockInhibited"}) {
    sd_bus_message_read(value, "v", "s", &blocked);
    found.blocked = blocked;
  } else {
    return false;
  }
  return true;
}

// Null when nothing prevents the sleep. A desktop keeps its idle hint for minutes after the last
// key: only one that has changed since the request's count began shows a user.
static const char *obstacle() {
  if (found.blocked.find(kMethods[static_cast<int>(request.action)].blocked_by) !=
      std::string::npos)
    return "another program blocks it";
  if (!found.is_idle && found.active_at / kMicroseconds > request.since)
    return "a user is active";
  return nullptr;
}

static int state_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  const auto postponed = std::exchange(request.postponed, nullptr);
  if (postponed == nullptr)
    return 0;
  if (bus_refused(reply, kLogind, kNoSleep))
    return 0;
  found = {};
  bus_read_properties(reply, take_state);
  const char *method = kMethods[static_cast<int>(request.action)].name;
  if (const char *why = obstacle()) {
    note("%s is postponed: %s", method, why);
    postponed();
  } else {
    bus_call(kLogind, method, sleep_answered, "b", 0);
  }
  return 0;
}

void send_to_sleep(off_action action, std::uint32_t since, void (*postponed)()) {
  if (action == off_action::kNone)
    return;
  request = {action, since, postponed};
  bus_get_properties(kLogind, state_answered);
}

void cancel_sleep(void (*postponed)()) {
  if (request.postponed == postponed)
    request.postponed = nullptr;
}

void start_sleep() {
  bus_watch_signal(kLogind, "PrepareForSleep", prepare_for_sleep);
  bus_watch_signal(kLogind, "PrepareForShutdown", prepare_for_shutdown);
  bus_watch_signal(kLogind, "SessionNew", session_added);
  bus_watch_properties(kLogind, logind_changed);
  bus_watch_service(kLogind, logind_appeared);
}
