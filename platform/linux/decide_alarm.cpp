// Which alarm must stand: ours or another program's, and when ours goes off.
#include "rules.h"

#include <algorithm>

// A shutdown takes as long before the machine is really off.
static constexpr std::int64_t kShutdownSeconds = 120;
// A sleep begins when every inhibitor is released, and takes a while itself.
static constexpr std::int64_t kSleepSeconds = 15;
static constexpr std::int64_t kMinute = 60;

// Its alarm is written for the last time.
static bool is_last_write(const machine &m) { return is_leaving(m) || m.power.ending; }

// logind does not say which sleep begins: unless it is ours, the configured one is assumed.
off_action coming_sleep(const machine &m) {
  if (m.power.now == phase::kShuttingDown || m.power.ending)
    return off_action::kPoweroff;
  if (m.sleep.stage == wish_stage::kAsked)
    return m.sleep.method;
  const bool hibernates = m.set.off == off_action::kHibernate && can_hibernate(m);
  return hibernates ? off_action::kHibernate : off_action::kSuspend;
}

// logind tells nobody that a user hibernates the machine. One that is only suspended at first is
// awake for a moment before it hibernates.
static off_action slowest_sleep(const machine &m) {
  const bool is_asleep = m.power.now == phase::kGoing || m.power.end_owed;
  return is_asleep && m.power.may_hibernate ? off_action::kHibernate : coming_sleep(m);
}

// A machine that comes back from the disk takes as long as one that boots.
std::int64_t lead_seconds(const machine &m, off_action method) {
  const bool boots = method == off_action::kPoweroff || method == off_action::kHibernate;
  return boots ? m.set.lead_poweroff : m.set.lead_suspend;
}

std::int64_t nearness_seconds(const machine &m, off_action method) {
  if (method == off_action::kPoweroff)
    return kShutdownSeconds;
  return (m.use.delay_max_ms + kSecondMs - 1) / kSecondMs + kSleepSeconds;
}

// A device whose alarm counts minutes rounds by itself, and reads back as it was written.
std::int64_t rounded_down(const machine &m, std::int64_t count) {
  return m.alarm.minutes ? count - count % kMinute : count;
}

bool is_ahead(const machine &m, const device_alarm &alarm, std::int64_t clock) {
  return alarm.owner != alarm_owner::kNone && rounded_down(m, alarm.count) > clock;
}

// UTC, without regard to what is possible; kNever: it is not to go off.
static std::int64_t alarm_time(const machine &m, const moment &now) {
  const std::int64_t on_time = m.alarm.wanted.on_time;
  return on_time <= now.utc ? kNever : on_time - lead_seconds(m, slowest_sleep(m));
}

static bool is_hop(const machine &m, std::int64_t time, const moment &now) {
  return m.alarm.range != 0 && time - now.utc > m.alarm.range;
}

static bool boots_for_hops(const machine &m) {
  return m.set.hop_boots || m.power.now != phase::kShuttingDown;
}

bool is_hop_left_out(const machine &m, const moment &now) {
  const std::int64_t time = alarm_time(m, now);
  return time != kNever && is_hop(m, time, now) && !boots_for_hops(m);
}

static std::int64_t rounded_up(const machine &m, std::int64_t count) {
  const std::int64_t down = rounded_down(m, count);
  return down == count ? down : down + kMinute;
}

// Not nearer than a sleep allows.
static device_alarm alarm_in(const decision &d, alarm_owner owner, std::int64_t seconds) {
  const machine &m = d.m;
  const std::int64_t least = m.alarm.clock + nearness_seconds(m, coming_sleep(m));
  const std::int64_t down = rounded_down(m, m.alarm.clock + seconds);
  const std::int64_t count = down >= least ? down : rounded_up(m, least);
  return {owner, count, d.now.utc + count - m.alarm.clock};
}

// Once it has gone off, another program's stands again; ours follows only when the machine sleeps
// before the on-time after all.
static device_alarm alarm_for_timer(const decision &d) {
  const machine &m = d.m;
  const std::int64_t time = alarm_time(m, d.now);
  const bool hops = is_hop(m, time, d.now);
  if (time == kNever || (hops && !boots_for_hops(m)))
    return {};
  const std::int64_t seconds = hops ? m.alarm.range : time - d.now.utc;
  if (!is_last_write(m) && rounded_down(m, m.alarm.clock + seconds) <= m.alarm.clock)
    return {};
  return alarm_in(d, hops ? alarm_owner::kHop : alarm_owner::kTimer, seconds);
}

// A step of the clock makes a test no shorter and no longer. Its sleep may begin after its time.
static device_alarm alarm_for_test(const decision &d) {
  const std::int64_t left = (d.m.test.until - d.now.boot) / kSecondMs;
  if (!d.m.test.running || (left <= 0 && !is_last_write(d.m)))
    return {};
  return alarm_in(d, alarm_owner::kTest, left);
}

// The earlier one, or the one that there is; `first` of two at the same time.
static device_alarm earlier(const device_alarm &first, const device_alarm &second) {
  if (first.owner == alarm_owner::kNone)
    return second;
  return second.owner == alarm_owner::kNone || first.count <= second.count ? first : second;
}

static device_alarm our_alarm(const decision &d) {
  return d.m.alarm.leaves ? device_alarm{} : earlier(alarm_for_timer(d), alarm_for_test(d));
}

unsigned refusal_bit(alarm_owner owner) {
  if (owner == alarm_owner::kForeign)
    return 1;
  return owner == alarm_owner::kNone ? 2 : 4;
}

// There is one register. An earlier alarm of another program stays, a later one is put back when
// ours has gone off or is not wanted any longer.
device_alarm alarm_that_must_stand(const decision &d) {
  const auto unless_refused = [&](const device_alarm &alarm) {
    return (d.m.alarm.failed & refusal_bit(alarm.owner)) == 0 ? alarm : device_alarm{};
  };
  const device_alarm ours = unless_refused(our_alarm(d));
  const device_alarm theirs = unless_refused(d.m.alarm.foreign);
  return earlier(theirs, ours);
}

bool alarm_leads(const machine &m, const moment &now, off_action method) {
  const std::int64_t on_time = m.alarm.wanted.on_time;
  const device_alarm &stands = m.alarm.stands;
  if (on_time <= now.utc)
    return true;
  if (m.alarm.unread)
    return false;
  if (stands.utc <= now.utc || stands.utc > on_time)
    return false;
  switch (stands.owner) {
  case alarm_owner::kTimer:
  case alarm_owner::kForeign:
    return true;
  case alarm_owner::kHop:
    return method != off_action::kPoweroff || m.set.hop_boots;
  case alarm_owner::kNone:
  case alarm_owner::kTest:
    break;
  }
  return false;
}

std::int64_t next_wake_utc(const machine &m, const moment &now) {
  std::int64_t next = kNever;
  const auto consider = [&](std::int64_t utc) {
    if (utc > now.utc)
      next = std::min(next, utc);
  };
  consider(m.alarm.wanted.on_time);
  consider(m.alarm.foreign.utc);
  return next;
}
