// Words for the numbers of timers and times, and numbers from words.
#pragma once

#include "timers.h"

#include <string>
#include <string_view>
#include <vector>

// --- words for numbers ---

enum class action { kNone, kTurnOn, kPowerOff }; // what a halt keeps a timer from

extern const std::vector<std::string> kClockNames;
extern const std::vector<std::string> kDayNames; // in full, from Sunday on

std::string type_name(int type);    // the number for a type without a name
std::string type_meaning(int type); // what the set does when it expires
action type_action(int type);
std::string clock_name(int clock);
std::vector<std::string> day_names(int week_flag); // "Mon"
std::string days_text(int week_flag);              // "once", "daily", "Mon,Wed"
std::string date_text(const holiday_end &end);     // "24 Dec"
std::string day_text(std::chrono::sys_days day);   // "Thu 2026-12-24"
std::string time_text(civil_time time);            // "Thu 2026-12-24 07:00:00"
std::string time_of_day_text(civil_time time);     // "07:00", with seconds where there are any
std::string span_text(std::chrono::seconds span);  // "16 hours"
std::string firing_text(civil_time firing, civil_time now); // with how long it is until then
std::string plural(std::size_t count, const std::string &noun);

// A civil time in the machine's zone, which is taken for the set's.
struct zoned_time {
  std::string iso;      // "2026-12-24T07:00:00+01:00"
  long long since_1970; // seconds
  std::string zone;     // "CET, UTC+01:00"
};
zoned_time in_zone(civil_time time);
zoned_time from_utc(civil_time time);  // of a time in UTC, what that zone's clock then reads
std::string iso_text(civil_time time); // without a zone

// --- numbers from words: nothing when the text is not understood ---

struct time_request {
  std::optional<civil_time> day; // its midnight; a time of day alone has none
  std::chrono::seconds time_of_day;
};
inline constexpr const char *kTimeForms =
    "write 7:00, \"tomorrow 7:00\", \"fri 20:00\", +45m or \"2026-12-24 18:00\"";
inline constexpr const char *kDayForms = "write mon,wed or mon-fri, daily, weekdays, weekend";

std::optional<time_request> parse_time(const std::string &text, civil_time now);
std::optional<int> parse_type(const std::string &text);
std::optional<int> parse_clock(const std::string &text);
std::optional<int> parse_effect(const std::string &text); // of holidays
std::optional<int> parse_days(const std::string &text);
std::optional<holiday_end> parse_date(const std::string &text); // "12-24"
std::optional<int> parse_int(const std::string &text);
std::optional<civil_time> parse_iso(const std::string &text); // the offset of a zone is passed over
