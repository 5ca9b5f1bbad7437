// Rules that the simulated nights do not reach or do not look at.
#include "event.h"

#include <device_power.h>
#include <gtest/gtest.h>
#include <linux/cec.h>

#include <algorithm>
#include <cerrno>
#include <vector>

static constexpr std::int64_t kNow = 1'800'000'000;
static constexpr std::int64_t kOneDay = 86400;

namespace {

// A machine that is awake with its daemon armed; its device takes every alarm.
struct awake_machine {
  explicit awake_machine(const settings &set = {}, bool has_cec = true, bool rtc_valid = true) {
    event::started start;
    start.rtc_valid = rtc_valid;
    start.set = set;
    start.device.clock = now.utc;
    send(start);
    send(event::tv_reachable{has_cec});
    if (has_cec)
      send(event::tv_asks_source{}); // it speaks
    send(event::use_changed{0, 0, 0, kSleepBit | kShutdownBit | kHibernateBit, 5000, true});
    send(event::armed{});
    send(event::ntp{});
    given.clear();
  }

  void send(const event::any &what) {
    const auto [next, list] = decide(m, what, now);
    m = next;
    for (const order::any &one : list) {
      given.push_back(one);
      std::visit([this](const auto &o) { carry_out(o); }, one);
    }
  }
  void pass(std::int64_t seconds) {
    now.utc += seconds;
    now.boot += seconds * kSecondMs;
  }
  // The next process of the same boot, with the record of this one.
  event::started next_run() const {
    event::started again;
    again.kept = m;
    again.has_kept = again.same_boot = true;
    return again;
  }
  // Sleeps until then, and wakes.
  void sleep(std::int64_t seconds) {
    send(event::sleep_begins{});
    pass(seconds);
    now.slept += seconds * kSecondMs;
    ++now.sleeps;
    given.clear();
    send(event::sleep_ends{});
  }
  // An off-timer, whose hooks have run.
  void off_time() {
    send(event::screen_wanted{false, event::asker::kDaemon});
    send(event::job_began{1, unit::kOff});
    send(event::job_ended{1});
  }
  bool has(problem part) const { return m.problems[static_cast<std::size_t>(part)] != 0; }
  template <typename Order> long count() const {
    return std::ranges::count_if(
        given, [](const order::any &one) { return std::holds_alternative<Order>(one); });
  }
  std::vector<order::saying> said() const {
    std::vector<order::saying> found;
    for (const order::any &one : given)
      if (const auto *same = std::get_if<order::say>(&one))
        found.push_back(same->what);
    return found;
  }
  // The value of the last callback of this kind; -1: none.
  std::int32_t told(delivery what) const {
    std::int32_t value = -1;
    for (const order::any &one : given)
      if (const auto *same = std::get_if<order::deliver>(&one);
          same != nullptr && same->callback == what)
        value = same->value;
    return value;
  }
  template <typename Order> Order last() const {
    Order found{};
    for (const order::any &one : given)
      if (const auto *same = std::get_if<Order>(&one))
        found = *same;
    return found;
  }

  void carry_out(const order::read_alarm &) {
    send(event::alarm_read{{read_error, is_gone, false, now.utc, alarm}});
  }
  void carry_out(const order::write_alarm &o) {
    const int error = o.count - now.utc > range ? EINVAL : refusal;
    alarm = error == 0 ? o.count : error == EBUSY ? alarm : 0;
    send(event::alarm_written{o.count, error});
  }
  void carry_out(const order::switch_off_alarm &) {
    alarm = refusal == EBUSY ? alarm : 0;
    send(event::alarm_written{0, refusal == EBUSY ? EBUSY : 0});
  }
  void carry_out(const order::ask_late &) { send(late); }
  void carry_out(const order::ask_zone &) { send(event::zone_changed{next_transition, false}); }
  void carry_out(const order::deliver &o) { send(event::returned{o.callback}); }
  template <typename Order> void carry_out(const Order &) {}

  machine m;
  moment now{kNow, 3600 * kSecondMs, 0, 0, 0};
  std::vector<order::any> given;
  std::int64_t alarm = 0, range = kNever;
  bool is_gone = false; // the device
  int refusal = 0, read_error = 0;
  std::int64_t next_transition = 0;
  event::late_timers late;
};

} // namespace

TEST(Decide, ATimeThatComesTwice_IsTheFirstThatIsAhead) {
  for (const std::int64_t first : {kNow + 60, kNow - 60, kNow}) {
    awake_machine run;
    run.send(event::program{0, first, first + 3600});
    EXPECT_EQ(run.m.alarm.wanted.on_time, first > kNow ? first : first + 3600);
  }
}

TEST(Decide, AMissedTimer_IsMadeUpFor_UnlessALaterOneUndoesIt) {
  const struct {
    std::vector<late_timer> timers; // in the last minutes; our alarm has woken the machine
    long on, off, units;
  } rows[] = {
      {{{1, 0, 0}}, 1, 0, 2},
      {{{1, 2, 0}}, 0, 0, 1},
      {{{1, 4, 0}}, 0, 0, 0},
      {{{1, 0, 0}, {2, 1, 0}}, 0, 1, 1},
      {{{1, 1, 0}, {2, 0, 0}, {3, 3, 0}}, 1, 0, 3},
  };
  for (const auto &row : rows) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    std::ranges::copy(row.timers, run.late.timers.begin());
    run.late.count = static_cast<std::uint8_t>(row.timers.size());
    run.sleep(990);
    EXPECT_EQ(run.m.woken.by, cause::kTimer);
    EXPECT_EQ(run.count<order::tv_on>(), row.on);
    EXPECT_EQ(run.count<order::tv_off>(), row.off);
    EXPECT_EQ(run.count<order::start_unit>(), row.units) << row.timers.size();
    EXPECT_EQ(std::ranges::count(run.said(), order::saying::kLate), row.units - row.on - row.off);
  }
}

TEST(Decide, AMissedOffTimer_TurnsOffForAUser_OnlyOfATimeAtWhichTheMachineWasAwake) {
  for (const std::int64_t awake :
       {0, 99, 100}) { // seconds since the wake-up; the timer is 100 late
    awake_machine run;
    run.sleep(100);
    run.pass(awake);
    run.late = {{late_timer{1, 1, kNow + awake}}, 1};
    run.send(event::armed{});
    EXPECT_EQ(run.count<order::tv_off>(), awake == 100 ? 1 : 0) << awake;
  }
}

TEST(Decide, AScreen_IsBelievedOnlyWhatIsSaid) {
  const struct {
    bool has_cec, on;
    event::any said;
    screen_state believed;
  } rows[] = {
      {true, true, event::tv_silent{}, screen_state::kUnknown},
      {true, true, event::tv_reports{event::tv_state::kTurningOn}, screen_state::kUnknown},
      {true, true, event::tv_reports{event::tv_state::kOn}, screen_state::kOn},
      {true, true, event::tv_reports{event::tv_state::kOff}, screen_state::kUnknown},
      {true, false, event::tv_denies{CEC_MSG_STANDBY}, screen_state::kUnknown},
      {true, false, event::tv_reports{event::tv_state::kTurningOff}, screen_state::kOff},
      {true, false, event::tv_standby{}, screen_state::kOff},
      {false, true, event::tv_silent{}, screen_state::kOn},
      {false, false, event::tv_silent{}, screen_state::kOff},
      {false, true, event::unit_refused{unit::kOn, EIO}, screen_state::kUnknown},
      {false, true, event::unit_refused{unit::kWakeup, EIO}, screen_state::kOn},
  };
  for (const auto &row : rows) {
    awake_machine run({}, row.has_cec);
    run.send(event::screen_wanted{row.on, event::asker::kBus});
    run.send(row.said);
    EXPECT_EQ(run.m.screen.believed, row.believed) << &row - rows;
  }
}

