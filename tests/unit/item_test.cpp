#include "scenario.h"

class Items : public CleanSet {};
class Periods : public CleanSet {};

// On-timers know no seconds, except on a weekly timer's first day when that is not today. A time
// that has come is past, unless the TV clock is about to wrap from 2099 to 2001.
SCENARIOS(Items, NextExpiry_IsOnTheTvClock, "now '$1'; add $2 => next '$3'", R"(
  15 12:00         | 254 '16 08:00:30'         | 16 08:00
  15 12:00         | 1 '16 08:00:30'           | 16 08:00:30
  15 12:00         | 255 '16 08:00:30'         | 16 08:00:30
  15 12:00         | 0 '16 08:00:-5'           | 16 07:59:55
  15 12:00         | 1 '15 12:00'              | -1
  2099-05-01 00:00 | 1 '2001-03-01 08:00'      | 2001-03-01 08:00
  2099-05-01 00:00 | 1 '2002-03-01 08:00'      | -1
  15 06:59:59      | 0 '01 07:00' daily        | 15 07:00
  15 07:00         | 0 '01 07:00' daily        | 16 07:00
  27 12:00         | 0 '01 07:00' sun          | 2027-01-03 07:00
  15 12:00         | 0 '01 07:00' days=128     | -1
  15 12:00         | 0 '01 07:00:45' wed       | 16 07:00:45
  15 12:00         | 0 '01 07:00:45' tue wed   | 16 07:00
  15 12:00         | 1 '01 07:00:45' tue wed   | 16 07:00:45
)")

// The system clock's times are carried over.
SCENARIOS(Items, NextExpiry_OfTheSystemClock, "clocks '$1' '$2' '$3'; add $4 => next '$5'", R"(
  15 12:00         | 15 11:00         |          | 0 '16 07:00' system         | 16 08:00
  15 12:00         | 15 11:00         |          | 0 '01 07:00' wed system     | 16 08:00
  16 00:30         | 15 23:30         |          | 0 '01 23:45' tue system     | 16 00:45
                   | 15 12:00         | 15 13:00 | 0 '16 07:00' system         | 16 08:00
                   | 15 12:00         |          | 0 '16 07:00' system         | -2
                   | 15 12:00         | 15 12:00 | 0 '16 07:00'                | -2
                   | 15 12:00         | 15 12:00 | 0 '16 07:00' daily rtc      | -2
  2104-12-15 13:00 | 2104-12-15 12:00 |          | 0 '2104-12-15 12:30' system | 2104-12-15 13:30
)")

