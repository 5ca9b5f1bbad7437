// Conversions of time values, unsigned 32-bit seconds since 1970-01-01 00:00:00. They do not depend
// on the width of the C library's time_t. A time outside the range gives the nearer end of it.
#pragma once

#include <IPowerControl.h>
#include <glib.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>

inline constexpr std::uint32_t kLastTimeValue = std::numeric_limits<std::uint32_t>::max();

std::uint32_t to_time_value(std::int64_t seconds);

// The seconds of a broken-down time read as UTC. The fields may have any value: one out of its
// range is carried over.
std::int64_t civil_seconds(const std::tm &time);

// The time value of a broken-down time read as UTC; kLastTimeValue when it has none.
std::uint32_t time_value_of(const std::tm &time);

// What the real-time clock shows at a time value.
rtc_time rtc_reading(std::uint32_t time);

// Breaks a time value down as UTC.
std::tm broken_down(std::uint32_t time);

// The seconds by which `zone` is ahead of UTC at the UTC time `utc`.
std::int64_t zone_offset(GTimeZone *zone, std::int64_t utc);

// The next second after `utc`, UTC, at which the offset changes; none within 400 days: a year, and
// the rest of a month. `offset_at` gives it at a UTC time. Two changes within a day that undo each
// other are not seen.
template <typename Offset>
std::optional<std::int64_t> next_transition(std::int64_t utc, Offset offset_at) {
  constexpr std::int64_t kDay = 86400;
  const std::int64_t end = utc + 400 * kDay;
  const auto offset = offset_at(utc);
  std::int64_t after = utc;
  while (offset_at(after) == offset)
    if (after += kDay; after > end)
      return std::nullopt;
  for (std::int64_t before = after - kDay; after - before > 1;) {
    const std::int64_t middle = before + (after - before) / 2;
    (offset_at(middle) == offset ? before : after) = middle;
  }
  return after;
}

std::uint32_t utc_to_local(GTimeZone *zone, std::uint32_t utc);

// A time that the clocks skip in spring is moved to the hour's end; one that they show twice in
// autumn is taken as standard time, the second of the two.
std::uint32_t local_to_utc(GTimeZone *zone, std::int64_t local);