// What was believed before a sleep is no switch of its remote, nor is a message from before it.
TEST(Decide, ATelevisionsRemote_IsFollowed_WhenItHasSwitchedItOffSinceTheWakeUp) {
  using event::tv_state;
  const event::tv_reports on{tv_state::kOn}, off{tv_state::kOff};
  const struct {
    std::vector<event::any> said;
    std::int64_t after; // seconds from the wake-up
    bool sleeps;
  } rows[] = {
      {{off}, 5, false},
      {{on, off}, 5, true},
      {{event::tv_standby{}}, 5, true},
      {{event::tv_standby{}}, 1, false},
      {{event::tv_silent{}, event::tv_standby{}}, 5, true},
      {{event::screen_wanted{false, event::asker::kBus}, off, event::tv_standby{}}, 5, false},
      {{event::screen_wanted{true, event::asker::kBus}, event::tv_standby{}}, 5, false},
  };
  for (const auto &row : rows) {
    awake_machine run({.follow_screen = true});
    run.send(on);
    run.sleep(1000);
    run.pass(row.after);
    for (const event::any &one : row.said)
      run.send(one);
    EXPECT_EQ(run.m.sleep.wish == sleep_wish::kScreen, row.sleeps) << &row - rows;
  }
}

TEST(Decide, AWakeUp_TellsItsReasonOnce_AndAStepOfTheClockOnTheWayDown) {
  for (const bool steps : {false, true}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    if (steps) {
      run.send(event::sleep_begins{});
      run.send(event::clock_stepped{});
    }
    run.sleep(985);
    EXPECT_EQ(run.told(delivery::kWakeup), 2);
    EXPECT_EQ(run.told(delivery::kTimeSet), steps ? 0 : -1);
    run.send(event::sleep_begins{});
    run.send(event::sleep_ends{}); // it has failed
    EXPECT_EQ(run.told(delivery::kWakeup), 0);
    run.send(event::tv_reports{event::tv_state::kOn});
    EXPECT_EQ(run.told(delivery::kState), DEVICE_POWER_STATE_ON);
    run.send(event::tv_reports{event::tv_state::kOff});
    EXPECT_EQ(run.told(delivery::kState), DEVICE_POWER_STATE_SLEEPING);
  }
}

TEST(Decide, ASleepWhoseCountComesLater_IsOne) {
  awake_machine run;
  run.pass(100);
  run.now.slept += 100 * kSecondMs;
  for (int times = 0; times < 2; ++times) {
    run.send(event::ambient{});
    run.pass(1);
    ++run.now.sleeps;
  }
  EXPECT_EQ(run.count<order::take_inhibitor>(), 1);
}

// A monitor never says anything: that is no problem of a television.
TEST(Decide, AScreenThatStaysSilent_GetsThePairThreeTimes_AndATelevisionOneLine) {
  awake_machine run;
  for (const bool speaks : {false, true}) {
    run.given.clear();
    run.m.screen.has_spoken = speaks;
    run.send(event::screen_wanted{true, event::asker::kBus});
    for (int second = 0; second < 20; ++second) {
      run.pass(1);
      run.send(event::due{});
      run.send(event::tv_silent{});
    }
    EXPECT_EQ(run.count<order::tv_on>(), 3);
    EXPECT_EQ(run.m.screen.believed, screen_state::kUnknown);
    EXPECT_EQ(run.has(problem::kTelevision), speaks);
    EXPECT_EQ(run.last<order::say>().number, 0);
  }
  run.given.clear();
  run.send(event::tv_asks_source{});
  EXPECT_EQ(run.count<order::tv_answer>(), 1);
  EXPECT_EQ(run.count<order::tv_ask>(), 1) << "its remote may have turned it on";
  run.send(event::screen_wanted{false, event::asker::kBus});
  run.send(event::tv_asks_source{});
  EXPECT_EQ(run.count<order::tv_answer>(), 1);
}

TEST(Decide, ATelevisionThatIsLate_IsAskedOn_AndTakenAtItsWord) {
  const struct {
    bool on;
    std::int64_t after, away; // seconds until it follows; in the last ones nobody has asked
    long pairs;               // sent then
  } rows[] = {
      {true, 40, 0, 1}, {true, 300, 0, 0}, {true, 40, 85, 0}, {false, 40, 0, 0}, {false, 300, 0, 0},
  };
  for (const auto &row : rows) {
    awake_machine run({.follow_screen = true});
    const event::tv_reports on{event::tv_state::kOn}, off{event::tv_state::kOff};
    run.send(event::screen_wanted{row.on, event::asker::kBus});
    for (std::int64_t second = 0; second < row.after; ++second) {
      run.send(row.on ? off : on);
      run.pass(1);
      run.send(event::due{});
    }
    run.pass(row.away);
    run.send(event::due{});
    EXPECT_EQ(run.count<order::tv_ask>(), row.after == 40 ? 14 + 5 : 14 + 20);
    EXPECT_TRUE(run.has(problem::kTelevision));
    EXPECT_EQ(run.last<order::say>().number, row.on ? 1 : 0) << "it has answered";
    run.given.clear();
    run.send(row.on ? on : off);
    EXPECT_EQ(run.count<order::tv_on>(), row.pairs) << &row - rows;
    EXPECT_FALSE(run.has(problem::kTelevision));
    EXPECT_EQ(run.m.sleep.wish, sleep_wish::kNone) << "no remote has turned it off";
    EXPECT_EQ(due_at(run.m, due_kind::kScreenStep), kNever);
  }
}

TEST(Decide, ATelevisionThatRefusesTheQuestion_StillGetsThePairThreeTimes) {
  for (const bool for_good : {true, false}) {
    awake_machine run;
    run.m.screen.has_spoken = false;
    run.send(event::screen_wanted{true, event::asker::kBus});
    for (int second = 0; second < 20; ++second) {
      run.pass(1);
      run.send(event::due{});
      run.send(event::tv_denies{CEC_MSG_GIVE_DEVICE_POWER_STATUS, for_good});
    }
    EXPECT_EQ(run.count<order::tv_on>(), 3);
    EXPECT_EQ(run.count<order::tv_ask>(), for_good ? 1 : 15);
    EXPECT_EQ(run.has(problem::kTelevision), !for_good);
  }
}

