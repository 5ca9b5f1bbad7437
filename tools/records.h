// A timer and a holiday as the user sees them, and when a timer fires next.
//
// Times are civil: what the clock on the set's screen reads, without a zone. The set's clock cannot
// be asked for over the bus, so that the machine's local time stands for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using civil_time = std::chrono::sys_seconds;

enum clock_kind { CLOCK_BROADCAST = 0, CLOCK_INTERNET = 1, CLOCK_RTC = 2 };

struct timer_record {
  int id = 0;
  int type = 0;
  int priority = 0;
  civil_time at{};
  int week_flag = 0; // 0: once; otherwise bit n repeats it on weekday n, Sunday being 0
  int holiday_effect = 0;
  int clock = CLOCK_BROADCAST;
};

struct holiday_end {
  unsigned month = 1;
  unsigned day = 1;
  bool end_of_february = false; // the day follows the length of the year
};

struct holiday {
  int id = 0;
  holiday_end first;
  holiday_end last;
};

// What the clocks read. An internet timer is set on the system clock, and the daemon carries it
// over by the difference of the two.
struct clocks {
  civil_time set;
  civil_time system;

  civil_time of(int clock) const { return clock == CLOCK_INTERNET ? system : set; }
};

// Of this machine. DRAVELCTL_NOW gives what the set's clock reads when that is something else.
// Throws a failure for a value that is no time.
clocks read_clocks();

timer_record timer_from_image(const std::uint8_t *image);
holiday holiday_from_image(const std::uint8_t *image);

// The next time at which `timer` fires; nothing when it never will.
std::optional<civil_time> next_firing(const timer_record &timer, const clocks &now,
                                      const std::vector<holiday> &holidays);

// --- words for numbers ---

struct timer_type {
  int number;
  const char *name;
  const char *meaning;
};
extern const std::vector<timer_type> timer_types;

std::string type_name(int type);    // the number for a type without a name
std::string type_meaning(int type); // what the set does when it expires
std::string clock_name(int clock);
std::string days_text(int week_flag); // "once", "daily", "Mon,Wed"
std::vector<std::string> day_names(int week_flag);
std::string date_text(const holiday_end &end);                 // "24 Dec"
std::string time_text(civil_time time);                        // "Thu 2026-12-24 07:00:00"
std::string iso_text(civil_time time);                         // "2026-12-24T07:00:00"
std::string firing_text(civil_time firing, const clocks &now); // with how long it is until then

// --- numbers from words: nothing when the text is not understood ---

struct time_request {
  std::optional<civil_time> day; // its midnight; a time of day alone has none
  std::chrono::seconds time_of_day;
};
std::optional<time_request> parse_time(std::string_view text); // "[YYYY-MM-DD ]HH:MM[:SS]"
std::optional<int> parse_type(const std::string &text);
std::optional<int> parse_clock(const std::string &text);
std::optional<int> parse_days(const std::string &text);         // "mon,wed", "daily", "weekdays"
std::optional<holiday_end> parse_date(const std::string &text); // "12-24"
std::optional<int> parse_int(const std::string &text);
