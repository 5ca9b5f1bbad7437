#include "timedated.h"

#include "bus.h"
#include "zone.h"

#include <Ecore.h>

#include <cerrno>
#include <string_view>
#include <sys/inotify.h>

// timesyncd touches "synchronized" in its directory, which it makes itself.
static constexpr const char *kParent = "/run/systemd";
static constexpr std::string_view kTimesync = "timesync";
static constexpr const char *kTimesyncPath = "/run/systemd/timesync";

// --- timedated ---

static bool take_ntp_property(const char *name, sd_bus_message *value, void *data) {
  auto &found = *static_cast<event::ntp *>(data);
  int on = 0;
  if (name != std::string_view{"NTP"} && name != std::string_view{"NTPSynchronized"})
    return false;
  sd_bus_message_read(value, "v", "b", &on);
  (name == std::string_view{"NTP"} ? found.on : found.synchronised) = on != 0;
  return true;
}

static int timedated_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  event::ntp found;
  found.answered = bus_error_of(reply) == 0;
  if (found.answered)
    bus_read_properties(reply, take_ntp_property, &found);
  happens(found);
  return 0;
}

void ask_clock() { bus_get_properties(kTimedated, timedated_answered); }

// --- zone ---

event::zone_changed present_zone(std::int64_t utc) { return {transition_after(utc), false}; }

static void look_at_zone() {
  if (read_zone())
    happens(event::zone_changed{transition_after(utc_now()), true});
}

static int timedated_changed(sd_bus_message *, void *, sd_bus_error *) {
  look_at_zone();
  ask_clock();
  return 0;
}

static int etc_changed(sd_event_source *, const struct inotify_event *change, void *) {
  if (change->len > 0 && change->name == std::string_view{"localtime"})
    look_at_zone();
  return 0;
}

// --- synchronisation, steps ---

static int timesync_changed(sd_event_source *, const struct inotify_event *, void *) {
  ask_clock();
  return 0;
}

static void watch_timesync() {
  static sd_event_source *watch = nullptr;
  watch = sd_event_source_disable_unref(watch);
  sd_event_add_inotify(bus_events(), &watch, kTimesyncPath,
                       IN_CREATE | IN_ATTRIB | IN_CLOSE_WRITE | IN_ONLYDIR, timesync_changed,
                       nullptr);
}

static int runtime_changed(sd_event_source *, const struct inotify_event *change, void *) {
  if (change->len > 0 && change->name == kTimesync) {
    watch_timesync();
    ask_clock();
  }
  return 0;
}

// The kernel reports the end of a sleep as a step, too, before logind does.
static Eina_Bool wall_clock_stepped(void *, int, void *) {
  happens(event::clock_stepped{});
  return ECORE_CALLBACK_PASS_ON;
}

void start_timedated() {
  read_zone();
  ecore_event_handler_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, wall_clock_stepped, nullptr);
  bus_watch_properties(kTimedated, timedated_changed);
  bus_watch_service(kTimedated, ask_clock);
  sd_event_add_inotify(bus_events(), nullptr, kParent, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR,
                       runtime_changed, nullptr);
  watch_timesync();
  const int watched = sd_event_add_inotify(bus_events(), nullptr, "/etc",
                                           IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR,
                                           etc_changed, nullptr);
  if (watched < 0)
    happens(event::refused{problem::kZone, -watched});
}