TEST(Decide, AnAdapterThatComesLate_GetsTheOrder_UnlessItIsOld) {
  const struct {
    std::int64_t after;
    bool has_said, gets_it;
  } rows[] = {{60, false, true}, {121, false, false}, {60, true, false}};
  for (const auto &row : rows) {
    awake_machine run({}, row.has_said);
    run.send(event::screen_wanted{true, event::asker::kDaemon});
    run.send(event::tv_reports{event::tv_state::kOn});
    run.send(event::tv_reachable{false});
    EXPECT_EQ(run.m.screen.believed, row.has_said ? screen_state::kUnknown : screen_state::kOn);
    run.given.clear();
    run.pass(row.after);
    run.send(event::tv_reachable{true});
    EXPECT_EQ(run.count<order::tv_on>(), row.gets_it ? 1 : 0) << &row - rows;
    EXPECT_EQ(run.count<order::tv_ask>(), row.gets_it ? 0 : 1);
    EXPECT_EQ(run.m.screen.pending, row.gets_it);
  }
}

TEST(Decide, ATelevisionThatIsSentOff_MayBeSilent_ButNotStayOn) {
  const event::any said[] = {event::tv_reports{event::tv_state::kOn}, event::tv_silent{}};
  awake_machine run;
  for (const event::any &answer : said) {
    const bool is_silent = &answer != said;
    run.given.clear();
    run.send(event::screen_wanted{false, event::asker::kBus});
    for (int second = 0; second < 20; ++second) {
      run.pass(1);
      run.send(event::due{});
      run.send(answer);
    }
    EXPECT_EQ(run.has(problem::kTelevision), !is_silent);
    EXPECT_EQ(run.last<order::say>().what == order::saying::kTelevisionStays, !is_silent);
  }
}

TEST(Decide, ARefusedInhibitor_IsTriedForEveryMinute_AndAfterASleep) {
  awake_machine run;
  for (const std::int64_t seconds : {1, 10, 60, 60}) {
    run.send(event::refused{problem::kInhibitor, EIO});
    EXPECT_EQ(due_at(run.m, due_kind::kInhibitAgain), run.now.boot + seconds * kSecondMs);
    run.pass(seconds);
    run.send(event::due{});
  }
  EXPECT_EQ(run.count<order::take_inhibitor>(), 4);
  run.send(event::works{problem::kInhibitor});
  run.send(event::refused{problem::kInhibitor, EIO});
  EXPECT_EQ(due_at(run.m, due_kind::kInhibitAgain), run.now.boot + kSecondMs);
  run.now.slept += 100 * kSecondMs; // without any announcement
  run.pass(100);
  run.send(event::ambient{});
  EXPECT_EQ(run.count<order::take_inhibitor>(), 5);
}

// The wake-up may show before logind says so.
TEST(Decide, ADelayRefusedWhileASleepEnds_IsNoProblem_AndTakenAfterIt) {
  awake_machine run;
  run.sleep(100);
  run.given.clear();
  run.send(event::refused{problem::kInhibitor, EINPROGRESS});
  EXPECT_EQ(run.count<order::say>(), 0);
  run.send(event::sleep_ends{});
  EXPECT_EQ(run.count<order::take_inhibitor>(), 1);
}

TEST(Decide, AMachineThatMustNotBootForHops_IsNotWoken) {
  for (const bool hop_boots : {true, false}) {
    awake_machine run({.hop_boots = hop_boots});
    run.m.alarm.range = 23LL * 3600;
    run.send(event::program{0, kNow + 3 * kOneDay, 0});
    EXPECT_EQ(run.m.alarm.stands.owner, alarm_owner::kHop);
    run.send(event::preparing{false, true});
    EXPECT_EQ(run.alarm != 0, hop_boots);
    EXPECT_EQ(run.count<order::release_inhibitor>(), 1);
    EXPECT_EQ(run.last<order::say>().what == order::saying::kHopWillNotBoot, !hop_boots);
  }
}

TEST(Decide, AnOnTimeBeyondTheRange_IsReachedByTheLongestHopThatTheDeviceTakes) {
  const struct {
    std::int64_t range, hop; // seconds; 0: no alarm
  } rows[] = {{30 * kOneDay, 27 * kOneDay}, {kOneDay, 23LL * 3600}, {22LL * 3600, 0}};
  for (const auto &[range, hop] : rows) {
    awake_machine run;
    run.range = range;
    run.send(event::program{0, kNow + 40 * kOneDay, 0});
    EXPECT_EQ(run.alarm, hop == 0 ? 0 : kNow + hop);
    EXPECT_EQ(run.m.alarm.range, hop);
    EXPECT_EQ(run.has(problem::kAlarmRefused), hop == 0);
  }
}

TEST(Decide, ARefusedAlarm_IsTriedAgain_AtIdleAndUntilTheStandbyIsOver) {
  awake_machine run;
  run.alarm = kNow + 5000;
  run.refusal = EIO; // which switches off what stood
  run.send(event::program{0, kNow + 1000, 0});
  EXPECT_TRUE(run.m.wants_idle);
  run.send(event::idle{});
  EXPECT_EQ(run.count<order::write_alarm>(), 4) << "ours, and the other one";
  run.send(event::sleep_begins{});
  for (int half = 0; half < 8; ++half) {
    EXPECT_EQ(run.count<order::release_inhibitor>(), 0);
    run.now.boot += kSecondMs / 2;
    run.send(event::due{});
  }
  EXPECT_EQ(run.count<order::release_inhibitor>(), 1);
  EXPECT_GE(run.count<order::write_alarm>(), 9);
  EXPECT_EQ(run.m.alarm.foreign.count, kNow + 5000);
}

TEST(Decide, WhoeverSwitchesOurAlarmOff_DoesNotWantTheLaterOneEither) {
  awake_machine run;
  run.alarm = kNow + 5000;
  run.send(event::program{0, kNow + 1000, 0});
  run.alarm = 0;
  run.send(event::clock_stepped{});
  EXPECT_EQ(run.alarm, kNow + 985);
  EXPECT_EQ(run.m.alarm.foreign.owner, alarm_owner::kNone);
}

TEST(Decide, AMachineThatNobodyKnownWakesAtOnce_AgainAndAgain_SleepsALittleLess) {
  for (const bool by_user : {true, false}) {
    awake_machine run;
    for (int times = 1; times <= 4; ++times) {
      run.sleep(59);
      EXPECT_EQ(run.has(problem::kWakesLoop), times == 4);
      EXPECT_EQ(run.m.power.pause_until, times == 4 ? run.now.boot + 900 * kSecondMs : 0);
    }
    if (by_user)
      run.send(event::input{run.now.boot});
    else
      run.sleep(60);
    EXPECT_FALSE(run.has(problem::kWakesLoop));
    EXPECT_EQ(run.m.power.pause_until, 0);
  }
}

TEST(Decide, ATest_IsRefused_WhenSomethingIsInTheWay) {
  const struct {
    std::int64_t seconds, on_time, foreign;
    std::uint8_t blocked;
    int error;
  } rows[] = {
      {19, 0, 0, 0, ERANGE},
      {3601, 0, 0, 0, ERANGE},
      {60, kNow + 179, 0, 0, EBUSY},
      {60, 0, kNow + 179, 0, EBUSY},
      {60, 0, 0, kIdleBit, EBUSY},
      {60, kNow + 180, kNow + 180, 0, 0},
      {20, 0, 0, 0, 0},
  };
  for (const auto &row : rows) {
    awake_machine run;
    run.alarm = row.foreign;
    run.send(event::program{0, row.on_time, 0});
    run.send(event::use_changed{0, 0, row.blocked, kSleepBit, 5000, false});
    run.send(event::test_wake{7, row.seconds});
    EXPECT_EQ(run.last<order::answer>().error, row.error) << &row - rows;
    EXPECT_EQ(run.m.test.running, row.error == 0);
    run.send(event::test_wake{8, row.seconds});
    EXPECT_EQ(run.last<order::answer>().error, row.error == 0 ? EALREADY : row.error);
  }
}

