// Words for the numbers of timers and times.
#pragma once

#include "timers.h"

#include <optional>
#include <string>
#include <vector>

extern const std::vector<std::string> kClockNames;
extern const std::vector<std::string> kDayNames; // in full, from Sunday on

struct day_group {
  const char *name;
  int week_flag;
};
inline constexpr day_group kDayGroups[] = {
    {"daily", kEveryDay}, {"weekdays", 0x3e}, {"weekend", 0x41}};

std::string type_name(int type);    // the number for a type without a name
std::string type_meaning(int type); // what the set does when it expires
std::string clock_name(int clock);
std::vector<std::string> day_names(int week_flag); // "Mon"
std::string days_text(int week_flag);              // "once", "daily", "Mon,Wed"
std::string short_days_text(int week_flag);        // "Mon-Thu,Sat" of three and more
std::string date_text(const holiday_end &end);     // "24 Dec"
std::string date_text(const holiday &period);      // "24 Dec to 26 Dec"
std::string date_in(const holiday_end &end, std::chrono::year year); // "2026-12-24"
std::string day_text(std::chrono::sys_days day);                     // "Thu 2026-12-24"
std::string time_text(civil_time time);                              // "Thu 2026-12-24 07:00:00"
std::string short_time_text(civil_time time);     // the same, with seconds where there are any
std::string time_of_day_text(civil_time time);    // "07:00", with seconds where there are any
std::string span_text(std::chrono::seconds span); // "16 hours"
std::string firing_text(civil_time firing, civil_time now); // with how long it is until then
std::string sentence(std::string text);                     // with a capital and a full stop
std::string plural(std::size_t count, const std::string &noun);

// A civil time in the machine's zone, which is taken for the set's.
struct zoned_time {
  std::string iso;      // "2026-12-24T07:00:00+01:00"
  long long since_1970; // seconds
  std::string zone;     // "CET, UTC+01:00"
};
zoned_time in_zone(civil_time time);
zoned_time from_utc(civil_time utc); // of a time in UTC, what that zone's clock then reads
civil_time civil_of(civil_time utc); // the same as a time
civil_time civil_of(const wakeup_time &wakeup);
// The next second, UTC, at which the zone's offset changes; nothing within 400 days.
std::optional<civil_time> next_change_of_offset(civil_time utc);
std::string iso_text(civil_time time); // without a zone
