#include "clock.h"

#include "time_source.h"

#include <CTimeUtil.h>
#include <glib.h>
#include <time_values.h>

#include <ctime>
#include <fstream>
#include <string>

// 00:00 UTC of the day of the build. A clock that is before it was never set.
static constexpr std::time_t kBuildDay = DRAVEL_BUILD_DAY;

static constexpr const char *kAdjtimePath = "/etc/adjtime";

static GTimeZone *zone;

static GTimeZone *current_zone() {
  if (zone == nullptr)
    zone = g_time_zone_new_local();
  return zone;
}

bool change_zone(const char *name) {
  const std::string before = g_time_zone_get_identifier(current_zone());
  GTimeZone *found = name == nullptr ? g_time_zone_new_local() : g_time_zone_new_identifier(name);
  if (found == nullptr)
    return false;
  g_time_zone_unref(zone);
  zone = found;
  return before != g_time_zone_get_identifier(zone);
}

std::uint32_t utc_now() { return to_time_value(std::time(nullptr)); }

std::uint32_t to_utc(std::uint32_t local) { return local_to_utc(current_zone(), local); }

static bool rtc_counts_local_time() {
  std::ifstream file(kAdjtimePath);
  std::string drift, adjusted, counts;
  return std::getline(file, drift) && std::getline(file, adjusted) && std::getline(file, counts) &&
         counts == "LOCAL";
}

std::uint32_t utc_of_rtc(std::int64_t reading) {
  return rtc_counts_local_time() ? local_to_utc(current_zone(), reading) : to_time_value(reading);
}

std::uint32_t CTimeUtil::GetCurrentTime() {
  const std::time_t now = std::time(nullptr);
  return now < kBuildDay ? 0 : utc_to_local(current_zone(), to_time_value(now));
}

int CTimeUtil::GetClockMode() { return clock_mode(); }

std::uint32_t CTimeUtil::ConvertToLocalTime(std::uint32_t utc) {
  return utc_to_local(current_zone(), utc);
}

std::tm CTimeUtil::ConvertToUTCTime(std::tm local) {
  return broken_down(local_to_utc(current_zone(), civil_seconds(local)));
}

std::uint32_t CTimeUtil::Unsigned_timegm(const std::tm *time) { return time_value_of(*time); }

std::tm *CTimeUtil::Unsigned_gmtime_r(std::uint32_t time, std::tm *out) {
  *out = broken_down(time);
  return out;
}