TEST_F(Items, AnItem_HasItsValuesInTheirPlaces) {
  add_dravel_item(create_dravel_item(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|1|2|3|9|8|7|6|5|4|10|11|12|13|14|15|16|0");
}

SCENARIOS(Items, AreListed_ByExpiry_ThenByPriority_AndAListedOffTimerKeepsItsPlace,
          "now '13 12:00'; add $1; now '15 12:00'; add $2 => listed '$3'", R"(
  1 '16 07:00'            | 1 '16 08:00'            | 1 2
  1 '16 08:00'            | 1 '16 07:00'            | 2 1
  # which never fires
  1 '14 07:00'            | 1 '16 07:00'            | 1 2
  1 '16 07:00'            | 1 '14 07:00'            | 2 1
  0 '16 07:00' priority=1 | 0 '16 07:00'            | 1 2
  0 '16 07:00'            | 0 '16 07:00'            | 2 1
  1 '16 07:00'            | 0 '16 07:00'            | 1 2
)")

TEST_F(Items, ThatAreNone_AreEqual_AndNeverFire) {
  std::tm expire;
  dravel_item *item = add({0, "16 07:00"}), *found = nullptr;
  EXPECT_EQ(compare_dravel_cb(nullptr, item) | compare_dravel_cb(item, nullptr), 0);
  EXPECT_EQ(compare_dravel_cb(item, add({0, "16 08:00"})), -1);
  EXPECT_EQ(get_next_expire_date(item, nullptr) + get_next_expire_date(nullptr, &expire), -2);
  EXPECT_EQ(find_duplicate_ontimer(nullptr, &found), -1);
  dravel_expire_cb(nullptr, nullptr);
}

TEST_F(Items, ThatAreNotListed_HaveNoDuplicate_AndAreNotMoved) {
  add_period("16 00:00", "17 00:00");
  dravel_item *unlisted = make({2, "16 07:00", 0, 1}), *found = nullptr;
  EXPECT_EQ(find_duplicate_ontimer(unlisted, &found), -1);
  EXPECT_EQ(next(unlisted), "-1");
  g_free(unlisted);
}

SCENARIOS(Items, AnInsertion_WalksToTheFirstTimerItGoesAheadOf, R"(
  # At 16:00 timer 1 fires tomorrow, 2 never. The on-timers are sorted again with each change.
  add 0 '01 14:00' daily; add 0 '15 15:00'; now '15 16:00'; add 0 '15 18:00'; add 0 '01 07:00';
    add 0 '16 15:00' => listed '4 3 1 2 5' on '4 2 3 1 5'
  add 0 '16 07:00'; add 0 '16 07:00'; add 0 '16 07:00' priority=5; add 1 '16 07:00';
    add 1 '16 07:00' priority=9; add 0 '16 07:00' priority=9 => listed '5 6 3 4 2 1'
)")

SCENARIOS(Items, AFullList_LosesItsOldestTimer_WithItsMainLoopTimer, R"(
  times 80 arm 4 '01 07:00' daily; add 4 '16 07:00' => timers 79
    told '~Removed 1 evicted, Added 81';
    sql 'SELECT count(*), min(timer_id) FROM dravel' => is '80|2';
    add 10 '16 07:00' => listed '~@'; add 4 '16 07:00';
    sql 'SELECT count(*) FROM dravel' => is 81
)")

TEST_F(Items, TransientIds_CountDown_PastOnesOfAForeignStore_AndTheLastOneIsTheOldest) {
  const int transient = add({10, "16 07:00"})->timer_id;
  EXPECT_EQ(add({10, "16 07:00"})->timer_id, transient - 1);
  rows("INSERT INTO dravel(timer_id, type, week_flag) VALUES(" + std::to_string(transient - 2) +
       ", 2, 127)");
  load_dravel_list();
  EXPECT_EQ(add({10, "16 07:00"})->timer_id, transient - 3);
  for (int i = 0; i < 77; ++i)
    add({4, "16 07:00"});
  EXPECT_EQ(find_dravel_item(transient - 3), nullptr);
  EXPECT_NE(find_dravel_item(transient - 2), nullptr);
}

SCENARIOS(Items, AFailedStore_KeepsATimerOut_AndAFailedDeleteStillTakesItOut, R"(
  times 2 add 0 '16 07:00'; read_only; take 0 '16 07:00' => is -1 on '1 2';
    cancel 1 => listed 2 on 2
)")

SCENARIOS(Items, AForeignStore_MakesNoTwoTimersOne,
          "add 0 '16 07:00'; sql '$1'; load; take 0 '16 07:00' => is -1 stored '$2'", R"(
  CREATE TRIGGER no BEFORE INSERT ON dravel BEGIN SELECT raise(IGNORE); END | 1
  INSERT INTO dravel(timer_id, type) VALUES(3, 2); UPDATE sqlite_sequence SET seq = 4294967302 | 1 3
  ALTER TABLE dravel RENAME TO old; CREATE TABLE dravel AS SELECT * FROM old;
    INSERT INTO dravel(timer_id, type, week_flag) VALUES(3, 2, 127) | 1 3
)")

SCENARIOS(Items, AColdStart_DropsOnAndOffTimers_UnlessTheyAreKept,
          "sql 'WITH t(type, hour) AS (VALUES(0,9),(1,8),(2,7),(-1,6),(300,5),(16,4))"
          " INSERT INTO dravel(type, tm_hour, tm_mday, tm_mon, tm_year, week_flag, time_type)"
          " SELECT type, hour, 16, 11, 126, 0, 0 FROM t'; sync $1; reason $2; relaunched $3;"
          "load => is '$4' stored '$5' on '$6'",
          R"(
  0  |  0 | 0 | 6 5 4 3     | 3 4 5 6     | 3
  -1 |  0 | 0 | 6 5 4 3     | 3 4 5 6     | 3
  1  |  0 | 0 | 6 5 4 3 2 1 | 1 2 3 4 5 6 | 3 1
  0  |  1 | 0 | 6 5 4 3 2 1 | 1 2 3 4 5 6 | 3 1
  0  | -1 | 0 | 6 5 4 3 2 1 | 1 2 3 4 5 6 | 3 1
  0  |  0 | 1 | 6 5 4 3 2 1 | 1 2 3 4 5 6 | 3 1
)")

SCENARIOS(Items, ATimerSetBeforeTheLoading_IsListedOnce_AndKept, R"(
  sql 'INSERT INTO dravel(type, tm_hour) VALUES(300, 5)'; arm 1 '16 07:00';
    load => is '2 1' stored '1 2'
)")

SCENARIOS(Items, TheMarkedTimer_WokeTheSet_WhenTheReasonIsATimers,
          "reason $1; add 0 '16 07:00' mon rtc; load_wakeup => woken_by -; mark 1; load_wakeup;"
          "cancel 1 => woken_by '$2'; add 0 '16 07:00'; woken_by 2 => woken_by 2",
          R"(
  0  | -
  1  | -
  2  | 1
  -1 | 1
)")

SCENARIOS(Items, Standby_IsSkipped_WhenAnOnTimerFollowsWithin599Seconds,
          "now '$1'; skip '$2' 99 => is 0; add 0 '2030-01-01 00:00'; add 0 '$3';"
          "skip '$2' 99 => is $4; skip '$2' 2 => is 0",
          R"(
  15 12:00         | 15 22:00:01      | 15 22:10         | 1
  15 12:00         | 15 22:09:59      | 15 22:10         | 1
  15 12:00         | 15 22:00         | 15 22:10         | 0
  15 12:00         | 15 22:00         | 15 22:00         | 0
  1970-01-01 00:01 | 2106-02-07 06:28 | 1970-01-01 00:05 | 1
)")

// A period over the new year holds nothing; a flagged end of February follows the present year.
// Neither a timer of the type that knows no holidays nor one that does not heed them is moved.
SCENARIOS(Periods, RefuseRepeatingTimers_AndMoveOneShotOnes,
          "add $4 holidays; add 9 '16 10:00' daily holidays; add 0 '16 10:00' daily;"
          "period '$1' '$2' $3; next 1 => is '$5'; next 1 => is '$5'; next 2 => is '16 10:00';"
          "next 3 => is '16 10:00'",
          R"(
  16 00:00         | 18 00:00         | 0 | 0 '01 07:00' daily   | 19 07:00
  2020-01-01 00:00 | 31 00:00         | 0 | 0 '01 07:00' daily   | -1
  16 00:00         | 20 00:00         | 0 | 0 '18 09:00:30'      | 21 09:00
  2020-07-25 00:00 | 2020-08-05 00:00 | 0 | 0 '2027-07-30 09:00' | 2027-08-06 09:00
  2020-09-01 00:00 | 2020-09-05 00:00 | 0 | 0 '2027-08-31 09:00' | 2027-08-31 09:00
  28 00:00         | 2021-01-03 00:00 | 0 | 0 '30 09:00'         | 30 09:00
  # today, still ahead
  15 00:00         | 15 00:00         | 0 | 0 '01 14:00' daily   | 16 14:00
  15 00:00         | 15 00:00         | 0 | 0 '15 14:00'         | 16 14:00
  14 00:00         | 14 00:00         | 0 | 0 '01 14:00' daily   | 15 14:00
  2020-02-15 00:00 | 2020-03-05 00:00 | 0 | 0 '2028-02-20 09:00' | 2028-03-06 09:00
  2020-02-20 00:00 | 2020-02-29 00:00 | 1 | 0 '2028-02-29 09:00' | 2028-02-29 09:00
  2020-02-20 00:00 | 2020-02-29 00:00 | 0 | 0 '2028-02-29 09:00' | 2028-03-01 09:00
  2020-02-29 00:00 | 2020-02-29 00:00 | 1 | 0 '2027-02-28 09:00' | 2027-03-01 09:00
)")

// An unknown TV clock counts from 1970; no clock at all leaves the occurrence's year. 0: it is no
// holiday, 1: the timer is refused.
SCENARIOS(Periods, AFlaggedFebruary_EndsOnThe29thInALeapYear,
          "now '$1'; period '2020-02-28 00:00' '2020-02-28 00:00' $2; add 0 '01 07:00' daily $3;"
          "holiday '2028-02-29 07:00' => is $4",
          R"(
  2000-02-01 00:00 | 1 | holidays     | 1
  2028-02-01 00:00 | 0 | holidays     | 0
  2027-02-01 00:00 | 1 | holidays     | 0
  2027-02-01 00:00 | 1 | holidays rtc | 0
                   | 1 | holidays     | 0
                   | 1 | holidays rtc | 1
)")

SCENARIOS(Periods, KeepTheirOrder_InListAndStore, R"(
  period '24 00:00' '26 00:00'; period '24 00:00' '26 00:00'; call request_remove_disabled_period 1;
    sql 'SELECT period_id FROM disabled_period' => is 2;
    sql 'INSERT INTO disabled_period VALUES(9,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20)';
    load_periods; call request_disabled_period_list 0 => is '~16 17 18 0 0 19 20 9';
    # one that cannot be deleted stays
    read_only; call request_remove_disabled_period 2 => is 0;
    call request_set_disable_period 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 => is -1;
    call request_disabled_period_list 0 => is '~3 0 0 0 24'
    is '~359 0 0 0 0 0 2 0 0 0 24' is '~359 0 0 0 0 0 2 1 2 3'
)")

TEST_F(Periods, OfTheNextYear_FollowTheEndOfFebruary) {
  disabled_period_item *period = add_period("1999-02-28 00:00", "1999-02-28 00:00", 1, 1);
  add_period("1999-02-28 00:00", "1999-02-28 00:00"); // stays
  for (const char *expected : {"100|29|100|29 99|28|99|28", "101|28|101|28 99|28|99|28"}) {
    EXPECT_EQ(next_disabled_period(period), 0);
    EXPECT_EQ(rows("SELECT start_tm_year, start_tm_mday, end_tm_year, end_tm_mday "
                   "FROM disabled_period"),
              expected);
  }
}

// March 2106 is not among the time values; a client may send any day of the month.
SCENARIOS(
    Periods, WithAnEndFarAway_AreCountedOnTheCalendar,
    "now '2000-01-01 12:00'; add 1 '$1' holidays; period '2020-01-25 00:00' '2020-03-$2 00:00';"
    "holiday '$1' => is 2 row '$3'",
    R"(
  2106-02-01 09:00 | 20         | 49
  2000-02-01 09:00 | 20         | 50
  2027-02-02 09:00 | 2147483588 | 2147483617
  2027-04-15 09:00 | 115        | 85
)")

// The method's arguments in their places in the image.
SCENARIOS(Periods, HaveTwentyValues_InTheirPlaces, R"(
  call request_set_disable_period 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 => is 1;
    call request_disabled_period_list 0 =>
    is '1 6 5 4 3 2 1 7 8 9 0 0 15 14 13 12 11 10 16 17 18 0 0 19 20 1'
)")

SCENARIOS(Periods, MoveATimer_OneStepForEachComputation, R"(
  # and without the offset; alone in its list, it was compared with nothing
  clocks '15 12:00' '15 11:00' ''; period '16 00:00' '17 00:00'; period '18 00:00' '19 00:00';
    add 2 '16 07:00' holidays system => set '16 07:00' next '18 07:00' next '20 07:00'
    next '20 08:00'
  # A kept expiry would move it once in a sorting.
  add 0 '25 08:00'; add 0 '26 08:00'; add 0 '16 07:00' holidays; period '16 00:00' '17 00:00';
    period '18 00:00' '25 00:00'; sort => set '26 07:00'
)")

// The only free day, a Friday, is 366 or 367 days ahead.
SCENARIOS(Periods, ASearchForAFreeDay_TakesIn366Days,
          "period '2020-01-01 00:00' '14 00:00'; period '16 00:00' '31 00:00';"
          "add 0 '01 07:00' fri holidays; now '$1' => next '$2'",
          R"(
  2027-12-15 13:00 | 2028-12-15 07:00
  2027-12-14 13:00 | -1
)")
