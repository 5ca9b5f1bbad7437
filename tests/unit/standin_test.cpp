#include <CTimeUtil.h>
#include <IPowerControl.h>
#include <device_power.h>
#include <settings.h>
#include <standin.h>

#include <glib.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <tuple>

namespace {

constexpr std::uint32_t kLast = 4294967295U;

class StandinTest : public ::testing::Test {
protected:
  void SetUp() override { standin_reset(); }
  void TearDown() override { standin_reset(); }
};

std::uint32_t value_of(int year, int month, int day, int hour, int minute, int second) {
  const std::tm time = {second, minute, hour, day, month - 1, year - 1900, 0, 0, 0, 0, nullptr};
  return CTimeUtil::Unsigned_timegm(&time);
}

std::uint32_t to_utc(std::uint32_t local) {
  std::tm time;
  CTimeUtil::Unsigned_gmtime_r(local, &time);
  time = CTimeUtil::ConvertToUTCTime(time);
  return CTimeUtil::Unsigned_timegm(&time);
}

// The system clock may tick between two readings.
bool is_now(std::uint32_t reading, std::int64_t expected) {
  return reading >= expected && reading <= expected + 2;
}

TEST_F(StandinTest, TimeValues_BreakDownAndComeBack_OverTheWholeRange) {
  std::vector<std::uint32_t> values = {0,           951782399,  951782400,   2147483647, 2147483648,
                                       4107542399U, 4107542400, 4294967294U, kLast};
  for (std::uint64_t value = 0; value <= kLast; value += 604'801)
    values.push_back(static_cast<std::uint32_t>(value));
  for (const std::uint32_t value : values) {
    std::tm time;
    ASSERT_EQ(CTimeUtil::Unsigned_gmtime_r(value, &time), &time);
    ASSERT_EQ(CTimeUtil::Unsigned_timegm(&time), value);
    GDateTime *date = g_date_time_new_from_unix_utc(value);
    char *expected = g_date_time_format(date, "%Y-%m-%d %H:%M:%S %j %u");
    char text[64];
    ASSERT_GT(std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %j %u", &time), 0U);
    ASSERT_STREQ(text, expected);
    ASSERT_EQ(std::tuple(time.tm_isdst, time.tm_gmtoff, time.tm_zone), std::tuple(0, 0, nullptr));
    g_free(expected);
    g_date_time_unref(date);
  }
}

TEST_F(StandinTest, FieldsOutOfTheirRange_AreCarriedOver) {
  EXPECT_EQ(value_of(2024, 1, 32, 7, 0, 0), value_of(2024, 2, 1, 7, 0, 0));
  EXPECT_EQ(value_of(2024, 3, 0, 0, 0, -1), value_of(2024, 2, 28, 23, 59, 59));
  EXPECT_EQ(value_of(2022, 26, 29, 12, 30, 0), 1709209800U);
  EXPECT_EQ(value_of(-1, 2, 719528 + 365 - 31 + 1, 0, 0, 5), 5U);
  EXPECT_EQ(value_of(2106, 2, 7, 6, 28, 15), kLast);
  EXPECT_EQ(value_of(2106, 2, 7, 6, 28, 14), kLast - 1);
  EXPECT_EQ(value_of(2106, 2, 7, 6, 28, 16), kLast);
  EXPECT_EQ(value_of(1970, 1, 1, 0, 0, -1), kLast);
  const std::tm most = {INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, 0, 0, 0, 0, nullptr};
  const std::tm least = {INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN, 0, 0, 0, 0, nullptr};
  EXPECT_EQ(CTimeUtil::Unsigned_timegm(&most), kLast);
  EXPECT_EQ(CTimeUtil::Unsigned_timegm(&least), kLast);
}

TEST_F(StandinTest, ZoneRules_HoldBothWays) {
  const struct {
    const char *zone;
    std::uint32_t utc;
    std::int64_t ahead;
  } cases[] = {{"Europe/Berlin", 0, 3600},
               {"Europe/Berlin", 1711846799, 3600},
               {"Europe/Berlin", 1711846800, 7200},
               {"Europe/Berlin", 1729994400, 3600},
               {"Europe/Berlin", 4118000000U, 7200},
               {"America/New_York", 1710053999, -18000},
               {"America/New_York", 1710054000, -14400},
               {"America/New_York", 1730617200, -18000},
               {"Australia/Sydney", 1712422800, 36000},
               {"Australia/Sydney", 1728143999, 36000},
               {"Australia/Sydney", 1728144000, 39600},
               {"Asia/Kathmandu", 4294927595U, 20700}};
  for (const auto &c : cases) {
    ASSERT_TRUE(standin_set_time_zone(c.zone));
    EXPECT_EQ(CTimeUtil::ConvertToLocalTime(c.utc), c.utc + c.ahead) << c.zone << c.utc;
    EXPECT_EQ(to_utc(CTimeUtil::ConvertToLocalTime(c.utc)), c.utc) << c.zone << c.utc;
  }
}

TEST_F(StandinTest, SkippedAndRepeatedHours_AndTheEndsOfTheRange) {
  standin_set_time_zone("Europe/Berlin");
  EXPECT_EQ(to_utc(value_of(2024, 3, 31, 2, 30, 0)), value_of(2024, 3, 31, 1, 0, 0));
  EXPECT_EQ(to_utc(value_of(2024, 10, 27, 2, 30, 0)), value_of(2024, 10, 27, 1, 30, 0));
  EXPECT_EQ(CTimeUtil::ConvertToLocalTime(1729990799), 1729990799U + 7200U);
  EXPECT_EQ(CTimeUtil::ConvertToLocalTime(1729990800), 1729990800U + 3600U);
  EXPECT_EQ(CTimeUtil::ConvertToLocalTime(kLast), kLast);
  EXPECT_EQ(to_utc(0), 0U);
}

TEST_F(StandinTest, TheZoneMovesTheTvClock_OnlyWhileItRunsAndWasNeverSet) {
  EXPECT_FALSE(standin_set_time_zone("Europe/Nowhere"));
  ASSERT_TRUE(standin_set_time_zone("Asia/Kathmandu"));
  EXPECT_TRUE(is_now(CTimeUtil::GetCurrentTime(), standin_rtc() + 20700));

  standin_run_clocks(false);
  const std::uint32_t stopped = CTimeUtil::GetCurrentTime();
  standin_set_time_zone("Asia/Tokyo");
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), stopped);
  standin_run_clocks(true);
  EXPECT_TRUE(is_now(CTimeUtil::GetCurrentTime(), stopped));
  standin_set_time_zone("Asia/Kathmandu");
  EXPECT_TRUE(is_now(CTimeUtil::GetCurrentTime(), std::int64_t{stopped} - 11700));

  standin_set_tv_clock(1000);
  standin_set_time_zone("Asia/Tokyo");
  EXPECT_TRUE(is_now(CTimeUtil::GetCurrentTime(), 1000));
}

TEST_F(StandinTest, ClocksThatAreUnknownOrRefused_FailAsTheirHeadersSay) {
  rtc_time reading = {};
  standin_run_clocks(false);
  standin_set_rtc(1709209800);
  EXPECT_EQ(IPowerControl::getInstance()->read_rtc(&reading), 0);
  EXPECT_EQ(std::tuple(reading.year, reading.month, reading.day), std::tuple(24, 2, 29));
  EXPECT_EQ(std::tuple(reading.hours, reading.minutes, reading.seconds), std::tuple(12, 30, 0));
  standin_set_tv_clock(0);
  standin_set_rtc(0);
  standin_run_clocks(true);
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0U);
  EXPECT_NE(IPowerControl::getInstance()->read_rtc(&reading), 0);
  standin_set_tv_clock(500);
  EXPECT_TRUE(is_now(CTimeUtil::GetCurrentTime(), 500));
  standin().refused = {"GetCurrentTime", "set_wakeup_time"};
  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0U);
  EXPECT_NE(IPowerControl::getInstance()->set_wakeup_time(3, 77), 0);
  EXPECT_EQ(standin().wakeup_time, 0U);
  EXPECT_EQ(standin().requests.back(), (standin_request{"set_wakeup_time", 3, 77}));
}

