// What a client gets from the running daemon, and what of it outlives the process.
#include "daemon.h"

#include <filesystem>
#include <fstream>

namespace {

constexpr int daily = 0x7f;
const std::string whole_rows = "SELECT * FROM dravel";

using Service = daemon_test;

TEST_F(Service, Introspection_ShowsThirteenMethodsAndThreeSignals) {
  start();
  const std::string fifteen(15, 'i');
  const std::string twenty(20, 'i');
  EXPECT_EQ(
      members(),
      (strings{"schedule_timer(" + fifteen + ")i", "cancel_timer(i)i", "request_timer_list(i)iay",
               "request_wakeup_timer(i)iay", "request_halt_ontimers(i)i",
               "request_halt_offtimers(i)i", "request_get_timers_halt_effect(i)ii",
               "request_set_disable_period(" + twenty + ")i", "request_remove_disabled_period(i)i",
               "request_disabled_period_list(i)iay", "request_set_disable_period_effect(ii)i",
               "request_copy_db(is)i", "dravel_get_timer_by_id(i)iay", "dravel_expired:i",
               "dravel_type_expired:i", "dravel_week_flag_expired:i"}));
}

TEST_F(Service, Timer_IsStoredListedAndProgrammed_UntilItIsCancelled) {
  start();
  EXPECT_EQ(call("request_timer_list", "(0,)"), "(0, [])");
  EXPECT_EQ(schedule({.type = 2, .at = noon + 2 * hour, .week_flag = daily, .priority = 7}), 1);
  EXPECT_EQ(schedule({.at = noon + hour}), 2);
  EXPECT_EQ(schedule({.at = noon - hour}), -1);
  EXPECT_EQ(schedule({.type = 10}), -10);

  EXPECT_EQ(rows(main_db, whole_rows), (strings{"1|2|7|0|0|0|14|24|10|124|0|328|0|0|127|0|0|0",
                                                "2|0|0|0|0|0|13|24|10|124|0|328|0|0|0|0|0|0"}));
  const words image = {2, 0, 0, 0, 0, 0, 13, 24, 10, 124, 0, 328, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(records("dravel_get_timer_by_id", "(2,)", 76), (std::vector<words>{{0}, image}));
  EXPECT_EQ(timer_ids(), (words{-10, 2, 1}));
  EXPECT_EQ(get("WakeupTime"), u32(noon + hour));

  EXPECT_EQ(call("cancel_timer", "(2,)"), "(0,)");
  EXPECT_EQ(call("cancel_timer", "(2,)"), "(-1,)");
  EXPECT_EQ(get("WakeupTime"), u32(noon + 2 * hour));
  EXPECT_EQ(get("WakeupType"), u32(2));
  EXPECT_EQ(call("cancel_timer", "(1, 'surplus')"), "(0,)");
  EXPECT_EQ(get("WakeupTime"), u32(0));
  EXPECT_EQ(timer_ids(), words{-10});
  EXPECT_EQ(rows(main_db, whole_rows), strings{});
  for (const char *method : {"dravel_get_timer_by_id", "request_wakeup_timer"}) {
    const auto missing = records(method, "(2,)", 76);
    EXPECT_EQ(missing[0], words{-1}) << method;
    EXPECT_EQ(words(missing[1].begin(), missing[1].begin() + 4), words(4, -1)) << method;
  }
}

TEST_F(Service, UnreadableArguments_GetNoAnswer_ButReleaseAHalt) {
  start();
  for (const char *method :
       {"schedule_timer", "cancel_timer", "request_timer_list", "request_wakeup_timer",
        "request_get_timers_halt_effect", "request_set_disable_period",
        "request_remove_disabled_period", "request_disabled_period_list",
        "request_set_disable_period_effect", "request_copy_db", "dravel_get_timer_by_id"}) {
    EXPECT_FALSE(is_answered(method, "('one',)")) << method;
    EXPECT_FALSE(is_answered(method, "()")) << method;
  }
  EXPECT_TRUE(is_answered("cancel_timer", "(1,)"));

  EXPECT_EQ(call("request_halt_ontimers", "(1,)"), "(0,)");
  EXPECT_EQ(call("request_halt_offtimers", "(5,)"), "(0,)");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(1, 5)");
  EXPECT_EQ(call("request_halt_ontimers", "('one',)"), "()");
  EXPECT_EQ(call("request_halt_offtimers", "()"), "()");
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(0, 0)");
}

// A stopped clock is moved on to the expiry while the main-loop timer runs its one second.
TEST_F(Service, OnTimer_AnnouncesItselfAndWakesTheSet_ThenIsForgotten) {
  start("PowerState=2\nTvClock=" + std::to_string(noon - 1));
  EXPECT_EQ(schedule({.at = noon}), 1);
  set("TvClock", u32(noon));
  wait_event("dravel_type_expired(0,)");
  EXPECT_EQ(events(),
            (strings{"Requested('set_wakeup_time', 0, " + std::to_string(noon) + ")",
                     "dravel_week_flag_expired(0,)", "dravel_expired(1,)",
                     "dravel_type_expired(0,)", "Requested('wakeup_reason', 2, 0)",
                     "Requested('state', 0, 1)", "Requested('clear_wakeup_time', 0, 0)"}));
  EXPECT_EQ(timer_ids(), words{});
  EXPECT_EQ(rows(main_db, whole_rows), strings{});
  EXPECT_EQ(rows(wakeup_db, "SELECT timer_id, tm_hour FROM dravel"), strings{"1|12"});
  EXPECT_EQ(records("request_wakeup_timer", "(0,)", 76)[1][0], 1);
}

TEST_F(Service, WeeklyOffTimer_PowersTheSetOff_AndStaysForTheNextDay) {
  start("TvClock=" + std::to_string(noon - 1));
  EXPECT_EQ(schedule({.type = 1, .at = noon, .week_flag = daily}), 1);
  set("TvClock", u32(noon));
  wait_event("dravel_type_expired(1,)");
  EXPECT_EQ(events(), (strings{"dravel_week_flag_expired(127,)", "dravel_expired(1,)",
                               "dravel_type_expired(1,)", "Requested('poweroff', 1, 0)"}));
  EXPECT_EQ(timer_ids(), words{1});
}

TEST_F(Service, StoredTimers_OutliveARestart_ButOnAndOffTimersNoColdStart) {
  start();
  EXPECT_EQ(schedule({.type = 0}), 1);
  EXPECT_EQ(schedule({.type = 2, .at = noon + 2 * hour}), 2);
  call("request_halt_ontimers", "(1,)");
  EXPECT_EQ(stop(), 0);

  start();
  wait_log("/tmp/dravel_init file exist");
  EXPECT_EQ(timer_ids(), (words{1, 2}));
  EXPECT_EQ(get("WakeupTime"), u32(noon + hour));
  EXPECT_EQ(call("request_get_timers_halt_effect", "(0,)"), "(0, 0)");
  EXPECT_EQ(stop(), 0);

  EXPECT_TRUE(std::filesystem::remove("/tmp/dravel_init"));
  EXPECT_TRUE(std::filesystem::remove("/tmp/dravel_finish"));
  start();
  wait_log("On/Off timers are removed");
  EXPECT_EQ(timer_ids(), words{2});
}

TEST_F(Service, StartWithoutABus_EndsWithStatus255) {
  launch("unix:path=/run/bench/nowhere", "");
  wait_log("init_edbus_handler() failed");
  EXPECT_EQ(wait_exit(), 255);
}

TEST_F(Service, DamagedStore_NeverStopsTheDaemon) {
  const struct {
    const char *name;
    std::function<void(const std::string &)> damage;
    int first, after_restart; // the replies to schedule_timer
  } cases[] = {
      {"empty", [](const auto &path) { std::ofstream{path}; }, 1, 2},
      {"no database", [](const auto &path) { std::ofstream{path} << std::string(8192, 'x'); }, -1,
       1},
      {"damaged page",
       [](const auto &path) {
         rows(path, "CREATE TABLE dravel (a); CREATE TABLE other (b); PRAGMA user_version = 1");
         std::fstream{path, std::ios::in | std::ios::out}.seekp(4096) << std::string(8192, 'x');
       },
       1, 2},
      {"directory", [](const auto &path) { std::filesystem::create_directories(path + "/x"); }, -1,
       -1},
  };
  for (const auto &row : cases) {
    SCOPED_TRACE(row.name);
    for (const auto &path : {main_db, wakeup_db}) {
      std::filesystem::remove_all(path);
      row.damage(path);
    }
    start();
    EXPECT_EQ(schedule({.type = 2}), row.first);
    EXPECT_EQ(timer_ids().size(), row.first > 0 ? 1U : 0U);
    EXPECT_EQ(stop(), 0);
    start();
    EXPECT_EQ(schedule({.type = 2}), row.after_restart);
    EXPECT_EQ(stop(), 0);
  }
}

TEST_F(Service, VersionZeroStore_IsCarriedOver_WithNewIdsAndTheMark) {
  const std::string columns =
      "timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year,"
      "tm_wday, tm_yday, tm_isdst, delay, week_flag";
  rows(main_db, "CREATE TABLE dravel (" + columns + ", micom_flag, disable_period_effect);" +
                    "INSERT INTO dravel VALUES (2,2,7,0,0,30,14,24,10,124,0,328,0,5,127,0,1),"
                    "(6,3,0,0,0,0,15,24,10,124,0,328,0,0,127,1,0)");
  rows(wakeup_db, "CREATE TABLE dravel (" + columns + ");" +
                      "INSERT INTO dravel VALUES (2,3,0,0,0,0,15,24,10,124,0,328,0,0,127)");
  start();
  EXPECT_EQ(rows(main_db, whole_rows), (strings{"1|2|7|0|0|30|14|24|10|124|0|328|0|5|127|1|0|0",
                                                "2|3|0|0|0|0|15|24|10|124|0|328|0|0|127|0|0|1"}));
  EXPECT_EQ(rows(wakeup_db, whole_rows), strings{"2|3|0|0|0|0|15|24|10|124|0|328|0|0|127|0|0"});
  for (const auto &path : {main_db, wakeup_db})
    EXPECT_EQ(rows(path, "PRAGMA user_version"), strings{"1"});
  EXPECT_EQ(timer_ids(), (words{1, 2}));
}

} // namespace
