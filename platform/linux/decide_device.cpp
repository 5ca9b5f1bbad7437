// The device: what stands on it, and how what must stand is written. Every write follows a reading.
#include "rules.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>

// Devices that take no on-time any number of days ahead take these.
static constexpr std::int64_t kRanges[] = {27LL * 86400, 23LL * 3600};
static constexpr std::int64_t kAgainAtStandbyMs = 500;
// After the try at idle. Then only with the next program or sleep.
static constexpr std::int64_t kAgainMs[] = {1 * kSecondMs, 10 * kSecondMs, 60 * kSecondMs};

void check_alarm(decision &d) { d.m.alarm.check = true; }

// One that the last run has decided is only a mark while nobody knows what stands: another program
// may have set its alarm since.
bool is_write_open(const machine &m) { return m.alarm.changes && !m.alarm.unread; }

bool is_alarm_settled(const machine &m) {
  return !m.alarm.check && !is_write_open(m) && !m.alarm.dirty;
}

// --- what is refused ---

// Another second for the rest of the standby.
static bool standby_waits(const decision &d) {
  const std::int64_t limit =
      d.m.power.went.boot + d.m.use.delay_max_ms - kSecondMs - kAgainAtStandbyMs;
  return d.now.boot <= limit;
}

static void plan_next_try(decision &d) {
  auto &alarm = d.m.alarm;
  if (alarm.tries < UINT8_MAX)
    ++alarm.tries;
  d.never(due_kind::kAlarmAgain);
  if (is_leaving(d.m)) {
    if (standby_waits(d))
      d.due_after(due_kind::kAlarmAgain, kAgainAtStandbyMs);
  } else if (alarm.tries == 1) {
    d.m.wants_idle = true;
  } else if (alarm.tries - 2U < std::size(kAgainMs)) {
    d.due_after(due_kind::kAlarmAgain, kAgainMs[alarm.tries - 2U]);
  }
}

static void give_up(decision &d, problem which, int error) {
  auto &alarm = d.m.alarm;
  alarm.refused = error;
  alarm.dirty = false;
  begin_problem(d, which, error);
  if (!alarm.for_good)
    plan_next_try(d);
}

static void finish_alarm(decision &d) {
  auto &alarm = d.m.alarm;
  alarm.check = false;
  alarm.dirty = false;
  if (alarm.failed != 0) {
    give_up(d, problem::kAlarmRefused, alarm.refused);
    return;
  }
  alarm.refused = 0;
  alarm.tries = 0;
  d.never(due_kind::kAlarmAgain);
  end_problem(d, problem::kAlarmRefused);
}

static bool is_range_error(int error) {
  return error == EINVAL || error == ERANGE || error == EDOM;
}

// False when nothing nearer is left to try.
static bool learn_range(machine &m, const device_alarm &refused, const moment &now) {
  const std::int64_t ahead = refused.utc - now.utc;
  const auto *shorter = std::ranges::find_if(kRanges, [=](auto range) { return range < ahead; });
  const bool is_left = shorter != std::end(kRanges);
  m.alarm.range = is_left ? *shorter : 0;
  return is_left;
}

// --- settling ---

static bool same_alarm(const device_alarm &stands, const device_alarm &target) {
  if (stands.owner == alarm_owner::kNone || target.owner == alarm_owner::kNone)
    return stands.owner == target.owner;
  if (stands.owner == alarm_owner::kForeign || target.owner == alarm_owner::kForeign)
    return stands.owner == target.owner && stands.count == target.count;
  return std::abs(stands.count - target.count) < kSlackSeconds;
}

static void settle_alarm(decision &d) {
  auto &alarm = d.m.alarm;
  const device_alarm target = alarm_that_must_stand(d);
  const bool cannot =
      target.owner == alarm_owner::kNone && (alarm.failed & refusal_bit(alarm_owner::kNone)) != 0;
  if (cannot || same_alarm(alarm.stands, target)) {
    if (!cannot)
      alarm.stands.owner = target.owner;
    finish_alarm(d);
    return;
  }
  alarm.next = target;
  alarm.changes = true;
}

void write_next_alarm(decision &d) {
  const device_alarm &next = d.m.alarm.next;
  if (next.owner == alarm_owner::kNone)
    d.give(order::switch_off_alarm{});
  else
    d.give(order::write_alarm{next.count, next.owner});
}

