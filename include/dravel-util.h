// The time base: the three clocks, the conversions, and the text of a time in
// log lines. Has no state.
#pragma once

#include "dravel-api.h"
#include "dravel-bus.h"
#include "dravel-log.h"

#include <cstdint>
#include <ctime>

// Seconds since 1970-01-01 00:00:00, up to 2106.
using time_value = std::uint32_t;

// The result of a conversion that is not possible.
constexpr time_value kInvalidTime = 0xffffffffU;

constexpr time_value kSecondsPerDay = 86400;

// The TV clock wraps from the end of 2099 to 2001; both as tm_year.
constexpr int kYear2001 = DRAVEL_YEAR_AFTER_LAST - 1900;
constexpr int kYear2099 = DRAVEL_LAST_YEAR - 1900;

enum clock_mode { CLOCK_MODE_AUTO = 0, CLOCK_MODE_MANUAL = 1, CLOCK_MODE_OTHER = 2 };

// One reading of the clocks.
struct clock_reading {
  time_value now;       // the TV clock or, while that is unknown, the real-time clock
  time_value broadcast; // the TV clock, 0 while it is unknown
  time_value internet;  // the system clock
  double offset;        // now - internet: converts a system-clock time to the clock of `now`
};

extern "C" {

// Reads the clock `time_type` into `*out`. Returns 0, or -1 when that clock
// cannot be read: `*out` is then 0 for the TV clock, kInvalidTime for a
// real-time clock that shows no date, and otherwise left as it was.
DRAVEL_API int get_cur_time(time_value *out, int time_type);

// Reads the clock that a timer of `time_type` is measured against: the TV clock or, for the system
// clock's timers while that is unknown, the real-time clock. Returns 0, also with `*out` 0 for a TV
// clock that is not known, or -1 when the real-time clock cannot be read either.
DRAVEL_API int get_cur_time_or_rtc(time_value *out, int time_type);

// Reads the TV clock, or else the real-time clock, and the system clock. Returns
// 0, or -1 when neither of the first two can be read: `*out` is then all zero.
DRAVEL_API int read_clocks(clock_reading *out);

// `time` + `offset` without its fraction, held within the range of a time value.
DRAVEL_API time_value add_time_offset(time_value time, double offset);

// The conversions of the set's time utility, see CTimeUtil.h.
DRAVEL_API time_value unsigned_timegm(const std::tm *time);
DRAVEL_API std::tm *unsigned_gmtime_r(time_value time, std::tm *out);
DRAVEL_API time_value convert_to_localtime(time_value time);
DRAVEL_API std::tm convert_to_utc(std::tm local);

// The clock mode, one of the enum above.
DRAVEL_API int get_clock_mode(void);

// 1 when `year`, a calendar year such as 2024, is a leap year, else 0.
DRAVEL_API int is_leap_year(int year);
}

// The size of the buffers that hold a time's text.
constexpr std::size_t kTimeTextSize = 100;

// Formats `time` as asctime_r does, newline included. False when asctime_r refuses it: the fields
// of a time from the bus may have any value.
bool format_time(const std::tm *time, char (&text)[kTimeTextSize]);

// Logs `text`, which names one %s, with a broken-down time, as a line of `function`; left out when
// the time has no text.
#define LOG_TIME_FROM(function, priority, text, time)                                              \
  do {                                                                                             \
    if (char time_text[kTimeTextSize];                                                             \
        (priority) >= system_log_threshold && format_time((time), time_text))                      \
      LOG_FROM(function, priority, text, time_text);                                               \
  } while (0)

#define LOG_TIME(priority, text, time) LOG_TIME_FROM(__func__, priority, text, time)

// Adds without overflow: dates from the bus and the store may hold any 32-bit number.
constexpr int add_wrapping(int a, int b) {
  int sum = 0;
  (void)__builtin_add_overflow(a, b, &sum);
  return sum;
}

// The log texts print time values as `%lu`.
constexpr unsigned long as_ulong(time_value time) { return time; }
