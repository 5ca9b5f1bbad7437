#include "times.h"

#include <cstdio>
#include <stdexcept>

std::tm broken_down(const std::string &when) {
  std::tm tm{};
  const std::string full = when.size() > 4 && when[4] == '-' ? when : "2026-12-" + when;
  if (std::sscanf(full.c_str(), "%d-%d-%d %d:%d:%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                  &tm.tm_hour, &tm.tm_min, &tm.tm_sec) < 5)
    throw std::runtime_error("no time: " + when);
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  std::tm normal = tm;
  timegm(&normal);
  tm.tm_wday = normal.tm_wday;
  tm.tm_yday = normal.tm_yday;
  return tm;
}

std::uint32_t time_of(const std::string &when) {
  if (when.empty())
    return 0;
  std::tm tm = broken_down(when);
  return static_cast<std::uint32_t>(timegm(&tm));
}

std::string time_text(const std::tm &time) {
  char out[100];
  std::strftime(out, sizeof out, time.tm_sec == 0 ? "%F %H:%M" : "%F %T", &time);
  const std::string full = out;
  return full.starts_with("2026-12-") ? full.substr(8) : full;
}

std::string time_text(std::uint32_t time) {
  const std::time_t value = time;
  std::tm tm{};
  return time_text(*gmtime_r(&value, &tm));
}

timer_arguments arguments_of(const new_timer &timer) {
  const std::tm tm = broken_down(timer.when);
  return {timer.type, timer.week_flag, timer.priority, 0,         tm.tm_year, tm.tm_mon,
          tm.tm_mday, tm.tm_hour,      tm.tm_min,      tm.tm_sec, tm.tm_wday, tm.tm_yday,
          0,          timer.effect,    timer.time_type};
}

timer_words words_of(int id, const timer_arguments &arguments) {
  timer_words words{};
  words[TIMER_WORD_ID] = id;
  for (const record_field &field : kRecordFields<dravel_item>)
    if (field.argument != kNoArgument)
      words[field.word] = arguments[static_cast<std::size_t>(field.argument)];
  return words;
}

std::array<int, PERIOD_ARGS> period_arguments(const std::string &start, const std::string &end,
                                              int leap) {
  const std::tm from = broken_down(start);
  const std::tm to = broken_down(end);
  return {from.tm_year, from.tm_mon,  from.tm_mday,
          from.tm_hour, from.tm_min,  from.tm_sec,
          from.tm_wday, from.tm_yday, 0,
          to.tm_year,   to.tm_mon,    to.tm_mday,
          to.tm_hour,   to.tm_min,    to.tm_sec,
          to.tm_wday,   to.tm_yday,   0,
          leap,         leap};
}
