#include "fixture.h"

#include <climits>
#include <cstdlib>

class Items : public CleanSet {};
class Periods : public CleanSet {};

static constexpr new_timer kTomorrow{0, "16 07:00"};

// On-timers know no seconds, except on a weekly timer's first day when that is not today. A time
// that has come is past, unless the TV clock is about to wrap from 2099 to 2001.
TEST_F(Items, NextExpiry_OnTheTvClock) {
  const std::tuple<const char *, int, const char *, int, const char *> cases[] = {
      {kNoon, 0, "16 08:00:30", 0, "16 08:00"},
      {kNoon, 1, "16 08:00:30", 0, "16 08:00:30"},
      {kNoon, 255, "16 08:00:30", 0, "16 08:00:30"},
      {kNoon, 0, "16 08:00:-5", 0, "16 07:59:55"},
      {kNoon, 1, kNoon, 0, "-1"},
      {kNoon, 1, "15 12:00:01", 0, "15 12:00:01"},
      {kNoon, 0, "15 12:00:59", 0, "-1"},
      {kNoon, 1, "397 12:00", 0, "2028-01-01 12:00"},
      {"2099-05-01 00:00", 1, "2001-03-01 08:00", 0, "2001-03-01 08:00"},
      {"2098-05-01 00:00", 1, "2001-03-01 08:00", 0, "-1"},
      {"2099-05-01 00:00", 1, "2002-03-01 08:00", 0, "-1"},
      {"15 06:59:59", 0, "01 07:00", Daily, "15 07:00"},
      {"15 07:00", 0, "01 07:00", Daily, "16 07:00"},
      {"27 12:00", 0, "01 07:00", Sun, "2027-01-03 07:00"},
      {"27 12:00", 0, "01 07:00", Sat, "2027-01-02 07:00"},
      {"2024-02-28 12:00", 0, "01 07:00", Thu, "2024-02-29 07:00"},
      {kNoon, 0, "01 07:00", 0x80, "-1"},
      {kNoon, 0, "01 07:00", INT_MIN | Mon, "21 07:00"},
      {kNoon, 0, "01 07:00:45", Wed, "16 07:00:45"},
      {kNoon, 0, "01 07:00:45", Tue | Wed, "16 07:00"},
      {kNoon, 1, "01 07:00:45", Tue | Wed, "16 07:00:45"}};
  for (const auto &[now, type, when, week_flag, expected] : cases) {
    restart(when);
    set_now(now);
    EXPECT_EQ(next(add({type, when, week_flag})), expected);
  }
  std::tm expire{};
  EXPECT_EQ(get_next_expire_date(nullptr, &expire), -1);
}

TEST_F(Items, NextExpiry_CarriesInternetTimesOntoTheTvClock_OrElseTheRealTimeClock) {
  using row =
      std::tuple<const char *, const char *, const char *, const char *, int, int, const char *>;
  const row cases[] = {{kNoon, "15 11:00", "", "16 07:00", 0, 1, "16 08:00"},
                       {kNoon, "15 11:00", "", "15 11:00", 0, 1, "-1"},
                       {kNoon, "15 13:00", "", "15 13:01", 0, 1, "15 12:01"},
                       {kNoon, "15 11:00", "", "01 07:00", Wed, 1, "16 08:00"},
                       {kNoon, "15 11:00", "", "16 07:00", 0, 2, "16 07:00"},
                       {kNoon, "15 11:00", "", "16 07:00", 0, 9, "16 07:00"},
                       {"16 00:30", "15 23:30", "", "01 23:45", Tue, 1, "16 00:45"},
                       {"", kNoon, "15 13:00", "16 07:00", 0, 1, "16 08:00"},
                       {"", kNoon, "", "16 07:00", 0, 1, "-2"},
                       {"", kNoon, kNoon, "16 07:00", 0, 0, "-2"},
                       {"", kNoon, kNoon, "16 07:00", Daily, 2, "-2"}};
  for (const auto &[tv, system, rtc, when, week_flag, time_type, expected] : cases) {
    restart(when);
    set_clocks(tv, system, rtc);
    EXPECT_EQ(next(add({0, when, week_flag, 0, time_type})), expected);
  }
}

