#include "records.h"

#include "client.h"
#include "dravel-image.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>

using namespace std::chrono;

namespace {

constexpr int search_days = 366; // the daemon looks no further
constexpr int type_always = 9;   // holidays do not concern it
constexpr int every_day = 0x7f;
constexpr int working_days = 0x3e;
constexpr int weekend = 0x41;

constexpr const char *day_words[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char *month_words[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char *clock_names[] = {"broadcast", "internet", "rtc"};

constexpr struct {
  const char *name;
  int week_flag;
} day_groups[] = {{"daily", every_day}, {"weekdays", working_days}, {"weekend", weekend}};

template <typename... Args> std::string print(const char *format, Args... args) {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), format, args...);
  return text.data();
}

std::string lower(std::string text) {
  for (char &c : text)
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

bool turns_the_set_on(int type) {
  return type >= 0 && type <= 254 && type != 1 && type != 10 && type != 16;
}

bool fires_on(int week_flag, sys_days day) {
  return (week_flag >> weekday(day).c_encoding() & 1) != 0;
}

// Comparable within one year, as the daemon compares.
unsigned key_of(const holiday_end &end, year in) {
  const bool follows_year = end.end_of_february && end.month == 2 && end.day >= 28;
  return 100 * end.month + (follows_year ? (in.is_leap() ? 29 : 28) : end.day);
}

bool is_holiday(sys_days day, year this_year, const std::vector<holiday> &holidays) {
  const year_month_day date(day);
  const unsigned key = 100 * unsigned(date.month()) + unsigned(date.day());
  return std::ranges::any_of(holidays, [&](const holiday &holiday) {
    return key_of(holiday.first, this_year) <= key && key <= key_of(holiday.last, this_year);
  });
}

std::optional<civil_time> next_repetition(const timer_record &timer, const clocks &now,
                                          const std::vector<holiday> &holidays) {
  const civil_time line = now.of(timer.clock);
  const sys_days today = floor<days>(line);
  seconds time_of_day = timer.at - floor<days>(timer.at);
  // The daemon drops an on-timer's seconds only when it looks on one of the timer's days.
  if (turns_the_set_on(timer.type) && fires_on(timer.week_flag, today))
    time_of_day = floor<minutes>(time_of_day);

  const bool skips = timer.holiday_effect != 0 && timer.type != type_always;
  const year this_year = year_month_day(today).year();
  for (int k = 0; k <= search_days; ++k) {
    const sys_days day = today + days(k);
    if (!fires_on(timer.week_flag, day))
      continue;
    const civil_time at = day + time_of_day + (now.set - line);
    if (k == 0 && at <= now.set)
      continue;
    if (!skips || !is_holiday(floor<days>(at), this_year, holidays))
      return at;
  }
  return std::nullopt;
}

// Reads digits of a fixed count, so that "7:5" or "2026-1-2" is not taken for a time.
bool take_digits(std::string_view &text, std::size_t count, int &value) {
  if (text.size() < count ||
      !std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count),
                   [](char c) { return c >= '0' && c <= '9'; }))
    return false;
  std::from_chars(text.data(), text.data() + count, value);
  text.remove_prefix(count);
  return true;
}

bool take(std::string_view &text, char wanted) {
  if (text.empty() || text.front() != wanted)
    return false;
  text.remove_prefix(1);
  return true;
}

std::optional<sys_days> take_day(std::string_view &text) {
  int y = 0;
  int m = 0;
  int d = 0;
  if (!take_digits(text, 4, y) || !take(text, '-') || !take_digits(text, 2, m) ||
      !take(text, '-') || !take_digits(text, 2, d) || (!take(text, ' ') && !take(text, 'T')))
    return std::nullopt;
  const year_month_day date(year(y), month(static_cast<unsigned>(m)),
                            day(static_cast<unsigned>(d)));
  // The set counts unsigned seconds since 1970.
  if (!date.ok() || y < 1970 || y > 2105)
    return std::nullopt;
  return sys_days(date);
}

// The daemon lists whatever a client gave it. What is no date at all only has to do no harm here.
int date_word(const std::uint8_t *image, std::size_t word) {
  constexpr int farthest = 30000;
  return std::clamp(word_at(image, word), -farthest, farthest);
}

civil_time time_at(const std::uint8_t *image, std::size_t tm) {
  const auto field = [&](tm_word word) { return date_word(image, tm + word); };
  // A moved timer's day may lie past the end of its month.
  const year_month month = year(field(TM_YEAR) + 1900) / January + months(field(TM_MON));
  return sys_days(month / 1) + days(field(TM_MDAY) - 1) + hours(field(TM_HOUR)) +
         minutes(field(TM_MIN)) + seconds(field(TM_SEC));
}