TEST(Decide, ATestWhoseAlarmTheDeviceDoesNotTake_DoesNotSleep) {
  awake_machine run;
  run.send(event::program{0, kNow + 5000, 0});
  run.refusal = EBUSY; // the alarm of the timer still stands
  run.send(event::test_wake{7, 100});
  run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
  EXPECT_EQ(run.count<order::sleep>(), 0);
  EXPECT_EQ(run.last<order::answer>().error, EBUSY);
}

TEST(Decide, TheTransition_IsToldAtItsSecond_AndTheNextIsAskedFor) {
  awake_machine run;
  run.now.utc_ms = 400;
  run.next_transition = kNow + 1000;
  run.send(event::zone_changed{kNow + 5, true});
  EXPECT_EQ(run.last<order::deliver>().callback, delivery::kZone);
  EXPECT_EQ(due_at(run.m, due_kind::kTransition), run.now.boot + 4600);
  run.now.utc_ms = 0;
  run.now.boot -= 400;
  run.pass(5);
  run.late = {{late_timer{1, 1, kNow + 5}}, 1}; // an off-timer of that second
  run.send(event::due{});
  EXPECT_EQ(run.last<order::ask_late>().from, kNow + 4);
  EXPECT_EQ(run.last<order::start_unit>().name, unit::kOff);
  EXPECT_EQ(run.last<order::deliver>().callback, delivery::kTimeSet);
  EXPECT_EQ(due_at(run.m, due_kind::kTransition), run.now.boot + 995 * kSecondMs);
}

// A hop, which passes in the second of another event.
TEST(Decide, AnAlarmThatPasses_IsSetAgain_WhateverEventComesFirst) {
  awake_machine run;
  run.m.alarm.range = kOneDay;
  run.send(event::program{0, kNow + 3 * kOneDay, 0});
  run.pass(kOneDay + 1);
  run.send(event::ambient{});
  EXPECT_EQ(run.alarm, kNow + 2 * kOneDay + 1);
}

TEST(Decide, AnAlarmThatTheFirmwareSwitchesOff_DoesNotTakeTheForeignOneWithIt) {
  awake_machine run;
  run.alarm = kNow + 5000;
  run.send(event::program{0, kNow + 1000, 0});
  event::started boot;
  boot.kept = run.m;
  boot.has_kept = boot.rtc_valid = true;
  run.pass(100);
  boot.device.clock = run.now.utc;
  run.alarm = 0;
  run.send(boot);
  run.send(event::unprogram{});
  EXPECT_EQ(run.m.alarm.wanted.on_time, kNow + 1000) << "the daemon does not know yet";
  run.send(event::armed{});
  run.send(event::unprogram{});
  run.send(event::idle{});
  EXPECT_EQ(run.alarm, kNow + 5000);
}

TEST(Decide, ADeviceThatIsNotUsedAnyLonger_KeepsWhatIsNotOurs) {
  awake_machine run;
  run.alarm = kNow + 5000;
  run.send(event::program{0, kNow + 1000, 0});
  EXPECT_EQ(run.alarm, kNow + 985);
  run.send(event::device_leaves{});
  EXPECT_EQ(run.alarm, kNow + 5000);
  run.alarm = 0; // of the new one
  run.send(event::configured{});
  EXPECT_EQ(run.alarm, kNow + 985);
  run.send(event::unprogram{});
  run.send(event::idle{});
  EXPECT_EQ(run.alarm, 0);
}

TEST(Decide, AMonitorBehindAnAdapter_DoesNotDelayTheSleep_AndComesBackWithItsUser) {
  awake_machine run;
  run.m.screen.has_spoken = false;
  run.off_time();
  run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
  EXPECT_EQ(run.count<order::sleep>(), 1);
  run.sleep(100);
  run.send(event::input{});
  EXPECT_EQ(run.count<order::tv_on>(), 1);
  EXPECT_EQ(run.last<order::start_unit>().name, unit::kOn);
}

TEST(Decide, ASleepOfSomebodyElse_LeavesTimeToComeBackFromTheDisk_WhenItMay) {
  for (const off_action off : {off_action::kSuspend, off_action::kHibernate})
    for (const std::uint8_t can : {kSleepBit, kHibernateBit}) {
      awake_machine run({.off = off});
      run.send(event::use_changed{0, 0, 0, can, 5000, false});
      run.send(event::program{0, kNow + 1000, 0});
      const bool hibernates = off == off_action::kHibernate && can == kHibernateBit;
      EXPECT_EQ(run.alarm, kNow + (hibernates ? 910 : 985));
      run.send(event::sleep_begins{});
      const std::int64_t before_a_sleep = kNow + (can == kHibernateBit ? 910 : 985);
      EXPECT_EQ(run.alarm, before_a_sleep);
      run.now.slept += 100 * kSecondMs;
      run.pass(100);
      run.send(event::ambient{});
      EXPECT_EQ(run.alarm, before_a_sleep) << "it may be suspended only until it hibernates";
      run.send(event::sleep_ends{});
      EXPECT_EQ(run.alarm, kNow + (hibernates ? 910 : 985));
      EXPECT_EQ(run.m.sleep.last_method == off_action::kHibernate, hibernates);
    }
}

TEST(Decide, ATestThatTheClockStepsOver_StillLeavesTheAlarmOfTheTimer) {
  awake_machine run;
  run.send(event::program{0, kNow + 5000, 0});
  run.send(event::test_wake{7, 100});
  EXPECT_EQ(run.alarm, kNow + 100);
  run.now.utc += 1000;
  run.send(event::clock_stepped{});
  EXPECT_EQ(run.alarm, kNow + 1100) << "the device of this test goes by the system clock";
  run.now.utc += 3950;
  run.send(event::clock_stepped{});
  EXPECT_EQ(run.m.alarm.stands.owner, alarm_owner::kTimer);
}

// Ours could not follow it any longer once the machine sleeps.
TEST(Decide, AnAlarmThatGoesOffBeforeTheSleep_IsWaitedFor) {
  for (const std::int64_t ahead : {2, 10}) {
    awake_machine run;
    run.alarm = kNow + ahead;
    run.send(event::program{0, kNow + 1000, 0});
    run.send(event::sleep_begins{});
    EXPECT_EQ(run.count<order::release_inhibitor>(), ahead == 2 ? 0 : 1);
    run.pass(3);
    run.send(event::due{});
    EXPECT_EQ(run.count<order::release_inhibitor>(), 1);
    EXPECT_EQ(run.alarm, ahead == 2 ? kNow + 910 : kNow + 10);
  }
}

TEST(Decide, AnAlarmThatABusyDeviceKeeps_IsWaitedFor_WhenItGoesOffBeforeTheMachineSleeps) {
  for (const std::int64_t ahead : {20, 19}) {
    awake_machine run({}, false);
    run.send(event::program{0, kNow + 1000, 0});
    run.refusal = EBUSY;
    run.send(event::program{0, kNow + 9000, 0});
    run.pass(985 - ahead);
    run.off_time();
    run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
    EXPECT_EQ(run.alarm, kNow + 985);
    EXPECT_EQ(run.count<order::sleep>(), ahead == 20 ? 1 : 0);
  }
}

