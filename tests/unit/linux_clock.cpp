#include "linux_clock.h"

#include "event.h"
#include "zone.h"

#include <cerrno>
#include <optional>

static machine record;
static std::int64_t now;
static void (*announce_time_set)();

static std::optional<event::any> result_of(const order::any &given) {
  if (std::holds_alternative<order::ask_zone>(given))
    return event::zone_changed{transition_after(now), false};
  if (std::holds_alternative<order::ask_late>(given))
    return event::late_timers{};
  if (std::holds_alternative<order::ask_clock>(given))
    return event::ntp{};
  if (std::holds_alternative<order::read_alarm>(given))
    return event::alarm_read{{.error = ENODEV, .for_good = true}};
  const auto *told = std::get_if<order::deliver>(&given);
  if (told == nullptr)
    return std::nullopt;
  if (told->callback == delivery::kTimeSet)
    announce_time_set();
  return event::returned{told->callback};
}

static void happens(const event::any &what) {
  const auto [after, orders] = decide(record, what, {.utc = now, .boot = now * kSecondMs});
  record = after;
  for (const order::any &given : orders)
    if (const auto result = result_of(given))
      happens(*result);
}

void start_linux_clock(std::int64_t utc, void (*announce)()) {
  record = {};
  now = utc;
  announce_time_set = announce;
  event::started start;
  start.device = {.error = ENODEV, .for_good = true};
  start.rtc_valid = true;
  start.booted_at = utc;
  start.next_transition = transition_after(utc);
  happens(start);
  happens(event::armed{});
}

std::int64_t next_of_linux_clock() { return next_due(record) / kSecondMs; }

void pass_linux_clock(std::int64_t utc) {
  now = utc;
  happens(event::due{});
}

std::int64_t linux_tv_clock(std::int64_t utc) { return utc_to_local(utc); }

std::int64_t linux_transition_after(std::int64_t utc) { return transition_after(utc); }
