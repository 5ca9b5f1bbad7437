#include "fixture.h"
#include "kinto-signal-subscribe.h"

#include <KintoAPI.h>
#include <settings.h>

#include <climits>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

class Scheduler : public CleanSet {};
class WakeupTime : public CleanSet {};
class Events : public CleanSet {};

static const new_timer kTomorrow{0, "16 07:00"};
static const std::string kSetTomorrow = "set_wakeup_time 0 16 07:00";
static const std::string kCleared = "clear_wakeup_time 0 0";

TEST_F(Scheduler, ATimer_IsArmedForItsDistance_OrRefused) {
  const struct {
    const char *tv, *rtc;
    new_timer timer;
    int result;
    time_value seconds;
  } cases[] = {{kNoon, "", {1, "15 12:00:01"}, 0, 1},
               {kNoon, "", {1, "2027-12-15 12:00"}, 0, 31536000},
               {kNoon, "", {1, "2027-12-15 12:00:01"}, -1, 0},
               {"2099-12-31 23:59", "", {1, "2001-01-01 00:01"}, 0, 119},
               {"", kNoon, {1, "16 12:00"}, -2, 0},
               {"", kNoon, {1, "16 12:00", 0, 0, 1}, 0, 86400},
               {"", "", {1, "16 12:00", 0, 0, 1}, -2, 0},
               {kNoon, "", {6, "15 22:00"}, -1, 0},
               {kNoon, "", {7, "15 22:00"}, 0, 36000},
               // A time of day that lies days before its date, as a client may send it.
               {kNoon, "", {1, "01 -12:00", kDaily}, 0, 0},
               {kNoon, "", {1, "01 -12:00:-1", kDaily}, -1, 0},
               {"2099-05-01 12:00", "", {1, "01 -12:00:-1", kDaily}, -1, 0},
               {"2001-05-01 12:00", "", {1, "01 -12:00:-1", kDaily}, -1, 0}};
  for (const auto &[tv, rtc, timer, result, seconds] : cases) {
    restart(timer.when);
    add({0, "15 22:05"});
    set_clocks(tv, kNoon, rtc);
    dravel_item *item = add(timer);
    logged();
    EXPECT_EQ(schedule_dravel_item(item, dravel_expire_cb, nullptr), result);
    EXPECT_EQ(logged().find("than one year") != std::string::npos,
              timer.when == "2027-12-15 12:00:01");
    EXPECT_EQ(armed(2), result == 0 ? time_text(time_of(tv) + seconds) : "");
  }
  set_now(kNoon);
  standin().refused = {"ecore_timer_add"};
  EXPECT_EQ(schedule_dravel_item(find_dravel_item(1), dravel_expire_cb, nullptr), -1);
}

// The system clock is an hour behind the TV clock. "" stands for a timer that is removed.
TEST_F(Scheduler, AnAdjustment_MovesArmedOneShotTimers_ByWholeDays) {
  const struct {
    const char *now;
    int type;
    const char *when;
    int week_flag, time_type;
    const char *expected;
  } cases[] = {{kNoon, 1, "18 14:00", 0, 0, "15 14:00"},
               {kNoon, 1, "16 12:00:01", 0, 0, "15 12:00:01"},
               {kNoon, 1, "16 12:00", 0, 0, ""},
               {kNoon, 9, "18 14:00", 0, 0, "18 14:00"},
               {kNoon, 1, "18 14:00", kFri, 0, "18 14:00"},
               {kNoon, 10, "18 14:00", 0, 0, "18 14:00"},
               {"18 19:00", 1, "18 14:00", 0, 0, "19 14:00"},
               {"19 14:00", 1, "18 14:00", 0, 0, ""},
               {"20 14:00:01", 1, "18 14:00", 0, 0, "21 14:00"},
               {kNoon, 1, "18 11:30", 0, 1, "15 11:30"},
               {"17 12:00", 1, "16 10:30", 0, 1, "18 10:30"}};
  for (const auto &[now, type, when, week_flag, time_type, expected] : cases) {
    restart(std::string(now) + " " + when);
    const int id = arm({type, when, week_flag, 0, time_type})->timer_id;
    set_clocks(now, time_text(time_of(now) - 3600), "");
    adjust_dravel_all_items(nullptr, nullptr);
    const dravel_item *item = find_dravel_item(id);
    EXPECT_EQ(item == nullptr ? "" : time_text(item->tm), expected);
    EXPECT_EQ(rows("SELECT tm_mday FROM dravel"),
              item == nullptr || id < 0 ? "" : std::to_string(item->tm.tm_mday));
    EXPECT_EQ(armed(id), time_type == 1 ? time_text(time_of(expected) + 3600) : expected);
  }
}

