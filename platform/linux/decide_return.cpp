// The return to sleep of a machine that was woken for nobody.
#include "rules.h"

#include <algorithm>

static constexpr std::int64_t kHopMs = 10 * kSecondMs;

static off_action sleep_as_before(const machine &m) {
  if (m.woken.booted)
    return off_action::kPoweroff;
  return m.sleep.last_method == off_action::kHibernate ? off_action::kHibernate
                                                       : off_action::kSuspend;
}

// Whoever was to watch what we have turned on may sit before a television that does not answer, and
// so may who has pressed a key; nobody knows who else has woken the machine.
bool must_say_off(const machine &m) {
  return m.screen.ordered_on || m.use.input_at != 0 || m.woken.by == cause::kNothing;
}

static bool is_user_window_open(const machine &m) {
  return due_at(m, due_kind::kUserWindow) != kNever;
}

static bool may_return(const machine &m) {
  if (is_on(m) || m.screen.pending || m.woken.stays || (must_say_off(m) && !m.screen.has_cec))
    return false;
  if (m.woken.by == cause::kNothing)
    return !is_user_window_open(m);
  return by_alarm_of_ours(m);
}

// boot; kNever: it stays awake.
static std::int64_t return_at(const machine &m) {
  if (!may_return(m))
    return kNever;
  if (m.woken.by == cause::kHop && !m.woken.fired)
    return m.woken.counted_at + kHopMs;
  const std::int64_t length = m.set.return_to_sleep * kSecondMs;
  return length == 0 ? kNever : m.woken.counted_at + length;
}

void used(decision &d) {
  d.m.woken.fired = true;
  d.m.woken.counted_at = std::max(d.m.woken.counted_at, d.now.boot);
}

void wish_return(decision &d) {
  const bool is_time = return_at(d.m) <= d.now.boot;
  const sleep_wish wish = d.m.sleep.wish;
  if (wish == sleep_wish::kReturn && !is_time)
    drop_wish(d);
  else if (wish == sleep_wish::kNone && is_time)
    wish_sleep(d, sleep_wish::kReturn, sleep_as_before(d.m));
}

void count_return(decision &d) {
  const std::int64_t at = return_at(d.m);
  const bool is_ahead = d.m.power.now == phase::kAwake && at > d.now.boot;
  d.due(due_kind::kReturn) = is_ahead ? at : kNever;
}

// An off-timer's wish, which is overtaken by somebody who comes.
static bool is_postponed(const machine &m) {
  return m.sleep.wish != sleep_wish::kNone && m.sleep.why != postponed::kNot &&
         m.sleep.why != postponed::kHook;
}

// The key that wakes the machine is only seen when its device was open before.
void watch_input(decision &d) {
  const phase now = d.m.power.now;
  const bool returns =
      return_at(d.m) != kNever || is_user_window_open(d.m) || is_postponed(d.m) || awaits_user(d.m);
  const bool wanted = now == phase::kGoing || (now != phase::kShuttingDown && returns);
  if (wanted == d.m.use.watched)
    return;
  d.m.use.watched = wanted;
  d.give(order::watch_input{wanted});
}