TEST(Decide, AnAlarmThatCannotBeRead_LeadsToNothing_AndIsReadAgainSoonForASleep) {
  awake_machine run({}, false);
  run.read_error = EIO;
  run.send(event::program{0, kNow + 5000, 0});
  run.send(event::idle{});
  EXPECT_TRUE(run.has(problem::kAlarmRead) && !run.has(problem::kNoDevice));
  for (const std::int64_t seconds : {1, 10, 60}) {
    EXPECT_EQ(due_at(run.m, due_kind::kAlarmAgain), run.now.boot + seconds * kSecondMs);
    run.pass(seconds);
    run.send(event::due{});
  }
  EXPECT_EQ(due_at(run.m, due_kind::kAlarmAgain), kNever);
  run.off_time();
  EXPECT_EQ(run.m.sleep.why, postponed::kNoAlarm);
  run.send(event::idle{});
  EXPECT_EQ(due_at(run.m, due_kind::kAlarmAgain), run.now.boot + kSecondMs);
}

TEST(Decide, ADeviceThatIsNotThere_IsNotTriedAgain) {
  awake_machine run;
  run.is_gone = true;
  run.send(event::program{0, kNow + 5000, 0});
  EXPECT_TRUE(run.has(problem::kNoDevice));
  run.send(event::idle{});
  EXPECT_EQ(due_at(run.m, due_kind::kAlarmAgain), kNever);
  EXPECT_EQ(run.count<order::read_alarm>(), 1);
}

TEST(Decide, AnAlarmOfADeviceThatCannotBeRead_HasWokenTheMachine_ByTheSystemClock) {
  for (const std::int64_t slept : {985, 500}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    run.read_error = EIO;
    run.sleep(slept);
    EXPECT_EQ(run.m.woken.by, slept == 985 ? cause::kTimer : cause::kNothing);
  }
}

TEST(Decide, AMachineThatOurAlarmHasBooted_IsItsUsers_WhenItHasSleptSince) {
  const struct {
    std::int64_t slept; // seconds
    std::uint32_t sleeps;
  } rows[] = {{0, 0}, {0, 1}, {1, 0}};
  for (const auto &[slept, sleeps] : rows) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    event::started boot;
    boot.kept = run.m;
    boot.has_kept = true;
    boot.device.clock = kNow + 985 + 60;
    boot.booted_at = kNow + 985;
    run.now = {kNow + 1045, 60 * kSecondMs, slept * kSecondMs, sleeps, 0};
    run.send(boot);
    EXPECT_EQ(run.m.woken.by, slept + sleeps == 0 ? cause::kTimer : cause::kUser);
    EXPECT_EQ(run.m.woken.utc, kNow + 985) << "not when the process has started";
    EXPECT_EQ(run.last<order::say>().what, order::saying::kBooted);
    EXPECT_EQ(run.last<order::say>().number, static_cast<std::int64_t>(run.m.woken.by));
  }
}

TEST(Decide, APackageThatIsInstalledLate_MakesUpForNothing) {
  for (const std::int64_t since_boot : {60, 86400}) {
    awake_machine run;
    event::started start;
    start.booted_at = kNow - since_boot;
    start.device.clock = kNow;
    run.now.boot = since_boot * kSecondMs;
    run.send(start);
    run.send(event::armed{});
    const std::int64_t from = since_boot == 60 ? kNow - 60 : kNow;
    EXPECT_EQ(run.last<order::ask_late>().from, from);
    run.pass(100);
    run.send(event::ntp{true, true, true}); // the clock was unknown
    EXPECT_EQ(run.last<order::ask_late>().from, from);
    EXPECT_EQ(run.count<order::ask_late>(), 2);
  }
}

TEST(Decide, TheLastWakeUp_IsToldByTheClockOfNow) {
  for (const bool sleeps : {true, false}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    if (sleeps)
      run.sleep(985);
    run.pass(5);
    run.now.utc += 86400;
    run.now.utc_ms = 999;
    run.now.boot += 999;
    run.send(event::clock_stepped{});
    const std::int64_t since = sleeps ? 5 : run.now.boot / kSecondMs; // the boot
    EXPECT_EQ(run.m.woken.utc, run.now.utc - since);
    const std::int64_t at_most = run.now.boot + 120 * kSecondMs;
    EXPECT_EQ(due_at(run.m, due_kind::kReturn), sleeps ? at_most : kNever);
  }
}

TEST(Decide, ATest_EndsWhenAnOnTimeIsSetBeforeItSleeps) {
  awake_machine run;
  run.send(event::test_wake{1, 100});
  EXPECT_EQ(run.count<order::answer>(), 0);
  run.send(event::program{0, kNow + 200, 0});
  run.send(event::use_changed{0, 0, 0, kSleepBit | kShutdownBit, 5000, true});
  EXPECT_EQ(run.count<order::sleep>(), 0);
  EXPECT_EQ(run.last<order::answer>().error, EBUSY);
}

TEST(Decide, AnotherBuildInTheSameBoot_KnowsWhatHasWokenTheMachine) {
  awake_machine run;
  event::started start;
  start.kept.woken.by = cause::kTimer;
  start.kept.clock.was_set = true;
  start.has_kept = start.is_other_build = true;
  start.device.clock = run.now.utc;
  run.send(start);
  run.send(event::armed{});
  EXPECT_EQ(run.m.woken.by, cause::kTimer);
  EXPECT_EQ(run.count<order::say>(), 0);
  EXPECT_EQ(run.last<order::ask_late>().from, kNow) << "nothing fires twice";
  EXPECT_NE(due_at(run.m, due_kind::kReturn), kNever);
  for (const std::int64_t ago : {3, 61}) {
    start.kept.power.went.utc = kNow - ago;
    run.send(start);
    run.send(event::armed{});
    EXPECT_EQ(run.last<order::ask_late>().from, ago < 60 ? kNow - ago : kNow);
  }
  EXPECT_EQ(run.m.clock.state, clock_state::kByHand) << "somebody has set it, in this boot";
  start.kept.woken.stays = true;
  run.send(start);
  run.send(event::armed{});
  EXPECT_EQ(due_at(run.m, due_kind::kReturn), kNever) << "only the screen was to be turned off";
  start.kept.woken.stays = false;
  start.kept.screen.ordered_on = true;
  run.send(start);
  run.send(event::armed{});
  EXPECT_EQ(due_at(run.m, due_kind::kReturn), kNever) << "somebody watches, without CEC";
  EXPECT_EQ(run.m.sleep.wish, sleep_wish::kNone);
  start.kept.sleep.wish = sleep_wish::kOffTimer;
  start.kept.sleep.last_method = off_action::kHibernate;
  run.send(start);
  EXPECT_EQ(run.m.sleep.wish, sleep_wish::kOffTimer);
  EXPECT_EQ(run.m.sleep.last_method, off_action::kHibernate);
}

