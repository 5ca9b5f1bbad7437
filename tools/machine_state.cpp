#include "machine_state.h"

#include "bus.h"

using std::chrono::seconds;
using std::chrono::sys_seconds;

static sys_seconds moment(std::uint64_t since_1970) {
  return sys_seconds(seconds(static_cast<std::int64_t>(since_1970)));
}

static void read_property(machine_state &shown, property &now) {
  std::uint64_t at = 0;
  const char *cause = "";
  now.read("Screen", shown.screen);
  now.read("ScreenBy", shown.screen_by);
  if (now.read("Alarm", "t", &at))
    shown.alarm = moment(at);
  now.read("AlarmFor", shown.alarm_for);
  now.read("AlarmProblem", shown.alarm_problem);
  if (now.read("SleepsAt", "t", &at))
    shown.sleeps_at = moment(at);
  now.read("Postponed", shown.postponed);
  if (now.read("LastWake", "(ts)", &at, &cause)) {
    shown.last_wake = moment(at);
    shown.last_cause = cause;
  }
  now.read("Problems", shown.problems);
}

machine_state machine_state_of(sd_bus_message *properties) {
  machine_state shown;
  each_property(properties, [&](property &now) { read_property(shown, now); });
  return shown;
}
