#include "machine_state.h"

using std::chrono::seconds;
using std::chrono::sys_seconds;

std::string text_property(GVariantDict *properties, const char *name) {
  const char *text = "";
  g_variant_dict_lookup(properties, name, "&s", &text);
  return text;
}

static sys_seconds moment(guint64 since_1970) {
  return sys_seconds(seconds(static_cast<std::int64_t>(since_1970)));
}

static sys_seconds time_of(GVariantDict *properties, const char *name) {
  guint64 since_1970 = 0;
  g_variant_dict_lookup(properties, name, "t", &since_1970);
  return moment(since_1970);
}

machine_state machine_state_of(GVariantDict *properties) {
  machine_state shown{.screen = text_property(properties, "Screen"),
                      .screen_by = text_property(properties, "ScreenBy"),
                      .alarm = time_of(properties, "Alarm"),
                      .alarm_for = text_property(properties, "AlarmFor"),
                      .alarm_problem = text_property(properties, "AlarmProblem"),
                      .sleeps_at = time_of(properties, "SleepsAt"),
                      .postponed = text_property(properties, "Postponed")};
  guint64 woken = 0;
  const char *cause = "";
  if (g_variant_dict_lookup(properties, "LastWake", "(t&s)", &woken, &cause) != FALSE) {
    shown.last_wake = moment(woken);
    shown.last_cause = cause;
  }
  g_autofree const char **problems = nullptr;
  if (g_variant_dict_lookup(properties, "Problems", "^a&s", &problems) != FALSE)
    for (const char **problem = problems; *problem != nullptr; ++problem)
      shown.problems.emplace_back(*problem);
  return shown;
}
