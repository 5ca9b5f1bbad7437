#include "fixture.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <numeric>

class Items : public CleanSet {};
class Periods : public CleanSet {};

static const new_timer kTomorrow{0, "16 07:00"};

// On-timers know no seconds, except on a weekly timer's first day when that is not today. A time
// that has come is past, unless the TV clock is about to wrap from 2099 to 2001.
TEST_F(Items, NextExpiry_IsOnTheTvClock_OrElseOnTheRealTimeClock) {
  const struct {
    std::string tv, system, rtc;
    new_timer timer;
    std::string expected;
  } cases[] = {
      {kNoon, kNoon, kNoon, {254, "16 08:00:30"}, "16 08:00"},
      {kNoon, kNoon, kNoon, {1, "16 08:00:30"}, "16 08:00:30"},
      {kNoon, kNoon, kNoon, {255, "16 08:00:30"}, "16 08:00:30"},
      {kNoon, kNoon, kNoon, {0, "16 08:00:-5"}, "16 07:59:55"},
      {kNoon, kNoon, kNoon, {1, kNoon}, "-1"},
      {"2099-05-01 00:00",
       "2099-05-01 00:00",
       "2099-05-01 00:00",
       {1, "2001-03-01 08:00"},
       "2001-03-01 08:00"},
      {"2099-05-01 00:00", "2099-05-01 00:00", "2099-05-01 00:00", {1, "2002-03-01 08:00"}, "-1"},
      {"15 06:59:59", "15 06:59:59", "15 06:59:59", {0, "01 07:00", kDaily}, "15 07:00"},
      {"15 07:00", "15 07:00", "15 07:00", {0, "01 07:00", kDaily}, "16 07:00"},
      {"27 12:00", "27 12:00", "27 12:00", {0, "01 07:00", kSun}, "2027-01-03 07:00"},
      {kNoon, kNoon, kNoon, {0, "01 07:00", 0x80}, "-1"},
      {kNoon, kNoon, kNoon, {0, "01 07:00:45", kWed}, "16 07:00:45"},
      {kNoon, kNoon, kNoon, {0, "01 07:00:45", kTue | kWed}, "16 07:00"},
      {kNoon, kNoon, kNoon, {1, "01 07:00:45", kTue | kWed}, "16 07:00:45"},
      // The system clock's times are carried over.
      {kNoon, "15 11:00", "", {0, "16 07:00", 0, 0, 1}, "16 08:00"},
      {kNoon, "15 11:00", "", {0, "01 07:00", kWed, 0, 1}, "16 08:00"},
      {"16 00:30", "15 23:30", "", {0, "01 23:45", kTue, 0, 1}, "16 00:45"},
      {"", kNoon, "15 13:00", {0, "16 07:00", 0, 0, 1}, "16 08:00"},
      {"", kNoon, "", {0, "16 07:00", 0, 0, 1}, "-2"},
      {"", kNoon, kNoon, {0, "16 07:00"}, "-2"},
      {"", kNoon, kNoon, {0, "16 07:00", kDaily, 0, 2}, "-2"},
      {"2104-12-15 13:00",
       "2104-12-15 12:00",
       "",
       {0, "2104-12-15 12:30", 0, 0, 1},
       "2104-12-15 13:30"}};
  for (const auto &[tv, system, rtc, timer, expected] : cases) {
    restart(timer.when);
    set_clocks(tv, system, rtc);
    EXPECT_EQ(next(add(timer)), expected);
  }
}

