#include "parse.h"

#include "words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

using namespace std::chrono;

static constexpr int kSundayBit = 0x01;
static constexpr seconds kHalfDay{12 * 3600};

// In their locales, beside the English ones.
static constexpr struct {
  std::string_view language;
  std::array<std::string_view, 7> days;
} kForeignDays[] = {
    {"de", {"sonntag", "montag", "dienstag", "mittwoch", "donnerstag", "freitag", "samstag"}},
    {"fr", {"dimanche", "lundi", "mardi", "mercredi", "jeudi", "vendredi", "samedi"}}};

static constexpr struct {
  std::string_view name; // an abbreviation is understood as well
  seconds span;
} kUnits[] = {{"seconds", 1s}, {"minutes", 1min}, {"hours", 1h}, {"days", 24h}, {"weeks", 168h}};

static std::string lower(std::string text) {
  for (char &c : text)
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

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

static bool take(std::string_view &text, std::string_view wanted) {
  if (!text.starts_with(wanted))
    return false;
  text.remove_prefix(wanted.size());
  return true;
}

static std::optional<sys_days> take_date(std::string_view &text) {
  int y = 0;
  int m = 0;
  int d = 0;
  if (!take_number(text, 4, 4, y) || !take(text, "-") || !take_number(text, 1, 2, m) ||
      !take(text, "-") || !take_number(text, 1, 2, d))
    return std::nullopt;
  const year_month_day date(year(y), month(static_cast<unsigned>(m)),
                            day(static_cast<unsigned>(d)));
  return date.ok() && y >= 1970 && date.year() < kEndOfTime ? std::optional(sys_days(date))
                                                            : std::nullopt;
}

// --- times ---

// "7", "7:00", "19:30:15"
static std::optional<seconds> take_clock(std::string_view &text) {
  int h = 0;
  int m = 0;
  int s = 0;
  if (!take_number(text, 1, 2, h))
    return std::nullopt;
  if (take(text, ":") &&
      (!take_number(text, 2, 2, m) || (take(text, ":") && !take_number(text, 2, 2, s))))
    return std::nullopt;
  if (h > 23 || m > 59 || s > 59)
    return std::nullopt;
  return hours(h) + minutes(m) + seconds(s);
}

// "am" or "pm" behind a time of day; false when it does not fit.
static bool take_half(std::string_view &text, seconds &time_of_day) {
  const bool is_pm = text.starts_with("pm");
  if (!take(text, "am") && !take(text, "pm"))
    return true;
  if (time_of_day < 1h || time_of_day >= kHalfDay + 1h)
    return false;
  time_of_day = time_of_day % kHalfDay + (is_pm ? kHalfDay : 0s);
  return true;
}

// "+01:00", "z"; nothing when no zone follows, 24 hours when it is none.
static std::optional<seconds> take_offset(std::string_view &text) {
  if (text.empty())
    return std::nullopt;
  if (take(text, "z"))
    return 0s;
  const int sign = text.front() == '-' ? -1 : 1;
  int h = 0;
  int m = 0;
  if ((take(text, "+") || take(text, "-")) && take_number(text, 2, 2, h) &&
      (!take(text, ":") || text.size() == 2) && take_number(text, 2, 2, m) && h < 24 && m < 60)
    return sign * (hours(h) + minutes(m));
  return 24h;
}

// "45m", "1h30m", "2days"
static std::optional<seconds> parse_span(std::string_view text) {
  seconds span{};
  do {
    int count = 0;
    if (!take_number(text, 1, 5, count))
      return std::nullopt;
    const std::string_view unit = text.substr(0, text.find_first_of("0123456789"));
    const auto *found = std::ranges::find_if(
        kUnits, [&](const auto &known) { return !unit.empty() && known.name.starts_with(unit); });
    if (found == std::end(kUnits))
      return std::nullopt;
    span += count * found->span;
    text.remove_prefix(unit.size());
  } while (!text.empty());
  return span;
}

static std::string_view language() {
  for (const char *name : {"LC_ALL", "LC_TIME", "LANG"})
    if (const char *value = std::getenv(name); value != nullptr && *value != '\0')
      return value;
  return "";
}

// The weekday that the beginning of its name gives.
static std::optional<unsigned> parse_weekday(const std::string &text) {
  std::string word = lower(text);
  if (word.ends_with('.'))
    word.pop_back();
  for (unsigned day = 0; day < kDayNames.size(); ++day)
    if (word.size() >= 3 && kDayNames[day].starts_with(word))
      return day;
  for (const auto &foreign : kForeignDays)
    for (unsigned day = 0; day < foreign.days.size(); ++day)
      if (word.size() >= 2 && language().starts_with(foreign.language) &&
          foreign.days[day].starts_with(word))
        return day;
  return std::nullopt;
}

namespace {

// Reads a time word by word. What was named twice, or does not fit, makes it no time.
struct time_reader {
  sys_days today;
  time_request read{};
  bool has_time = false;
  bool is_next = false; // a weekday of the days after today
  std::optional<unsigned> weekday{};

  bool take_word(const std::string &word);
  bool finish();

private:
  bool set_day(sys_days day);
  bool set_time(std::string_view text);
};

} // namespace

bool time_reader::set_day(sys_days day) {
  if (read.day)
    return false;
  read.day = day;
  return true;
}

bool time_reader::set_time(std::string_view text) {
  if (has_time)
    return false;
  has_time = true;
  if (text == "noon" || text == "midnight") {
    read.time_of_day = text == "noon" ? kHalfDay : 0s;
    return true;
  }
  const auto time_of_day = take_clock(text);
  if (!time_of_day)
    return false;
  read.time_of_day = *time_of_day;
  if (!take_half(text, read.time_of_day))
    return false;
  read.offset = take_offset(text);
  return text.empty() && read.offset.value_or(0s) < 24h;
}

bool time_reader::take_word(const std::string &word) {
  std::string_view rest = word;
  if (word == "yesterday")
    return set_day(today - days(1));
  if (word == "today" || word == "tomorrow")
    return set_day(today + days(word == "today" ? 0 : 1));
  if (word == "next")
    return !std::exchange(is_next, true);
  if (word == "am" || word == "pm")
    return has_time && take_half(rest, read.time_of_day);
  if (word == "utc")
    return has_time && !std::exchange(read.offset, 0s);
  if (const auto day = take_date(rest))
    return set_day(*day) && (rest.empty() || (take(rest, "t") && set_time(rest)));
  if (const auto named = parse_weekday(word))
    return !std::exchange(weekday, named);
  return set_time(word);
}

bool time_reader::finish() {
  if (weekday && read.day)
    return has_time && !is_next && std::chrono::weekday(*read.day).c_encoding() == *weekday;
  if (weekday && is_next) {
    const sys_days tomorrow = today + days(1);
    return has_time &&
           set_day(tomorrow + (std::chrono::weekday(*weekday) - std::chrono::weekday(tomorrow)));
  }
  read.week_flag = weekday ? kSundayBit << *weekday : 0;
  return has_time && !is_next && (!read.offset || read.day); // a time of day has no zone
}

static std::vector<std::string> words_of(const std::string &text) {
  std::vector<std::string> words(1);
  for (const char c : lower(text)) {
    if (c != ' ' && c != ',')
      words.back() += c;
    else if (!words.back().empty())
      words.emplace_back();
  }
  if (words.back().empty())
    words.pop_back();
  return words;
}

static std::string joined(const std::vector<std::string> &words) {
  std::string all;
  for (const auto &word : words)
    all += word;
  return all;
}

std::optional<time_request> parse_time(const std::string &text, civil_time now) {
  const auto words = words_of(text);
  if (text.starts_with('+')) {
    const auto span = parse_span(std::string_view(joined(words)).substr(1));
    if (!span || now + *span >= sys_days(kEndOfTime / January / 1))
      return std::nullopt;
    const sys_days day = floor<days>(now + *span);
    return time_request{.day = day, .time_of_day = now + *span - day, .span = span};
  }
  if (words == std::vector<std::string>{"now"})
    return time_request{.is_now = true};
  time_reader reader{.today = floor<days>(now)};
  for (const auto &word : words)
    if (!reader.take_word(word))
      return std::nullopt;
  return reader.finish() ? std::optional(reader.read) : std::nullopt;
}

// "2h", "-2h", "2 hours ago"
static std::optional<seconds> parse_ago(std::string text) {
  if (text.starts_with('-'))
    text.erase(0, 1);
  if (text.ends_with("ago"))
    text.resize(text.size() - 3);
  return parse_span(text);
}

std::optional<civil_time> parse_past(const std::string &text, civil_time now) {
  const auto words = words_of(text);
  if (const auto ago = parse_ago(joined(words)))
    return *ago <= now.time_since_epoch() ? std::optional(now - *ago) : std::nullopt;
  time_reader reader{.today = floor<days>(now)};
  for (const auto &word : words)
    if (!reader.take_word(word))
      return std::nullopt;
  if (words.empty() || (!reader.has_time && !reader.take_word("midnight")) || !reader.finish())
    return std::nullopt;
  const time_request &read = reader.read;
  civil_time at = read.day.value_or(reader.today) + read.time_of_day;
  if (read.offset)
    at = civil_of(at - *read.offset);
  const auto fits = [&] {
    return at <= now && (read.day || !reader.weekday ||
                         weekday(floor<days>(at)).c_encoding() == *reader.weekday);
  };
  for (int back = 0; !read.day && !fits() && back < 7; ++back)
    at -= days(1);
  return fits() ? std::optional(at) : std::nullopt;
}

std::optional<time_request> parse_moment(const std::string &text) {
  const auto words = words_of(text);
  time_reader reader{};
  const bool is_date = words.size() == 1 && text.find('T') != std::string::npos;
  return is_date && reader.take_word(words[0]) && reader.finish() ? std::optional(reader.read)
                                                                  : std::nullopt;
}

std::optional<seconds> parse_time_of_day(const std::string &text) {
  std::string_view rest = text;
  const auto time = take_clock(rest);
  return rest.empty() && text.find(':') != std::string::npos ? time : std::nullopt;
}

// --- other numbers ---

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
    if (text == group.name)
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
  for (const auto &word : words_of(text)) {
    const auto days = parse_day_range(word);
    if (!days)
      return std::nullopt;
    week_flag |= *days;
  }
  return week_flag != 0 ? std::optional(week_flag) : std::nullopt;
}

std::optional<holiday_end> parse_date(const std::string &text) {
  std::string_view rest = text;
  int m = 0;
  int d = 0;
  if (!take_number(rest, 1, 2, m) || !take(rest, "-") || !take_number(rest, 1, 2, d) ||
      !rest.empty())
    return std::nullopt;
  const month_day date(month(static_cast<unsigned>(m)), day(static_cast<unsigned>(d)));
  if (!date.ok())
    return std::nullopt;
  return holiday_end{static_cast<unsigned>(m), static_cast<unsigned>(d), false};
}