TEST(Decide, AnotherBuildInTheSameBoot_KnowsItsUser_AndTheScreenThatWeHaveTurnedOff) {
  for (const cause by : {cause::kTimer, cause::kNothing}) {
    awake_machine run({}, false);
    event::started start;
    start.has_kept = start.is_other_build = true;
    start.device.clock = run.now.utc;
    start.kept.woken.by = by;
    start.kept.woken.at = run.now.boot - 100 * kSecondMs;
    start.kept.screen.ordered = screen_order::kOff;
    run.send(start);
    run.send(event::use_changed{run.now.boot - 50 * kSecondMs, 0, 0, kSleepBit, 5000, true});
    run.send(event::armed{});
    run.pass(200);
    run.send(event::due{});
    EXPECT_EQ(run.m.sleep.why == postponed::kSession, by == cause::kTimer);
    run.send(event::input{});
    EXPECT_EQ(run.last<order::start_unit>().name == unit::kOn && run.m.screen.ordered_on,
              by == cause::kNothing);
  }
}

TEST(Decide, ARealTimeClockThatIsGone_LeavesTheClockKnown_InThisBoot) {
  for (const bool same_boot : {true, false}) {
    awake_machine run;
    event::started again = run.next_run();
    again.same_boot = same_boot;
    again.device.clock = run.now.utc;
    again.kept.use.watched = true; // the last process has closed the input devices
    run.send(again);
    EXPECT_EQ(run.m.clock.state == clock_state::kUnknown, !same_boot);
    EXPECT_EQ(run.count<order::watch_input>(), 0);
    EXPECT_EQ(run.count<order::ask_use>(), 1);
  }
}

TEST(Decide, AClockWithoutABattery_IsUnknown_UntilItIsSet) {
  const struct {
    event::any what;
    clock_state state;
  } rows[] = {
      {event::ntp{true, false, true}, clock_state::kUnknown},
      {event::ntp{true, true, true}, clock_state::kSynchronised},
      {event::ntp{false, true, true}, clock_state::kByHand},
      {event::clock_stepped{}, clock_state::kByHand},
      {event::ntp{false, false, false}, clock_state::kUnknown},
  };
  for (const auto &row : rows) {
    awake_machine run({}, true, false);
    EXPECT_EQ(run.m.clock.state, clock_state::kUnknown);
    run.send(row.what);
    EXPECT_EQ(run.m.clock.state, row.state) << &row - rows;
    EXPECT_EQ(run.last<order::deliver>().callback == delivery::kTimeUpdate,
              row.state != clock_state::kUnknown);
  }
}

// As long as it was unknown, up to five minutes, before the daemon hears of it, and not on the way
// to a sleep.
TEST(Decide, ATimerOfAnUnknownClock_IsMadeUpFor_WhenItBecomesKnown) {
  enum class also : std::uint8_t { kNothing, kSleeps, kStarts };
  const event::ntp synchronised{true, true, true};
  const struct {
    event::any what;
    std::int64_t unknown, ago; // seconds; 0: nobody is asked
    long times;
    also happens = also::kNothing;
  } rows[] = {{synchronised, 5000, 300, 1},
              {synchronised, 50, 50, 1},
              {synchronised, 5000, 300, 1, also::kStarts},
              {synchronised, 5000, 300, 0, also::kSleeps},
              {event::clock_stepped{}, 5000, 300, 1},
              {event::ntp{true, false, true}, 5000, 0, 0}};
  for (const auto &row : rows) {
    awake_machine run({}, true, false);
    run.pass(row.unknown);
    run.send(event::ambient{});
    const event::started again = run.next_run();
    if (row.happens == also::kStarts)
      run.send(again);
    else if (row.happens == also::kSleeps)
      run.send(event::sleep_begins{});
    run.given.clear();
    run.late = {{late_timer{1, 0, run.now.utc - 1}}, 1};
    for (int times = 0; times < 2; ++times)
      run.send(row.what);
    if (row.happens == also::kStarts)
      run.send(event::armed{});
    EXPECT_EQ(run.count<order::tv_on>(), row.times) << &row - rows;
    run.send(event::sleep_ends{});
    EXPECT_EQ(run.count<order::ask_late>(), row.ago == 0 ? 0 : 1) << &row - rows;
    EXPECT_TRUE(row.ago == 0 || run.last<order::ask_late>().from == run.now.utc - row.ago);
  }
}

// Nor does an answer of before a standby that has failed.
TEST(Decide, ARefusedStandby_IsNoAnswerToTheQuestionBeforeAReturn) {
  for (const bool stands_by : {false, true}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    run.sleep(985);
    run.pass(135);
    run.send(event::due{});
    run.send(event::tv_denies{CEC_MSG_STANDBY, true});
    if (stands_by)
      run.send(event::sleep_begins{});
    run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
    EXPECT_EQ(run.count<order::sleep>(), 0);
    run.send(event::tv_reports{event::tv_state::kOff});
    if (stands_by)
      run.send(event::sleep_ends{});
    EXPECT_EQ(run.count<order::sleep>(), stands_by ? 0 : 1);
  }
}

TEST(Decide, AScreenThatSomebodyTurnsOff_LeavesTheMachineAwake) {
  enum class by : std::uint8_t { kNobody, kHand, kTimer }; // one of the off-action "none"
  for (const by who : {by::kNobody, by::kHand, by::kTimer}) {
    awake_machine run({.off = off_action::kNone});
    run.send(event::program{0, kNow + 1000, 0});
    run.sleep(985);
    if (who != by::kNobody)
      run.send(event::screen_wanted{false,
                                    who == by::kHand ? event::asker::kBus : event::asker::kDaemon});
    run.send(event::tv_reports{event::tv_state::kOff});
    const std::int64_t after_on_time = run.now.boot + (15 + 120) * kSecondMs;
    EXPECT_EQ(due_at(run.m, due_kind::kReturn), who == by::kNobody ? after_on_time : kNever);
  }
}

// Nobody may tell that a user has logged out, or that a program blocks the sleep no longer.
TEST(Decide, WhatPostponesASleep_IsAskedForAgain) {
  for (const bool is_session : {true, false}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    run.sleep(985);
    const std::int64_t session = is_session ? run.now.boot + 1 : 0;
    const std::uint8_t blocked = is_session ? 0 : kIdleBit;
    run.send(event::use_changed{session, 0, blocked, kSleepBit, 5000, false});
    run.pass(200);
    run.send(event::due{});
    EXPECT_EQ(run.m.sleep.why, is_session ? postponed::kSession : postponed::kBlocked);
    run.given.clear();
    run.pass(900);
    run.send(event::due{});
    EXPECT_EQ(run.count<order::ask_use>(), 1);
    run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, false});
    EXPECT_EQ(due_at(run.m, due_kind::kReturn), run.now.boot + 120 * kSecondMs);
  }
}

TEST(Decide, AnOffTimerThatWaits_SendsNobodyToSleepWhoCameLater) {
  const struct {
    std::int64_t after; // seconds
    bool is_session, sleeps;
  } rows[] = {{300, false, true}, {300, true, true}, {301, false, false}, {301, true, false}};
  for (const auto &[after, is_session, sleeps] : rows) {
    awake_machine run({}, false);
    const auto use = [&](std::int64_t session, std::uint8_t blocked) {
      run.send(event::use_changed{session, 0, blocked, kSleepBit, 5000, true});
    };
    use(0, kSleepBit);
    run.off_time();
    EXPECT_TRUE(run.m.use.watched);
    run.pass(after);
    if (!is_session)
      run.send(event::input{});
    use(is_session ? run.now.boot : 0, 0);
    use(is_session ? run.now.boot : 0, 0);
    EXPECT_EQ(run.count<order::sleep>(), sleeps ? 1 : 0) << after << is_session;
  }
}

