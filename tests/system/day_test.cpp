// Two days in the life of a set in Berlin, over the night in which the clocks go forward, told
// through the bus alone.
#include "daemon.h"

#include <filesystem>

#include <sys/stat.h>

namespace {

constexpr int daily = 0x7f;

// A time as its count of seconds. The micro-controller is given UTC while the clock follows the
// broadcast; everything else is the time of day on the screen.
std::uint32_t at(const char *when) {
  std::tm time = {};
  strptime(when, "%FT%T", &time);
  return static_cast<std::uint32_t>(timegm(&time));
}

std::string programmed(int type, const char *utc) {
  return "Requested('set_wakeup_time', " + std::to_string(type) + ", " + std::to_string(at(utc)) +
         ")";
}

const std::string cleared = "Requested('clear_wakeup_time', 0, 0)";

class Day : public daemon_test {
protected:
  void boot(const std::string &state, const char *tv) {
    start("TimeZone=Europe/Berlin\nClockMode=0\nRtc=0\nTvClock=" + std::to_string(tv ? at(tv) : 0) +
          "\n" + state);
  }
  void tv_shows(const char *when) { set("TvClock", u32(at(when))); }
};

TEST_F(Day, TheSetKeepsItsPromise_OverSleepClocksAndHolidays) {
  // The set boots before the broadcast tells the time: timers are taken, none is armed.
  boot("PowerState=0", nullptr);
  const timer seven{2, at("2027-03-26T07:00:00"), daily, 0, 1};
  EXPECT_EQ(schedule(seven), 1);
  EXPECT_FALSE(std::filesystem::exists("/tmp/dravel_finish"));
  EXPECT_EQ(events(), strings{});

  tv_shows("2027-03-26T23:29:59");
  standin("MiddlewareSignal", "(108,)");
  EXPECT_EQ(events(), strings{programmed(2, "2027-03-27T06:00:00")});
  EXPECT_TRUE(std::filesystem::exists("/tmp/dravel_finish"));

  // One timer to sleep by, one to wake by once: its date is the next day's, its row follows.
  EXPECT_EQ(schedule({.type = 1, .at = at("2027-03-26T23:30:00")}), 2);
  EXPECT_EQ(schedule({.type = 3, .at = at("2027-03-28T09:00:00"), .disable_period_effect = 1}), 3);
  EXPECT_EQ(timer_ids(), (words{2, 1, 3}));
  events();
  tv_shows("2027-03-26T23:30:00");
  wait_event(programmed(2, "2027-03-27T06:00:00"));
  EXPECT_EQ(events(), (strings{"dravel_week_flag_expired(0,)", "dravel_expired(2,)",
                               "dravel_type_expired(1,)", "Requested('poweroff', 1, 0)", cleared,
                               programmed(2, "2027-03-27T06:00:00")}));
  EXPECT_EQ(rows("SELECT timer_id, tm_mday, tm_hour, micom_flag FROM dravel"), "1|26|7|0 3|27|9|0");

  // The set sleeps with its next on-timer marked.
  standin("Standby", "(0,)");
  EXPECT_EQ(events(), strings{programmed(2, "2027-03-27T06:00:00")});
  EXPECT_EQ(rows("SELECT timer_id, tm_hour FROM dravel", kWakeupDb), "1|7");

  // It wakes in between; the clock is adjusted at once, and again when the time is confirmed.
  standin("Wakeup", "(1,)");
  EXPECT_EQ(events(), (strings{cleared, programmed(2, "2027-03-27T06:00:00")}));
  standin("MiddlewareSignal", "(108,)");
  EXPECT_EQ(events(), (strings{cleared, programmed(2, "2027-03-27T06:00:00")}));
  standin("MiddlewareSignal", "(108,)"); // known by now
  EXPECT_EQ(events(), strings{});

  // The power is cut, and the micro-controller starts the set for its timer.
  EXPECT_EQ(stop(), 0);
  std::filesystem::remove("/tmp/dravel_init");
  std::filesystem::remove("/tmp/dravel_finish");
  boot("PowerState=2\nWakeupReason=20", "2027-03-27T06:59:59");
  EXPECT_EQ(image("request_wakeup_timer", "(0,)")[1], 1);
  EXPECT_EQ(timer_ids(), (words{1, 3}));
  events();
  tv_shows("2027-03-27T07:00:00");
  wait_event(programmed(3, "2027-03-27T08:00:00"));
  EXPECT_EQ(events(), (strings{"dravel_week_flag_expired(127,)", "dravel_expired(1,)",
                               "dravel_type_expired(2,)", "Requested('wakeup_reason', 20, 0)",
                               cleared, programmed(3, "2027-03-27T08:00:00")}));
  EXPECT_EQ(call("cancel_timer", "(3,)"), "(0,)");
  EXPECT_EQ(events(), (strings{cleared, programmed(2, "2027-03-28T05:00:00")}));

  // Tomorrow's seven o'clock lies behind the change to summer time, in New York it does not.
  set("TimeZone", "'America/New_York'");
  EXPECT_EQ(events(), (strings{cleared, programmed(2, "2027-03-28T11:00:00")}));
  set("ClockMode", "1"); // from now on the micro-controller holds local time
  standin("TimeSet", "()");
  EXPECT_EQ(events(), (strings{cleared, programmed(2, "2027-03-28T07:00:00")}));

  // A holiday skips the daily timer and moves the one for once.
  EXPECT_EQ(schedule({.type = 3, .at = at("2027-03-27T09:00:00"), .disable_period_effect = 1}), 4);
  EXPECT_EQ(call("request_set_disable_period", "(127, 2, 27, 0, 0, 0, 6, 85, 0,"
                                               " 127, 2, 29, 23, 59, 59, 1, 87, 0, 0, 0)"),
            "(1,)");
  EXPECT_EQ(get("WakeupTime"), u32(at("2027-03-30T07:00:00")));
  EXPECT_EQ(rows("SELECT timer_id, tm_mday FROM dravel"), "1|26 4|30");
  EXPECT_EQ(image("request_disabled_period_list", "(0,)")[25], 1);
  EXPECT_EQ(call("request_set_disable_period_effect", "(1, 0)"), "(0,)");
  EXPECT_EQ(get("WakeupTime"), u32(at("2027-03-28T07:00:00")));
  EXPECT_EQ(rows("SELECT timer_id, disable_period_effect FROM dravel"), "1|0 4|1");
  EXPECT_EQ(call("request_remove_disabled_period", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_remove_disabled_period", "(1,)"), "(-1,)");
  EXPECT_EQ(get("WakeupTime"), u32(at("2027-03-27T09:00:00")));

  // A factory reset takes the files; what is listed goes on until the next start.
  standin("PowerOff", "(12,)");
  EXPECT_TRUE(std::filesystem::exists(kMainDb) && std::filesystem::exists(kWakeupDb));
  standin("PowerOff", "(14,)");
  EXPECT_FALSE(std::filesystem::exists(kMainDb) || std::filesystem::exists(kWakeupDb));
  EXPECT_EQ(timer_ids(), (words{4, 1}));
  EXPECT_EQ(schedule({.type = 2, .at = at("2027-03-28T10:00:00")}), -1);
  EXPECT_EQ(stop(), 0);
  boot("", "2027-03-27T08:00:00");
  EXPECT_EQ(timer_ids(), words{});
}

TEST_F(Day, ACopy_GoesOutAndIn_OrSaysInTheLogWhyNot) {
  std::filesystem::remove_all("/tmp/copies");
  std::filesystem::create_directories("/tmp/copies/taken/.dravel.db/x");
  std::filesystem::create_directories("/tmp/copies/pipe");
  ASSERT_EQ(mkfifo("/tmp/copies/pipe/.dravel.db", 0600), 0); // which nobody reads or writes
  start();
  EXPECT_EQ(schedule({.type = 2}), 1);
  EXPECT_FALSE(is_answered("request_copy_db", "(1, '/tmp/copies')"));
  wait_log("/tmp/copies/.dravel.db is not exit");
  EXPECT_FALSE(is_answered("request_copy_db", "(0, '/tmp/copies/taken')"));
  wait_log("failed to copy file: ");
  EXPECT_FALSE(is_answered("request_copy_db", "(1, '/tmp/copies/pipe')"));
  EXPECT_EQ(call("request_copy_db", "(0, '/tmp/copies/pipe')"), "(0,)");
  for (int times = 0; times < 2; ++times) // the second overwrites
    EXPECT_EQ(call("request_copy_db", "(0, '/tmp/copies')"), "(0,)");
  EXPECT_EQ(rows("SELECT timer_id FROM dravel", "/tmp/copies/.dravel.db"), "1");

  // A copy-in is for the next start: until then reads go on and writes are refused.
  EXPECT_EQ(call("cancel_timer", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_copy_db", "(1, '/tmp/copies')"), "(0,)");
  EXPECT_EQ(schedule({.type = 2}), -1);
  EXPECT_EQ(stop(), 0);
  start();
  EXPECT_EQ(timer_ids(), words{1});
}

} // namespace