TEST_F(Scheduler, ASystemClockThatIsAhead_IsCountedBack) {
  set_clocks(kNoon, "15 13:00", kNoon);
  arm({0, "16 07:00", 0, 0, TIME_TYPE_INTERNET});
  arm({4, "18 14:00", 0, 0, TIME_TYPE_INTERNET});
  EXPECT_EQ(armed(1), "16 06:00");
  arm({1, "16 06:00"}); // takes the on-time away
  EXPECT_EQ(armed(1), "");
  adjust_dravel_all_items(nullptr, nullptr);
  EXPECT_EQ(armed(2), "15 13:00");
}

TEST_F(Scheduler, AnAdjustment_HoldsAlsoWhenItCannotBeStored) {
  arm({1, "18 14:00"});
  reset_dravel_db(); // from now on writes are refused
  adjust_dravel_all_items(nullptr, nullptr);
  EXPECT_EQ(armed(1), "15 14:00");
}

// From tomorrow on the on-timer follows the one of standby within ten minutes.
TEST_F(Scheduler, ATimerThatNeverFires_GoesWithTheNextRearming_AndIsNotWokenFor) {
  const struct {
    const char *name;
    void (*rearm)();
  } cases[] = {{"cancelled off-timer", [] { cancel_dravel_item(find_dravel_item(2)); }},
               {"adjustment", [] { adjust_dravel_all_items(nullptr, nullptr); }},
               {"rescheduling", reschedule_all_timers},
               {"idle step", [] { run_idle_steps(); }}};
  for (const auto &[name, rearm] : cases) {
    restart(name);
    set_now("15 07:01");
    arm({0, "01 07:05", kDaily});
    arm({1, "20 07:00", kDaily});
    arm({6, "01 07:00", kDaily});
    set_now(kNoon);
    const std::tm tm = broken_down("16 07:00");
    schedule_micom_ontimer(3, &tm, 6, 0);
    rearm();
    EXPECT_EQ(find_dravel_item(3), nullptr);
    EXPECT_EQ(micom_ontimer.timer_id, 1);
  }
}

TEST_F(Scheduler, AnAdjustmentWithoutTvClock_DisarmsItsTimers_UntilItIsKnown) {
  arm({1, "18 14:00"});
  arm({1, "15 14:00", 0, 0, TIME_TYPE_INTERNET});
  set_clocks("", kNoon, kNoon);
  for (int i = 0; i < 2; i++) {
    adjust_dravel_all_items(nullptr, nullptr);
    EXPECT_EQ(armed(1), "");
    EXPECT_EQ(armed(2), "1970-01-01 02:00");
  }
  set_now(kNoon);
  for (const char *expected : {"18 14:00", "15 14:00"}) { // it moves only what is armed
    adjust_dravel_all_items(nullptr, nullptr);
    EXPECT_EQ(armed(1), expected);
  }
  reschedule_all_timers(); // leaves it where it is
  EXPECT_EQ(armed(1), "15 14:00");
  EXPECT_EQ(pending(ecore_timer_cb), 2);
}