TEST(Decide, ASleepThatFails_IsTriedAgain_LessAndLessOften_AfterNinetySecondsOfHooks) {
  awake_machine run({}, false);
  run.send(event::screen_wanted{false, event::asker::kDaemon});
  run.send(event::job_began{1, unit::kOff});
  run.pass(89);
  run.send(event::due{});
  EXPECT_EQ(run.m.sleep.why, postponed::kHook);
  EXPECT_FALSE(run.m.use.watched) << "nobody who comes changes it yet";
  run.pass(1);
  for (const std::int64_t seconds : {30, 60, 300, 900, 900}) {
    run.send(event::due{});
    run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
    EXPECT_EQ(due_at(run.m, due_kind::kSleepAgain), run.now.boot + 90 * kSecondMs);
    run.send(event::sleep_answered{EACCES});
    EXPECT_EQ(due_at(run.m, due_kind::kSleepAgain), run.now.boot + seconds * kSecondMs);
    run.pass(seconds);
  }
  EXPECT_EQ(run.count<order::sleep>(), 5);
  EXPECT_EQ(run.m.problems[static_cast<std::size_t>(problem::kSleep)], EACCES);
  run.sleep(100);
  EXPECT_EQ(run.m.problems[static_cast<std::size_t>(problem::kSleep)], 0);
}

TEST(Decide, AClockThatIsNotSynchronised_IsAskedEveryFiveMinutes_UntilItIs) {
  awake_machine run;
  run.send(event::clock_stepped{});
  run.send(event::ntp{true, false, true});
  for (const std::int64_t seconds : {10, 30, 60, 300, 300}) {
    EXPECT_EQ(due_at(run.m, due_kind::kAskClock), run.now.boot + seconds * kSecondMs);
    run.pass(seconds);
    run.given.clear();
    run.send(event::due{});
    EXPECT_EQ(run.count<order::ask_clock>(), 1);
    if (seconds != 60) // one answer is lost
      run.send(event::ntp{true, false, true});
  }
  run.send(event::clock_stepped{});
  EXPECT_EQ(due_at(run.m, due_kind::kAskClock), run.now.boot + 10 * kSecondMs);
  run.send(event::ntp{true, true, true});
  EXPECT_EQ(run.last<order::deliver>().callback, delivery::kTimeUpdate);
  EXPECT_EQ(due_at(run.m, due_kind::kAskClock), kNever);
  run.given.clear();
  run.send(event::ntp{true, false, true}); // for a while after each sleep
  EXPECT_EQ(run.m.clock.state, clock_state::kSynchronised);
  EXPECT_EQ(run.count<order::deliver>(), 0);
}

TEST(Decide, AnOffTimerThatWaits_SendsNothingToSleep_InTheSecondOfAnOnTime) {
  for (const std::int64_t late : {0, 1}) {
    awake_machine run({}, false);
    run.send(event::program{0, kNow + 10, 0});
    run.off_time();
    run.pass(10 + late);
    run.send(event::due{});
    run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
    EXPECT_EQ(run.count<order::sleep>(), late);
  }
}

TEST(Decide, AtOurEnd_AnAlarmThatHasGoneOffBeforeTheOnTime_IsWrittenForABoot) {
  awake_machine run;
  run.send(event::program{0, kNow + 50, 0});
  run.pass(40);
  run.send(event::due{});
  EXPECT_EQ(run.m.alarm.stands.owner, alarm_owner::kNone);
  run.send(event::ended{});
  EXPECT_EQ(run.alarm, kNow + 160);
}

TEST(Decide, AJobThatEndsWhileSystemdStartsAgain_IsForgotten) {
  for (const bool sleeps : {false, true}) {
    awake_machine run;
    run.send(event::job_began{1, unit::kWakeup});
    run.send(event::job_began{2, unit::kWakeup});
    run.send(event::jobs_told_again{});
    run.send(event::job_began{2, unit::kWakeup});
    if (sleeps)
      run.sleep(100);
    else
      run.pass(2);
    run.send(event::due{});
    EXPECT_EQ(std::ranges::count(run.m.jobs, 0U, &job::id), static_cast<long>(kJobs) - 1);
  }
}

TEST(Decide, AUnitThatARestartHasLost_IsStarted_UnlessSomethingNewerIsOrdered) {
  const event::screen_wanted on{true, event::asker::kBus}, off{false, event::asker::kBus};
  const struct {
    std::vector<event::any> then;
    long again;
  } rows[] = {{{}, 2}, {{off, event::ambient{false}}, 0}, {{on}, 1}};
  for (const auto &[then, again_later] : rows) {
    awake_machine run({}, false);
    run.send(on);
    run.send(event::ambient{true});
    run.send(run.next_run());
    for (const event::any &one : then)
      run.send(one);
    run.send(event::armed{});
    run.send(event::test_wake{1, 100});
    EXPECT_EQ(run.m.sleep.stage == wish_stage::kAsking, again_later == 0) << "not before they run";
    run.given.clear();
    run.pass(2);
    run.send(event::due{});
    EXPECT_EQ(run.m.sleep.stage, wish_stage::kAsking);
    EXPECT_EQ(run.count<order::start_unit>(), again_later);
  }
}

// It may have been done or not; the mark stays until the device says what stands.
TEST(Decide, AWriteThatARestartHasLost_WaitsForAReading) {
  for (const bool was_done : {true, false}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    event::started again = run.next_run();
    again.kept.alarm.changes = true;
    again.kept.alarm.next = {alarm_owner::kTimer, kNow + 900, kNow + 900};
    again.device.error = run.read_error = EIO;
    run.alarm = kNow + (was_done ? 900 : 500);
    run.send(again);
    EXPECT_TRUE(run.has(problem::kAlarmRead));
    run.send(event::sleep_begins{});
    for (int half = 0; half < 8; ++half) {
      run.now.boot += kSecondMs / 2;
      run.send(event::due{});
    }
    EXPECT_EQ(run.count<order::release_inhibitor>(), 0) << "the daemon has not armed its timers";
    run.send(event::armed{});
    EXPECT_EQ(run.count<order::release_inhibitor>(), 1);
    EXPECT_EQ(run.alarm, kNow + (was_done ? 900 : 500));
    run.read_error = 0;
    run.send(event::sleep_ends{});
    EXPECT_EQ(run.alarm, kNow + (was_done ? 985 : 500));
    EXPECT_EQ(run.m.alarm.foreign.owner == alarm_owner::kNone, was_done);
  }
}

TEST(Decide, ATimerThatARestartHasLost_IsMadeUpFor_Once) {
  const struct {
    bool has_fired;
    std::int64_t away, from; // seconds; after the last event
  } rows[] = {{false, 0, -1}, {false, 2, -1}, {false, 3, 0}, {false, 302, 2}, {true, 0, 0}};
  for (const auto &[has_fired, away, from] : rows)
    for (const event::any &fires :
         {event::any{event::fired{}}, event::any{event::screen_wanted{false}}}) {
      awake_machine run;
      run.pass(10);
      run.send(has_fired ? fires : event::ambient{});
      const event::started again = run.next_run();
      run.pass(away);
      run.send(again);
      run.send(event::armed{});
      EXPECT_EQ(run.last<order::ask_late>().from - kNow - 10, from) << away;
    }
}

