// What dravelctl reads: an input is a word for a time, days or a number, a calendar, and a file to
// import. The timers that are taken from it are forecast.
#include "calendar.h"
#include "commands.h"
#include "words.h"

#include <gtest/gtest.h>

#include <cctype>
#include <sstream>

using namespace std::chrono;

static constexpr sys_seconds kNoon = sys_days(2026y / December / 15) + 12h;

static void read_word(const std::string &text) {
  if (const auto time = parse_time(text, kNoon))
    EXPECT_TRUE(time->time_of_day >= 0s && time->time_of_day < days(1));
  EXPECT_TRUE(parse_days(text).value_or(0) <= kEveryDay && parse_days(text).value_or(0) >= 0);
  EXPECT_LE(parse_type(text).value_or(0), 254);
  EXPECT_LE(parse_clock(text).value_or(0), 2);
  if (const auto date = parse_date(text))
    EXPECT_TRUE(date->month >= 1 && date->month <= 12 && date->day >= 1 && date->day <= 31);
  if (const auto number = parse_int(text))
    EXPECT_EQ(parse_int(std::to_string(*number)), number);
  if (const auto time = parse_moment(text); time && !time->offset) {
    const auto again = parse_moment(iso_text(*time->day + time->time_of_day));
    EXPECT_TRUE(again && again->day == time->day && again->time_of_day == time->time_of_day);
  }
}

// Holidays of the coming year come in order; their names do not steer a terminal.
static void check_calendar(const std::string &text) {
  constexpr sys_days kToday = floor<days>(kNoon);
  sys_days before{};
  for (const calendar_entry &entry : read_calendar(text, "file", kToday, kToday + days(365))) {
    EXPECT_TRUE(entry.first >= before && entry.first < kToday + days(365));
    EXPECT_TRUE(entry.last >= std::max(entry.first, kToday) && entry.name.size() <= 100);
    EXPECT_EQ(std::ranges::count_if(entry.name, [](unsigned char c) { return std::iscntrl(c); }),
              0);
    before = entry.first;
  }
}

// Firings come in order, none before now, each of a timer that is there.
static void check_forecast(const import_contents &read) {
  snapshot view{.now = {kNoon, kNoon + 3600s}, .timers = read.timers, .holidays = read.holidays};
  int id = 0;
  for (timer_record &timer : view.timers) {
    timer.id = ++id;
    const auto next = next_firing(timer, view.now, view.holidays);
    EXPECT_TRUE(timer.type >= 0 && timer.type <= 254 && timer.week_flag <= kEveryDay);
    EXPECT_TRUE(!next || *next > kNoon) << json_of(timer, view);
    if (next && *next <= kNoon + kFarthest)
      view.armed[id] = *next;
  }
  civil_time before = kNoon;
  for (const firing &firing : forecast(view, kNoon + days(35)).firings) {
    EXPECT_TRUE(firing.at >= before && firing.id >= 1 && firing.id <= id);
    before = firing.at;
  }
}

template <typename Read> static void expect_reason(Read read) {
  try {
    read();
  } catch (const failure &refused) {
    EXPECT_FALSE(refused.what.empty());
  }
}

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size) {
  GTEST_FLAG_SET(throw_on_failure, true);
  std::istringstream file(std::string(data, size));
  read_word(file.str());
  expect_reason([&] { check_calendar(file.str()); });
  expect_reason([&] { check_forecast(read_import(file, "file")); });
  return 0;
}