holiday_end end_at(const std::uint8_t *image, std::size_t tm, std::size_t leap) {
  const auto field = [&](tm_word word) { return std::max(date_word(image, tm + word), -1); };
  return {static_cast<unsigned>(field(TM_MON) + 1),
          static_cast<unsigned>(std::max(field(TM_MDAY), 0)), word_at(image, leap) == 1};
}

std::string span_text(seconds span) {
  const auto unit = [](auto count, const char *name) {
    return print("%lld %s%s", static_cast<long long>(count), name, count == 1 ? "" : "s");
  };
  if (span >= days(2))
    return unit(floor<days>(span).count(), "day");
  if (span >= hours(2))
    return unit(floor<hours>(span).count(), "hour");
  if (span >= minutes(2))
    return unit(floor<minutes>(span).count(), "minute");
  return unit(span.count(), "second");
}

} // namespace

clocks read_clocks() {
  const std::time_t now = std::time(nullptr);
  const civil_time system{seconds(now)};
  if (const char *given = std::getenv("DRAVELCTL_NOW")) {
    const auto time = parse_time(given);
    if (!time || !time->day)
      throw failure{"DRAVELCTL_NOW=" + std::string(given) + " is no date and time",
                    "Write it as in \"2026-12-24 06:59:00\", or unset it.", EXIT_USAGE};
    return {*time->day + time->time_of_day, system};
  }
  std::tm local{};
  localtime_r(&now, &local);
  return {system + seconds(local.tm_gmtoff), system};
}

timer_record timer_from_image(const std::uint8_t *image) {
  return {.id = word_at(image, TIMER_ID),
          .type = word_at(image, TIMER_TYPE),
          .priority = word_at(image, TIMER_PRIORITY),
          .at = time_at(image, TIMER_TM),
          .week_flag = word_at(image, TIMER_WEEK_FLAG),
          .holiday_effect = word_at(image, TIMER_DISABLE_PERIOD_EFFECT),
          .clock = word_at(image, TIMER_TIME_TYPE)};
}

holiday holiday_from_image(const std::uint8_t *image) {
  return {.id = word_at(image, PERIOD_ID),
          .first = end_at(image, PERIOD_START_TM, PERIOD_START_LEAP),
          .last = end_at(image, PERIOD_END_TM, PERIOD_END_LEAP)};
}

std::optional<civil_time> next_firing(const timer_record &timer, const clocks &now,
                                      const std::vector<holiday> &holidays) {
  if (timer.week_flag != 0)
    return next_repetition(timer, now, holidays);
  const civil_time at = turns_the_set_on(timer.type) ? floor<minutes>(timer.at) : timer.at;
  const civil_time on_set = at + (now.set - now.of(timer.clock));
  return on_set > now.set ? std::optional(on_set) : std::nullopt;
}

// The micro-controller is programmed for such a timer, but the daemon does not turn the set on.
static constexpr const char *wakes_and_is_announced = "wakes a sleeping set and is announced";

// Named after what the daemon does; what the reasons stand for is the set's own business.
const std::vector<timer_type> timer_types = {
    {0, "on", "turns the set on"},
    {1, "off", "powers the set off"},
    {2, "wake-20", "wakes the set, reason 20"},
    {3, "wake-5", "wakes the set, reason 5"},
    {4, "announce", wakes_and_is_announced},
    {5, "wake-28", "wakes the set, reason 28"},
    {6, "standby", "standby timer: wakes the set, reason 30, unless it turns on soon after"},
    {7, "wake-33", "wakes the set, reason 33"},
    {8, "wake-36", "wakes the set, reason 36"},
    {type_always, "always", "wakes a sleeping set and is announced, on holidays too"},
    {10, "transient-off", "powers the set off; lost when the daemon ends"},
    {11, "wake-74", "wakes the set, reason 74"},
    {12, "announce-12", wakes_and_is_announced},
    {13, "replacing", "wakes the set, reason 92; replaces an equal timer"},
    {14, "wake-99", "wakes the set, reason 99"},
    {15, "ambient-on", "wakes the set into ambient mode, reason 89"},
    {16, "ambient-off", "powers the set off from ambient mode"},
};

static const timer_type *find_type(int number) {
  const auto found = std::ranges::find(timer_types, number, &timer_type::number);
  return found != timer_types.end() ? &*found : nullptr;
}