// Nor has one that is old: it has ended another sleep, which looks like this one.
TEST(Decide, AKeyOfBeforeTheSleep_HasNotWokenTheMachine) {
  const struct {
    std::int64_t slept, pressed; // seconds; after it began
    cause by;
  } rows[] = {{5, -1, cause::kNothing}, {100, 89, cause::kNothing}, {100, 91, cause::kUser}};
  for (const auto &[slept, pressed, by] : rows) {
    awake_machine run;
    const std::int64_t began = run.now.boot;
    run.sleep(slept);
    run.send(event::input{began + pressed * kSecondMs});
    EXPECT_EQ(run.m.woken.by, by) << pressed;
  }
}

TEST(Decide, AScreenWithoutCec_ComesBackWithTheFirstKey_HoweverLate) {
  const struct {
    bool is_off, speaks, follows, comes_back;
  } rows[] = {{true, false, false, true},
              {false, false, false, false},
              {true, true, false, false},
              {true, true, true, true}};
  for (const auto &row : rows) {
    awake_machine run({.screen_follows = row.follows}, row.speaks);
    run.send(event::screen_wanted{!row.is_off, event::asker::kBus});
    run.sleep(1000);
    run.pass(60);
    run.send(event::due{});
    EXPECT_EQ(run.m.woken.by, cause::kNothing);
    EXPECT_TRUE(run.m.use.watched || !row.comes_back);
    run.send(event::input{});
    EXPECT_EQ(run.last<order::start_unit>().name == unit::kOn && run.m.screen.ordered_on,
              row.comes_back)
        << &row - rows;
    EXPECT_EQ(run.m.woken.by, row.comes_back ? cause::kUser : cause::kNothing);
  }
}

TEST(Decide, ATelevision_IsAskedAtOnce_WhenTheOnTimeIsNearerThanTheQuestion) {
  for (const std::int64_t ahead : {0, 1, 10, 11})
    for (const std::int64_t step : {0, 100}) {
      awake_machine run;
      for (int times = 0; times < 2; ++times)
        run.send(event::program{0, kNow + ahead + step, 0});
      run.now.utc += step;
      if (step != 0)
        run.send(event::clock_stepped{});
      EXPECT_EQ(run.count<order::tv_ask>(), ahead == 1 || ahead == 10 ? 1 : 0) << step;
    }
}

// Nobody has announced the sleep, and no clock shows how long it was.
TEST(Decide, ATestOfASleepThatOnlyItsCountShows_HasTheLengthOfTheSleep) {
  awake_machine run;
  run.send(event::test_wake{7, 100});
  run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
  run.pass(100);
  ++run.now.sleeps;
  run.send(event::due{});
  EXPECT_EQ(run.last<order::answer>().seconds, 100);
}

TEST(Decide, AStandby_EndsTheQuestionsOfAnOrder_AndOneThatFailsAsksAgain) {
  awake_machine run({.screen_follows = true});
  run.send(event::screen_wanted{true, event::asker::kBus});
  run.m.screen.believed = screen_state::kOn;
  run.send(event::sleep_begins{});
  EXPECT_EQ(run.m.screen.believed, screen_state::kUnknown);
  EXPECT_FALSE(run.m.screen.pending);
  EXPECT_EQ(due_at(run.m, due_kind::kScreenStep), kNever);
  run.given.clear();
  run.send(event::sleep_ends{});
  EXPECT_EQ(run.count<order::tv_ask>(), 1);
  EXPECT_EQ(due_at(run.m, due_kind::kLeaving), kNever);
}

TEST(Decide, AnOffActionThatTheMachineCannotDo_IsAProblem) {
  awake_machine run;
  run.send(event::use_changed{0, 0, 0, kShutdownBit, 5000, false});
  EXPECT_TRUE(run.has(problem::kCannotSleep));
  EXPECT_EQ(run.last<order::say>().error, 0) << "no call has failed";
  run.m.sleep.wish = sleep_wish::kOffTimer;
  run.m.sleep.stage = wish_stage::kAsked;
  run.m.power.now = phase::kSleepAsked;
  run.send(event::sleep_answered{EOPNOTSUPP});
  EXPECT_EQ(run.m.sleep.wish, sleep_wish::kNone) << "not again every 15 minutes";
  EXPECT_FALSE(run.has(problem::kSleep));
  run.send(event::configured{{.off = off_action::kPoweroff}});
  EXPECT_FALSE(run.has(problem::kCannotSleep));
}

TEST(Decide, AnOffTimerThatWaits_IsOver_WhenTheScreenIsWantedOn) {
  awake_machine run({}, false);
  run.off_time();
  run.send(event::screen_wanted{true, event::asker::kBus});
  run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
  EXPECT_EQ(run.count<order::sleep>(), 0);
}

TEST(Decide, AnAnswerThatDoesNotCome_IsAProblemOfLogind_AndAScreenThatIsUnknown) {
  for (const bool is_use : {true, false}) {
    awake_machine run;
    run.send(event::program{0, kNow + 1000, 0});
    run.sleep(985);
    run.pass(135);
    run.send(event::due{});
    run.send(is_use ? event::any{event::tv_reports{}}
                    : event::any{event::use_changed{0, 0, 0, kSleepBit, 5000, true}});
    EXPECT_EQ(run.count<order::sleep>(), 0);
    if (is_use)
      run.pass(3);
    run.send(is_use ? event::any{event::due{}} : event::any{event::tv_silent{}});
    EXPECT_EQ(run.has(problem::kUse), is_use);
    EXPECT_EQ(run.count<order::sleep>(), is_use ? 0 : 1);
    EXPECT_EQ(due_at(run.m, due_kind::kSleepAgain), run.now.boot + (is_use ? 30 : 90) * kSecondMs);
  }
}

TEST(Decide, ATestThatCannotSleep_IsOver_AndAnOrderIsNotTakenBack) {
  awake_machine run;
  run.send(event::test_wake{7, 100});
  run.send(event::use_changed{0, 0, 0, kSleepBit, 5000, true});
  run.off_time();
  EXPECT_EQ(run.m.sleep.wish, sleep_wish::kTest);
  run.send(event::sleep_answered{EACCES});
  EXPECT_EQ(run.last<order::answer>().error, EACCES);
  EXPECT_EQ(run.last<order::answer>().seconds, 0);
  run.send(event::test_wake{8, 100});
  run.send(event::shutdown_begins{});
  EXPECT_EQ(run.last<order::answer>().error, ECANCELED);
  EXPECT_EQ(due_at(run.m, due_kind::kSleepAgain), kNever);
}

TEST(Decide, AnOffTimerThatWaits_TakesTheOffActionOfAReload) {
  awake_machine run({}, false);
  run.send(event::screen_wanted{false, event::asker::kDaemon});
  for (const off_action off : {off_action::kPoweroff, off_action::kNone}) {
    run.send(event::configured{{.off = off}});
    EXPECT_EQ(run.m.sleep.method, off);
  }
  EXPECT_EQ(run.m.sleep.wish, sleep_wish::kNone);
}