TEST_F(StandinTest, AStateChange_CarriesItsWordsWhereTheServicePutsThem) {
  std::int32_t words[6] = {};
  const auto read_event = [](const void *event, void *copy) {
    std::memcpy(copy, event, sizeof words);
    return 0;
  };
  device_power_subscribe_state_changed_event(read_event, words);
  standin_state_changed(4, 2);
  EXPECT_EQ(std::tuple(words[3], words[5]), std::tuple(4, 2));
  EXPECT_EQ(device_power_unsubscribe_state_changed_event(read_event), 0);
  EXPECT_EQ(standin_subscribers("state_changed_event"), 0);
}

TEST_F(StandinTest, ALongLifeOfRequests_KeepsTheNewest) {
  for (unsigned int option = 1; option <= 3000; ++option)
    device_power_request_poweroff(option);
  EXPECT_LT(standin().requests.size(), 3000U);
  EXPECT_EQ(standin().requests.back(), (standin_request{"poweroff", 3000, 0}));
}

TEST_F(StandinTest, KeyFile_GivesTheGoodValues_AndLeavesTheMalformedAtTheirDefaults) {
  char path[] = "/tmp/standin-XXXXXX";
  ASSERT_GE(mkstemp(path), 0);
  std::ofstream(path) << "[set]\nTvClock=1700000000\nRtc=-1\nClocksRunning=false\n"
                         "TimeZone=Europe/Nowhere\nClockMode=0\nPowerState=2x\nAmbientMode= 2 \n"
                         "SyncDb=2\nWakeupTime=4294967295\nRefuse=read_rtc, set_wakeup_time\n";
  EXPECT_TRUE(standin_read_key_file(path));
  std::remove(path);
  EXPECT_FALSE(standin_read_key_file(path));

  EXPECT_EQ(CTimeUtil::GetCurrentTime(), 1700000000U);
  EXPECT_TRUE(is_now(standin_rtc(), std::time(nullptr) - 1));
  EXPECT_EQ(CTimeUtil::GetClockMode(), 0);
  EXPECT_EQ(device_power_get_state(), 0);
  EXPECT_EQ(device_power_get_ambient_mode(), 2);
  EXPECT_EQ(standin().sync_db, 0);
  EXPECT_EQ(standin().wakeup_time, kLast);
  EXPECT_EQ(standin().refused, (decltype(standin_set::refused){"read_rtc", "set_wakeup_time"}));
}

} // namespace
