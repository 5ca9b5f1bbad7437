#include "targets.h"

#include "bus.h"

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

static constexpr std::string_view kScreenPrefix = "dravel-screen-";
static constexpr std::string_view kWakeupPrefix = "dravel-wakeup@";
static constexpr const char *kNames[] = {"dravel-on.target", "dravel-off.target",
                                         "dravel-ambient.target"}; // by unit

static std::optional<unit> ordered; // kOn or kOff, by this process, last

static std::string name_of(unit of, std::int32_t reason) {
  if (of == unit::kWakeup)
    return std::string(kWakeupPrefix) + std::to_string(reason) + ".target";
  return kNames[static_cast<int>(of)];
}

static std::optional<unit> unit_of(std::string_view name) {
  for (const unit of : {unit::kOn, unit::kOff, unit::kAmbient})
    if (name == kNames[static_cast<int>(of)])
      return of;
  return name.starts_with(kWakeupPrefix) ? std::optional(unit::kWakeup) : std::nullopt;
}

// As "/org/freedesktop/systemd1/job/17".
static std::uint32_t job_of(std::string_view path) {
  const std::string last(path.substr(path.rfind('/') + 1));
  return static_cast<std::uint32_t>(std::strtoul(last.c_str(), nullptr, 10));
}

static int answered(unit of, sd_bus_message *reply) {
  const int error = bus_error_of(reply);
  const char *path = "";
  if (error == 0)
    sd_bus_message_read(reply, "o", &path);
  if (error != 0)
    happens(event::unit_refused{of, error});
  else
    happens(event::job_began{job_of(path), of});
  return 0;
}

template <unit Of> static int unit_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  return answered(Of, reply);
}

static void order_unit(const char *method, unit of, std::int32_t reason) {
  static constexpr sd_bus_message_handler_t kHandlers[] = {
      unit_answered<unit::kOn>, unit_answered<unit::kOff>, unit_answered<unit::kAmbient>,
      unit_answered<unit::kWakeup>}; // by unit
  bus_call(kSystemd, method, kHandlers[static_cast<int>(of)], nullptr, "ss",
           name_of(of, reason).c_str(), "replace");
}

void start_unit(unit of, std::int32_t reason) {
  if (of == unit::kOn || of == unit::kOff)
    ordered = of;
  order_unit("RestartUnit", of, reason);
}

void stop_unit(unit of) { order_unit("StopUnit", of, 0); }

// --- jobs ---

// Somebody else may start a target as well.
static int job_new(sd_bus_message *message, void *, sd_bus_error *) {
  std::uint32_t id = 0;
  const char *name = "";
  sd_bus_message_read(message, "uos", &id, nullptr, &name);
  if (const auto of = unit_of(name))
    happens(event::job_began{id, *of});
  return 0;
}

// They do what the orders of a television do otherwise. A unit of the opposite order that is
// stopped ends with "done", too.
static void screen_unit_ended(std::string_view name, std::string_view result) {
  const bool is_opposite = ordered && (name.find("-off") != name.npos) != (*ordered == unit::kOff);
  if (result == "failed" || result == "timeout")
    happens(event::refused{problem::kScreenUnit, 1});
  else if (result == "done" && !is_opposite)
    happens(event::works{problem::kScreenUnit});
}

static int job_removed(sd_bus_message *message, void *, sd_bus_error *) {
  std::uint32_t id = 0;
  const char *name = "";
  const char *result = "";
  sd_bus_message_read(message, "uoss", &id, nullptr, &name, &result);
  if (unit_of(name))
    happens(event::job_ended{id});
  else if (std::string_view(name).starts_with(kScreenPrefix))
    screen_unit_ended(name, result);
  return 0;
}

static int jobs_answered(sd_bus_message *reply, void *, sd_bus_error *) {
  std::uint32_t id = 0;
  const char *name = "";
  if (bus_error_of(reply) != 0 || sd_bus_message_enter_container(reply, 'a', "(usssoo)") <= 0)
    return 0;
  while (sd_bus_message_read(reply, "(usssoo)", &id, &name, nullptr, nullptr, nullptr, nullptr) > 0)
    if (const auto of = unit_of(name))
      happens(event::job_began{id, *of});
  return 0;
}

static int ignore_answer(sd_bus_message *, void *, sd_bus_error *) { return 0; }

// systemd sends no signals before a client has subscribed. Jobs of an earlier run of this daemon go
// on.
static void systemd_appeared() {
  happens(event::jobs_told_again{});
  bus_call(kSystemd, "Subscribe", ignore_answer, nullptr, "");
  bus_call(kSystemd, "ListJobs", jobs_answered, nullptr, "");
}

void start_targets() {
  bus_watch_signal(kSystemd, "JobNew", job_new);
  bus_watch_signal(kSystemd, "JobRemoved", job_removed);
  bus_watch_service(kSystemd, systemd_appeared);
}