// In automatic clock mode the micro-controller is given UTC, in all others local time; in Berlin an
// hour lies between the two. From the programmed second on the on-time is still held, and then it
// has passed.
TEST_F(WakeupTime, IsTheEarliestOnTime_ChosenAgainOnlyWhenItMatters) {
  const struct {
    int mode;
    const char *now;
    new_timer added;
    std::string expected;
  } cases[] = {{1, kNoon, {0, "16 06:59"}, "set_wakeup_time 0 16 06:59"},
               {1, kNoon, {0, "16 07:00"}, ""},
               {1, kNoon, {2, "16 07:00", 0, 0, 0, 4}, ""},
               {1, kNoon, {2, "16 07:00", 0, 0, 0, 5}, "set_wakeup_time 2 16 07:00"},
               {1, kNoon, {1, "20 22:00"}, "set_wakeup_time 3 16 07:00"},
               {1, kNoon, {1, "16 07:00"}, kCleared},
               {1, kNoon, {10, "16 06:00"}, ""},
               {1, kNoon, {16, "16 06:00"}, ""},
               {1, "16 07:00", {0, "16 08:00"}, ""},
               {1, "16 07:00:01", {0, "16 08:00"}, "set_wakeup_time 0 16 08:00"},
               {1, "16 07:00:01", {1, "16 08:00"}, ""},
               {0, kNoon, {0, "16 06:30"}, "set_wakeup_time 0 16 05:30"},
               {0, kNoon, {0, "16 07:30"}, ""},
               {0, kNoon, {1, "20 22:00"}, "set_wakeup_time 3 16 06:00"},
               {0, kNoon, {2, "16 07:00", 0, 0, 0, 5}, "set_wakeup_time 2 16 06:00"},
               {0, "16 06:30", {0, "16 08:00"}, ""},
               {0, "16 07:00:01", {1, "16 08:00"}, ""},
               {2, kNoon, {0, "16 06:30"}, "set_wakeup_time 0 16 06:30"}};
  for (const auto &[mode, now, added, expected] : cases) {
    restart(now + expected);
    standin_set_time_zone("Europe/Berlin");
    standin().clock_mode = mode;
    arm({3, "16 07:00", 0, 0, 0, 4});
    EXPECT_EQ(requests(), mode == 0 ? "set_wakeup_time 3 16 06:00" : "set_wakeup_time 3 16 07:00");
    EXPECT_EQ(micom_ontimer.is_utc, mode == 0);
    set_now(now);
    arm(added);
    EXPECT_EQ(requests(), expected);
    EXPECT_TRUE(micom_ontimer.timer_id != 1 || micom_ontimer.priority == 4);
    EXPECT_EQ(logged().find("Failed"), std::string::npos);
  }
}

// Only an off-timer clears it.
TEST_F(WakeupTime, ThatIsNoLongerAnyTimers_IsLeft_ByAnOnTimerForWhichThereIsNoChoice) {
  const std::tm tm = broken_down("18 07:00");
  add({1, "17 07:00"});
  schedule_micom_ontimer(99, &tm, 0, 0);
  requests();
  arm({0, "17 07:00"});
  EXPECT_EQ(requests(), "");
}

TEST_F(WakeupTime, FollowsTheNextOnTimer_WhenItsTimerIsEvicted) {
  for (int i = 0; i < 80; ++i)
    call("schedule_timer", arguments_of({2, i == 0 ? "15 12:30" : "17 07:00"}));
  requests();
  call("schedule_timer", arguments_of({2, "18 07:00"}));
  EXPECT_EQ(requests(), kCleared + "; set_wakeup_time 2 17 07:00");
  standin_standby(0);
  EXPECT_EQ(requests(), "set_wakeup_time 2 17 07:00");
  EXPECT_EQ(rows("SELECT count(*) FROM dravel WHERE micom_flag = 1"), "1");
}

TEST_F(WakeupTime, IsLeftAlone_ByAnOnTimeWithinTheCurrentMinute) {
  const struct {
    const char *tv, *system, *when, *expected;
  } cases[] = {{"15 12:00:15", "15 11:59:45", kNoon, ""},
               {"15 12:00:40", "15 12:00:30", "15 12:01", "set_wakeup_time 0 15 12:01:10"},
               {kNoon, "15 11:59:01", kNoon, ""}};
  for (const auto &[tv, system, when, expected] : cases) {
    restart(tv);
    set_clocks(tv, system, "");
    arm({0, when, 0, 0, TIME_TYPE_INTERNET});
    EXPECT_EQ(requests(), expected);
  }
}

