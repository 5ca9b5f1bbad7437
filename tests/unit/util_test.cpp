#include "fixture.h"

#include <climits>
#include <cmath>

class TimeBase : public CleanSet {};

TEST_F(TimeBase, EachClock_IsReadByItsTimeType_AndMayBeUnknown) {
  set_clocks("", kNoon, "2024-02-29 12:30:07");
  time_value out = 7;
  EXPECT_EQ(get_cur_time(&out, 3), -1);
  EXPECT_EQ(out, 7U);
  EXPECT_EQ(get_cur_time(&out, TIME_TYPE_RTC), 0);
  EXPECT_EQ(time_text(out), "2024-02-29 12:30:07");
  EXPECT_EQ(get_cur_time(&out, TIME_TYPE_INTERNET), 0);
  EXPECT_EQ(time_text(out), kNoon);
  EXPECT_EQ(get_cur_time(&out, TIME_TYPE_BROADCAST), -1);
  EXPECT_EQ(out, 0U);
  standin_set_rtc(0);
  clock_reading clocks{7, 7, 7, 7};
  EXPECT_EQ(read_clocks(&clocks), -1);
  EXPECT_EQ(clocks.now + clocks.broadcast + clocks.internet, 0U);
}

TEST_F(TimeBase, AnOffset_LosesItsFraction_AndNeverLeavesTheRange) {
  const struct {
    time_value time;
    double offset;
    time_value expected;
  } cases[] = {
      {1000, 0.9, 1000},        {1000, -2000.0, 0},     {0, 1, 1}, {kInvalidTime, 1, kInvalidTime},
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

TEST_F(TimeBase, ATimesText_IsOneLine) {
  EXPECT_STREQ(time_str(1000000000), "Sun Sep  9 01:46:40 2001\n");
  std::tm tm = broken_down(kNoon);
  char text[kTimeTextSize];
  EXPECT_TRUE(format_time(&tm, text));
  tm.tm_year = INT_MAX;
  EXPECT_FALSE(format_time(&tm, text));
}
