#include "fixture.h"

#include <CTimeUtil.h>
#include <settings.h>

#include <fstream>
#include <utility>

namespace {

constexpr time_value kLast = 4294967295U;

class StandinTest : public testing::Test {
protected:
  void SetUp() override { standin_reset(); }
  void TearDown() override { standin_reset(); }
};

std::string to_utc(const char *local) {
  return time_text(CTimeUtil::ConvertToUTCTime(broken_down(local)));
}

TEST_F(StandinTest, TimeValues_BreakDownAndComeBack_OverTheWholeRange) {
  for (std::time_t value = 0; value <= kLast; value += 604'801) {
    const auto time = static_cast<time_value>(value);
    std::tm broken, expected;
    gmtime_r(&value, &expected);
    ASSERT_EQ(CTimeUtil::Unsigned_gmtime_r(time, &broken), &broken);
    ASSERT_EQ(time_text(broken), time_text(expected));
    ASSERT_EQ(std::tuple(broken.tm_wday, broken.tm_yday),
              std::tuple(expected.tm_wday, expected.tm_yday));
    ASSERT_EQ(CTimeUtil::Unsigned_timegm(&broken), time);
  }
}

TEST_F(StandinTest, FieldsOutOfTheirRange_AreCarriedOver_AndTimesOutOfItAreInvalid) {
  for (const auto &[when, expected] : {std::pair{"2024-01-32 07:00", time_of("2024-02-01 07:00")},
                                       {"2024-03-00 00:00:-1", time_of("2024-02-28 23:59:59")},
                                       {"2022-26-29 12:30", time_of("2024-02-29 12:30")},
                                       {"2106-02-07 06:28:16", kLast},
                                       {"1970-01-01 00:00:-1", kLast},
                                       {"9999-2147483647-2147483647 00:00", kLast}}) {
    const std::tm time = broken_down(when);
    EXPECT_EQ(CTimeUtil::Unsigned_timegm(&time), expected) << when;
  }
}

TEST_F(StandinTest, ZoneRules_HoldBothWays) {
  const auto to_local = [](const char *utc) {
    return time_text(CTimeUtil::ConvertToLocalTime(time_of(utc)));
  };
  for (const auto &[zone, utc, local] :
       {std::tuple{"Europe/Berlin", "2024-03-31 00:59:59", "2024-03-31 01:59:59"},
        {"Europe/Berlin", "2024-03-31 01:00", "2024-03-31 03:00"},
        {"America/New_York", "2024-03-10 07:00", "2024-03-10 03:00"},
        {"Australia/Sydney", "2024-10-05 16:00", "2024-10-06 03:00"}}) {
    ASSERT_TRUE(standin_set_time_zone(zone));
    EXPECT_EQ(to_local(utc) + to_utc(local), std::string(local) + utc) << zone;
  }
  // An hour that is skipped, one that comes twice, and the ends of the range.
  standin_set_time_zone("Europe/Berlin");
  EXPECT_EQ(to_utc("2024-03-31 02:30"), "2024-03-31 01:00");
  EXPECT_EQ(to_utc("2024-10-27 02:30"), "2024-10-27 01:30");
  EXPECT_EQ(CTimeUtil::ConvertToLocalTime(kLast), kLast);
  EXPECT_EQ(to_utc("1970-01-01 00:00"), "1970-01-01 00:00");
}

// The forecasts show that each change is announced; here, when none is.
TEST_F(StandinTest, AChangeToSummerTime_IsAnnounced_WhileTheClockRunsAndFollowsItsZone) {
  static int announced;
  settings_notify_key_changed(
      kSettingsTimeSet, [](settings_key *, void *) { ++announced; }, nullptr);
  const auto announcements_at = [](const char *when) {
    set_system_clock(time_of(when));
    fire(*live_timers().at(0));
    return std::exchange(announced, 0);
  };
  set_system_clock(time_of("2026-03-28 12:00"));
  standin_set_time_zone("Europe/Berlin");
  standin_follow_transitions();
  EXPECT_EQ(announcements_at("2026-03-29 00:59:59"), 0);
  EXPECT_EQ(announcements_at("2026-03-29 01:00"), 1);
  standin_set_time_zone("Australia/Sydney");
  ASSERT_EQ(live_timers().size(), 1U);
  EXPECT_EQ(live_timers()[0]->seconds, time_of("2026-04-04 16:00") - time_of("2026-03-29 01:00"));
  standin_run_clocks(false);
  EXPECT_EQ(announcements_at("2026-04-04 16:00"), 0);
  standin_run_clocks(true);
  standin_set_tv_clock(1); // by hand
  EXPECT_EQ(announcements_at("2026-10-03 16:00"), 0);
  standin_set_time_zone("UTC");
  EXPECT_EQ(live_timers().size(), 0U);
  set_system_clock(0);
}

TEST_F(StandinTest, KeyFile_GivesTheGoodValues_AndLeavesTheMalformedAtTheirDefaults) {
  const char *path = "/tmp/standin-test";
  std::ofstream(path) << "[set]\nTvClock=1700000000\nClocksRunning=false\nTimeZone=No/where\n"
                         "PowerState=2x\nAmbientMode= 2 \nSyncDb=2\nRefuse=read_rtc\n";
  EXPECT_TRUE(standin_read_key_file(path));
  EXPECT_FALSE(standin_read_key_file("/tmp/no-such-file"));
  const standin_set &set = standin();
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 1700000000U);
  EXPECT_EQ(std::tuple(set.power_state, set.ambient_mode, set.sync_db), std::tuple(0, 2, 0));
  EXPECT_EQ(set.refused, (decltype(set.refused){"read_rtc"}));
}

} // namespace
