// The set's time utility: the TV clock, the clock mode, and conversions that
// cover every unsigned 32-bit time value, also where time_t is narrower.
//
// A time value counts seconds since 1970-01-01 00:00:00, up to 2106. The TV
// clock counts the civil seconds of the set's own time zone, so that breaking
// its value down as UTC gives the time of day that the screen shows.
#pragma once

#include <cstdint>
#include <ctime>

class CTimeUtil {
public:
  // The TV clock, or 0 while it is not known.
  static std::uint32_t GetCurrentTime();

  // 0 when the clock follows the broadcast, 1 when it was set by hand; the
  // utility may report other values.
  static int GetClockMode();

  // Moves a UTC time value into the set's time zone.
  static std::uint32_t ConvertToLocalTime(std::uint32_t utc);

  // Moves a broken-down time of the set's time zone to UTC.
  static std::tm ConvertToUTCTime(std::tm local);

  // The time value of `time` read as UTC. Fields out of their range are carried
  // over, as timegm does; `time` itself is not changed. A time outside the
  // range of a time value gives 4294967295.
  static std::uint32_t Unsigned_timegm(const std::tm *time);

  // Breaks `time` down as UTC into `*out` and returns `out`.
  static std::tm *Unsigned_gmtime_r(std::uint32_t time, std::tm *out);
};