TEST_F(Items, AnItem_HasItsValuesInTheirPlaces) {
  add_dravel_item(create_dravel_item(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|1|2|3|9|8|7|6|5|4|10|11|12|13|14|15|16|0");
}

TEST_F(Items, AComparison_IsByExpiry_ThenByPriority_AndAListedOffTimerKeepsItsPlace) {
  const struct {
    new_timer listed, added;
    int order;
  } cases[] = {
      {{1, "16 07:00"}, {1, "16 08:00"}, -1}, {{1, "16 08:00"}, {1, "16 07:00"}, 1},
      {{1, "14 07:00"}, {1, "16 07:00"}, -1}, // which never fires
      {{1, "16 07:00"}, {1, "14 07:00"}, 1},  {{0, "16 07:00", 0, 0, 0, 1}, {0, "16 07:00"}, -1},
      {{0, "16 07:00"}, {0, "16 07:00"}, 1},  {{1, "16 07:00"}, {0, "16 07:00"}, -1}};
  for (const auto &[first, second, order] : cases) {
    dravel_item *listed = make(first), *added = make(second);
    EXPECT_EQ(compare_dravel_cb(listed, added), order) << first.when << " " << second.when;
    EXPECT_EQ(compare_dravel_cb(nullptr, added) | compare_dravel_cb(listed, nullptr), 0);
    EXPECT_EQ(get_next_expire_date(listed, nullptr), -1);
    g_free(listed);
    g_free(added);
  }
  std::tm expire;
  EXPECT_EQ(get_next_expire_date(nullptr, &expire), -1);
}

TEST_F(Items, AnInsertion_WalksToTheFirstTimerItGoesAheadOf) {
  add({0, "01 14:00", kDaily}); // 1
  add({0, "15 15:00"});         // 2
  set_now("15 16:00");          // 1 fires tomorrow, 2 never
  add({0, "15 18:00"});
  add({0, "01 07:00"});
  add({0, "16 15:00"});
  EXPECT_EQ(ids(get_dravel_list()), "4 3 1 2 5");
  EXPECT_EQ(ids(get_ontimer_list()), "4 2 3 1 5"); // which is sorted again with each change

  restart("equal expiry");
  for (const auto &[type, priority] : {std::pair{0, 0}, {0, 0}, {0, 5}, {1, 0}, {1, 9}, {0, 9}})
    add({type, "16 07:00", 0, 0, 0, priority});
  EXPECT_EQ(ids(get_dravel_list()), "5 6 3 4 2 1");
}

TEST_F(Items, AFullList_LosesItsOldestTimer_WithItsMainLoopTimer) {
  for (int i = 0; i < 80; i++)
    arm({4, "01 07:00", kDaily});
  add({4, "16 07:00"});
  EXPECT_EQ(pending(ecore_timer_cb), 79);
  EXPECT_EQ(rows("SELECT count(*), min(timer_id) FROM dravel"), "80|2");

  const int transient = add({10, "16 07:00"})->timer_id;
  EXPECT_EQ(add({10, "16 07:00"})->timer_id, transient - 1);
  add({4, "16 07:00"});
  EXPECT_EQ(find_dravel_item(transient - 1), nullptr);
  EXPECT_EQ(rows("SELECT count(*) FROM dravel"), "81");
}

TEST_F(Items, AFailedStore_KeepsATimerOut_AndAFailedDeleteStillTakesItOut) {
  dravel_item *listed = add(kTomorrow);
  add(kTomorrow);
  reset_dravel_db(); // from now on writes are refused
  EXPECT_EQ(call("schedule_timer", arguments_of(kTomorrow)), words{-1});
  EXPECT_EQ(ids(get_ontimer_list()), "1 2");
  EXPECT_EQ(ids(remove_dravel_item(listed)), "2");
  EXPECT_EQ(ids(get_ontimer_list()), "2");
  std::free(listed); // the daemon never does
}

TEST_F(Items, AForeignStore_MakesNoTwoTimersOne) {
  const int transient = add({10, "16 07:00"})->timer_id;
  rows("INSERT INTO dravel(timer_id, type, week_flag) VALUES(" + std::to_string(transient - 1) +
       ", 2, 127)");
  load_dravel_list();
  EXPECT_EQ(add({10, "16 07:00"})->timer_id, transient - 2);

  for (const std::string foreign :
       {"CREATE TRIGGER no BEFORE INSERT ON dravel BEGIN SELECT raise(IGNORE); END",
        "INSERT INTO dravel(timer_id, type) VALUES(3, 2);"
        "UPDATE sqlite_sequence SET seq = 4294967302",
        "ALTER TABLE dravel RENAME TO old; CREATE TABLE dravel AS SELECT * FROM old;"
        "INSERT INTO dravel(timer_id, type, week_flag) VALUES(3, 2, 127)"}) {
    restart(foreign);
    add(kTomorrow);
    rows(foreign);
    load_dravel_list();
    const std::string stored = rows("SELECT timer_id FROM dravel");
    EXPECT_EQ(call("schedule_timer", arguments_of(kTomorrow)), words{-1});
    EXPECT_EQ(rows("SELECT timer_id FROM dravel"), stored);
  }
}

TEST_F(Items, AColdStart_DropsOnAndOffTimers_UnlessTheyAreKept) {
  const struct {
    int sync_db, wakeup_reason, relaunch;
    bool kept;
  } cases[] = {{0, 0, 0, false}, {-1, 0, 0, false}, {1, 0, 0, true},
               {0, 1, 0, true},  {0, -1, 0, true},  {0, 0, 1, true}};
  for (const auto &[sync_db, wakeup_reason, relaunch, kept] : cases) {
    restart(std::to_string(sync_db) + std::to_string(wakeup_reason) + std::to_string(relaunch));
    rows("WITH t(type, hour) AS (VALUES(0,9),(1,8),(2,7),(-1,6),(300,5),(16,4))"
         "INSERT INTO dravel(type, tm_hour, tm_mday, tm_mon, tm_year, week_flag, time_type)"
         "SELECT type, hour, 16, 11, 126, 0, 0 FROM t");
    standin().sync_db = sync_db;
    standin().wakeup_reason = wakeup_reason;
    set_relaunch_state(relaunch);
    EXPECT_EQ(ids(load_dravel_list()), kept ? "6 5 4 3 2 1" : "6 5 4 3");
    EXPECT_EQ(rows("SELECT timer_id FROM dravel"), kept ? "1 2 3 4 5 6" : "3 4 5 6");
    EXPECT_EQ(ids(get_ontimer_list()), kept ? "3 1" : "3");
  }
}

TEST_F(Items, ATimerSetBeforeTheLoading_IsListedOnce_AndKept) {
  rows("INSERT INTO dravel(type, tm_hour) VALUES(300, 5)");
  arm({1, "16 07:00"});
  EXPECT_EQ(ids(load_dravel_list()), "2 1");
  EXPECT_EQ(rows("SELECT timer_id FROM dravel"), "1 2");
}

TEST_F(Items, TheMarkedTimer_WokeTheSet_WhenTheReasonIsATimers) {
  for (const auto &[reason, woken] : {std::pair{0, false}, {1, false}, {2, true}, {-1, true}}) {
    restart(std::to_string(reason));
    standin().wakeup_reason = reason;
    dravel_item *item = add({0, "16 07:00", kMon, 0, 2});
    EXPECT_EQ(load_wakeup_timer(), 0);
    EXPECT_EQ(get_wakeup_timer(), nullptr);
    set_micom_flag(1);
    EXPECT_EQ(load_wakeup_timer(), 0);
    remove_dravel_item(item);
    ASSERT_EQ(get_wakeup_timer() != nullptr, woken);
    EXPECT_TRUE(!woken || get_wakeup_timer()->time_type == 2);
    set_wakeup_timer(add(kTomorrow));
    EXPECT_EQ(get_wakeup_timer()->timer_id, 2);
  }
}

TEST_F(Items, Standby_IsSkipped_WhenAnOnTimerFollowsWithin599Seconds) {
  const struct {
    const char *now, *standby, *ontimer;
    int expected;
  } cases[] = {{kNoon, "15 22:00:01", "15 22:10", 1},
               {kNoon, "15 22:09:59", "15 22:10", 1},
               {kNoon, "15 22:00", "15 22:10", 0},
               {kNoon, "15 22:00", "15 22:00", 0},
               {"1970-01-01 00:01", "2106-02-07 06:28", "1970-01-01 00:05", 1}};
  for (const auto &[now, standby, ontimer, expected] : cases) {
    restart(standby);
    set_now(now);
    const std::tm time = broken_down(standby);
    EXPECT_EQ(can_skip_standby(&time, 99), 0);
    add({0, "2030-01-01 00:00"});
    add({0, ontimer});
    EXPECT_EQ(can_skip_standby(&time, 99), expected);
    EXPECT_EQ(can_skip_standby(&time, 2), 0);
  }
}

// A period over the new year holds nothing; a flagged end of February follows the present year.
TEST_F(Periods, RefuseRepeatingTimers_AndMoveOneShotOnes) {
  const struct {
    const char *start, *end;
    int leap;
    const char *when;
    int week_flag;
    const char *expected;
  } cases[] = {
      {"16 00:00", "18 00:00", 0, "01 07:00", kDaily, "19 07:00"},
      {"2020-01-01 00:00", "31 00:00", 0, "01 07:00", kDaily, "-1"},
      {"16 00:00", "20 00:00", 0, "18 09:00:30", 0, "21 09:00"},
      {"2020-07-25 00:00", "2020-08-05 00:00", 0, "2027-07-30 09:00", 0, "2027-08-06 09:00"},
      {"2020-09-01 00:00", "2020-09-05 00:00", 0, "2027-08-31 09:00", 0, "2027-08-31 09:00"},
      {"28 00:00", "2021-01-03 00:00", 0, "30 09:00", 0, "30 09:00"},
      {"15 00:00", "15 00:00", 0, "01 14:00", kDaily, "16 14:00"}, // today, still ahead
      {"15 00:00", "15 00:00", 0, "15 14:00", 0, "16 14:00"},
      {"14 00:00", "14 00:00", 0, "01 14:00", kDaily, "15 14:00"},
      {"2020-02-15 00:00", "2020-03-05 00:00", 0, "2028-02-20 09:00", 0, "2028-03-06 09:00"},
      {"2020-02-20 00:00", "2020-02-29 00:00", 1, "2028-02-29 09:00", 0, "2028-02-29 09:00"},
      {"2020-02-20 00:00", "2020-02-29 00:00", 0, "2028-02-29 09:00", 0, "2028-03-01 09:00"},
      {"2020-02-29 00:00", "2020-02-29 00:00", 1, "2027-02-28 09:00", 0, "2027-03-01 09:00"}};
  for (const auto &[start, end, leap, when, week_flag, expected] : cases) {
    restart(start + std::string(" ") + when);
    const dravel_item *item = add({0, when, week_flag, 1}),
                      *always = add({9, "16 10:00", kDaily, 1});
    add_period(start, end, leap, leap);
    for (int i = 0; i < 2; i++)
      EXPECT_EQ(next(item), expected);
    EXPECT_EQ(next(always) + " " + next(add({0, "16 10:00", kDaily, 0})), "16 10:00 16 10:00");
  }
}

// An unknown TV clock counts from 1970; no clock at all leaves the occurrence's year.
TEST_F(Periods, AFlaggedFebruary_EndsOnThe29thInALeapYear) {
  const struct {
    const char *now;
    int leap, time_type, expected;
  } cases[] = {{"2000-02-01 00:00", 1, 0, SKIP_REFUSED},
               {"2028-02-01 00:00", 0, 0, SKIP_NO},
               {"2027-02-01 00:00", 1, 0, SKIP_NO},
               {"2027-02-01 00:00", 1, 2, SKIP_NO},
               {"", 1, 0, SKIP_NO},
               {"", 1, 2, SKIP_REFUSED}};
  for (const auto &[now, leap, time_type, expected] : cases) {
    restart(std::string(now) + std::to_string(leap) + std::to_string(time_type));
    set_now(now);
    add_period("2020-02-28 00:00", "2020-02-28 00:00", leap, leap);
    const dravel_item *item = add({0, "01 07:00", kDaily, 1, time_type});
    EXPECT_EQ(can_skip_timer(item, time_of("2028-02-29 07:00")), expected);
  }
}

TEST_F(Periods, KeepTheirOrder_InListAndStore) {
  disabled_period_item *first = add_period("24 00:00", "26 00:00");
  disabled_period_item *second = add_period("24 00:00", "26 00:00");
  EXPECT_EQ(find_disabled_period_item(2), second);
  EXPECT_NE(remove_disabled_period_item(first), nullptr);
  EXPECT_EQ(rows("SELECT period_id FROM disabled_period"), "2");
  rows("INSERT INTO disabled_period VALUES(9,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20)");
  load_disabled_period_list();
  EXPECT_EQ(find_disabled_period_item(9)->end_date_leap_year_f, 20);
  EXPECT_EQ(find_disabled_period_item(1), nullptr);
  reset_dravel_db(); // from now on writes are refused
  EXPECT_EQ(remove_disabled_period_item(second), nullptr);
  EXPECT_EQ(call("request_set_disable_period", period_arguments("24 00:00", "26 00:00")),
            words{-1});
  const words list = call("request_disabled_period_list", 0);
  EXPECT_EQ((words{list[25], list[50], list[75]}), (words{2, 2, 9}));
}

TEST_F(Periods, OfTheNextYear_FollowTheEndOfFebruary) {
  disabled_period_item *period = add_period("1999-02-28 00:00", "1999-02-28 00:00", 1, 1);
  for (const char *expected : {"100|29|100|29", "101|28|101|28"}) {
    EXPECT_EQ(next_disabled_period(period), 0);
    EXPECT_EQ(rows("SELECT start_tm_year, start_tm_mday, end_tm_year, end_tm_mday "
                   "FROM disabled_period"),
              expected);
  }
}

// March 2106 is not among the time values; a client may send any day of the month.
TEST_F(Periods, WithAnEndFarAway_AreCountedOnTheCalendar) {
  const struct {
    const char *when;
    int end_day, moved_to;
  } cases[] = {{"2106-02-01 09:00", 20, 49},
               {"2000-02-01 09:00", 20, 50},
               {"2027-02-02 09:00", INT_MAX - 59, INT_MAX - 30},
               {"2027-04-15 09:00", 115, 85}};
  for (const auto &[when, end_day, moved_to] : cases) {
    restart(when);
    set_now("2000-01-01 12:00");
    const dravel_item *item = add({1, when, 0, 1});
    add_period("2020-01-25 00:00", "2020-03-20 00:00")->end_tm.tm_mday = end_day;
    EXPECT_EQ(can_skip_timer(item, time_of(when)), SKIP_MOVED);
    EXPECT_EQ(item->tm.tm_mday, moved_to);
  }
}

// A kept expiry would move it once in a sorting.
TEST_F(Periods, MoveATimer_WithEachComparisonOfASorting) {
  add({0, "25 08:00"});
  add({0, "26 08:00"});
  const dravel_item *item = add({0, "16 07:00", 0, 1});
  add_period("16 00:00", "17 00:00");
  add_period("18 00:00", "25 00:00");
  rebuild_onoff_timer_lists();
  EXPECT_EQ(time_text(item->tm), "26 07:00");
}

// The method's arguments in their places in the image.
TEST_F(Periods, HaveTwentyValues_InTheirPlaces) {
  std::array<int, PERIOD_ARGS> values{};
  std::iota(values.begin(), values.end(), 1);
  EXPECT_EQ(call("request_set_disable_period", values), words{1});
  EXPECT_EQ(call("request_disabled_period_list", 0),
            (words{1,  6,  5,  4,  3,  2,  1,  7,  8, 9, 0,  0,  15,
                   14, 13, 12, 11, 10, 16, 17, 18, 0, 0, 19, 20, 1}));
}

TEST_F(Periods, MoveATimer_OneStepForEachComputation_AndWithoutTheOffset) {
  set_clocks(kNoon, "15 11:00", kNoon);
  add_period("16 00:00", "17 00:00");
  add_period("18 00:00", "19 00:00");
  const new_timer timer{2, "16 07:00", 0, 1, TIME_TYPE_INTERNET};
  dravel_item *unlisted = make(timer);
  EXPECT_EQ(next(unlisted), "-1");
  g_free(unlisted);
  dravel_item *item = add(timer);
  EXPECT_EQ(item->tm.tm_mday, 16); // alone in its list, it was compared with nothing
  EXPECT_EQ(next(item), "18 07:00");
  EXPECT_EQ(next(item), "20 07:00");
  EXPECT_EQ(next(item), "20 08:00");
}

// The only free day, a Friday, is 366 or 367 days ahead.
TEST_F(Periods, ASearchForAFreeDay_TakesIn366Days) {
  add_period("2020-01-01 00:00", "14 00:00");
  add_period("16 00:00", "31 00:00");
  const dravel_item *item = add({0, "01 07:00", kFri, 1});
  set_now("2027-12-15 13:00");
  EXPECT_EQ(next(item), "2028-12-15 07:00");
  set_now("2027-12-14 13:00");
  EXPECT_EQ(next(item), "-1");
}
