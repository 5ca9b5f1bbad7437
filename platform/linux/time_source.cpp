#include "time_source.h"

#include "bus.h"
#include "clock.h"
#include "journal.h"
#include "loop_timer.h"

#include <CTimeUtil.h>
#include <Ecore.h>
#include <daemon_callbacks.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/inotify.h>

// timedated sends no signal when the clock becomes synchronised: it is asked again and again.
static constexpr double kAskAgainSeconds = 10.0;

static bool ntp;
static bool synchronised; // since NTP was switched on
static bool confirmation_due;
static Ecore_Timer *ask_timer;
static bool complained;
static bool steps_are_held;

int clock_mode() { return ntp && synchronised ? kClockModeAutomatic : kClockModeManual; }

static void ask_timedated();

static Eina_Bool ask_again(void *) {
  ask_timedated();
  return ECORE_CALLBACK_RENEW;
}

static void confirm_if_trusted() {
  const bool trusted = CTimeUtil::GetCurrentTime() != 0 && (!ntp || synchronised);
  if (!trusted && confirmation_due && ask_timer == nullptr)
    ask_timer = ecore_timer_add(kAskAgainSeconds, ask_again, nullptr);
  if (!trusted || !confirmation_due)
    return;
  confirmation_due = false;
  end_timer(ask_timer);
  deliver_signal(SIGNAL_SYSTEM_TIME_UPDATED);
}

void confirm_time() {
  confirmation_due = true;
  confirm_if_trusted();
}

static void zone_may_have_changed(const char *name) {
  if (change_zone(name))
    deliver_setting(kSettingsTimeZone);
}

static bool take_property(const char *name, sd_bus_message *value) {
  int on = 0;
  if (name == std::string_view{"NTP"}) {
    sd_bus_message_read(value, "v", "b", &on);
    ntp = on != 0;
  } else if (name == std::string_view{"NTPSynchronized"}) {
    sd_bus_message_read(value, "v", "b", &on);
    synchronised = synchronised || on != 0;
  } else if (name == std::string_view{"Timezone"}) {
    const char *zone = "";
    sd_bus_message_read(value, "v", "s", &zone);
    zone_may_have_changed(zone);
  } else {
    return false;
  }
  return true;
}

// The time update is sent first: after a switch to the automatic mode the daemon waits for it.
static int timedated_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  const int mode = clock_mode();
  if (reply != nullptr && sd_bus_message_is_method_error(reply, nullptr) == 0)
    bus_read_properties(reply, take_property);
  else if (!complained)
    complained = bus_refused(reply, kTimedated, "the clock counts as set by hand");
  if (!ntp)
    synchronised = false;
  if (clock_mode() != mode)
    confirmation_due = true;
  confirm_if_trusted();
  if (clock_mode() != mode)
    deliver_setting(kSettingsClockMode);
  return 0;
}

static void ask_timedated() { bus_get_properties(kTimedated, timedated_answered); }

static int timedated_changed(sd_bus_message *, void *, sd_bus_error *) {
  ask_timedated();
  return 0;
}

static int etc_changed(sd_event_source *, const struct inotify_event *event, void *) {
  if (event->len > 0 && event->name == std::string_view{"localtime"})
    zone_may_have_changed(nullptr);
  return 0;
}

void hold_clock_steps(bool held) { steps_are_held = held; }

// The kernel reports the end of a sleep as a step, before logind does.
static Eina_Bool wall_clock_stepped(void *, int, void *) {
  if (steps_are_held)
    return ECORE_CALLBACK_PASS_ON;
  deliver_setting(kSettingsTimeSet);
  confirm_if_trusted();
  return ECORE_CALLBACK_PASS_ON;
}

void start_time_source() {
  confirmation_due = CTimeUtil::GetCurrentTime() == 0;
  ecore_event_handler_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, wall_clock_stepped, nullptr);
  bus_watch_properties(kTimedated, timedated_changed);
  bus_watch_service(kTimedated, ask_timedated);
  const int watched = sd_event_add_inotify(
      bus_events(), nullptr, "/etc", IN_CREATE | IN_MOVED_TO | IN_ONLYDIR, etc_changed, nullptr);
  if (watched < 0)
    report("/etc: %s; changes of the time zone are not noticed", std::strerror(-watched));
}
