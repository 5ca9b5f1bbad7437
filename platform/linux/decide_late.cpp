// Timers that became due while the machine slept, while the daemon started, or while the clock was
// unknown. The daemon never fires a timer whose second has passed.
#include "rules.h"

#include <dravel-timer-types.h>

#include <algorithm>
#include <span>

static timer_action action_of(const late_timer &timer) { return timer_type_of(timer.type).action; }

static bool switches(const late_timer &timer) {
  return action_of(timer) == timer_action::kTurnOn || action_of(timer) == timer_action::kTurnOff;
}

// Whoever has woken the machine after an off-time, or has turned the screen on since, wants it on.
static bool may_turn_off(const decision &d, const late_timer &timer) {
  const std::int64_t late = d.now.utc - timer.utc;
  const std::int64_t due = d.now.boot - late * kSecondMs;
  const bool is_on_since = d.m.screen.ordered_on && d.m.screen.ordered_at > due;
  const bool was_awake = due >= d.m.woken.at;
  return !is_on_since && (was_awake || by_alarm_of_ours(d.m) || late <= kSlackSeconds);
}

// As at an expiry: nothing is woken while the screen is on.
static void wake_for(decision &d, const late_timer &timer) {
  if (is_on(d.m))
    return;
  d.give(order::say{order::saying::kLate, timer.type, d.now.utc - timer.utc, 0, timer.id});
  begin_unit(d, unit::kWakeup, timer_type_of(timer.type).reason);
  used(d);
  if (action_of(timer) == timer_action::kTurnOn)
    turn_screen(d, true);
}

static void make_up(decision &d, const late_timer &timer) {
  switch (action_of(timer)) {
  case timer_action::kTurnOn:
  case timer_action::kWake:
    wake_for(d, timer);
    break;
  case timer_action::kTurnOff:
    if (may_turn_off(d, timer))
      turn_off_by_timer(d);
    break;
  case timer_action::kNone:
    break;
  }
}

void timers_have_fired(decision &d) {
  if (!d.m.woken.late_open)
    d.m.woken.late_from = d.now.utc;
}

// It is known now: the daemon, which has armed nothing by it, has fired nothing since then.
void find_timers_of_unknown_clock(decision &d) {
  auto &woken = d.m.woken;
  const std::int64_t began = utc_before(d.now, d.now.boot - d.m.clock.unknown_from);
  const std::int64_t from = std::max(began, d.now.utc - kLatestSeconds);
  woken.late_from = woken.late_open ? std::min(woken.late_from, from) : from;
  woken.late_open = true;
}

// Of those that turn the screen on or off, the last one counts.
void on(decision &d, const event::late_timers &e) {
  d.m.woken.late_open = false;
  timers_have_fired(d);
  const std::span timers{e.timers.data(), std::min<std::size_t>(e.count, kLateTimers)};
  const late_timer *last = nullptr;
  for (const late_timer &timer : timers)
    last = switches(timer) ? &timer : last;
  for (const late_timer &timer : timers)
    if (!switches(timer) || &timer == last)
      make_up(d, timer);
}
