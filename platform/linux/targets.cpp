#include "targets.h"

#include "bus.h"
#include "journal.h"
#include "loop_timer.h"

#include <Ecore.h>

#include <string>
#include <string_view>
#include <utility>

static constexpr double kLongestHooksSeconds = 90.0;

static void (*off_ended)();
static Ecore_Timer *off_timer;

static void end_off() {
  end_timer(off_timer);
  if (const auto ended = std::exchange(off_ended, nullptr))
    ended();
}

// The machine must not stay on for a hook that hangs.
static Eina_Bool hooks_take_too_long(void *) {
  off_timer = nullptr;
  report("%s has not started within %.0f seconds; the machine does not wait for its hooks",
         kOffTarget, kLongestHooksSeconds);
  end_off();
  return ECORE_CALLBACK_CANCEL;
}

static int target_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  bus_refused(reply, kSystemd, "what is hooked to this target does not run");
  return 0;
}

static int off_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  if (bus_refused(reply, kSystemd, "what is hooked to dravel-off.target does not run"))
    end_off();
  return 0;
}

static int job_removed(sd_bus_message *message, void *, sd_bus_error *) {
  const char *unit = "";
  sd_bus_message_read(message, "uos", nullptr, nullptr, &unit);
  if (unit == std::string_view{kOffTarget})
    end_off();
  return 0;
}

static int subscribe_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  bus_refused(reply, kSystemd,
              "the machine waits the full time for the hooks of dravel-off.target");
  return 0;
}

// systemd sends no signals before a client has subscribed.
static void systemd_appeared() { bus_call(kSystemd, "Subscribe", subscribe_answered, ""); }

void start_targets() {
  bus_watch_signal(kSystemd, "JobRemoved", job_removed);
  bus_watch_service(kSystemd, systemd_appeared);
}

void start_target(const char *unit) {
  bus_call(kSystemd, "RestartUnit", target_answered, "ss", unit, "replace");
}

void stop_target(const char *unit) {
  bus_call(kSystemd, "StopUnit", target_answered, "ss", unit, "replace");
}

void start_off_target(void (*ended)()) {
  off_ended = ended;
  end_timer(off_timer);
  off_timer = ecore_timer_add(kLongestHooksSeconds, hooks_take_too_long, nullptr);
  bus_call(kSystemd, "RestartUnit", off_answered, "ss", kOffTarget, "replace");
}

void leave_off_target() {
  off_ended = nullptr;
  end_timer(off_timer);
}

void start_wakeup_target(int reason) {
  start_target(("dravel-wakeup@" + std::to_string(reason) + ".target").c_str());
}
