// Sleeps that we order: wished for, asked for, ordered, failed. The wish is looked at after every
// event.
#include "rules.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

static constexpr std::int64_t kAnswerMs = 3 * kSecondMs;    // of logind and the television
static constexpr std::int64_t kUseAgainMs = 30 * kSecondMs; // when logind has not answered
static constexpr std::int64_t kLookMs = 900 * kSecondMs;
static constexpr std::int64_t kOrderMs = 90 * kSecondMs; // until an ordered sleep begins
static constexpr std::int64_t kFailedAgainMs[] = {30 * kSecondMs, 60 * kSecondMs, 300 * kSecondMs,
                                                  900 * kSecondMs};

// --- the wish ---

static bool is_ordered(const machine &m) { return m.sleep.stage == wish_stage::kAsked; }

static void set_wish(decision &d, sleep_wish wish, off_action method) {
  auto &sleep = d.m.sleep;
  sleep = {.last_method = sleep.last_method};
  sleep.wish = wish;
  sleep.wished_at = d.now.boot;
  sleep.method = method;
  d.never(due_kind::kSleepAgain);
  d.never(due_kind::kAsked);
}

// An order cannot be taken back; one whose wish is dropped is not given again.
void wish_sleep(decision &d, sleep_wish wish, off_action method) {
  if (is_ordered(d.m)) {
    d.m.sleep.is_dropped = wish == sleep_wish::kNone;
    return;
  }
  if (d.m.test.running && d.m.sleep.wish == sleep_wish::kTest)
    trial_ends(d, ECANCELED);
  set_wish(d, wish, method);
}

// The configuration has changed.
void change_off_action(decision &d) {
  if (d.m.sleep.wish != sleep_wish::kOffTimer)
    return;
  if (d.m.set.off == off_action::kNone)
    drop_wish(d);
  else if (!is_ordered(d.m))
    d.m.sleep.method = d.m.set.off;
}

void drop_wish(decision &d) { wish_sleep(d, sleep_wish::kNone, off_action::kNone); }

void forget_wish(decision &d) { set_wish(d, sleep_wish::kNone, off_action::kNone); }

// --- postponed ---

// What nobody tells, or not reliably: the device is read, the television and logind are asked
// again.
static bool is_looked_at_again(postponed why) {
  return why == postponed::kNoAlarm || why == postponed::kScreenSilent ||
         why == postponed::kSession || why == postponed::kBlocked;
}

static void look_later(decision &d) {
  if (due_at(d.m, due_kind::kSleepAgain) == kNever)
    d.due_after(due_kind::kSleepAgain, kLookMs);
}

// The device may have refused long before anybody needed it.
static void try_alarm_again(decision &d) {
  d.m.alarm.tries = 0;
  check_alarm(d);
}

// One line for each reason.
static void postpone(decision &d, postponed why) {
  auto &sleep = d.m.sleep;
  if (why != sleep.why) {
    say(d, order::saying::kPostponed, static_cast<std::int64_t>(why));
    if (why == postponed::kNoAlarm)
      try_alarm_again(d);
  }
  sleep.why = why;
  sleep.stage = wish_stage::kWaiting;
  d.never(due_kind::kAsked);
  if (why == postponed::kOnTimeNear)
    d.due_at_utc(due_kind::kSleepAgain, near_until(d.m, d.now) + 1);
  else if (why == postponed::kOften)
    d.due(due_kind::kSleepAgain) = often_until(d.m);
  else if (is_looked_at_again(why))
    look_later(d);
  else if (!sleep.held)
    d.never(due_kind::kSleepAgain);
}

static void hold(decision &d, postponed why, std::int64_t ms) {
  d.m.sleep.held = true;
  d.due_after(due_kind::kSleepAgain, ms);
  postpone(d, why);
}

// --- asked ---

// Inhibitors, users, the television and the alarm as they are now.
static void start_asking(decision &d) {
  auto &sleep = d.m.sleep;
  const bool asks_screen = sleep.wish == sleep_wish::kReturn && d.m.screen.has_cec;
  sleep.stage = wish_stage::kAsking;
  sleep.use_answered = false;
  sleep.screen_answered = !asks_screen;
  d.due_after(due_kind::kAsked, kAnswerMs);
  d.m.alarm.check = true;
  d.give(order::ask_use{});
  if (asks_screen)
    ask_television(d);
}

// A television that does not answer is unknown.
void answers_end(decision &d) {
  if (d.m.sleep.stage != wish_stage::kAsking)
    return;
  d.m.sleep.screen_answered = true;
  if (d.m.sleep.use_answered)
    return;
  begin_problem(d, problem::kUse, ETIMEDOUT);
  hold(d, postponed::kUseUnknown, kUseAgainMs);
}

