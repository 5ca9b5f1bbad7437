// Who woke or booted the machine. Decided once for each sleep.
#include "rules.h"

#include <algorithm>

static constexpr std::int64_t kUserWindowMs = 10 * kSecondMs;
static constexpr std::int64_t kResumeSeconds = 60;
static constexpr std::int64_t kShortSleepMs = 60 * kSecondMs;
static constexpr std::uint32_t kShortSleeps = 3;
static constexpr std::int64_t kPauseMs = 900 * kSecondMs;

// From an alarm to the wake-up, or to the boot of the kernel.
static std::int64_t longest_way(const machine &m) {
  const bool is_slow =
      m.woken.booted || m.power.may_hibernate || m.sleep.last_method == off_action::kHibernate;
  return is_slow ? kLatestSeconds : kResumeSeconds;
}

// `clock` is the device's at the wake-up: the system clock may be wrong after a boot.
static bool has_gone_off(const machine &m, std::int64_t clock) {
  const device_alarm &stood = m.alarm.before_sleep;
  const std::int64_t count = rounded_down(m, stood.count);
  return stood.owner != alarm_owner::kNone && count <= clock + kSlackSeconds &&
         clock <= count + longest_way(m);
}

// One that took the place of ours and is not there any longer has gone off itself; one that still
// is ahead has kept ours from going off.
cause cause_by_alarm(const machine &m, others_did others, std::int64_t clock) {
  const device_alarm &stood = m.alarm.before_sleep;
  if (others == others_did::kSwitchedOff)
    return cause::kForeign;
  if (others == others_did::kReplaced || !has_gone_off(m, clock))
    return cause::kNothing;
  switch (stood.owner) {
  case alarm_owner::kTest:
    return cause::kTest;
  case alarm_owner::kTimer: // one that nobody wants any longer credits nobody
    return m.alarm.before_sleep_wanted.on_time != 0 ? cause::kTimer : cause::kHop;
  case alarm_owner::kHop:
    return cause::kHop;
  case alarm_owner::kForeign:
    return cause::kForeign;
  case alarm_owner::kNone:
    break;
  }
  return cause::kNothing;
}

bool by_alarm_of_ours(const machine &m) {
  return m.woken.by == cause::kTimer || m.woken.by == cause::kHop || m.woken.by == cause::kTest;
}

// The return is counted from the on-time, unless a step of the clock has moved that far ahead.
void credit(decision &d) {
  auto &woken = d.m.woken;
  const wanted_alarm &wanted = d.m.alarm.before_sleep_wanted;
  const std::int64_t ahead = wanted.on_time - d.now.utc;
  woken.credited = true;
  woken.type = wanted.type;
  if (ahead > 0 && ahead <= kLatestSeconds)
    woken.counted_at = d.now.boot + ahead * kSecondMs;
}

void say_cause(decision &d) {
  say(d, d.m.woken.booted ? order::saying::kBooted : order::saying::kWoken,
      static_cast<std::int64_t>(d.m.woken.by), d.m.woken.type);
}

// Without a signal for as long as the sleep lasted, a screen that was on may well be off. An order
// may come before the clock has shown what has woken the machine.
static void doubt_screen(decision &d) {
  if (is_on(d.m) && d.m.screen.ordered_at < d.m.woken.at)
    d.m.screen.believed = screen_state::kUnknown;
}

// One that neither logind nor the clocks have shown has any length.
static bool is_short_sleep(const decision &d) {
  const std::int64_t slept_ms = d.m.woken.at - d.m.power.went.boot;
  return slept_ms > 0 && slept_ms < kShortSleepMs;
}

static void count_short_sleep(decision &d) {
  auto &power = d.m.power;
  const bool is_short = is_short_sleep(d);
  const bool is_unknown = d.m.woken.by == cause::kNothing;
  power.short_sleeps = is_short && is_unknown ? power.short_sleeps + 1 : 0;
  if (power.short_sleeps > kShortSleeps) {
    begin_problem(d, problem::kWakesLoop, 0);
    power.pause_until = d.now.boot + kPauseMs;
  } else if (!is_unknown || !is_short) {
    end_problem(d, problem::kWakesLoop);
    power.pause_until = 0;
  }
  if (by_alarm_of_ours(d.m))
    power.sent_at = {};
}

// The television follows its user; another screen that we had switched off comes back, too.
static bool comes_back(const machine &m) {
  const bool was_ours = !m.screen.is_televisions && m.screen.ordered == screen_order::kOff;
  const bool may_follow = m.screen.has_cec || m.screen.is_televisions;
  return was_ours || (may_follow && m.set.screen_follows);
}

static void was_woken_by_user(decision &d) {
  d.never(due_kind::kUserWindow);
  d.m.woken.by = cause::kUser;
  d.m.power.short_sleeps = 0;
  d.m.power.pause_until = 0;
  end_problem(d, problem::kWakesLoop);
  say_cause(d);
  if (comes_back(d.m))
    turn_screen(d, true);
}

void decide_cause(decision &d, others_did others) {
  auto &woken = d.m.woken;
  woken.cause_open = false;
  woken.by = cause_by_alarm(d.m, others, d.m.alarm.clock);
  if (woken.by == cause::kTimer)
    credit(d);
  if (woken.by == cause::kTimer || woken.by == cause::kHop)
    doubt_screen(d);
  count_short_sleep(d);
  if (d.m.test.running && d.m.sleep.wish != sleep_wish::kTest) // otherwise it has begun since
    trial_ends(d, 0);
  if (woken.by != cause::kNothing)
    say_cause(d);
  else if (d.m.use.input_at != 0)
    was_woken_by_user(d);
  else
    d.due_after(due_kind::kUserWindow, kUserWindowMs);
}

void user_window_ends(decision &d) {
  d.never(due_kind::kUserWindow);
  say_cause(d);
}

// The key that has woken the machine need not be seen: a keyboard on USB is not there yet, and a
// power button says nothing. A screen that is to come back with its user waits for the next one. A
// new session is none: it may be somebody far away.
bool awaits_user(const machine &m) {
  const bool is_decided = m.power.now == phase::kAwake && !m.woken.cause_open;
  return is_decided && m.woken.by == cause::kNothing && comes_back(m) && !is_on(m);
}

// A key that was pressed before the sleep may be read after it. One that woke the machine is new:
// of two sleeps that look like one it may have ended the first.
static bool is_old(const machine &m, std::int64_t at) {
  return at < std::max(m.woken.slept_from, m.woken.at - kUserWindowMs);
}

void on(decision &d, const event::input &e) {
  if (is_old(d.m, e.at))
    return;
  d.m.use.input_at = d.now.boot;
  d.m.screen.answered = screen_state::kUnknown; // it may have been turned on meanwhile
  used(d);
  if (due_at(d.m, due_kind::kUserWindow) != kNever || awaits_user(d.m))
    was_woken_by_user(d);
}
