// What dravelctl reads: an input is words for times, days and numbers, then a file to import. The
// timers that are taken from it are forecast.
#include "commands.h"
#include "input.h"
#include "words.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace std::chrono;

static constexpr int kMostEntries = 8;
static constexpr sys_seconds kNoon = sys_days(2026y / December / 15) + 12h;

static std::string draw_text(input &in) {
  if (in.seldom(32))
    return in.ConsumeRandomLengthString(40);
  std::string text = in.PickValueInArray({"7:00",
                                          "tomorrow 7:00",
                                          "fri 20:00",
                                          "+45m",
                                          "2026-12-24 18:00",
                                          "24:00",
                                          "mon-fri,sun",
                                          "2026-12-24T07:00:05",
                                          "daily",
                                          "2028-02-29T23:59:59Z",
                                          "2026-12-24T08:00-05:00",
                                          "7pm",
                                          "next fri noon",
                                          "skip",
                                          "broadcast",
                                          "rtc",
                                          "+99999999999h",
                                          "9999-12-31 1:",
                                          "-1",
                                          "\xff\xfe 7:00",
                                          "",
                                          "0000-00-00T00:00:00"});
  if (in.seldom(96) && !text.empty())
    text[in.below(text.size())] = static_cast<char>(in.below(256));
  return text;
}

static void read_words(input &in) {
  const std::string text = draw_text(in);
  const auto now = kNoon + hours(in.below(600'000));
  if (const auto time = parse_time(text, now))
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

// --- files ---

static json draw_value(input &in) {
  const std::string text = draw_text(in);
  return in.PickValueInArray<json>({nullptr, true, 0.5, json::array({text, draw_text(in)}), text,
                                    text, 0, 1, 2, 6, 10, 16, 24, 31, 254, 255, -1, 1LL << 40});
}

// As it is exported, with some fields changed, added or left out.
static json draw_entry(input &in, json entry) {
  for (int odd = in.seldom(128) ? in.below(3) + 1 : 0; odd > 0 && !entry.empty(); --odd) {
    const auto field = std::next(entry.begin(), in.below(static_cast<long>(entry.size())));
    if (in.seldom(32))
      entry.erase(field);
    else
      entry[in.seldom(32) ? draw_text(in) : field.key()] = draw_value(in);
  }
  return entry;
}

static std::string draw_file(input &in) {
  if (in.seldom(16))
    return in.ConsumeRandomLengthString(100);
  json timers = json::array();
  for (int left = in.below(kMostEntries); left > 0; --left) {
    const timer_record timer{.type = in.below(17),
                             .at = kNoon + minutes(in.below(600'000)),
                             .week_flag = in.below(kEveryDay + 1),
                             .holiday_effect = in.below(2),
                             .clock = in.below(3)};
    timers.push_back(draw_entry(in, json_of(timer, snapshot())));
  }
  json holidays = json::array();
  for (int left = in.below(3); left > 0; --left) {
    const holiday period{.first = {1 + in.below(12U), 1, false},
                         .last = {12, 1 + in.below(31U), false}};
    holidays.push_back(draw_entry(in, json_of(period)));
  }
  std::string text = json{{"timers", timers}, {"holidays", holidays}}.dump(
      -1, ' ', false, json::error_handler_t::replace);
  for (int flips = in.seldom(32) ? in.below(4) : 0; flips > 0; --flips)
    text[in.below(text.size())] = static_cast<char>(in.below(256));
  return text;
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
  for (const firing &firing : forecast(view, kNoon + days(35))) {
    EXPECT_TRUE(firing.at >= before && firing.id >= 1 && firing.id <= id);
    before = firing.at;
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  for (int words = in.below(8); words > 0; --words)
    read_words(in);
  std::istringstream file(draw_file(in));
  try {
    check_forecast(read_import(file, "file"));
  } catch (const failure &refused) {
    EXPECT_FALSE(refused.what.empty());
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  GTEST_FLAG_SET(throw_on_failure, true);
  return 0;
}