// The answers are lost with the run that has asked, or older than a standby.
void ask_again(decision &d) {
  if (d.m.sleep.stage == wish_stage::kAsking)
    d.m.sleep.stage = wish_stage::kWaiting;
}

static void order_sleep(decision &d) {
  auto &sleep = d.m.sleep;
  sleep.stage = wish_stage::kAsked;
  sleep.why = postponed::kNot;
  d.m.power.now = phase::kSleepAsked;
  d.never(due_kind::kAsked);
  d.due_after(due_kind::kSleepAgain, kOrderMs);
  say(d, order::saying::kGoesToSleep, static_cast<std::int64_t>(sleep.method));
  d.give(order::sleep{sleep.method});
}

// --- ordered ---

// Nobody wants it any longer, or it is an off-action that the machine cannot do: its problem has
// said so, and trying again changes nothing.
static bool is_given_up(const machine &m) {
  const sleep_wish wish = m.sleep.wish;
  const bool is_off_action = wish == sleep_wish::kOffTimer || wish == sleep_wish::kScreen;
  return (m.sleep.is_dropped && wish != sleep_wish::kTest) ||
         (is_off_action && is_open(m, problem::kCannotSleep));
}

void sleep_failed(decision &d, int error) {
  auto &sleep = d.m.sleep;
  d.m.power.now = phase::kAwake;
  if (is_given_up(d.m)) {
    forget_wish(d);
    return;
  }
  begin_problem(d, problem::kSleep, error);
  if (sleep.wish == sleep_wish::kTest) {
    trial_ends(d, error == 0 ? ECANCELED : error);
    return;
  }
  const std::size_t row = std::min<std::size_t>(sleep.failures, std::size(kFailedAgainMs) - 1);
  if (sleep.failures < UINT8_MAX)
    ++sleep.failures;
  hold(d, postponed::kFailed, kFailedAgainMs[row]);
}

void order_was_lost(decision &d) {
  d.m.power.now = phase::kAwake;
  d.m.sleep.stage = wish_stage::kWaiting;
  d.never(due_kind::kSleepAgain);
  if (is_given_up(d.m))
    forget_wish(d);
}

void on(decision &d, const event::sleep_answered &e) {
  if (e.error != 0 && is_ordered(d.m) && d.m.power.now == phase::kSleepAsked)
    sleep_failed(d, e.error);
}

void sleep_again(decision &d) {
  d.m.sleep.held = false;
  d.m.sleep.is_silent = false;
  if (d.m.sleep.why == postponed::kNoAlarm)
    check_alarm(d);
  if (d.m.sleep.why == postponed::kSession || d.m.sleep.why == postponed::kBlocked)
    d.give(order::ask_use{});
  if (is_ordered(d.m) && d.m.power.now == phase::kSleepAsked)
    sleep_failed(d, ETIMEDOUT);
}

// A sleep of ours has taken place. A test is no part of a loop: somebody looks at the machine.
void count_sleep(decision &d) {
  auto &sent = d.m.power.sent_at;
  if (!is_ordered(d.m))
    return;
  if (d.m.test.running) {
    sent = {};
    return;
  }
  std::shift_right(sent.begin(), sent.end(), 1);
  sent.front() = d.m.power.went.boot;
}

// --- after every event ---

static bool has_all_answers(const machine &m) {
  return m.sleep.use_answered && m.sleep.screen_answered && is_alarm_settled(m);
}

// Until it says anything, or is asked again.
static bool lacks_answer(const machine &m) {
  return m.sleep.wish == sleep_wish::kReturn && must_say_off(m) &&
         m.screen.answered != screen_state::kOff;
}

// What the last run has begun is found, or begun again.
static bool is_settled(const machine &m) {
  return m.armed && m.power.now == phase::kAwake && !m.woken.cause_open && !m.woken.late_open &&
         std::ranges::none_of(m.jobs, &job::may_be_lost);
}

void pursue_sleep(decision &d) {
  auto &sleep = d.m.sleep;
  if (!is_settled(d.m))
    return;
  if (is_overtaken(d.m)) // the rules of a return remain
    drop_wish(d);
  wish_return(d);
  const bool asks = sleep.stage == wish_stage::kAsking;
  if (sleep.wish == sleep_wish::kNone || sleep.held || (asks && !has_all_answers(d.m)))
    return;
  if (asks)
    sleep.is_silent = lacks_answer(d.m);
  if (d.m.test.running && !is_alarm_settled(d.m))
    return;
  const postponed why = obstacle(d.m, d.now);
  if (why != postponed::kNot && sleep.wish == sleep_wish::kTest)
    trial_ends(d, why == postponed::kNoAlarm && d.m.alarm.refused != 0 ? d.m.alarm.refused : EBUSY);
  else if (why != postponed::kNot)
    postpone(d, why);
  else if (asks)
    order_sleep(d);
  else
    start_asking(d);
}
