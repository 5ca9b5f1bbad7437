#include "time_values.h"

#include <algorithm>
#include <chrono>

static constexpr std::int64_t kDaySeconds = 86400;

// The Gregorian calendar repeats itself after 400 years.
static constexpr std::int64_t kCalendarMonths = 4800;
static constexpr std::int64_t kCalendarDays = 146097;

std::uint32_t to_time_value(std::int64_t seconds) {
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(seconds, 0, kLastTimeValue));
}

std::int64_t civil_seconds(const std::tm &time) {
  namespace chrono = std::chrono;
  const std::int64_t months = (time.tm_year + std::int64_t{1900}) * 12 + time.tm_mon;
  const std::int64_t month_of_calendar =
      (months % kCalendarMonths + kCalendarMonths) % kCalendarMonths;
  const std::int64_t calendars = (months - month_of_calendar) / kCalendarMonths;
  const chrono::sys_days first_of_month =
      chrono::year{static_cast<int>(month_of_calendar / 12)} /
      chrono::month{static_cast<unsigned int>(month_of_calendar % 12 + 1)} / 1;
  const std::int64_t days =
      first_of_month.time_since_epoch().count() + calendars * kCalendarDays + time.tm_mday - 1;
  return ((days * 24 + time.tm_hour) * 60 + time.tm_min) * 60 + time.tm_sec;
}

std::tm broken_down(std::uint32_t time) {
  namespace chrono = std::chrono;
  const chrono::sys_days day{chrono::days{time / kDaySeconds}};
  const chrono::year_month_day date{day};
  const int second = static_cast<int>(time % kDaySeconds);

  std::tm out{};
  out.tm_sec = second % 60;
  out.tm_min = second / 60 % 60;
  out.tm_hour = second / 3600;
  out.tm_mday = static_cast<int>(static_cast<unsigned int>(date.day()));
  out.tm_mon = static_cast<int>(static_cast<unsigned int>(date.month())) - 1;
  out.tm_year = static_cast<int>(date.year()) - 1900;
  out.tm_wday = static_cast<int>(chrono::weekday{day}.c_encoding());
  out.tm_yday = static_cast<int>((day - chrono::sys_days{date.year() / 1 / 1}).count());
  return out;
}

std::uint32_t time_value_of(const std::tm &time) {
  const std::int64_t seconds = civil_seconds(time);
  return seconds < 0 ? kLastTimeValue : to_time_value(seconds);
}

rtc_time rtc_reading(std::uint32_t time) {
  const std::tm tm = broken_down(time);
  return {tm.tm_sec, tm.tm_min, tm.tm_hour, tm.tm_mday, tm.tm_mon + 1, tm.tm_year - 100};
}

std::int64_t zone_offset(GTimeZone *zone, std::int64_t utc) {
  const int interval = g_time_zone_find_interval(zone, G_TIME_TYPE_UNIVERSAL, utc);
  return g_time_zone_get_offset(zone, interval);
}

std::uint32_t utc_to_local(GTimeZone *zone, std::uint32_t utc) {
  return to_time_value(utc + zone_offset(zone, utc));
}

std::uint32_t local_to_utc(GTimeZone *zone, std::int64_t local) {
  gint64 seconds =
      std::clamp<std::int64_t>(local, -kDaySeconds, std::int64_t{kLastTimeValue} + kDaySeconds);
  const int interval = g_time_zone_adjust_time(zone, G_TIME_TYPE_STANDARD, &seconds);
  return to_time_value(seconds - g_time_zone_get_offset(zone, interval));
}