TEST_F(Items, Order_AtEqualExpiry_FollowsPriority_AndKeepsOffTimersAhead) {
  const new_timer early = kTomorrow, late{0, "16 08:00"}, urgent{0, "16 07:00", 0, 0, 0, 5};
  const new_timer off{1, "16 07:00"}, past{0, "01 07:00"};
  const std::tuple<new_timer, new_timer, int> cases[] = {
      {early, late, -1},  {late, early, 1},  {early, early, 1}, {urgent, early, -1},
      {early, urgent, 1}, {off, urgent, -1}, {urgent, off, -1}, {early, off, 1},
      {late, off, 1},     {past, early, -1}, {early, past, 1},  {past, past, -1}};
  for (const auto &[first, second, expected] : cases) {
    restart(first.when);
    const dravel_item *listed = add(first), *added = add(second);
    EXPECT_EQ(compare_dravel_cb(listed, added), expected);
    EXPECT_EQ(compare_dravel_cb(nullptr, added) + compare_dravel_cb(listed, nullptr), 0);
  }
}

TEST_F(Items, AnInsertion_WalksToTheFirstTimerItGoesAheadOf) {
  add({0, "01 14:00", Daily}); // 1
  add({0, "15 15:00"});        // 2
  set_now("15 16:00");         // 1 fires kTomorrow, 2 never
  add({0, "15 18:00"});
  EXPECT_EQ(ids(get_dravel_list()), "3 1 2");
  add({0, "01 07:00"});
  add({0, "16 15:00"});
  EXPECT_EQ(ids(get_dravel_list()), "4 3 1 2 5");
}

TEST_F(Items, ARebuild_PutsTheLastInsertedFirst_AtEqualExpiry) {
  for (const int type : {0, 0, 1, 1})
    add({type, "16 07:00"});
  EXPECT_EQ(ids(get_dravel_list()), "3 4 2 1");
  EXPECT_EQ(ids(get_ontimer_list()), "1 2");
  EXPECT_EQ(ids(get_offtimer_list()), "3 4");
}

TEST_F(Items, Types_BelongToTheirLists) {
  for (const int type : {0, 1, 2, 6, 9, 10, 13, 15, 16, 17, 254, 255, 300, -1, INT_MIN}) {
    restart(std::to_string(type));
    const bool on = type >= 0 && type < 255 && type != 1 && type != 10 && type != 16;
    dravel_item *item = add({type, "16 07:00"});
    EXPECT_EQ(get_ontimer_list() != nullptr, on);
    EXPECT_EQ(get_offtimer_list() != nullptr, type == 1);
    EXPECT_EQ(find_dravel_item(item->timer_id), item);
    EXPECT_EQ(rows("SELECT count(*) FROM dravel"), type == 10 ? "0" : "1");
  }
}

TEST_F(Items, AFullList_LosesItsOldestTimer_WithItsMainLoopTimer) {
  for (int i = 0; i < 80; i++)
    arm({4, "01 07:00", Daily});
  add({4, "16 07:00"});
  EXPECT_EQ(eina_list_count(get_dravel_list()), 80U);
  EXPECT_EQ(find_dravel_item(1), nullptr);
  EXPECT_EQ(armed(1), "");
  EXPECT_EQ(pending(ecore_timer_cb), 79);
  EXPECT_EQ(rows("SELECT count(*), min(timer_id) FROM dravel"), "80|2");

  const int transient = add({10, "16 07:00"})->timer_id;
  EXPECT_LE(transient, -10);
  EXPECT_EQ(add({10, "16 07:00"})->timer_id, transient - 1);
  EXPECT_EQ(eina_list_count(get_dravel_list()), 82U);
  add({4, "16 07:00"});
  EXPECT_EQ(find_dravel_item(transient - 1), nullptr);
  EXPECT_EQ(rows("SELECT count(*) FROM dravel"), "81");
}