TEST_F(WakeupTime, FollowsTheNextOnTimer_WhenItsTimerIsCancelled) {
  arm(kTomorrow);
  arm({2, "17 07:00"});
  arm({3, "18 07:00"});
  requests();
  const struct {
    int id;
    std::string expected;
  } cases[] = {
      {3, ""}, {1, kCleared + "; set_wakeup_time 2 17 07:00"}, {2, kCleared + "; " + kCleared}};
  for (const auto &[id, expected] : cases) {
    cancel_dravel_item(find_dravel_item(id));
    EXPECT_EQ(requests(), expected) << id;
  }
  add({0, "14 07:00"}); // it never fires and stands first
  cancel_dravel_item(arm({1, "20 22:00"}));
  dravel_item *first = arm({0, "17 07:00"});
  arm({0, "18 07:00"});
  EXPECT_EQ(requests(), "set_wakeup_time 0 17 07:00");
  cancel_dravel_item(first);
  EXPECT_EQ(requests(), kCleared) << "until the next adjustment";
}

TEST_F(WakeupTime, ReturnsToTheOnTimer_WhoseOffTimerIsCancelled) {
  arm(kTomorrow);
  dravel_item *off = arm({1, "16 07:00"});
  EXPECT_EQ(armed(1), "");
  EXPECT_EQ(requests(), kSetTomorrow + "; " + kCleared);
  cancel_dravel_item(off);
  EXPECT_EQ(requests(), kSetTomorrow);
  cancel_dravel_item(arm({1, "20 07:00"}));
  EXPECT_EQ(armed(1), "16 07:00");
  EXPECT_EQ(pending(ecore_timer_cb), 1);
  cancel_ecore_timer(1);
  cancel_dravel_item(arm({10, "20 07:00"})); // which has taken nothing from it
  EXPECT_EQ(armed(1), "");
}

TEST_F(WakeupTime, LeavesOut_WhatAnOffTimerTakesAway) {
  const char *const wed = "16 07:00"; // a Wednesday
  const new_timer once = kTomorrow, off{1, wed}, on_internet{0, "16 06:00", 0, 0, 1};
  const new_timer off_internet{1, "16 06:00", 0, 0, 1};
  const struct {
    std::vector<new_timer> timers;
    const char *expected;
    bool disarmed; // the first on-timer
    bool tv_known;
  } cases[] = {
      {{once, {1, "16 07:00:01"}}, wed, false, true},
      {{once, off}, "-1", true, true},
      {{off}, "-1", false, true},
      {{once, {1, wed, kWed | kFri}}, "-1", true, true},
      {{once, {1, wed, kThu | kFri}}, wed, false, true},
      {{once, {1, "17 07:00", kWed}}, wed, false, true},
      {{{0, wed, kWed | kThu | kFri}, {1, wed, kWed}, {1, wed, kThu}}, "18 07:00", false, true},
      // A one-shot off-timer flips its weekday, so that a second one gives it back.
      {{{0, wed, kWed | kThu}, off}, "17 07:00", false, true},
      {{{0, wed, kMon}, off}, wed, false, true},
      {{{0, wed, kWed}, off}, "-1", false, true},
      {{{0, wed, kMon}, off, {1, wed, kThu}}, "21 07:00", false, true},
      // Only the weekdays 0 to 31 have a bit.
      {{{0, "20 07:00"}, {1, "20 07:00", kSun}}, "-1", true, true},
      {{{0, wed, 0, 0, 0, 0, 31}, {1, wed, INT_MIN}}, "-1", true, true},
      {{{0, wed, 0, 0, 0, 0, 32}, {1, wed, kSun}}, wed, false, true},
      {{{0, wed, 0, 0, 0, 0, -1}, {1, wed, INT_MIN}}, wed, false, true},
      {{{0, wed, kWed}, off, off}, wed, false, true},
      // Configured times meet on the TV clock; the system clock is an hour behind.
      {{once, off_internet}, "-1", true, true},
      {{on_internet, off}, "-1", true, true},
      // While the TV clock is unknown, its timers take no part.
      {{once, off_internet}, "-1", false, false},
      {{on_internet, off}, wed, false, false}};
  for (const auto &[timers, expected, disarmed, tv_known] : cases) {
    restart(expected + std::string(" ") + std::to_string(timers.back().week_flag));
    set_clocks(kNoon, "15 11:00", kNoon);
    arm(timers[0]);
    for (std::size_t i = 1; i < timers.size(); i++)
      add(timers[i]);
    set_clocks(tv_known ? kNoon : "", "15 11:00", kNoon);
    dravel_item *chosen = nullptr;
    std::tm expire{};
    const int result = get_next_ontimer_not_overlap_with_offtimer(&chosen, &expire);
    EXPECT_EQ(result == 0 ? time_text(expire) : "-1", expected);
    EXPECT_EQ(armed(1).empty(), disarmed);
  }
}

