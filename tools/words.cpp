#include "words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

using namespace std::chrono;

static constexpr int kWorkingDays = 0x3e;
static constexpr int kWeekend = 0x41;
static constexpr int kSundayBit = 0x01;

static constexpr const char *kMonthWords[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
static constexpr struct {
  const char *name;
  int week_flag;
} kDayGroups[] = {{"daily", kEveryDay}, {"weekdays", kWorkingDays}, {"weekend", kWeekend}};

const std::vector<std::string> kClockNames = {"broadcast", "internet", "rtc"};
const std::vector<std::string> kDayNames = {"sunday",   "monday", "tuesday", "wednesday",
                                            "thursday", "friday", "saturday"};

template <typename... Args> static std::string print(const char *format, Args... args) {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), format, args...);
  return text.data();
}

static std::string lower(std::string text) {
  for (char &c : text)
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// --- words for numbers ---

std::string type_name(int type) {
  const std::string word = timer_type_of(type).word;
  return word.empty() ? std::to_string(type) : word;
}

std::string type_meaning(int type) { return timer_type_of(type).meaning; }

action type_action(int type) {
  switch (timer_type_of(type).action) {
  case timer_action::kTurnOn:
  case timer_action::kWake:
    return action::kTurnOn;
  case timer_action::kTurnOff:
    return action::kPowerOff;
  default:
    return action::kNone;
  }
}

std::string clock_name(int clock) {
  return clock >= 0 && clock < static_cast<int>(kClockNames.size())
             ? kClockNames[static_cast<std::size_t>(clock)]
             : std::to_string(clock);
}

static std::string day_word(unsigned weekday) {
  std::string word = kDayNames[weekday].substr(0, 3);
  word[0] = static_cast<char>(word[0] - 'a' + 'A');
  return word;
}

std::vector<std::string> day_names(int week_flag) {
  std::vector<std::string> names;
  for (unsigned k = 1; k <= 7; ++k) // the week as it is printed begins on Monday
    if ((week_flag >> k % 7 & 1) != 0)
      names.push_back(day_word(k % 7));
  return names;
}

std::string days_text(int week_flag) {
  if (week_flag == 0)
    return "once";
  for (const auto &group : kDayGroups)
    if ((week_flag & kEveryDay) == group.week_flag)
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
               end.month >= 1 && end.month <= 12 ? kMonthWords[end.month - 1] : "?");
}

static std::string date_of(sys_days day) {
  const year_month_day date(day);
  return print("%04d-%02u-%02u", int(date.year()), unsigned(date.month()), unsigned(date.day()));
}

static std::string clock_text(civil_time time) {
  const hh_mm_ss clock(time - floor<days>(time));
  return print("%02d:%02d:%02d", static_cast<int>(clock.hours().count()),
               static_cast<int>(clock.minutes().count()),
               static_cast<int>(clock.seconds().count()));
}

std::string iso_text(civil_time time) {
  return date_of(floor<days>(time)) + "T" + clock_text(time);
}

std::string day_text(sys_days day) {
  return day_word(weekday(day).c_encoding()) + " " + date_of(day);
}

std::string time_text(civil_time time) {
  return day_text(floor<days>(time)) + " " + clock_text(time);
}

std::string time_of_day_text(civil_time time) {
  const std::string text = clock_text(time);
  return text.ends_with(":00") ? text.substr(0, text.size() - 3) : text;
}

