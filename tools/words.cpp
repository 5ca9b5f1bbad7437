#include "words.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <ctime>

using namespace std::chrono;

static constexpr days kLongestOffset{400}; // a year, and the rest of a month
static constexpr const char *kMonthWords[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const std::vector<std::string> kClockNames = {"broadcast", "internet", "rtc"};
const std::vector<std::string> kDayNames = {"sunday",   "monday", "tuesday", "wednesday",
                                            "thursday", "friday", "saturday"};

[[gnu::format(printf, 1, 2)]] static std::string print(const char *format, ...) {
  std::array<char, 128> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

std::string type_name(int type) {
  const std::string word = timer_type_of(type).word;
  return word.empty() ? std::to_string(type) : word;
}

std::string type_meaning(int type) { return timer_type_of(type).meaning; }

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

std::string short_days_text(int week_flag) {
  const auto has = [&](unsigned k) { return k <= 7 && (week_flag >> k % 7 & 1) != 0; };
  std::string text = days_text(week_flag);
  for (unsigned first = 1; first <= 7; ++first) {
    unsigned until = first; // the last day of the run
    while (has(first) && has(until + 1))
      ++until;
    const auto begin = text.find(day_word(first % 7));
    const auto end = text.find(day_word(until % 7));
    if (until >= first + 2 && end != std::string::npos)
      text.replace(begin + 3, end - begin - 3, "-");
    first = until;
  }
  return text;
}

std::string date_text(const holiday_end &end) {
  if (end.end_of_february)
    return "end of Feb";
  return print("%u %s", end.day,
               end.month >= 1 && end.month <= 12 ? kMonthWords[end.month - 1] : "?");
}

std::string date_text(const holiday &period) {
  const std::string from = date_text(period.first);
  const std::string until = date_text(period.last);
  return from == until ? from : from + " to " + until;
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

std::string date_in(const holiday_end &end, year year) {
  const auto in_month = year / month(end.month);
  return date_of(end.end_of_february ? sys_days(in_month / last)
                                     : sys_days(in_month / day(end.day)));
}

std::string day_text(sys_days day) {
  return day_word(weekday(day).c_encoding()) + " " + date_of(day);
}

std::string time_text(civil_time time) {
  return day_text(floor<days>(time)) + " " + clock_text(time);
}

std::string short_time_text(civil_time time) {
  return day_text(floor<days>(time)) + " " + time_of_day_text(time);
}

std::string time_of_day_text(civil_time time) {
  const std::string text = clock_text(time);
  return text.ends_with(":00") ? text.substr(0, text.size() - 3) : text;
}

std::string sentence(std::string text) {
  text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text + ".";
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
  const seconds offset = time.time_since_epoch() - seconds(since_1970);
  const int ahead = static_cast<int>(duration_cast<minutes>(offset).count());
  const std::string zone =
      print("%c%02d:%02d", ahead < 0 ? '-' : '+', std::abs(ahead) / 60, std::abs(ahead) % 60);
  return {iso_text(time) + zone, since_1970, std::string(name) + ", UTC" + zone};
}

static std::tm local_fields(civil_time utc) {
  const std::time_t since_1970 = utc.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&since_1970, &fields);
  return fields;
}

static seconds offset_at(civil_time utc) { return seconds(local_fields(utc).tm_gmtoff); }

civil_time civil_of(civil_time utc) { return utc + offset_at(utc); }

civil_time civil_of(const wakeup_time &wakeup) {
  return wakeup.is_utc ? civil_of(wakeup.at) : wakeup.at;
}

// An hour that the clock shows twice is the first of the two, because the daemon counts the seconds
// that the clock shows. So is a time that it leaves out the moment so long after the change. mktime
// would search for either for a millisecond in a zone without summer time.
zoned_time in_zone(civil_time time) {
  const civil_time first = time - offset_at(time - days(1));
  const civil_time second = time - offset_at(time + days(1));
  const civil_time utc = civil_of(first) != time && civil_of(second) == time ? second : first;
  return zoned(time, utc.time_since_epoch().count(), local_fields(utc).tm_zone);
}

zoned_time from_utc(civil_time utc) {
  return zoned(civil_of(utc), utc.time_since_epoch().count(), local_fields(utc).tm_zone);
}

std::optional<civil_time> next_change_of_offset(civil_time utc) {
  const seconds offset = offset_at(utc);
  civil_time after = utc;
  while (offset_at(after) == offset)
    if (after += days(1); after > utc + kLongestOffset)
      return std::nullopt;
  for (civil_time before = after - days(1); after - before > 1s;) {
    const civil_time middle = before + (after - before) / 2;
    (offset_at(middle) == offset ? before : after) = middle;
  }
  return after;
}