TEST_F(WakeupTime, OfAOneShotTimer_IsMovedByAHoliday) {
  add({0, "16 07:00", 0, 1});
  add({1, "30 22:00"});
  add_period("16 00:00", "20 00:00");
  dravel_item *chosen = nullptr;
  std::tm expire{};
  EXPECT_EQ(get_next_ontimer_not_overlap_with_offtimer(&chosen, &expire), 0);
  EXPECT_EQ(time_text(expire), "21 07:00");
}

TEST_F(WakeupTime, ADuplicate_IsEqualInTypeWeekdaysClockAndTime) {
  const struct {
    new_timer other;
    int result;
  } cases[] = {{{2, "16 07:00", kWed, 1, TIME_TYPE_RTC, 7}, 0},
               {{3, "16 07:00", kWed, 0, TIME_TYPE_RTC}, -1},
               {{2, "16 07:00:01", kWed, 0, TIME_TYPE_RTC}, -1},
               {{2, "16 07:00", kThu, 0, TIME_TYPE_RTC}, -1},
               {{2, "16 07:00", kWed, 0, TIME_TYPE_BROADCAST}, -1}};
  dravel_item *found = nullptr;
  dravel_item unlisted{};
  EXPECT_EQ(find_duplicate_ontimer(nullptr, &found), -1);
  EXPECT_EQ(find_duplicate_ontimer(&unlisted, &found), -1);
  const dravel_item *item = add({2, "16 07:00", kWed, 0, TIME_TYPE_RTC, 5});
  for (const auto &[other, result] : cases) {
    dravel_item *candidate = make(other);
    found = nullptr;
    EXPECT_EQ(find_duplicate_ontimer(candidate, &found), result) << other.when;
    EXPECT_EQ(found, result == 0 ? item : nullptr);
    g_free(candidate);
  }
}

TEST_F(WakeupTime, MarksItsRow_WhenTheSetGoesToSleep) {
  arm(kTomorrow);
  reschedule_all_timers();
  EXPECT_EQ(requests(), kSetTomorrow + "; " + kCleared + "; " + kSetTomorrow);
  standin_ambient_power_off();
  EXPECT_EQ(rows("SELECT micom_flag FROM dravel"), "1");
  EXPECT_EQ(get_kinto_time_updated() + get_wakeup_state(), 0);
  micom_ontimer.timer_id = 0;
  standin_ambient_power_off();
  set_wakeup_state(1);
  set_kinto_time_updated(1);
  standin_standby(0);
  EXPECT_EQ(requests(), "");
  EXPECT_EQ(rows("SELECT micom_flag FROM dravel"), "1");
  EXPECT_EQ(get_kinto_time_updated() + get_wakeup_state(), 0);
}

TEST_F(WakeupTime, ThatIsRefused_StaysInTheRecord_AndIsClearedButForItsType) {
  std::tm tm = broken_down("16 08:00");
  EXPECT_EQ(schedule_micom_ontimer(3, &tm, 255, 0), 0);
  EXPECT_EQ(requests(), "");
  EXPECT_EQ(micom_ontimer.timer_id, 0);
  standin().refused = {"set_wakeup_time", "clear_wakeup_time"};
  arm(kTomorrow);
  arm({1, "20 22:00"});
  EXPECT_NE(logged().find("Failed to schedule micom offtimer"), std::string::npos);
  EXPECT_EQ(time_text(micom_ontimer.ontime), kTomorrow.when);
  EXPECT_EQ(schedule_micom_ontimer(1, &tm, 254, 0), -1);
  EXPECT_EQ(time_text(micom_ontimer.ontime), "16 08:00");
  update_micom_ontimer();
  EXPECT_EQ(rows("SELECT micom_flag FROM dravel"), "0 0");
  disable_micom_ontimer();
  const auto &[timer_id, is_utc, ontime, type, priority] = micom_ontimer;
  EXPECT_EQ(std::tuple(timer_id, is_utc, ontime, type, priority), std::tuple(0, 0, 0U, 254U, -1));
}

