// Who uses the machine: users, programs that block its sleep, the units of our targets.
#include "rules.h"

#include <algorithm>

static constexpr std::int64_t kHookMs = 90 * kSecondMs;
static constexpr std::int64_t kBeginMs = 30 * kSecondMs; // until a unit's job is known
static constexpr std::int64_t kFoundMs = 2 * kSecondMs;
// A session that starts by itself has started by then, after a boot.
static constexpr std::int64_t kBootMs = 120 * kSecondMs;

// --- users ---

bool is_session_in_use(const machine &m) {
  const std::int64_t since = m.woken.booted ? std::max(m.woken.at, kBootMs) : m.woken.at;
  return m.use.session_at > since || m.use.active_at > since;
}

static bool is_in_use(const machine &m) { return is_session_in_use(m) || m.use.blocked != 0; }

void on(decision &d, const event::use_changed &e) {
  auto &use = d.m.use;
  const bool was_used = is_in_use(d.m);
  use.session_at = e.session_at;
  use.active_at = e.active_at;
  use.blocked = e.blocked;
  use.can = e.can;
  use.delay_max_ms = e.delay_max_ms;
  if (was_used && !is_in_use(d.m))
    used(d);
  if (e.is_answer) {
    d.m.sleep.use_answered = true;
    if (d.now.boot != d.m.woken.at) // it was asked since, and its messages keep their order
      d.m.power.signal_owed = false;
  }
  end_problem(d, problem::kUse);
  check_off_action(d);
}

// --- what the machine cannot do ---

static std::uint8_t bit_of(off_action action) {
  switch (action) {
  case off_action::kSuspend:
    return kSleepBit;
  case off_action::kPoweroff:
    return kShutdownBit;
  case off_action::kHibernate:
    return kHibernateBit;
  case off_action::kNone:
    break;
  }
  return 0;
}

void check_off_action(decision &d) {
  const std::uint8_t needed = bit_of(d.m.set.off);
  if ((d.m.use.can & needed) == needed)
    end_problem(d, problem::kCannotSleep);
  else
    begin_problem(d, problem::kCannotSleep, 0);
}

// --- units ---

static problem problem_of(unit of) {
  switch (of) {
  case unit::kOn:
    return problem::kOnUnit;
  case unit::kOff:
    return problem::kOffUnit;
  case unit::kAmbient:
    return problem::kAmbientUnit;
  case unit::kWakeup:
    break;
  }
  return problem::kWakeupUnit;
}

static bool runs(const machine &m, unit of) {
  return std::ranges::any_of(m.jobs, [=](const job &j) { return j.id != 0 && j.of == of; });
}

bool wakeup_job_runs(const machine &m) { return runs(m, unit::kWakeup); }
bool off_job_runs(const machine &m) { return runs(m, unit::kOff); }

static job *find_job(decision &d, std::uint32_t id) {
  auto *found = std::ranges::find(d.m.jobs, id, &job::id);
  return found == d.m.jobs.end() ? nullptr : found;
}

static job *starting_job(decision &d, unit of) {
  auto *found =
      std::ranges::find_if(d.m.jobs, [=](const job &j) { return j.id == kStarting && j.of == of; });
  return found == d.m.jobs.end() ? nullptr : found;
}

void begin_unit(decision &d, unit of, std::int32_t reason) {
  d.give(order::start_unit{of, reason});
  if (job *place = find_job(d, 0); place != nullptr)
    *place = {kStarting, of, reason, false, d.now.boot + (of == unit::kOff ? kHookMs : kBeginMs)};
}

// It is not wanted any longer, and must not be started when it turns out to be lost.
void forget_start(decision &d, unit of) {
  for (job &j : d.m.jobs)
    if (j.id == kStarting && j.of == of)
      j = {};
}

// The jobs that run are found again within this time. One that was asked for and is not among them
// may not have been started at all.
void doubt_jobs(decision &d) {
  for (job &j : d.m.jobs) {
    j.may_be_lost = j.id != 0;
    j.limit_at = d.now.boot + kFoundMs;
  }
}

void forget_lost_jobs(decision &d) {
  for (job &j : d.m.jobs) {
    if (!j.may_be_lost)
      continue;
    if (j.id == kStarting)
      doubt_screen_order(d, j.of);
    j = {};
  }
}

static job *place_for(decision &d, const event::job_began &e) {
  if (job *known = find_job(d, e.id); known != nullptr)
    return known->may_be_lost ? known : nullptr;
  job *starting = starting_job(d, e.of);
  return starting != nullptr ? starting : find_job(d, 0);
}

void on(decision &d, const event::job_began &e) {
  end_problem(d, problem_of(e.of));
  if (job *place = place_for(d, e); place != nullptr)
    *place = {e.id, e.of, 0, false, e.of == unit::kOff ? d.now.boot + kHookMs : kNever};
}

static void end_job(decision &d, job *ended) {
  if (ended == nullptr)
    return;
  if (ended->of == unit::kWakeup)
    used(d);
  *ended = {};
}

void on(decision &d, const event::job_ended &e) {
  if (e.id != 0)
    end_job(d, find_job(d, e.id));
}

void on(decision &d, const event::jobs_told_again &) { doubt_jobs(d); }

void on(decision &d, const event::unit_refused &e) {
  begin_problem(d, problem_of(e.of), e.error);
  doubt_screen_order(d, e.of);
  end_job(d, starting_job(d, e.of));
}

void forget_overdue_jobs(decision &d) {
  for (job &j : d.m.jobs) {
    if (j.id == 0 || j.limit_at > d.now.boot)
      continue;
    const job overdue = j;
    j = {};
    if (overdue.may_be_lost && overdue.id == kStarting)
      begin_unit(d, overdue.of, overdue.reason);
  }
}

void count_jobs(decision &d) {
  std::int64_t next = kNever;
  for (const job &j : d.m.jobs)
    if (j.id != 0)
      next = std::min(next, j.limit_at);
  d.due(due_kind::kHook) = next;
}

// --- the daemon's requests ---

void on(decision &d, const event::fired &e) {
  begin_unit(d, unit::kWakeup, e.reason);
  used(d);
  timers_have_fired(d);
}

void on(decision &d, const event::ambient &e) {
  if (e.on) {
    begin_unit(d, unit::kAmbient);
    return;
  }
  forget_start(d, unit::kAmbient);
  d.give(order::stop_unit{unit::kAmbient});
}
