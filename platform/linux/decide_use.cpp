// Who uses the machine: users, programs that block its sleep, the units of our targets.
#include "rules.h"

#include <algorithm>

static constexpr std::int64_t kHookMs = 90 * kSecondMs;
static constexpr std::int64_t kBeginMs = 30 * kSecondMs; // until a unit's job is known
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
  if (e.is_answer)
    d.m.sleep.use_answered = true;
  is_over(d, problem::kUse);
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
    is_over(d, problem::kCannotSleep);
  else
    has_problem(d, problem::kCannotSleep, 0);
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

static bool is_waited_for(unit of) { return of == unit::kOff || of == unit::kWakeup; }

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
  job *place = is_waited_for(of) ? find_job(d, 0) : nullptr;
  if (place != nullptr)
    *place = {kStarting, of, d.now.boot + (of == unit::kOff ? kHookMs : kBeginMs)};
}

void on(decision &d, const event::job_began &e) {
  is_over(d, problem_of(e.of));
  if (!is_waited_for(e.of) || find_job(d, e.id) != nullptr)
    return;
  job *place = starting_job(d, e.of);
  const std::int64_t limit = place != nullptr ? place->limit_at : d.now.boot + kHookMs;
  if (place == nullptr)
    place = find_job(d, 0);
  if (place != nullptr)
    *place = {e.id, e.of, e.of == unit::kOff ? limit : kNever};
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

void on(decision &d, const event::unit_refused &e) {
  has_problem(d, problem_of(e.of), e.error);
  end_job(d, starting_job(d, e.of));
}

void forget_overdue_jobs(decision &d) {
  for (job &j : d.m.jobs)
    if (j.id != 0 && j.limit_at <= d.now.boot)
      j = {};
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
}

void on(decision &d, const event::ambient &e) {
  if (e.on)
    d.give(order::start_unit{unit::kAmbient, 0});
  else
    d.give(order::stop_unit{unit::kAmbient});
}
