#include "sim.h"

#include <algorithm>
#include <utility>

static constexpr millis kBootMs = 30 * kSecondMs; // until the process starts
static constexpr millis kFailsAfterMs = 1500;

// A time that the clocks skip is moved to the hour's end.
std::int64_t sim::to_utc(std::int64_t local) const {
  const std::int64_t before = local - offset_before;
  return transition == 0 || before < transition ? before
                                                : std::max(local - offset_after, transition);
}

moment sim::this_moment() const {
  const millis part = (now + wall_offset) % kSecondMs;
  return {utc(), boot_ms(), slept, sleeps, static_cast<std::int32_t>(part)};
}

void sim::world_at(millis when, action what) { world_.emplace(when, std::move(what)); }

// What comes while the machine sleeps waits until it wakes.
void sim::process_at(millis when, action what) {
  const millis slept_by = state == life::kAsleep ? now - down_at : 0;
  process_.emplace(when - slept_by, [this, run = run_, what = std::move(what)] {
    if (is_alive && run == run_)
      what();
  });
}

// Answers overtake each other.
void sim::answer(const event::any &what) {
  process_at(now + bus_ms * (1 + answers_++ % 3), [this, what] { send(what); });
}

// Signals of logind stay in their order. One of a sleep that is over may be taken for the next.
void sim::signal(const event::any &what) {
  signal_at_ = std::max(signal_at_, now + bus_ms * (1 + answers_++ % 3));
  process_at(signal_at_, [this, what, number = sleep_] {
    if (number != sleep_)
      checks.tampered();
    send(what);
  });
}

// --- sleep and shutdown ---

// Nothing says that a delay is over its limit.
void sim::begin_sleep(off_action by) {
  if (state != life::kRunning || is_leaving())
    return;
  (by == off_action::kPoweroff ? stops_now : sleeps_now) = true;
  method = by;
  begun_at_ = boot_ms();
  const int number = ++sleep_;
  if (stops_now)
    signal(event::shutdown_begins{});
  else
    signal(event::sleep_begins{});
  const millis limit = now + delay_max * kSecondMs;
  may_go_at_ = now + std::min(foreign_delay, delay_max * kSecondMs);
  world_at(limit, [this, number, begun = now] {
    if (number != sleep_)
      return;
    checks.delay_ended(begun);
    go_down(method, true);
  });
  release_checked();
}

void sim::release_checked() {
  if (!is_leaving() || holds_inhibitor || may_go_at_ == kNever)
    return;
  world_at(std::max(now + 1, may_go_at_), [this, number = sleep_] {
    if (number == sleep_ && !holds_inhibitor)
      go_down(method, true);
  });
}

void sim::begin_shutdown(bool is_called_off) {
  begin_sleep(off_action::kPoweroff);
  is_called_off_ = is_called_off && stops_now;
  if (is_called_off_)
    world_at(now + kSecondMs, [this] {
      is_called_off_ = stops_now = false;
      checks.sleep_failed();
      ++sleep_;
      signal(event::shutdown_ends{});
    });
}

void sim::go_down(off_action by, bool is_announced) {
  if (state != life::kRunning || is_called_off_)
    return;
  ++sleep_;
  const bool is_ready = is_announced && is_armed() && checks.has_released(begun_at());
  may_move = may_move || (is_alive && !m.armed); // one that starts is not told in time
  method = by;
  if (fails > 0 && method != off_action::kPoweroff) {
    --fails;
    checks.sleep_failed();
    if (!is_announced)
      return;
    may_go_at_ = kNever;
    world_at(now + kFailsAfterMs, [this] {
      sleeps_now = false;
      signal(event::sleep_ends{});
    });
    return;
  }
  checks.goes_down();
  if (method == off_action::kPoweroff) {
    if (is_alive)
      send(event::ended{});
    end_process();
    jobs.clear();
  }
  state = method == off_action::kPoweroff ? life::kOff : life::kAsleep;
  was_announced_ = is_announced;
  down_at = now;
  ++downs;
  note(state == life::kOff ? "- off" : "- asleep");
  checks.went_down(is_ready);
}

