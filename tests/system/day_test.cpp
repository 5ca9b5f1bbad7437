// Days of a set in Berlin around the night in which the clocks go forward, told through the bus
// alone. Every case begins with a boot.
#include "daemon.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

// The micro-controller is given UTC while the clock follows the broadcast; everything else is the
// time of day on the screen.
std::string programmed(int type, const char *utc) {
  return "Requested('set_wakeup_time', " + std::to_string(type) + ", " +
         std::to_string(time_of(utc)) + ")";
}

const std::string kCleared = "Requested('clear_wakeup_time', 0, 0)";
const new_timer kSeven = {2, "2027-03-26 07:00", kDaily, 1};

class Day : public daemon_test {
protected:
  void boot(const std::string &state, const char *tv) {
    start("TimeZone=Europe/Berlin\nClockMode=0\nRtc=0\nTvClock=" + std::to_string(time_of(tv)) +
          "\n" + state);
  }
  void cut_power() {
    EXPECT_EQ(stop(), 0);
    for (const char *marker : {kInitMarkerPath, kFinishMarkerPath})
      fs::remove(marker);
  }
  void tv_shows(const char *when) { set("TvClock", u32(time_of(when))); }
};

TEST_F(Day, TimersWait_UntilTheBroadcastTellsTheTime_AndFire) {
  boot("PowerState=0", "");
  EXPECT_EQ(schedule(kSeven), 1);
  EXPECT_FALSE(fs::exists(kFinishMarkerPath));
  EXPECT_EQ(events(), strings{});
  tv_shows("2027-03-26 23:29:59");
  standin("MiddlewareSignal", "(108,)");
  EXPECT_EQ(events(), strings{programmed(2, "2027-03-27 06:00")});
  EXPECT_TRUE(fs::exists(kFinishMarkerPath));

  // One timer to sleep by, one to wake by once: its date is the next day's, its row follows.
  EXPECT_EQ(schedule({1, "2027-03-26 23:30"}), 2);
  EXPECT_EQ(schedule({3, "2027-03-28 09:00", 0, 1}), 3);
  EXPECT_EQ(timer_ids(), (words{2, 1, 3}));
  events();
  tv_shows("2027-03-26 23:30");
  wait_event(programmed(2, "2027-03-27 06:00"));
  EXPECT_EQ(events(), (strings{"dravel_week_flag_expired(0,)", "dravel_expired(2,)",
                               "dravel_type_expired(1,)", "Requested('poweroff', 1, 0)", kCleared,
                               programmed(2, "2027-03-27 06:00")}));
  EXPECT_EQ(rows("SELECT timer_id, tm_mday, tm_hour, micom_flag FROM dravel"), "1|26|7|0 3|27|9|0");
}

TEST_F(Day, ATimer_WakesTheSet_WithItsRowMarked) {
  boot("PowerState=0", "2027-03-26 23:40");
  EXPECT_EQ(schedule(kSeven), 1);
  EXPECT_EQ(schedule({3, "2027-03-27 09:00"}), 2);
  events();
  standin("Standby", "(0,)");
  EXPECT_EQ(events(), strings{programmed(2, "2027-03-27 06:00")});
  EXPECT_EQ(rows("SELECT timer_id, tm_hour FROM dravel", kWakeupDbPath), "1|7");

  // It wakes in between: the clock is adjusted at once, and again when the time is confirmed.
  const strings adjusted = {kCleared, programmed(2, "2027-03-27 06:00")};
  standin("Wakeup", "(1,)");
  EXPECT_EQ(events(), adjusted);
  standin("MiddlewareSignal", "(108,)");
  EXPECT_EQ(events(), adjusted);
  standin("MiddlewareSignal", "(108,)"); // known by now
  EXPECT_EQ(events(), strings{});

  cut_power();
  boot("PowerState=2\nWakeupReason=20", "2027-03-27 06:59:59");
  EXPECT_THAT(call("request_wakeup_timer", "(0,)"), testing::StartsWith("(0, [0x01, "));
  EXPECT_EQ(timer_ids(), (words{1, 2}));
  events();
  tv_shows("2027-03-27 07:00");
  wait_event(programmed(3, "2027-03-27 08:00"));
  EXPECT_EQ(events(), (strings{"dravel_week_flag_expired(127,)", "dravel_expired(1,)",
                               "dravel_type_expired(2,)", "Requested('wakeup_reason', 20, 0)",
                               kCleared, programmed(3, "2027-03-27 08:00")}));
  EXPECT_EQ(call("cancel_timer", "(2,)"), "(0,)");
  EXPECT_EQ(events(), (strings{kCleared, programmed(2, "2027-03-28 05:00")}));
  // In New York the clocks do not change before tomorrow's 07:00.
  set("TimeZone", "'America/New_York'");
  EXPECT_EQ(events(), (strings{kCleared, programmed(2, "2027-03-28 11:00")}));
}

} // namespace