std::string plural(std::size_t count, const std::string &noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string span_text(seconds span) {
  const auto text = [](auto count, const char *unit) {
    return plural(static_cast<std::size_t>(count.count()), unit);
  };
  if (span >= days(2))
    return text(floor<days>(span), "day");
  if (span >= hours(2))
    return text(floor<hours>(span), "hour");
  if (span >= minutes(2))
    return text(floor<minutes>(span), "minute");
  return text(std::max(span, 0s), "second");
}

std::string firing_text(civil_time firing, civil_time now) {
  return time_text(firing) + ", in " + span_text(firing - now);
}

static zoned_time zoned(civil_time time, std::time_t since_1970, const char *name) {
  const auto offset = duration_cast<minutes>(time.time_since_epoch() - seconds(since_1970)).count();
  const std::string zone =
      print("%c%02ld:%02ld", offset < 0 ? '-' : '+', std::abs(offset) / 60, std::abs(offset) % 60);
  return {iso_text(time) + zone, since_1970, std::string(name) + ", UTC" + zone};
}

// An hour that the clock shows twice is the first of the two, because the daemon counts the seconds
// that the clock shows. So is a time that it leaves out the moment so long after the change.
zoned_time in_zone(civil_time time) {
  const std::time_t civil = time.time_since_epoch().count();
  std::tm fields{};
  std::time_t since_1970 = 0;
  for (const int is_dst : {1, 0}) {
    gmtime_r(&civil, &fields);
    fields.tm_isdst = is_dst;
    since_1970 = std::mktime(&fields);
    std::tm shown = fields;
    if (timegm(&shown) == civil)
      break;
  }
  return zoned(time, since_1970, fields.tm_zone);
}

zoned_time from_utc(civil_time time) {
  const std::time_t since_1970 = time.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&since_1970, &fields);
  return zoned(time + seconds(fields.tm_gmtoff), since_1970, fields.tm_zone);
}

// --- numbers from words ---

std::optional<int> parse_int(const std::string &text) {
  int value = 0;
  const bool has_plus = text.starts_with('+') && !text.starts_with("+-");
  const char *end = text.data() + text.size();
  const auto result = std::from_chars(text.data() + (has_plus ? 1 : 0), end, value);
  return result.ec == std::errc() && result.ptr == end ? std::optional(value) : std::nullopt;
}

// Takes from `least` to `most` digits off the beginning.
static bool take_number(std::string_view &text, std::size_t least, std::size_t most, int &value) {
  std::size_t count = 0;
  while (count < std::min(most, text.size()) && text[count] >= '0' && text[count] <= '9')
    ++count;
  if (count < least)
    return false;
  std::from_chars(text.data(), text.data() + count, value);
  text.remove_prefix(count);
  return true;
}

static bool take(std::string_view &text, char wanted) {
  if (text.empty() || text.front() != wanted)
    return false;
  text.remove_prefix(1);
  return true;
}

static std::optional<sys_days> take_date(std::string_view &text) {
  int y = 0;
  int m = 0;
  int d = 0;
  if (!take_number(text, 4, 4, y) || !take(text, '-') || !take_number(text, 1, 2, m) ||
      !take(text, '-') || !take_number(text, 1, 2, d))
    return std::nullopt;
  const year_month_day date(year(y), month(static_cast<unsigned>(m)),
                            day(static_cast<unsigned>(d)));
  // The set counts unsigned seconds since 1970.
  return date.ok() && y >= 1970 && y <= 2105 ? std::optional(sys_days(date)) : std::nullopt;
}

static std::optional<seconds> take_clock(std::string_view &text) {
  int h = 0;
  int m = 0;
  int s = 0;
  if (!take_number(text, 1, 2, h) || !take(text, ':') || !take_number(text, 2, 2, m) ||
      (take(text, ':') && !take_number(text, 2, 2, s)) || h > 23 || m > 59 || s > 59)
    return std::nullopt;
  return hours(h) + minutes(m) + seconds(s);
}

// "45m", "1h30m", "2d"
static std::optional<seconds> parse_span(std::string_view text) {
  seconds span{};
  do {
    int count = 0;
    if (!take_number(text, 1, 5, count))
      return std::nullopt;
    if (take(text, 'd'))
      span += days(count);
    else if (take(text, 'h'))
      span += hours(count);
    else if (take(text, 'm'))
      span += minutes(count);
    else if (take(text, 's'))
      span += seconds(count);
    else
      return std::nullopt;
  } while (!text.empty());
  return span;
}

// The weekday that at least the first three letters of its name give.
static std::optional<unsigned> parse_weekday(const std::string &text) {
  const auto found = std::ranges::find_if(kDayNames, [&](const std::string &name) {
    return text.size() >= 3 && name.starts_with(lower(text));
  });
  return found != kDayNames.end() ? std::optional(static_cast<unsigned>(found - kDayNames.begin()))
                                  : std::nullopt;
}

