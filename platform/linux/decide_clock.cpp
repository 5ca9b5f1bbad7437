// Whether the clock is known, who sets it, and what the daemon hears of it.
#include "rules.h"

#include <algorithm>
#include <iterator>

// Then every five minutes: timedated does not say when the clock becomes synchronised.
static constexpr std::int64_t kAskAgainMs[] = {10 * kSecondMs, 30 * kSecondMs, 60 * kSecondMs,
                                               300 * kSecondMs};
// The end of a sleep shows as a step, which nobody has made.
static constexpr std::int64_t kResumeMs = 2 * kSecondMs;

bool is_clock_known(const machine &m, const moment &now) {
  return now.utc >= m.clock.build_day && (m.clock.rtc_valid || m.clock.was_set);
}

static bool is_automatic(const machine &m) { return m.clock.ntp && m.clock.synchronised; }

static bool is_trusted(const machine &m, const moment &now) {
  return is_clock_known(m, now) && (!m.clock.ntp || m.clock.synchronised);
}

static clock_state state_of(const machine &m, const moment &now) {
  if (!is_clock_known(m, now))
    return clock_state::kUnknown;
  return is_automatic(m) ? clock_state::kSynchronised : clock_state::kByHand;
}

// The daemon, which hears of it in that second, takes a timer of the first second after the hour
// that is left out for one that has passed.
static void find_timers_of_transition(decision &d) {
  auto &woken = d.m.woken;
  const std::int64_t before = d.m.clock.next_transition - 1;
  if (woken.late_open || d.now.utc - before > kSlackSeconds)
    return;
  woken.late_open = true;
  woken.late_from = before;
}

// The clock on the screen jumps by an hour: a timer that counts seconds across it would be wrong.
// It may be slept through or stepped over.
static void transition_passes(decision &d) {
  find_timers_of_transition(d);
  d.m.clock.next_transition = 0;
  d.m.clock.zone_open = true;
  tell(d, delivery::kTimeSet);
}

// A clock that a start finds unknown has been so since the boot, unless the start says otherwise.
static void count_unknown(decision &d) {
  auto &clock = d.m.clock;
  if (clock.state == clock_state::kUnknown) {
    if (clock.unknown_from == kNever)
      clock.unknown_from = d.m.armed ? d.now.boot : 0;
  } else if (clock.unknown_from != kNever && d.m.armed && !is_leaving(d.m)) {
    find_timers_of_unknown_clock(d);
    clock.unknown_from = kNever;
  }
}

void count_clock(decision &d) {
  auto &clock = d.m.clock;
  clock.state = state_of(d.m, d.now);
  count_unknown(d);
  if (clock.update_due && is_trusted(d.m, d.now) && !is_leaving(d.m)) {
    clock.update_due = false;
    tell(d, delivery::kTimeUpdate);
  }
  if (clock.next_transition != 0 && clock.next_transition <= d.now.utc)
    transition_passes(d);
  if (clock.next_transition != 0)
    d.due_at_utc(due_kind::kTransition, clock.next_transition);
  else
    d.never(due_kind::kTransition);
}

// --- timedated ---

static bool is_asked_again(const decision &d) {
  return (d.m.clock.ntp && !d.m.clock.synchronised) || !is_clock_known(d.m, d.now);
}

static void plan_question(decision &d) {
  auto &asked = d.m.clock.asked;
  if (!is_asked_again(d)) {
    d.never(due_kind::kAskClock);
    return;
  }
  d.due_after(due_kind::kAskClock,
              kAskAgainMs[std::min<std::size_t>(asked, std::size(kAskAgainMs) - 1)]);
  if (asked < UINT8_MAX)
    ++asked;
}

void ask_clock_again(decision &d) {
  d.give(order::ask_clock{});
  plan_question(d);
}

// A clock that is synchronised stays so until NTP is switched off: after each sleep it counts as
// not synchronised for a while.
void on(decision &d, const event::ntp &e) {
  auto &clock = d.m.clock;
  const bool was_automatic = is_automatic(d.m);
  const bool was_known = is_clock_known(d.m, d.now);
  clock.ntp = e.answered && e.on;
  clock.synchronised = e.answered && (e.synchronised || (clock.synchronised && e.on));
  clock.was_set = clock.was_set || clock.synchronised;
  if (e.answered)
    end_problem(d, problem::kClock);
  else
    begin_problem(d, problem::kClock, 0);
  if (is_automatic(d.m) != was_automatic)
    tell(d, delivery::kClockMode);
  if ((is_automatic(d.m) && !was_automatic) || (is_clock_known(d.m, d.now) && !was_known))
    clock.update_due = true;
  if (due_at(d.m, due_kind::kAskClock) == kNever || !is_asked_again(d))
    plan_question(d);
}

// --- steps and zones ---

void start_clock(decision &d) {
  auto &clock = d.m.clock;
  clock.asked = 0;
  clock.update_due = clock.update_due || !is_clock_known(d.m, d.now);
}

bool is_resume(const decision &d) {
  return d.m.woken.at != 0 && !d.m.woken.booted && d.now.boot - d.m.woken.at < kResumeMs;
}

// The on-time that the return is counted from may be far away now, and one that was far away near.
static void somebody_stepped(decision &d) {
  auto &clock = d.m.clock;
  auto &woken = d.m.woken;
  woken.utc = utc_before(d.now, d.now.boot - (woken.booted ? 0 : woken.at));
  clock.update_due = clock.update_due || !is_clock_known(d.m, d.now);
  clock.was_set = true;
  woken.counted_at = std::min(woken.counted_at, d.now.boot);
  ask_before_near(d);
}

void on(decision &d, const event::clock_stepped &) {
  auto &clock = d.m.clock;
  if (!is_resume(d))
    somebody_stepped(d);
  if (is_leaving(d.m))
    d.m.power.step_held = true;
  else
    tell(d, delivery::kTimeSet);
  d.m.alarm.check = true;
  clock.zone_open = true;
  clock.asked = 0;
  ask_clock_again(d);
}

void on(decision &d, const event::zone_changed &e) {
  d.m.clock.next_transition = e.next_transition;
  d.m.clock.zone_open = false;
  if (e.changed)
    tell(d, delivery::kZone);
}