// CLOCK_MONOTONIC stands still in a sleep, and so do its timers; what logind tells waits for its
// reader.
void sim::wake(cause by) {
  const millis shift = counts_sleep ? now - down_at : 0;
  queue later;
  for (auto &[when, what] : process_)
    later.emplace(std::max(now, when + shift), std::move(what));
  process_ = std::move(later);
  signal_at_ += shift;
  slept += shift;
  ++sleeps;
  state = life::kRunning;
  up_at = now;
  up_by = by;
  note("- up");
  checks.came_up(false);
  process_at(now + 3, [this] { send(event::clock_stepped{}); });
  for (const std::uint32_t id : std::exchange(frozen_jobs, {}))
    world_at(now + kSecondMs, [this, id] { end_job(id); });
  if (!is_alive) // the service manager did not get to it before
    world_at(now + kSecondMs, [this] { start_process(); });
  if (!was_announced_)
    return;
  sleeps_now = false;
  for (int times = doubles_end ? 2 : 1; times > 0; --times)
    signal(event::sleep_ends{});
}

void sim::boot(cause by) {
  state = life::kRunning;
  booted_at = now;
  has_run = false;
  slept = 0;
  sleeps = 0;
  sleeps_now = stops_now = false;
  session_at = active_at = 0;
  up_at = now;
  up_by = by;
  note("- up");
  checks.came_up(true);
  world_at(now + kBootMs, [this] { start_process(); });
}

// --- devices ---

void sim::tell_reachable() {
  process_at(now + bus_ms, [this] { send(event::tv_reachable{!tv.is_plain()}); });
}

// --- people ---

// What logind tells is in the order in which it happens.
void sim::tell_use(bool is_answer) {
  process_at(now + bus_ms * (1 + answers_++ % 3), [this, is_answer] {
    send(event::use_changed{session_at, active_at, blocked, can, delay_max * kSecondMs, is_answer});
  });
}

// --- time ---

static cause cause_of(const sim &world) {
  if (world.foreign_stands)
    return cause::kForeign;
  switch (world.stored.alarm.stands.owner) {
  case alarm_owner::kHop:
    return cause::kHop;
  case alarm_owner::kTest:
    return cause::kTest;
  default:
    return cause::kTimer;
  }
}

static void go_off(sim &world) {
  const cause by = cause_of(world);
  world.alarm.go_off();
  world.checks.went_off(by);
  if (by == cause::kForeign)
    world.foreign.reset();
  world.foreign_stands = false;
  if (world.state == life::kAsleep)
    world.wake(by);
  else if (world.state == life::kOff && world.alarm.boots)
    world.boot(by);
}

// The next thing that happens up to `end`; false: nothing does.
bool sim::run_next(millis end) {
  const bool runs = state == life::kRunning;
  const millis from_world = world_.empty() ? kNever : world_.begin()->first;
  const millis from_process = !runs || process_.empty() ? kNever : process_.begin()->first;
  const millis from_timer =
      runs && is_alive && timer_ != kNever ? now + std::max<millis>(timer_ - mono_ms(), 0) : kNever;
  const millis next = std::min({from_world, from_process, from_timer, alarm.next(now)});
  if (runs && is_alive && m.wants_idle && next > now) {
    send(event::idle{});
    return true;
  }
  if (next > end)
    return false;
  checks.time_passes(std::max(next, now));
  now = std::max(next, now);
  if (foreign && *foreign <= alarm.count(now) && !foreign_stands)
    foreign.reset();
  if (alarm.next(now) == now) {
    go_off(*this);
  } else if (from_world == next || from_process == next) {
    queue &from = from_world == next ? world_ : process_;
    const action what = std::move(from.begin()->second);
    from.erase(from.begin());
    what();
  } else if (from_timer == next) {
    send(event::due{});
  }
  return true;
}

void sim::broken(int sentence, const std::string &text) {
  if (finding.empty())
    finding = std::to_string(sentence) + ": " + text;
}
