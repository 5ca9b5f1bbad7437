#include <CTimeUtil.h>
#include <settings.h>

#include "standin_private.h"

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>

namespace {

constexpr std::int64_t kDaySeconds = 86400;
constexpr std::int64_t kLastTimeValue = std::numeric_limits<std::uint32_t>::max();

// The Gregorian calendar repeats itself after 400 years.
constexpr std::int64_t kCalendarMonths = 4800;
constexpr std::int64_t kCalendarDays = 146097;

struct UnrefZone {
  void operator()(GTimeZone *zone) const { g_time_zone_unref(zone); }
};
using Zone = std::unique_ptr<GTimeZone, UnrefZone>;

struct set_clock {
  bool follows_zone; // until it is set by hand
  bool known = true;
  std::int64_t ahead = 0;      // of its source, while the clocks run
  std::uint32_t stands_at = 0; // while they do not
};

struct steady_day {
  std::int64_t day = -1;
  std::int64_t offset = 0;
};

Zone zone;         // null: the system's
steady_day steady; // a day of `zone` without a change of offset
bool running = true;
set_clock tv_clock{.follows_zone = true};
set_clock rtc{.follows_zone = false};

std::uint32_t time_value(std::int64_t seconds) {
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(seconds, 0, kLastTimeValue));
}

GTimeZone *current_zone() {
  if (!zone)
    zone.reset(g_time_zone_new_local());
  return zone.get();
}

// The set's clock is read for every timer it holds. All but a few days of a
// year have one offset, found once for the day.
std::int64_t zone_offset(std::int64_t utc) {
  const std::int64_t day = utc / kDaySeconds;
  if (day == steady.day)
    return steady.offset;

  const auto interval_at = [](std::int64_t time) {
    return g_time_zone_find_interval(current_zone(), G_TIME_TYPE_UNIVERSAL, time);
  };
  const int interval = interval_at(utc);
  const std::int64_t offset = g_time_zone_get_offset(current_zone(), interval);
  if (interval_at(day * kDaySeconds) == interval_at((day + 1) * kDaySeconds - 1))
    steady = {day, offset};
  return offset;
}

std::int64_t source_of(const set_clock &clock) {
  const std::int64_t now = std::time(nullptr);
  return clock.follows_zone ? now + zone_offset(now) : now;
}

std::uint32_t reading(const set_clock &clock) {
  standin(); // the key file may set the clocks
  if (!clock.known)
    return 0;
  return running ? time_value(source_of(clock) + clock.ahead) : clock.stands_at;
}

void set_by_hand(set_clock &clock, std::uint32_t value) {
  standin();
  clock.known = value != 0;
  clock.follows_zone = false;
  clock.ahead = value - source_of(clock);
  clock.stands_at = value;
}

// The fields may hold anything an int can; 64 bits hold whatever comes of it.
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

} // namespace

void standin_reset_clocks() {
  zone.reset();
  steady = {};
  running = true;
  tv_clock = {.follows_zone = true};
  rtc = {.follows_zone = false};
}

void standin_set_tv_clock(std::uint32_t value) { set_by_hand(tv_clock, value); }

void standin_set_rtc(std::uint32_t value) { set_by_hand(rtc, value); }

std::uint32_t standin_tv_clock() { return reading(tv_clock); }

std::uint32_t standin_rtc() { return reading(rtc); }

bool standin_clocks_running() {
  standin();
  return running;
}

void standin_run_clocks(bool run) {
  standin();
  if (run == running)
    return;
  for (set_clock *clock : {&tv_clock, &rtc}) {
    if (run)
      clock->ahead = clock->stands_at - source_of(*clock);
    else
      clock->stands_at = reading(*clock);
  }
  running = run;
}

std::string standin_time_zone() {
  standin();
  return g_time_zone_get_identifier(current_zone());
}

bool standin_set_time_zone(const char *name) {
  standin();
  Zone found{g_time_zone_new_identifier(name)};
  if (!found)
    return false;
  zone = std::move(found);
  steady = {};
  standin_announce(kSettingsTimeZone);
  return true;
}

std::uint32_t CTimeUtil::GetCurrentTime() {
  return standin_refuses(__func__) ? 0 : standin_tv_clock();
}

int CTimeUtil::GetClockMode() { return standin_refuses(__func__) ? -1 : standin().clock_mode; }

std::uint32_t CTimeUtil::ConvertToLocalTime(std::uint32_t utc) {
  standin();
  return time_value(utc + zone_offset(utc));
}

// A time that the clocks skip in spring is moved to the hour's end; one that
// they show twice in autumn is taken as standard time, the second of the two.
std::tm CTimeUtil::ConvertToUTCTime(std::tm local) {
  standin();
  gint64 seconds =
      std::clamp<std::int64_t>(civil_seconds(local), -kDaySeconds, kLastTimeValue + kDaySeconds);
  const int interval = g_time_zone_adjust_time(current_zone(), G_TIME_TYPE_STANDARD, &seconds);
  std::tm utc;
  Unsigned_gmtime_r(time_value(seconds - g_time_zone_get_offset(current_zone(), interval)), &utc);
  return utc;
}

std::uint32_t CTimeUtil::Unsigned_timegm(const std::tm *time) {
  const std::int64_t seconds = civil_seconds(*time);
  const bool convertible = seconds >= 0 && seconds <= kLastTimeValue;
  return convertible && !standin_refuses(__func__) ? time_value(seconds)
                                                   : time_value(kLastTimeValue);
}

std::tm *CTimeUtil::Unsigned_gmtime_r(std::uint32_t time, std::tm *out) {
  namespace chrono = std::chrono;
  const chrono::sys_days day{chrono::days{time / kDaySeconds}};
  const chrono::year_month_day date{day};
  const int second = static_cast<int>(time % kDaySeconds);

  *out = {};
  out->tm_sec = second % 60;
  out->tm_min = second / 60 % 60;
  out->tm_hour = second / 3600;
  out->tm_mday = static_cast<int>(static_cast<unsigned int>(date.day()));
  out->tm_mon = static_cast<int>(static_cast<unsigned int>(date.month())) - 1;
  out->tm_year = static_cast<int>(date.year()) - 1900;
  out->tm_wday = static_cast<int>(chrono::weekday{day}.c_encoding());
  out->tm_yday = static_cast<int>((day - chrono::sys_days{date.year() / 1 / 1}).count());
  return out;
}
