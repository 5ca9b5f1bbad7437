// Sleeps and shutdowns: announced, begun, refused, over.
#include "rules.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

// A sleep is as long as the boot clock has left the monotonic one.
static constexpr std::int64_t kLeastSleepMs = kSecondMs;
static constexpr std::int64_t kLeavingMs = 60 * kSecondMs;
static constexpr std::int64_t kStillLeavingMs = 2 * kSecondMs; // before the delay of a sleep ends
static constexpr std::int64_t kInhibitAgainMs[] = {1 * kSecondMs, 10 * kSecondMs, 60 * kSecondMs};

// --- the delay ---

void take_inhibitor(decision &d) {
  d.m.power.released = false;
  d.give(order::take_inhibitor{});
}

void inhibitor_refused(decision &d) {
  std::uint8_t &tries = d.m.use.inhibit_tries;
  d.due_after(due_kind::kInhibitAgain, kInhibitAgainMs[tries]);
  if (tries + 1U < std::size(kInhibitAgainMs))
    ++tries;
}

// One that is taken while the machine goes would only delay it.
void try_inhibitor_again(decision &d) {
  if (!is_leaving(d.m))
    take_inhibitor(d);
}

// Another program's alarm may go off before the machine sleeps: ours follows it then.
static bool waits_for_alarm(const decision &d) {
  const device_alarm &stands = d.m.alarm.stands;
  const std::int64_t passes_at = d.now.boot + (stands.utc + 1 - d.now.utc) * kSecondMs;
  return stands.owner == alarm_owner::kForeign && stands.utc >= d.now.utc &&
         d.m.alarm.wanted.on_time > d.now.utc &&
         passes_at < d.m.power.went.boot + d.m.use.delay_max_ms - kSecondMs;
}

// A daemon that starts in this moment has not said yet what it wants.
void release_if_ready(decision &d) {
  auto &power = d.m.power;
  const bool is_tried_again = due_at(d.m, due_kind::kAlarmAgain) != kNever;
  if (!is_leaving(d.m) || !d.m.armed || !power.standby_told || power.released || is_tried_again ||
      waits_for_alarm(d) || !is_alarm_settled(d.m))
    return;
  if (power.now == phase::kShuttingDown && is_hop_left_out(d.m, d.now))
    say(d, order::saying::kHopWillNotBoot, d.m.alarm.wanted.on_time);
  power.released = true;
  d.give(order::release_inhibitor{});
}

// --- before ---

// Its end may have been told while logind or this process was away.
void ask_whether_leaving(decision &d) {
  if (!is_leaving(d.m) && !d.m.power.end_owed)
    return;
  d.give(order::ask_preparing{});
  if (is_leaving(d.m))
    d.due_after(due_kind::kLeaving, kLeavingMs);
}

static void leave(decision &d, phase next) {
  auto &power = d.m.power;
  power.may_hibernate = power.end_owed = power.signal_owed = false;
  power.now = next;
  power.went = d.now;
  power.standby_told = false;
  power.step_held = false;
  d.m.screen.pending = false;
  d.never(due_kind::kScreenStep);
  d.never(due_kind::kAlarmAgain);
  d.due_after(due_kind::kLeaving, kLeavingMs);
  if (due_at(d.m, due_kind::kUserWindow) != kNever)
    user_window_ends(d);
  take_back(d, delivery::kWakeup);
  tell(d, delivery::kStandby);
}

static bool may_hibernate(const machine &m) {
  return m.use.can == 0 || can_hibernate(m); // 0: not told yet
}

// A sleep that begins shows that a shutdown before it was called off, and that a sleep before it,
// whose end this process has missed, is over.
static void begin_sleep(decision &d) {
  const bool by_user = d.m.sleep.stage != wish_stage::kAsked;
  leave(d, phase::kGoing);
  d.m.sleep.last_method = coming_sleep(d.m);
  d.m.power.may_hibernate = by_user && may_hibernate(d.m);
  if (by_user && d.m.set.screen_follows && d.m.screen.has_cec) {
    d.m.screen.ordered = screen_order::kOff;
    d.m.screen.ordered_on = false;
    d.m.screen.believed = screen_state::kUnknown;
    d.give(order::tv_off{});
  }
}

// What logind says just after a sleep may be about that one. When it still says so somewhat later,
// another one begins.
static void may_begin_sleep(decision &d, bool is_of_last_sleep) {
  auto &power = d.m.power;
  power.signal_owed = false;
  if (!is_of_last_sleep || !is_resume(d)) {
    begin_sleep(d);
    return;
  }
  power.end_owed = true;
  power.may_hibernate = may_hibernate(d.m);
  d.m.alarm.check = true;
  d.due_after(due_kind::kLeaving, kStillLeavingMs);
}

// The clocks may have shown this sleep before its signal was read.
void on(decision &d, const event::sleep_begins &) { may_begin_sleep(d, d.m.power.signal_owed); }

void on(decision &d, const event::shutdown_begins &) {
  if (d.m.test.running)
    trial_ends(d, ECANCELED);
  leave(d, phase::kShuttingDown);
}

// --- after ---

// Nothing has changed but that the daemon was told of a standby.
static void stayed_up(decision &d) {
  const bool ours = d.m.sleep.stage == wish_stage::kAsked;
  d.m.power.now = phase::kAwake;
  take_inhibitor(d);
  d.m.alarm.tries = 0;
  d.never(due_kind::kAlarmAgain);
  d.never(due_kind::kLeaving);
  d.m.alarm.check = true;
  ask_again(d);
  take_back(d, delivery::kStandby);
  tell(d, delivery::kWakeup);
  d.m.clock.update_due = true;
  if (d.m.power.step_held)
    tell(d, delivery::kTimeSet);
  ask_television(d);
  if (ours)
    sleep_failed(d, 0);
}

