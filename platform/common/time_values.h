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

// The next second, UTC, at which the offset of `zone` changes; none within 400 days. Two changes
// within a day that undo each other are not seen.
std::optional<std::int64_t> next_transition(GTimeZone *zone, std::int64_t utc);

std::uint32_t utc_to_local(GTimeZone *zone, std::uint32_t utc);

// A time that the clocks skip in spring is moved to the hour's end; one that they show twice in
// autumn is taken as standard time, the second of the two.
std::uint32_t local_to_utc(GTimeZone *zone, std::int64_t local);