static void was_refused(decision &d, const device_alarm &next, int error) {
  auto &alarm = d.m.alarm;
  const bool ours = next.owner == alarm_owner::kTimer || next.owner == alarm_owner::kHop;
  alarm.doubt = true; // most refusals switch off what stood
  alarm.check = true;
  if (ours && is_range_error(error) && learn_range(d.m, next, d.now))
    return;
  alarm.failed |= refusal_bit(next.owner);
  alarm.refused = error;
}

void on(decision &d, const event::alarm_written &e) {
  auto &alarm = d.m.alarm;
  const device_alarm next = alarm.next;
  alarm.changes = false;
  if (e.error != 0) {
    was_refused(d, next, e.error);
    return;
  }
  alarm.stands = next;
  if (next.owner == alarm_owner::kForeign)
    say(d, order::saying::kForeignPutBack, next.utc);
  settle_alarm(d);
}

// By the system clock, when the device cannot be read.
static void guess_clock(decision &d) {
  const device_alarm &stood = d.m.alarm.before_sleep;
  d.m.alarm.clock = stood.count + d.now.utc - stood.utc;
}

void on(decision &d, const event::alarm_read &e) {
  auto &alarm = d.m.alarm;
  alarm.check = false;
  alarm.for_good = e.device.for_good;
  if (!alarm.doubt)
    alarm.failed = 0;
  if (e.device.error != 0 || e.device.for_good) {
    guess_clock(d);
    alarm.unread = true;
    if (d.m.woken.cause_open)
      decide_cause(d, others_did::kNothing);
    give_up(d, e.device.for_good ? problem::kNoDevice : problem::kAlarmRead, e.device.error);
    return;
  }
  end_problem(d, problem::kNoDevice);
  end_problem(d, problem::kAlarmRead);
  const device_alarm before = alarm.foreign;
  const others_did others = what_others_did(d.m, e.device);
  take_reading(d, e.device);
  if (alarm.foreign.owner != alarm_owner::kNone && alarm.foreign.count != before.count)
    say(d, order::saying::kForeignFound, alarm.foreign.utc);
  if (d.m.woken.cause_open)
    decide_cause(d, others);
  settle_alarm(d);
}

// --- the contract's calls ---

void on(decision &d, const event::program &e) {
  auto &alarm = d.m.alarm;
  // Of a time that comes twice, the first that is still ahead.
  const std::int64_t on_time = e.on_time > d.now.utc || e.again == 0 ? e.on_time : e.again;
  const std::int64_t before = alarm.wanted.on_time;
  alarm.wanted = on_time > d.now.utc ? wanted_alarm{e.type, on_time} : wanted_alarm{};
  if (alarm.wanted.on_time != before)
    ask_before_near(d);
  alarm.stale = false;
  alarm.tries = 0;
  alarm.check = true;
}

// A daemon that has not armed its timers yet does not know what it wants.
void on(decision &d, const event::unprogram &) {
  if (d.m.alarm.stale && !d.m.armed)
    return;
  d.m.alarm.wanted = {};
  d.m.alarm.stale = false;
  d.m.alarm.dirty = true;
  d.m.wants_idle = true;
}

// What the last run wanted holds until this one has armed its timers by a known clock.
void on(decision &d, const event::idle &) {
  auto &alarm = d.m.alarm;
  d.m.wants_idle = false;
  if (alarm.stale && d.m.armed && is_clock_known(d.m, d.now)) {
    alarm.wanted = {};
    alarm.stale = false;
    alarm.dirty = true;
  }
  if (alarm.dirty || (alarm.refused != 0 && alarm.tries == 1))
    alarm.check = true;
}

// Nothing is known of the one that takes its place.
void on(decision &d, const event::device_leaves &) {
  d.m.alarm.leaves = true;
  d.m.alarm.check = true;
}

void on(decision &d, const event::ended &) {
  d.m.power.ending = true;
  d.m.power.went.utc = d.now.utc; // until now the daemon has fired its timers
  d.m.alarm.check = true;
}

void count_alarm(decision &d) {
  const device_alarm &stands = d.m.alarm.stands;
  if (stands.owner != alarm_owner::kNone && stands.utc + 1 > d.now.utc) {
    d.due_at_utc(due_kind::kAlarmPasses, stands.utc + 1);
    return;
  }
  // Another event may come before the one that was awaited.
  const bool passes = due_at(d.m, due_kind::kAlarmPasses) != kNever;
  if (stands.owner != alarm_owner::kNone && passes)
    check_alarm(d);
  d.never(due_kind::kAlarmPasses);
}