// The lead is that of a sleep again.
static void sleep_is_over(decision &d) {
  d.m.alarm.check = d.m.alarm.check || d.m.power.end_owed;
  d.m.power.end_owed = d.m.power.signal_owed = false;
}

// A delay that was refused before is given from now on.
void on(decision &d, const event::sleep_ends &) {
  sleep_is_over(d);
  if (d.m.power.now == phase::kGoing)
    stayed_up(d);
  else if (due_at(d.m, due_kind::kInhibitAgain) != kNever)
    try_inhibitor_again(d);
}

void on(decision &d, const event::shutdown_ends &) {
  if (d.m.power.now == phase::kShuttingDown)
    stayed_up(d);
}

// What a run that started in between has missed. An order to sleep may have been lost with the last
// run: it is given again when nothing prevents it.
void on(decision &d, const event::preparing &e) {
  const phase now = d.m.power.now;
  if (!e.sleep)
    sleep_is_over(d);
  if (e.sleep && now != phase::kGoing)
    may_begin_sleep(d, d.m.power.end_owed || d.m.power.signal_owed);
  else if (e.shutdown && !e.sleep && now != phase::kShuttingDown)
    on(d, event::shutdown_begins{});
  else if (!e.sleep && !e.shutdown && is_leaving(d.m))
    stayed_up(d);
  else if (d.m.power.now == phase::kSleepAsked)
    order_was_lost(d);
}

static void forget_orders(decision &d) {
  auto &screen = d.m.screen;
  screen.pending = false;
  screen.ordered_on = screen.seen_on = false;
  screen.answered = screen_state::kUnknown;
  d.m.use.input_at = 0;
  forget_wish(d);
  end_problem(d, problem::kSleep);
  d.never(due_kind::kScreenStep);
  d.never(due_kind::kLeaving);
  d.never(due_kind::kUserWindow);
  forget_lost_jobs(d);
}

std::int64_t utc_before(const moment &now, std::int64_t ms) {
  return (now.utc * kSecondMs + now.utc_ms - ms) / kSecondMs;
}

// `awake_at`: boot, when this process did something last.
static void woke_up(decision &d, std::int64_t slept_ms, std::int64_t awake_at) {
  auto &power = d.m.power;
  auto &woken = d.m.woken;
  const bool was_announced = is_leaving(d.m);
  power.end_owed = power.end_owed || power.now == phase::kGoing;
  power.signal_owed = power.now != phase::kGoing;
  // One of ours that neither logind nor the clocks have shown has begun soon after its order.
  if (!was_announced && slept_ms < kLeastSleepMs && d.m.sleep.stage == wish_stage::kAsked)
    slept_ms = d.now.boot - awake_at;
  power.now = phase::kAwake;
  take_inhibitor(d);
  // A sleep that the clocks do not show has lasted since it was announced.
  const bool is_shown = slept_ms >= kLeastSleepMs || !was_announced;
  const std::int64_t began = is_shown ? utc_before(d.now, slept_ms) : power.went.utc;
  if (!was_announced) {
    power.went = {began, d.now.boot - slept_ms, 0, 0, 0};
    power.may_hibernate = power.may_hibernate && power.end_owed;
  }
  count_sleep(d);
  if (!was_announced && d.m.sleep.stage == wish_stage::kAsked)
    d.m.sleep.last_method = d.m.sleep.method;
  forget_orders(d);
  // A daemon that has not asked yet wants those from before this sleep, too.
  const bool has_asked = d.m.armed && !woken.late_open;
  const std::int64_t awake_until = utc_before(d.now, d.now.boot - awake_at);
  const std::int64_t late_from = has_asked ? awake_until : std::min(awake_until, woken.late_from);
  woken = {};
  woken.by = cause::kNothing;
  woken.at = woken.counted_at = d.now.boot;
  woken.slept_from = is_shown ? d.now.boot - slept_ms : power.went.boot;
  woken.utc = d.now.utc;
  woken.cause_open = true;
  woken.late_open = true;
  woken.late_from = std::max(late_from, d.now.utc - kLatestSeconds);
  d.m.alarm.before_sleep_wanted = d.m.alarm.wanted;
  d.m.alarm.before_sleep = d.m.alarm.stands;
  d.m.alarm.tries = 0;
  d.m.alarm.check = true;
  take_back(d, delivery::kStandby);
  tell(d, delivery::kWakeup);
  if (power.step_held)
    tell(d, delivery::kTimeSet);
  d.m.clock.update_due = true;
  d.give(order::ask_use{});
  ask_television(d);
}

// The clocks show a sleep at once, the count of sleeps only after all processes go on.
void notice_sleep(decision &d) {
  auto &power = d.m.power;
  const std::int64_t slept_ms = d.now.slept - power.seen.slept;
  const bool is_longer = slept_ms >= kLeastSleepMs;
  const bool is_counted = d.now.sleeps != power.seen.sleeps;
  const bool slept = is_longer || (is_counted && !power.count_owed);
  if (is_longer || is_counted)
    power.count_owed = is_longer && !is_counted;
  const std::int64_t awake_at = power.seen.boot;
  power.seen = {0, d.now.boot, d.now.slept, d.now.sleeps, 0};
  if (slept)
    woke_up(d, slept_ms, awake_at);
}
