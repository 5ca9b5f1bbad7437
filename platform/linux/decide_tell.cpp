// What the daemon, the journal and the machine object are told.
#include "rules.h"

#include <device_power.h>
#include <dravel-timer-types.h>

#include <cerrno>

static std::uint32_t bit(delivery what) { return 1U << static_cast<unsigned>(what); }

void tell(decision &d, delivery what) { d.m.told.pending |= bit(what); }

void take_back(decision &d, delivery what) { d.m.told.pending &= ~bit(what); }

static std::int32_t wakeup_reason(machine &m) {
  if (!m.woken.credited || m.woken.told)
    return 0;
  m.woken.told = true;
  return timer_type_of(m.woken.type).reason;
}

static std::int32_t value_of(machine &m, delivery what) {
  if (what == delivery::kWakeup)
    return wakeup_reason(m);
  if (what == delivery::kState)
    return is_on(m) ? DEVICE_POWER_STATE_ON : DEVICE_POWER_STATE_SLEEPING;
  return 0;
}

static constexpr delivery kDeliveries[] = {
    delivery::kStandby,   delivery::kWakeup,  delivery::kState,     delivery::kZone,
    delivery::kClockMode, delivery::kTimeSet, delivery::kTimeUpdate};

// A daemon that hears of the wake-up forgets the timers that it has missed.
static bool is_too_early(const machine &m, delivery what) {
  return m.woken.late_open && what != delivery::kStandby;
}

void deliver_next(decision &d) {
  if (d.m.told.now != delivery::kNone)
    return;
  for (const delivery what : kDeliveries) {
    if ((d.m.told.pending & bit(what)) == 0 || is_too_early(d.m, what))
      continue;
    take_back(d, what);
    d.m.told.now = what;
    d.give(order::deliver{what, value_of(d.m, what)});
    return;
  }
}

void on(decision &d, const event::returned &e) {
  d.m.told.now = delivery::kNone;
  if (e.callback == delivery::kStandby && is_leaving(d.m)) {
    d.m.power.standby_told = true;
    d.m.alarm.check = true;
  }
  if (e.callback == delivery::kTimeUpdate)
    d.m.wants_idle = true;
}

void say(decision &d, order::saying what, std::int64_t number, std::uint32_t type) {
  d.give(order::say{what, type, number, 0, 0});
}

void begin_problem(decision &d, problem which, int error) {
  int &known = d.m.problems[static_cast<std::size_t>(which)];
  if (known == 0)
    d.give(order::say{order::saying::kProblem, 0, static_cast<std::int64_t>(which), error, 0});
  known = error == 0 ? 1 : error;
}

void end_problem(decision &d, problem which) {
  int &known = d.m.problems[static_cast<std::size_t>(which)];
  if (known != 0)
    say(d, order::saying::kProblemOver, static_cast<std::int64_t>(which));
  known = 0;
}

bool is_open(const machine &m, problem which) {
  return m.problems[static_cast<std::size_t>(which)] != 0;
}

// While logind still ends a sleep it gives no delay: that is no problem.
static bool is_too_soon(const event::refused &e) {
  return e.part == problem::kInhibitor && e.error == EINPROGRESS;
}

void on(decision &d, const event::refused &e) {
  if (!is_too_soon(e))
    begin_problem(d, e.part, e.error);
  if (e.part == problem::kInhibitor)
    inhibitor_refused(d);
}

void on(decision &d, const event::works &e) {
  end_problem(d, e.part);
  if (e.part != problem::kInhibitor)
    return;
  d.m.use.inhibit_tries = 0;
  d.never(due_kind::kInhibitAgain);
}
