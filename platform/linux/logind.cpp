#include "logind.h"

#include "bus.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

// With this flag logind looks at inhibitors of other users also for root.
static constexpr std::uint64_t kCheckInhibitors = 1;

static constexpr const char *kSleepMethods[] = {"SuspendWithFlags", "PowerOffWithFlags",
                                                "HibernateWithFlags"}; // by off_action

static int inhibitor = -1; // delays sleep and shutdown while it is open
static bool is_inhibitor_due;

// --- the delay ---

static void inhibitor_came(int error) {
  if (error == 0)
    happens(event::works{problem::kInhibitor});
  else
    happens(event::refused{problem::kInhibitor, error});
}

void release_inhibitor() {
  if (inhibitor >= 0)
    close(inhibitor);
  inhibitor = -1;
}

static int inhibit_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  is_inhibitor_due = false;
  int error = bus_error_of(reply);
  if (error == 0) {
    int fd = -1;
    sd_bus_message_read(reply, "h", &fd);
    release_inhibitor();
    inhibitor = fcntl(fd, F_DUPFD_CLOEXEC, 0); // the message closes its own
    error = inhibitor < 0 ? errno : 0;
  }
  inhibitor_came(error);
  return 0;
}

void take_inhibitor() {
  if (inhibitor >= 0 || is_inhibitor_due)
    return;
  is_inhibitor_due = true;
  bus_call(kLogind, "Inhibit", inhibit_answered, nullptr, "ssss", "sleep:shutdown",
           "dravel-manager", "The next on-time is programmed", "delay");
}

// A logind that has started again has lost our inhibitor.
static void logind_appeared() {
  release_inhibitor();
  is_inhibitor_due = false;
  take_inhibitor();
}

// --- announcements ---

static bool begins(sd_bus_message *message) {
  int start = 0;
  sd_bus_message_read(message, "b", &start);
  return start != 0;
}

static int prepare_for_sleep(sd_bus_message *message, void *, sd_bus_error *) {
  if (begins(message))
    happens(event::sleep_begins{});
  else
    happens(event::sleep_ends{});
  return 0;
}

static int prepare_for_shutdown(sd_bus_message *message, void *, sd_bus_error *) {
  if (begins(message))
    happens(event::shutdown_begins{});
  else
    happens(event::shutdown_ends{});
  return 0;
}

static bool take_preparing(const char *name, sd_bus_message *value, void *data) {
  auto &found = *static_cast<event::preparing *>(data);
  const bool is_sleep = name == std::string_view{"PreparingForSleep"};
  if (!is_sleep && name != std::string_view{"PreparingForShutdown"})
    return false;
  int on = 0;
  sd_bus_message_read(value, "v", "b", &on);
  (is_sleep ? found.sleep : found.shutdown) = on != 0;
  return true;
}

static int preparing_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  event::preparing found; // neither, also when logind does not answer: this program runs
  if (bus_error_of(reply) == 0)
    bus_read_properties(reply, take_preparing, &found);
  happens(found);
  return 0;
}

void ask_preparing() { bus_get_properties(kLogind, preparing_answered); }

// --- orders ---

static int sleep_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  happens(event::sleep_answered{bus_error_of(reply)});
  return 0;
}

void send_to_sleep(off_action method) {
  bus_call(kLogind, kSleepMethods[static_cast<int>(method)], sleep_answered, nullptr, "t",
           kCheckInhibitors);
}

void start_logind() {
  bus_watch_signal(kLogind, "PrepareForSleep", prepare_for_sleep);
  bus_watch_signal(kLogind, "PrepareForShutdown", prepare_for_shutdown);
  bus_watch_service(kLogind, logind_appeared);
}