std::string type_name(int type) {
  const timer_type *known = find_type(type);
  return known != nullptr ? known->name : std::to_string(type);
}

std::string type_meaning(int type) {
  const timer_type *known = find_type(type);
  if (known != nullptr)
    return known->meaning;
  return turns_the_set_on(type) ? wakes_and_is_announced : "is announced";
}

std::string clock_name(int clock) {
  return clock >= 0 && clock < int{std::size(clock_names)} ? clock_names[clock]
                                                           : std::to_string(clock);
}

std::vector<std::string> day_names(int week_flag) {
  std::vector<std::string> names;
  for (int k = 1; k <= 7; ++k) // the week as it is printed begins on Monday
    if ((week_flag >> k % 7 & 1) != 0)
      names.emplace_back(day_words[k % 7]);
  return names;
}

std::string days_text(int week_flag) {
  if (week_flag == 0)
    return "once";
  for (const auto &group : day_groups)
    if ((week_flag & every_day) == group.week_flag)
      return group.name;
  std::string text;
  for (const auto &name : day_names(week_flag))
    text += (text.empty() ? "" : ",") + name;
  return text.empty() ? "no day" : text;
}

std::string date_text(const holiday_end &end) {
  if (end.end_of_february)
    return "end of Feb";
  return print("%u %s", end.day,
               end.month >= 1 && end.month <= 12 ? month_words[end.month - 1] : "?");
}

std::string iso_text(civil_time time) {
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  return print("%04d-%02u-%02uT%02d:%02d:%02d", int(date.year()), unsigned(date.month()),
               unsigned(date.day()), static_cast<int>(clock.hours().count()),
               static_cast<int>(clock.minutes().count()),
               static_cast<int>(clock.seconds().count()));
}

std::string time_text(civil_time time) {
  std::string text = iso_text(time);
  std::ranges::replace(text, 'T', ' ');
  return std::string(day_words[weekday(floor<days>(time)).c_encoding()]) + " " + text;
}

std::string firing_text(civil_time firing, const clocks &now) {
  return time_text(firing) + ", in " + span_text(firing - now.set);
}

std::optional<int> parse_int(const std::string &text) {
  int value = 0;
  const char *end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end ? std::optional(value) : std::nullopt;
}

std::optional<time_request> parse_time(std::string_view text) {
  time_request time{};
  if (text.find('-') != std::string_view::npos) {
    time.day = take_day(text);
    if (!time.day)
      return std::nullopt;
  }
  int h = 0;
  int m = 0;
  int s = 0;
  if (!take_digits(text, 2, h) || !take(text, ':') || !take_digits(text, 2, m) ||
      (take(text, ':') && !take_digits(text, 2, s)) || !text.empty() || h > 23 || m > 59 || s > 59)
    return std::nullopt;
  time.time_of_day = hours(h) + minutes(m) + seconds(s);
  return time;
}

std::optional<int> parse_type(const std::string &text) {
  const auto found = std::ranges::find(timer_types, lower(text), &timer_type::name);
  return found != timer_types.end() ? std::optional(found->number) : parse_int(text);
}

std::optional<int> parse_clock(const std::string &text) {
  const auto found = std::ranges::find(clock_names, lower(text));
  return found != std::end(clock_names) ? std::optional(int(found - clock_names)) : std::nullopt;
}

std::optional<int> parse_days(const std::string &text) {
  int week_flag = 0;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find(',', start), text.size());
    const std::string name = lower(text.substr(start, end - start));
    const auto group = std::ranges::find(day_groups, name, [](auto &row) { return row.name; });
    const auto day =
        std::ranges::find_if(day_words, [&](const char *d) { return lower(d) == name; });
    if (group != std::end(day_groups))
      week_flag |= group->week_flag;
    else if (day != std::end(day_words))
      week_flag |= 1 << (day - day_words);
    else
      return std::nullopt;
    start = end + 1;
  }
  return week_flag;
}

std::optional<holiday_end> parse_date(const std::string &text) {
  std::string_view rest = text;
  int m = 0;
  int d = 0;
  if (!take_digits(rest, 2, m) || !take(rest, '-') || !take_digits(rest, 2, d) || !rest.empty())
    return std::nullopt;
  const month_day date(month(static_cast<unsigned>(m)), day(static_cast<unsigned>(d)));
  if (!date.ok())
    return std::nullopt;
  return holiday_end{static_cast<unsigned>(m), static_cast<unsigned>(d), false};
}