TEST_F(Items, AFailedStore_KeepsATimerOut_AndAFailedDeleteStillTakesItOut) {
  add(kTomorrow);
  dravel_item *second = add(kTomorrow), *unstored = make(kTomorrow);
  const store_locked lock;
  EXPECT_EQ(add_dravel_item(unstored), nullptr);
  EXPECT_EQ(unstored->timer_id, -10);
  EXPECT_EQ(ids(get_ontimer_list()), "1 2");
  EXPECT_EQ(ids(remove_dravel_item(second)), "1");
  EXPECT_EQ(ids(get_ontimer_list()), "1");
  EXPECT_EQ(rows("SELECT timer_id FROM dravel"), "1 2");
  std::free(unstored);
  std::free(second); // the daemon never does
}

TEST_F(Items, ADuplicate_IsEqualInTypeWeekdaysClockAndConfiguredTime) {
  dravel_item *found = nullptr;
  dravel_item *original = make({13, "16 07:00:30", Mon, 0, 1});
  EXPECT_EQ(find_duplicate_ontimer(original, &found), -1);
  add_dravel_item(original);
  const std::pair<new_timer, bool> cases[] = {
      {{13, "16 07:00:30", Mon, 1, 1, 9}, true}, {{12, "16 07:00:30", Mon, 0, 1}, false},
      {{13, "23 07:00:30", Mon, 0, 1}, false},   {{13, "16 07:00", Mon, 0, 1}, false},
      {{13, "16 07:00:30", Tue, 0, 1}, false},   {{13, "16 07:00:30", Mon, 0, 0}, false}};
  for (const auto &[timer, equal] : cases) {
    found = nullptr;
    dravel_item *item = make(timer);
    EXPECT_EQ(find_duplicate_ontimer(item, &found), equal ? 0 : -1);
    EXPECT_EQ(found, equal ? original : nullptr);
    std::free(item);
  }
  EXPECT_EQ(find_duplicate_ontimer(nullptr, &found), -1);
}

TEST_F(Items, AColdStart_DropsOnAndOffTimers_UnlessTheyAreKept) {
  const std::tuple<int, int, int, bool> cases[] = {{0, 0, 0, false}, {-1, 0, 0, false},
                                                   {1, 0, 0, true},  {0, 1, 0, true},
                                                   {0, -1, 0, true}, {0, 0, 1, true}};
  for (const auto &[sync_db, wakeup_reason, relaunch, kept] : cases) {
    restart(std::to_string(sync_db) + std::to_string(wakeup_reason) + std::to_string(relaunch));
    rows("WITH t(type, hour) AS (VALUES(0,9),(1,8),(2,7),(-1,6),(256,5))"
         "INSERT INTO dravel(type, tm_hour, tm_mday, tm_mon, tm_year, week_flag, time_type)"
         "SELECT type, hour, 16, 11, 126, 0, 0 FROM t");
    standin().sync_db = sync_db;
    standin().wakeup_reason = wakeup_reason;
    set_relaunch_state(relaunch);
    EXPECT_EQ(ids(load_dravel_list()), kept ? "5 4 3 2 1" : "5 4 3");
    EXPECT_EQ(rows("SELECT timer_id FROM dravel"), kept ? "1 2 3 4 5" : "3 4 5");
    EXPECT_EQ(ids(get_ontimer_list()), kept ? "3 1" : "3");
    EXPECT_EQ(next(find_dravel_item(3)), "16 07:00");
  }
}

TEST_F(Items, ATimerSetBeforeTheLoading_IsListedOnce_AndKept) {
  rows("INSERT INTO dravel(type, tm_hour) VALUES(300, 5)");
  dravel_item *early = arm({1, "16 07:00"});
  EXPECT_EQ(ids(load_dravel_list()), "2 1");
  EXPECT_EQ(find_dravel_item(2), early);
  EXPECT_EQ(rows("SELECT timer_id FROM dravel"), "1 2");
}

