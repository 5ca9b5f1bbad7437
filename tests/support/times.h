// Times as text, and the timers that tests set.
#pragma once

#include "dravel-record.h"

#include <array>
#include <climits>
#include <cstdint>
#include <ctime>
#include <string>

// Times are written as "15 12:00", a day of December 2026, or in full as "2027-01-31 12:00"; either
// may have seconds. "" is a clock that cannot be read.
constexpr const char *kNoon = "15 12:00"; // a Tuesday: where the clocks stand at first
std::tm broken_down(const std::string &when);
std::uint32_t time_of(const std::string &when);
std::string time_text(const std::tm &time);
std::string time_text(std::uint32_t time);

enum { kSun = 1, kMon = 2, kTue = 4, kWed = 8, kThu = 16, kFri = 32, kSat = 64, kDaily = 127 };

constexpr int kDatesOwn = INT_MIN; // weekday

struct new_timer {
  int type;
  std::string when;
  int week_flag = 0;
  int effect = 0; // whether disabled periods count
  int time_type = TIME_TYPE_BROADCAST;
  int priority = 0;
  int wday = kDatesOwn;
};

// The arguments of schedule_timer, and the image of the timer that they make.
using timer_arguments = std::array<int, TIMER_ARGS>;
using timer_words = std::array<int, TIMER_WORDS>;
timer_arguments arguments_of(const new_timer &timer);
timer_words words_of(int id, const timer_arguments &arguments);

// The 20 arguments of request_set_disable_period.
std::array<int, PERIOD_ARGS> period_arguments(const std::string &start, const std::string &end,
                                              int leap = 0);