TEST_F(Events, AWakeup_DisarmsTheProgrammedTimer_AndWaitsForAnUntrustedClock) {
  const struct {
    int trusted;
    const char *tv, *rearmed;
    int waiting;
  } cases[] = {{1, kNoon, "", 0}, {0, kNoon, "16 07:00", 1}, {0, "", "", 1}};
  for (const bool ambient : {false, true})
    for (const auto &[trusted, tv, rearmed, waiting] : cases) {
      restart(tv);
      arm(kTomorrow);
      set_kinto_time_updated(trusted);
      set_wakeup_state(0);
      set_clocks(tv, kNoon, kNoon);
      standin_state_changed(4, 1);
      EXPECT_EQ(get_wakeup_state(), 0);
      for (int i = 0; i < 2; i++)
        ambient ? standin_state_changed(4, 2) : standin_wakeup(3);
      EXPECT_EQ(armed(1), rearmed);
      EXPECT_EQ(pending(adjust_wait_timer_cb), waiting);
      EXPECT_EQ(get_wakeup_state(), 1);
      set_now(kNoon);
      EXPECT_FALSE(waiting == 1 && fire(adjust_wait_timer_cb)); // and then the clock is trusted
      EXPECT_EQ(get_kinto_time_updated(), 1);
      EXPECT_FALSE(fs::exists(kFinishMarkerPath));
      EXPECT_EQ(armed(1), waiting == 1 ? "16 07:00" : "");
    }
}

TEST_F(Events, Subscriptions_StopAtTheFirstRefusal_AndAreMadeOnce) {
  const std::span names = std::span(kSubscriptions).first(5);
  int before = 0;
  for (const std::string refused : names) {
    restart(refused);
    logged();
    fini_power_state_handler();
    EXPECT_EQ(logged(), "");
    unregister_ambient_mode_cb();
    ambient_poweroff_received = false;
    standin().refused = {"device_power_subscribe_" + refused, "device_power_unsubscribe_poweroff"};
    EXPECT_EQ(init_power_state_handler(), before < 4 ? -1 : 0);
    register_ambient_mode_cb();
    register_ambient_mode_cb();
    EXPECT_EQ(ambient_poweroff_received, before < 4);
    int subscribed = 0;
    for (const char *name : names)
      subscribed += standin_subscribers(name);
    EXPECT_EQ(subscribed, before < 4 ? before + 1 : 4);
    fini_power_state_handler();
    unregister_ambient_mode_cb();
    for (const char *name : names)
      EXPECT_EQ(standin_subscribers(name), name == names[0] && before > 0) << name;
    before++;
  }
}

TEST_F(Events, TheTimeSignal_IsLeftOnce_AndDoneWithoutWhenItIsRefused) {
  for (const char *refused : {"Unsubscribe", "DestroySignalSubscriber"}) { // either is enough
    standin().refused = {refused, "CreateSignalSubscriber"};
    unsubscribe_kinto_signal_cb();
    EXPECT_EQ(standin_subscribers("signal"), 0) << refused;
    unsubscribe_kinto_signal_cb();
    subscribe_kinto_signal_cb();
    standin().refused.clear();
    subscribe_kinto_signal_cb();
  }
}

