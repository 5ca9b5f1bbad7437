#include "fixture.h"

#include <climits>
#include <cmath>

class TimeBase : public CleanSet {};

TEST_F(TimeBase, EachClock_IsReadByItsTimeType_AndMayBeUnknown) {
  set_clocks("15 13:00", kNoon, "2024-02-29 12:30");
  time_value out = 7;
  EXPECT_EQ(get_cur_time(&out, 3), -1);
  EXPECT_EQ(out, 7U);
  for (const auto &[type, expected] :
       {std::pair{0, "15 13:00"}, {1, kNoon}, {2, "2024-02-29 12:30"}}) {
    EXPECT_EQ(get_cur_time(&out, type), 0);
    EXPECT_EQ(text(out), expected);
  }
  set_clocks("", kNoon, "");
  EXPECT_EQ(get_cur_time(&out, TIME_TYPE_RTC), -1);
  EXPECT_EQ(get_cur_time(&out, TIME_TYPE_BROADCAST), -1);
  EXPECT_EQ(out, 0U);
}

TEST_F(TimeBase, OneReading_TakesTheTvClock_OrElseTheRealTimeClock) {
  const std::tuple<const char *, const char *, int, const char *, double> cases[] = {
      {"15 13:00", "15 11:30", 0, "15 13:00", 3600.0}, {"", "15 11:30", 0, "15 11:30", -1800.0}};
  clock_reading clocks;
  for (const auto &[tv, rtc, result, now, offset] : cases) {
    set_clocks(tv, kNoon, rtc);
    EXPECT_EQ(read_clocks(&clocks), result);
    EXPECT_EQ(text(clocks.now), now);
    EXPECT_EQ(clocks.broadcast, at(tv));
    EXPECT_EQ(clocks.offset, offset);
  }
  set_clocks("", kNoon, "");
  EXPECT_EQ(read_clocks(&clocks), -1);
  EXPECT_EQ(clocks.now + clocks.broadcast + clocks.internet, 0U);
}

TEST_F(TimeBase, AnOffset_LosesItsFraction_AndNeverLeavesTheRange) {
  const std::tuple<time_value, double, time_value> cases[] = {
      {1000, 0.9, 1000},        {1000, -0.1, 999},
      {1000, -2000.0, 0},       {kInvalidTime, 0.5, kInvalidTime},
      {1, 1e300, kInvalidTime}, {1000, std::nan(""), 0}};
  for (const auto &[time, offset, expected] : cases)
    EXPECT_EQ(add_time_offset(time, offset), expected) << time << " + " << offset;
}

TEST_F(TimeBase, ClockModesAndLeapYears) {
  for (const auto &[set, expected] : {std::pair{0, 0}, {1, 1}, {2, 2}, {7, 2}, {-1, 2}}) {
    standin().clock_mode = set;
    EXPECT_EQ(get_clock_mode(), expected) << set;
  }
  for (const auto &[year, leap] : {std::pair{2000, 1}, {2100, 0}, {2024, 1}, {2023, 0}})
    EXPECT_EQ(is_leap_year(year), leap) << year;
}

TEST_F(TimeBase, ATimeOutsideTheTextsForm_HasNoText) {
  char out[kTimeTextSize];
  for (int std::tm::*field :
       {&std::tm::tm_sec, &std::tm::tm_min, &std::tm::tm_hour, &std::tm::tm_mday, &std::tm::tm_mon,
        &std::tm::tm_year, &std::tm::tm_wday})
    for (const int value : {INT_MIN, INT_MAX}) {
      std::tm tm = broken_down(kNoon);
      EXPECT_TRUE(format_time(&tm, out));
      tm.*field = value;
      EXPECT_FALSE(format_time(&tm, out));
      EXPECT_STREQ(out, "");
    }
  EXPECT_STREQ(time_str(at(kNoon)), "Tue Dec 15 12:00:00 2026\n");
}
