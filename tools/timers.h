// Timers and holidays as the bus carries them, and when a timer fires.
//
// Times are civil: what the clock on the set's screen reads, without a zone.
#pragma once

#include <chrono>
#include <cstdint>
#include <dravel-bus.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

using civil_time = std::chrono::sys_seconds;

constexpr int kEveryDay = 0x7f;
constexpr std::chrono::days kFarthest{DRAVEL_FARTHEST_DAYS};   // the daemon arms no timer beyond
constexpr std::chrono::seconds kTooSoon{DRAVEL_GUARD_SECONDS}; // within the current minute

struct timer_record {
  int id = 0;
  int type = TIMER_TYPE_ON;
  int priority = 0;
  civil_time at{};
  int delay = 0;
  int week_flag = 0; // 0: once; otherwise bit n repeats it on weekday n, Sunday being 0
  int holiday_effect = 0;
  int clock = TIME_TYPE_BROADCAST;
  std::optional<int> stored_day{}; // weekday, where it may not be the date's
};

struct holiday_end {
  unsigned month = 1;
  unsigned day = 1;
  bool end_of_february = false; // the day follows the length of the year
};

struct holiday {
  int id = 0;
  holiday_end first{};
  holiday_end last{};
};

// What the clocks read. An internet timer is set on the system clock; the daemon adds the
// difference of the two.
struct clocks {
  civil_time set;
  civil_time system;

  civil_time of(int clock) const { return clock == TIME_TYPE_INTERNET ? system : set; }
};

// What the set is programmed to wake for; id 0 when for nothing.
struct wakeup_time {
  int id = 0;
  civil_time at{};
  int type = 0;
  bool is_utc = false;
};

// What the daemon says of itself, its timers and its holidays at one moment.
struct snapshot {
  bool has_state = false; // false: an older daemon, and the tool's own figures
  std::string version;
  std::string platform;
  clocks now{};
  bool follows_zone = false; // the set's clock reads this machine's local time
  bool clock_known = true;
  bool clock_confirmed = true;
  std::map<int, civil_time> armed; // by timer id
  wakeup_time wakeup;
  int halt_on = 0;
  int halt_off = 0;
  std::size_t limit = 80;
  std::vector<timer_record> timers;
  std::vector<holiday> holidays;
};

timer_record timer_from_image(const std::uint8_t *image);
holiday holiday_from_image(const std::uint8_t *image);
std::vector<int> arguments_of(const timer_record &timer);                      // of schedule_timer
std::vector<int> arguments_of(const holiday &holiday, std::chrono::year year); // of the set method

int weekday_of(civil_time time); // Sunday being 0
const timer_record *find_timer(const std::vector<timer_record> &timers, int id);
std::optional<civil_time> armed_for(int id, const snapshot &view);

// A day on which a repeating timer does not fire.
struct passed_over {
  std::chrono::sys_days day;
  int holiday; // 0: the time of day has passed
};

// The next time at which `timer` fires; nothing when it never will. Like the daemon, it moves a
// timer for one moment past the holidays on which it falls. `passed` receives the days between.
std::optional<civil_time> next_firing(timer_record &timer, const clocks &now,
                                      const std::vector<holiday> &holidays,
                                      std::vector<passed_over> *passed = nullptr);

// The ids of the holidays that the day is one of.
std::vector<int> holidays_on(std::chrono::sys_days day, const snapshot &view);

// The id of the holidays that keep `timer` from firing at `at`, 0 for none. A timer for one moment
// is moved past them.
int rest_at(timer_record &timer, civil_time at, const clocks &now,
            const std::vector<holiday> &holidays);