// The day that a word names; a weekday is today when the time of day is still to come.
static std::optional<sys_days> named_day(const std::string &word, seconds time_of_day,
                                         civil_time now) {
  const sys_days today = floor<days>(now);
  if (lower(word) == "today")
    return today;
  if (lower(word) == "tomorrow")
    return today + days(1);
  const auto wanted = parse_weekday(word);
  if (!wanted)
    return std::nullopt;
  const sys_days day = today + (weekday(*wanted) - weekday(today));
  return day + time_of_day > now ? day : day + days(7);
}

std::optional<time_request> parse_time(const std::string &text, civil_time now) {
  if (text.starts_with('+')) {
    const auto span = parse_span(text.substr(1));
    if (!span)
      return std::nullopt;
    const sys_days day = floor<days>(now + *span);
    return time_request{day, now + *span - day};
  }
  const std::size_t gap = text.find_first_of(" T", 1);
  const bool has_day = gap != std::string::npos;
  std::string_view clock = std::string_view(text).substr(has_day ? gap + 1 : 0);
  const auto time_of_day = take_clock(clock);
  if (!time_of_day || !clock.empty())
    return std::nullopt;
  if (!has_day)
    return time_request{std::nullopt, *time_of_day};
  const std::string word = text.substr(0, gap);
  std::string_view date = word;
  auto day = take_date(date);
  if (!day || !date.empty())
    day = named_day(word, *time_of_day, now);
  return day ? std::optional(time_request{day, *time_of_day}) : std::nullopt;
}

std::optional<civil_time> parse_iso(const std::string &text) {
  std::string_view rest = text;
  const auto day = take_date(rest);
  const auto time_of_day = take(rest, 'T') ? take_clock(rest) : std::nullopt;
  int zone = 0;
  const bool is_whole =
      rest.empty() || ((take(rest, '+') || take(rest, '-')) && take_number(rest, 2, 2, zone) &&
                       take(rest, ':') && take_number(rest, 2, 2, zone) && rest.empty());
  return day && time_of_day && is_whole ? std::optional<civil_time>(*day + *time_of_day)
                                        : std::nullopt;
}

// A number is taken when the daemon gives it a meaning.
std::optional<int> parse_type(const std::string &text) {
  const auto *found = std::ranges::find(kTimerTypes, lower(text), &timer_type::word);
  if (found != std::end(kTimerTypes))
    return found->number;
  const auto number = parse_int(text);
  return number && *number >= 0 && *number <= TIMER_TYPE_ONTIMER_MAX ? number : std::nullopt;
}

std::optional<int> parse_clock(const std::string &text) {
  const auto found = std::ranges::find(kClockNames, lower(text));
  return found != kClockNames.end() ? std::optional(int(found - kClockNames.begin()))
                                    : std::nullopt;
}

std::optional<int> parse_effect(const std::string &text) {
  if (text == "skip")
    return 1;
  return text == "ignore" ? std::optional(0) : std::nullopt;
}

// "mon", "mon-fri", "fri-mon", "daily"
static std::optional<int> parse_day_range(const std::string &text) {
  for (const auto &group : kDayGroups)
    if (lower(text) == group.name)
      return group.week_flag;
  const std::size_t dash = text.find('-');
  const auto first = parse_weekday(text.substr(0, dash));
  const auto until = dash == std::string::npos ? first : parse_weekday(text.substr(dash + 1));
  if (!first || !until)
    return std::nullopt;
  int week_flag = kSundayBit << *until;
  for (unsigned day = *first; day != *until; day = (day + 1) % 7)
    week_flag |= kSundayBit << day;
  return week_flag;
}

std::optional<int> parse_days(const std::string &text) {
  int week_flag = 0;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find(',', start), text.size());
    const auto days = parse_day_range(text.substr(start, end - start));
    if (!days)
      return std::nullopt;
    week_flag |= *days;
    start = end + 1;
  }
  return week_flag;
}

std::optional<holiday_end> parse_date(const std::string &text) {
  std::string_view rest = text;
  int m = 0;
  int d = 0;
  if (!take_number(rest, 1, 2, m) || !take(rest, '-') || !take_number(rest, 1, 2, d) ||
      !rest.empty())
    return std::nullopt;
  const month_day date(month(static_cast<unsigned>(m)), day(static_cast<unsigned>(d)));
  if (!date.ok())
    return std::nullopt;
  return holiday_end{static_cast<unsigned>(m), static_cast<unsigned>(d), false};
}
