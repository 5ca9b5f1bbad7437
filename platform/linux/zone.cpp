#include "zone.h"

#include <time_values.h>

#include <algorithm>
#include <ctime>
#include <string>

static constexpr std::int64_t kDaySeconds = 86400;

namespace {

// What tells two zones apart.
struct zone_rules {
  std::string name;
  std::string summer_name;
  std::int64_t west; // seconds
  std::int64_t next_transition;
  bool operator==(const zone_rules &) const = default;
};

} // namespace

std::uint32_t utc_now() { return to_time_value(std::time(nullptr)); }

static std::int64_t offset_at(std::int64_t utc) {
  const auto time = static_cast<std::time_t>(utc);
  std::tm local{};
  return localtime_r(&time, &local) == nullptr ? 0 : local.tm_gmtoff;
}

std::int64_t utc_to_local(std::int64_t utc) { return utc + offset_at(utc); }

// The offsets of the day before and of the day after are the two that may hold.
utc_times utc_of_local(std::int64_t local) {
  const std::int64_t before = offset_at(local - kDaySeconds);
  const std::int64_t after = offset_at(local + kDaySeconds);
  const std::int64_t first = local - std::max(before, after);
  const std::int64_t second = local - std::min(before, after);
  const bool first_is = utc_to_local(first) == local;
  const bool second_is = utc_to_local(second) == local;
  if (first_is)
    return {first, second_is && second != first ? second : 0};
  return {second_is ? second : transition_after(first - kDaySeconds), 0};
}

std::int64_t transition_after(std::int64_t utc) {
  return next_transition(utc, offset_at).value_or(0);
}

static zone_rules rules_now() {
  return {tzname[0], tzname[1], timezone, transition_after(utc_now())};
}

bool read_zone() {
  static zone_rules known;
  tzset();
  const zone_rules found = rules_now();
  const bool changed = found != known;
  known = found;
  return changed;
}