TEST_F(Events, ASwitchToAutomatic_RetriesUntilTheTimeIsUpdated) {
  arm({1, "18 14:00"});
  for (const int mode : {CLOCK_MODE_AUTO, CLOCK_MODE_AUTO, CLOCK_MODE_MANUAL, CLOCK_MODE_AUTO}) {
    standin_change_clock_mode(mode);
    EXPECT_EQ(pending(retry_adjust_all_timers), mode == CLOCK_MODE_AUTO);
  }
  EXPECT_TRUE(fire(retry_adjust_all_timers));
  standin_middleware_signal(SIGNAL_SYSTEM_TIME_UPDATED);
  EXPECT_EQ(armed(1), "18 14:00");
  EXPECT_FALSE(fire(retry_adjust_all_timers));
  EXPECT_EQ(armed(1), "15 14:00");

  set_now("15 16:00");
  standin_change_clock_mode(CLOCK_MODE_AUTO); // adjusts at once
  EXPECT_EQ(pending(retry_adjust_all_timers), 0);
  EXPECT_EQ(armed(1), "16 14:00");
}

TEST_F(Events, ATimeUpdate_AnswersTheWait_InTheStatesThatCount) {
  const struct {
    int trusted, state, ambient;
    bool answers;
  } cases[] = {{0, 0, 0, true},  {0, 2, 0, true},  {0, 4, 2, true},
               {0, 4, 1, false}, {0, 1, 2, false}, {1, 0, 0, false}};
  for (const auto &[trusted, state, ambient, answers] : cases) {
    restart(std::to_string(trusted) + std::to_string(state) + std::to_string(ambient));
    add(kTomorrow);
    set_kinto_time_updated(0);
    standin_wakeup(3);
    cancel_ecore_timer(1);
    standin().power_state = state;
    standin().ambient_mode = ambient;
    set_kinto_time_updated(trusted);
    for (const int other : {1, 0}) {
      standin_middleware_signal(SIGNAL_SYSTEM_TIME_UPDATED + other);
      EXPECT_EQ(armed(1), answers && other == 0 ? "16 07:00" : "");
    }
    EXPECT_EQ(pending(adjust_wait_timer_cb), answers ? 0 : 1);
    EXPECT_EQ(fs::exists(kFinishMarkerPath), answers);
    EXPECT_EQ(get_auto_clock_mode_time_update(), 0); // in manual mode
  }
}

TEST_F(Events, TwoTimeUpdatesWithoutAClock_StartTwoPolls_AndBothEnd) {
  add(kTomorrow);
  set_kinto_time_updated(0);
  set_clocks("", kNoon, kNoon);
  auto_time_set();
  auto_time_set();
  EXPECT_EQ(waits(wait_cur_time_cb), (std::vector{0.1, 0.1}));
  EXPECT_TRUE(fire(wait_cur_time_cb));
  set_now(kNoon);
  EXPECT_FALSE(fire(wait_cur_time_cb));
  EXPECT_FALSE(fire(wait_cur_time_cb));
  EXPECT_EQ(get_kinto_time_updated(), 1);
  EXPECT_EQ(armed(1), "16 07:00");
}

// A second one begins from its full length.
TEST_F(Events, Waits_HaveTheirLengths_AndASecondReplacesTheFirst) {
  const struct {
    void (*start)();
    Ecore_Task_Cb callback;
    double seconds;
  } cases[] = {{init_dravel, wait_dravel_finish_cb, 90},
               {[] { standin_wakeup(3); }, adjust_wait_timer_cb, 60},
               {[] { standin_change_clock_mode(CLOCK_MODE_AUTO); }, retry_adjust_all_timers, 0.1}};
  set_clocks("", kNoon, kNoon);
  set_kinto_time_updated(0);
  for (const auto &[start, callback, seconds] : cases)
    for (int times = 0; times < 2; ++times) {
      start();
      EXPECT_EQ(waits(callback), std::vector{seconds});
      pass(0.05);
    }
}

TEST_F(Events, APowerOff_DistrustsTheClock_AndResetsTheStoreByItsOption) {
  for (const int option : {-1, 0, 1, 11, 12, 13, 14, 15}) {
    restart(std::to_string(option));
    const bool resets = option == 13 || option == 14;
    logged();
    standin_power_off(option);
    EXPECT_EQ(logged(), "power_poweroff_cb > poweroff option: " + std::to_string(option) + "\n" +
                            (resets ? "power_poweroff_cb > reset dravel db\n"
                                      "reset_dravel_db > success delete db file\n"
                                      "reset_dravel_db > success delete wakeup db file\n"
                                    : ""));
    EXPECT_EQ(fs::exists(kDravelDbPath) + fs::exists(kWakeupDbPath), resets ? 0 : 2);
    reset_dravel_db();
    EXPECT_EQ(logged().empty(), resets);
    EXPECT_EQ(get_kinto_time_updated(), 0);
  }
}

