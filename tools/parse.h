// Numbers from what people write, and from what dravelctl prints itself: nothing when the text is
// not understood.
#pragma once

#include "timers.h"

#include <chrono>
#include <optional>
#include <string>

struct time_request {
  std::optional<std::chrono::sys_days> day{};
  int week_flag = 0; // the bit of a weekday that stands in place of the day
  std::chrono::seconds time_of_day{};
  std::optional<std::chrono::seconds> offset{}; // of the zone that it is in; else the timer's clock
  bool is_now = false;
  std::optional<std::chrono::seconds> span{}; // from now, which gave the day and the time of day
};
inline constexpr const char *kTimeForms =
    "write 7:00, 7pm, \"tomorrow 7:00\", \"fri 20:00\", +45m or \"2026-12-24 18:00\"";
inline constexpr const char *kPastForms =
    "write yesterday, \"fri 20:00\", 7:00, 3h or \"2026-12-24 18:00\"";
inline constexpr const char *kDayForms = "write mon,wed or mon-fri, daily, weekdays, weekend";
inline constexpr std::chrono::year kEndOfTime{2106}; // the set counts unsigned seconds since 1970

std::optional<time_request> parse_time(const std::string &text, civil_time now);
// The last moment that it fits, on the set's clock; nothing also when it is still to come. A day
// begins at midnight, "3h" is so long ago.
std::optional<civil_time> parse_past(const std::string &text, civil_time now);
std::optional<time_request> parse_moment(const std::string &text); // "2026-12-24T07:00:00+01:00"
std::optional<std::chrono::seconds> parse_time_of_day(const std::string &text); // "07:00:15"
std::optional<int> parse_type(const std::string &text);
std::optional<int> parse_clock(const std::string &text);
std::optional<int> parse_effect(const std::string &text); // of holidays
std::optional<int> parse_days(const std::string &text);
std::optional<holiday_end> parse_date(const std::string &text); // "12-24"
std::optional<int> parse_int(const std::string &text);