TEST_F(Items, TheMarkedTimer_WokeTheSet_WhenTheReasonIsATimers) {
  for (const auto &[reason, woken] : {std::pair{0, false}, {1, false}, {2, true}, {-1, true}}) {
    restart(std::to_string(reason));
    standin().wakeup_reason = reason;
    dravel_item *item = add({0, "16 07:00", Mon, 0, 2});
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
  const std::tuple<const char *, const char *, const char *, int> cases[] = {
      {kNoon, "15 22:00:01", "15 22:10", 1},
      {kNoon, "15 22:00", "15 22:10", 0},
      {kNoon, "15 22:00", "15 22:00", 0},
      {kNoon, "15 22:00", "15 21:59", 0},
      {kNoon, "15 21:59:59", "15 22:00", 1},
      {kNoon, "15 11:55", "15 11:58", 0},
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
  using row = std::tuple<const char *, const char *, int, const char *, int, const char *>;
  const row cases[] = {
      {"16 00:00", "18 00:00", 0, "01 07:00", Daily, "19 07:00"},
      {"15 00:00", "15 00:00", 0, "01 13:00", Daily, "16 13:00"},
      {"2020-01-01 00:00", "31 00:00", 0, "01 07:00", Daily, "-1"},
      {"16 00:00", "20 00:00", 0, "18 09:00:30", 0, "21 09:00"},
      {"16 00:00", "20 00:00", 0, "20 09:00", 0, "21 09:00"},
      {"16 00:00", "20 00:00", 0, "21 09:00", 0, "21 09:00"},
      {"2020-07-25 00:00", "2020-08-05 00:00", 0, "2027-07-30 09:00", 0, "2027-08-06 09:00"},
      {"2020-09-01 00:00", "2020-09-05 00:00", 0, "2027-08-31 09:00", 0, "2027-08-31 09:00"},
      {"28 00:00", "2021-01-03 00:00", 0, "30 09:00", 0, "30 09:00"},
      {"2020-02-20 00:00", "2020-02-29 00:00", 1, "2028-02-29 09:00", 0, "2028-02-29 09:00"},
      {"2020-02-20 00:00", "2020-02-29 00:00", 0, "2028-02-29 09:00", 0, "2028-03-01 09:00"},
      {"2020-02-29 00:00", "2020-02-29 00:00", 1, "2027-02-28 09:00", 0, "2027-03-01 09:00"},
      {"2020-02-29 00:00", "2020-02-29 00:00", 0, "2027-02-28 09:00", 0, "2027-02-28 09:00"}};
  for (const auto &[start, end, leap, when, week_flag, expected] : cases) {
    restart(start + std::string(" ") + when);
    const dravel_item *item = add({0, when, week_flag, 1}),
                      *always = add({9, "16 10:00", Daily, 1});
    add_period("2020-05-01 00:00", "2020-05-01 00:00");
    add_period(start, end, leap, leap);
    for (int i = 0; i < 2; i++)
      EXPECT_EQ(next(item), expected);
    EXPECT_EQ(next(always) + " " + next(add({0, "16 10:00", Daily, 0})), "16 10:00 16 10:00");
  }
}

TEST_F(Periods, ASearchForAFreeDay_TakesIn366Days) {
  set_now("2027-12-15 13:00");
  add_period("2020-01-01 00:00", "14 00:00");
  add_period("16 00:00", "31 00:00");
  EXPECT_EQ(next(add({0, "01 07:00", Daily, 1})), "2028-12-15 07:00");
}

TEST_F(Periods, AFlaggedFebruary_EndsOnThe29thInALeapYear) {
  const std::tuple<const char *, int, int, int> cases[] = {
      {"2028-02-01 00:00", 1, 0, SKIP_REFUSED},
      {"2028-02-01 00:00", 0, 0, SKIP_NO},
      {"2027-02-01 00:00", 1, 0, SKIP_NO},
      {"2028-02-01 00:00", 2, 0, SKIP_NO},
      // An unknown TV clock counts from 1970; no clock at all leaves the occurrence's year.
      {"", 1, 0, SKIP_NO},
      {"", 1, 2, SKIP_REFUSED},
      {"", 1, 9, SKIP_REFUSED}};
  for (const auto &[now, leap, time_type, expected] : cases) {
    restart(std::string(now) + std::to_string(leap) + std::to_string(time_type));
    set_now(now);
    add_period("2020-02-20 00:00", "2020-02-28 00:00", 0, leap);
    const dravel_item *item = add({0, "01 07:00", Daily, 1, time_type});
    EXPECT_EQ(can_skip_timer(item, at("2028-02-29 07:00")), expected);
  }
}

TEST_F(Periods, AMovedTimer_IsStored_AndAnUnlistedOneIsRefused) {
  add_period("2020-07-25 00:00", "2020-08-05 00:00");
  dravel_item *unlisted = make({0, "2027-07-30 09:00", 0, 1});
  EXPECT_EQ(next(unlisted), "-1");
  std::free(unlisted);
  dravel_item *item = add({0, "2027-07-30 09:00", 0, 0});
  EXPECT_EQ(can_skip_timer(item, at("2027-06-30 09:00")), SKIP_NO);
  EXPECT_EQ(can_skip_timer(item, at("2027-07-30 09:00")), SKIP_MOVED);
  EXPECT_EQ(rows("SELECT tm_mday, tm_mon, tm_hour FROM dravel"), "37|6|9");
}

TEST_F(Periods, AnInternetTimeThatIsMoved_GetsNoOffset) {
  set_clocks(kNoon, "15 11:00", kNoon);
  dravel_item *item = add({0, "18 09:00", 0, 1, TIME_TYPE_INTERNET});
  add_period("16 00:00", "20 00:00");
  EXPECT_EQ(next(item), "21 09:00");
  EXPECT_EQ(next(item), "21 10:00");
}

TEST_F(Periods, KeepTheirOrder_InListAndStore) {
  disabled_period_item *first = add_period("24 00:00", "26 00:00");
  disabled_period_item *second = add_period("24 00:00", "26 00:00");
  EXPECT_EQ(first->period_id, 1);
  EXPECT_EQ(find_disabled_period_item(2), second);
  EXPECT_NE(remove_disabled_period_item(first), nullptr);
  EXPECT_EQ(find_disabled_period_item(1), nullptr);
  EXPECT_EQ(rows("SELECT period_id FROM disabled_period"), "2");
  {
    const store_locked lock;
    disabled_period_item refused{};
    EXPECT_EQ(remove_disabled_period_item(second), nullptr);
    EXPECT_EQ(add_disabled_period_item(&refused), nullptr);
    EXPECT_EQ(eina_list_count(get_disabled_period_list()), 1U);
  }
  EXPECT_EQ(remove_disabled_period_item(second), nullptr);
  rows("INSERT INTO disabled_period VALUES(9,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20);"
       "INSERT INTO disabled_period(period_id) VALUES(12)");
  const auto *loaded = static_cast<disabled_period_item *>(load_disabled_period_list()->data);
  EXPECT_EQ(loaded, find_disabled_period_item(9));
  EXPECT_EQ(loaded->end_date_leap_year_f, 20);
  EXPECT_NE(find_disabled_period_item(12), nullptr);
}

TEST_F(Periods, MoveOnByOneYear_WithTheEndOfFebruary) {
  const std::tuple<const char *, const char *, int, int, const char *> cases[] = {
      {"2024-02-29 00:00", "2024-03-28 00:00", 1, 1, "125|1|28|125|2|28"},
      {"2024-02-29 00:00", "2024-03-01 00:00", 0, 0, "125|1|29|125|2|1"},
      {"2027-02-01 00:00", "2027-02-28 00:00", 0, 1, "128|1|1|128|1|29"},
      {"2027-01-28 00:00", "2027-02-28 00:00", 1, 0, "128|0|28|128|1|28"}};
  for (const auto &[start, end, start_leap, end_leap, expected] : cases) {
    restart(start);
    EXPECT_EQ(next_disabled_period(add_period(start, end, start_leap, end_leap)), 0);
    EXPECT_EQ(rows("SELECT start_tm_year, start_tm_mon, start_tm_mday, end_tm_year, end_tm_mon, "
                   "end_tm_mday FROM disabled_period"),
              expected);
  }
}