// Whether the retry goes on, and the flag of a time update stays.
TEST_F(Events, ASwitchToAnotherMode_EndsTheRetry_AndOnlyManualForgetsTheUpdate) {
  const struct {
    int mode;
    bool readable;
    int retries, updated;
  } cases[] = {{1, true, 0, 0}, {2, true, 0, 1}, {1, false, 1, 1}, {-1, true, 0, 1}};
  for (const auto &[mode, readable, retries, updated] : cases) {
    restart(std::to_string(mode));
    standin_change_clock_mode(CLOCK_MODE_AUTO);
    set_auto_clock_mode_time_update(1);
    if (!readable)
      standin().refused = {"settings_get_int"};
    arm({1, "18 14:00"});
    standin_change_clock_mode(mode);
    EXPECT_EQ(pending(retry_adjust_all_timers), retries);
    EXPECT_EQ(get_auto_clock_mode_time_update(), updated);
    EXPECT_EQ(armed(1), "18 14:00");
  }
}

// Only a marker's existence means something.
TEST_F(Events, Markers_TellARelaunch_AndEndTheWait) {
  EXPECT_TRUE(fs::exists(kInitMarkerPath));
  EXPECT_EQ(get_relaunch_state(), 0);
  run_idle_steps();
  EXPECT_EQ(pending(wait_dravel_finish_cb), 0);
  EXPECT_EQ(fs::status(kFinishMarkerPath).permissions(), fs::perms(0644));
  EXPECT_EQ(fs::file_size(kInitMarkerPath) + fs::file_size(kFinishMarkerPath), 0U);
  std::ofstream(kFinishMarkerPath) << "kept";
  create_dravel_finish_file();
  EXPECT_EQ(fs::file_size(kFinishMarkerPath), 4U);

  fs::remove(kFinishMarkerPath);
  set_clocks("", kNoon, kNoon);
  set_kinto_time_updated(1);
  init_dravel();
  EXPECT_EQ(get_relaunch_state(), 1);
  EXPECT_EQ(get_kinto_time_updated(), 0);
  EXPECT_FALSE(fire(wait_dravel_finish_cb));
  EXPECT_TRUE(fs::exists(kFinishMarkerPath));

  fs::remove(kInitMarkerPath);
  fs::create_symlink("/no/where", kInitMarkerPath);
  set_relaunch_state(0);
  logged();
  init_dravel();
  EXPECT_EQ(logged(), "init_dravel > /tmp/dravel_init create failed\n");
  EXPECT_EQ(get_relaunch_state(), 0);
}

// What the daemon finds when it starts: a past one-shot timer goes, holidays count, and all events
// of the set arrive. While the clock is not known, nothing is armed and the wait goes on.
TEST_F(Events, AStart_LoadsTimersAndHolidays_AndSubscribes) {
  for (const bool known : {true, false}) {
    restart(known ? "known" : "unknown");
    add({3, "15 11:00"});
    add({4, "17 07:00"});
    add({4, "01 07:00", kWed | kThu, 1});
    add_period("16 00:00", "16 00:00");
    start_again(known ? kNoon : "");
    run_idle_steps();
    EXPECT_EQ(find_dravel_item(1) == nullptr, known);
    EXPECT_EQ(get_kinto_time_updated(), known ? 1 : 0);
    EXPECT_EQ(get_wakeup_state(), 1);
    EXPECT_EQ(armed(2) + armed(3), known ? "17 07:0017 07:00" : "");
    EXPECT_EQ(fs::exists(kFinishMarkerPath), known);
    EXPECT_EQ(pending(wait_dravel_finish_cb), known ? 0 : 1);
    for (const char *name : kSubscriptions)
      EXPECT_EQ(standin_subscribers(name), 1) << name;
    for (const char *name : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
      EXPECT_EQ(standin_subscribers(name), 1) << name;
  }
}
