// What dravelctl reads: an input is words for times, days and numbers, then a file to import. The
// timers that are taken from it are forecast.
#include "commands.h"
#include "input.h"
#include "words.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace std::chrono;

static constexpr std::size_t kMostEntries = 8;
static constexpr sys_seconds kNoon = sys_days(2026y / December / 15) + 12h;

static std::string draw_text(input &in) {
  static const std::string texts[] = {"7:00",
                                      "tomorrow 7:00",
                                      "fri 20:00",
                                      "+45m",
                                      "2026-12-24 18:00",
                                      "24:00",
                                      "2026-12-24T07:00:00",
                                      "mon-fri,sun",
                                      "daily",
                                      "2028-02-29T23:59:59Z",
                                      "skip",
                                      "ignore",
                                      "broadcast",
                                      "rtc",
                                      "+99999999999h",
                                      "9999-12-31 1:",
                                      "-1",
                                      "\xff\xfe 7:00",
                                      "",
                                      "0000-00-00T00:00:00"};
  std::string text = in.one_of(texts);
  if (in.seldom(96) && !text.empty())
    text[in.below(text.size())] = static_cast<char>(in.byte());
  return in.seldom(32) ? in.bytes(40) : text;
}

static void read_words(input &in) {
  const std::string text = draw_text(in);
  const auto now = kNoon + hours(in.word() % 600'000);
  if (const auto time = parse_time(text, now))
    EXPECT_TRUE(time->time_of_day >= 0s && time->time_of_day < days(1));
  EXPECT_TRUE(parse_days(text).value_or(0) <= kEveryDay && parse_days(text).value_or(0) >= 0);
  EXPECT_LE(parse_type(text).value_or(0), 254);
  EXPECT_LE(parse_clock(text).value_or(0), 2);
  if (const auto date = parse_date(text))
    EXPECT_TRUE(date->month >= 1 && date->month <= 12 && date->day >= 1 && date->day <= 31);
  if (const auto number = parse_int(text))
    EXPECT_EQ(parse_int(std::to_string(*number)), number);
  if (const auto time = parse_iso(text))
    EXPECT_EQ(parse_iso(iso_text(*time)), time);
}

// --- files ---

static json draw_value(input &in) {
  static constexpr long long kNumbers[] = {0, 1, 2, 6, 10, 12, 16, 24, 31, 254, 255, -1, 1LL << 40};
  switch (in.byte() % 8) {
  case 0:
    return nullptr;
  case 1:
    return in.byte() % 2 == 0;
  case 2:
    return 0.5;
  case 3:
    return json::array({draw_text(in), draw_text(in)});
  case 4:
  case 5:
    return draw_text(in);
  default:
    return in.one_of(kNumbers);
  }
}

// As it is exported, with some fields changed, added or left out.
static json draw_entry(input &in, json entry) {
  for (std::size_t odd = in.seldom(128) ? in.below(3) + 1 : 0; odd > 0; --odd) {
    const auto field = std::next(entry.begin(), static_cast<long>(in.below(entry.size())));
    if (in.seldom(32))
      entry.erase(field);
    else
      entry[in.seldom(32) ? draw_text(in) : field.key()] = draw_value(in);
    if (entry.empty())
      break;
  }
  return entry;
}

static std::string draw_file(input &in) {
  json timers = json::array(), holidays = json::array();
  for (std::size_t left = in.below(kMostEntries); left > 0; --left)
    timers.push_back(draw_entry(in, json_of(timer_record{.type = in.byte() % 17,
                                                         .at = kNoon + minutes(in.word() % 600'000),
                                                         .week_flag = in.byte() & kEveryDay,
                                                         .holiday_effect = in.byte() % 2,
                                                         .clock = in.byte() % 3},
                                            snapshot())));
  for (std::size_t left = in.below(3); left > 0; --left)
    holidays.push_back(draw_entry(in, json_of(holiday{.first = {in.byte() % 12 + 1U, 1, false},
                                                      .last = {12, in.byte() % 31 + 1U, false}})));
  std::string text = json{{"timers", timers}, {"holidays", holidays}}.dump(
      -1, ' ', false, json::error_handler_t::replace);
  for (std::size_t flips = in.seldom(32) ? in.below(4) : 0; flips > 0; --flips)
    text[in.word() % text.size()] = static_cast<char>(in.byte());
  return in.seldom(16) ? in.bytes(100) : text;
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
  for (std::size_t words = in.below(8); words > 0; --words)
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
