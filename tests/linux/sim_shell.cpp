// What the orders do to the machine around the process.
#include "sim.h"

#include <algorithm>
#include <cerrno>
#include <utility>

static constexpr millis kSilentMs = kSecondMs; // until a television counts as silent
static constexpr millis kHookMs = 300;
static constexpr std::uint8_t kStandbyOpcode = 0x36;

struct shell {
  sim &world;
  bool is_refused; // this order

  // The result of an order that has no event of its own.
  void result(problem part) const {
    if (is_refused)
      world.answer(event::refused{part, EIO});
    else
      world.answer(event::works{part});
  }

  // --- the alarm, the daemon's timers, the zone: at once ---

  void operator()(const order::read_alarm &) const {
    world.send(event::alarm_read{world.read_device()});
  }

  void operator()(const order::write_alarm &what) const {
    const int error = world.alarm.write(world.now, what.count, is_refused ? EIO : 0);
    if (error != EBUSY)
      world.foreign_stands = error == 0 && what.owner == alarm_owner::kForeign;
    const bool is_set = error != 0 || world.alarm.stands() != 0;
    world.send(event::alarm_written{what.count, is_set ? error : EIO});
  }

  void operator()(const order::switch_off_alarm &) const {
    const int error = is_refused ? EIO : world.alarm.switch_off();
    if (error == 0)
      world.foreign_stands = false;
    world.send(event::alarm_written{0, error});
  }

  void operator()(const order::ask_late &what) const {
    world.send(world.late_timers(what.from, what.to));
  }

  void operator()(const order::ask_zone &) const {
    world.send(event::zone_changed{world.next_transition(), false});
  }

  // --- logind, input ---

  void operator()(const order::take_inhibitor &) const {
    world.process_at(world.now + world.bus_ms, [&world = world, is_refused = is_refused] {
      world.holds_inhibitor = !is_refused && !world.is_leaving();
      shell{world, !world.holds_inhibitor}.result(problem::kInhibitor);
    });
  }

  void operator()(const order::release_inhibitor &) const {
    world.holds_inhibitor = false;
    world.release_checked();
  }

  void note_crossing() const {
    if (world.is_leaving())
      world.checks.sleep_crosses();
  }

  void operator()(const order::sleep &what) const {
    const std::uint8_t kind = what.method == off_action::kPoweroff ? kShutdownBit : kSleepBit;
    const bool is_refused_there =
        is_refused || (world.blocked & kind) != 0 ||
        (what.method == off_action::kHibernate && (world.can & kHibernateBit) == 0);
    note_crossing();
    world.process_at(world.now + world.bus_ms, [=, *this, method = what.method] {
      const bool refuses = is_refused_there || world.is_leaving();
      note_crossing();
      if (!refuses)
        world.begin_sleep(method);
      world.answer(event::sleep_answered{refuses ? EACCES : 0});
    });
  }

  void operator()(const order::ask_use &) const {
    if (is_refused)
      world.answer(event::refused{problem::kUse, EIO});
    else
      world.tell_use(true);
  }

  void operator()(const order::ask_preparing &) const {
    world.process_at(world.now + world.bus_ms, [&world = world] {
      world.send(event::preparing{world.sleeps_now, world.stops_now});
    });
  }

  void operator()(const order::watch_input &what) const {
    world.watches_input = what.on && !is_refused;
    if (what.on)
      result(problem::kInput);
  }

  // --- the television ---

  bool is_unreachable() const {
    if (world.tv.answers() && !is_refused)
      return false;
    world.process_at(world.now + kSilentMs, [&world = world, asked_at = world.now] {
      if (world.tv.said_at < asked_at)
        world.send(event::tv_silent{});
    });
    return true;
  }

  void operator()(const order::tv_on &) const {
    if (is_unreachable() || world.tv.on)
      return;
    world.tv.on = true;
    world.tv.boots_until = world.now + world.tv.boots_for;
  }

  void operator()(const order::tv_off &) const {
    if (is_unreachable())
      return;
    if (world.tv.denies)
      world.answer(event::tv_denies{kStandbyOpcode});
    else
      world.tv.on = false;
  }

  void operator()(const order::tv_ask &) const {
    if (!is_unreachable())
      world.process_at(world.now + world.tv.answers_after, [&world = world] {
        if (world.tv.is_pulled)
          return;
        world.tv.said_at = world.now;
        world.send(event::tv_reports{world.tv.reported(world.now)});
      });
  }

  void operator()(const order::tv_answer &) const {}

  // --- units, clock, daemon ---

  void operator()(const order::start_unit &what) const {
    if (is_refused) {
      world.answer(event::unit_refused{what.name, ENOENT});
      return;
    }
    if (what.name == unit::kOn || what.name == unit::kOff)
      world.plain_on = what.name == unit::kOn;
    world.start_job(what.name, what.name == unit::kWakeup ? world.job_runs : kHookMs);
  }

  void operator()(const order::stop_unit &) const {}

  void operator()(const order::ask_clock &) const {
    world.answer(event::ntp{world.ntp_on, world.ntp_synchronised, !is_refused});
  }

  void operator()(const order::deliver &what) const {
    if (world.calls > 0 && !world.is_delivering)
      world.process_at(world.now, [&world = world, what] { world.deliver(what.callback); });
    else
      world.deliver(what.callback);
  }

  void operator()(const order::say &) const {}
  void operator()(const order::answer &) const {}
};

void sim::carry_out(const order::any &what) {
  std::visit(shell{*this, (refused >> what.index() & 1U) != 0}, what);
}

device_reading sim::read_device() {
  if (m.alarm.stands.owner != alarm_owner::kForeign && m.alarm.stands.count > alarm.count(now))
    forgotten.reset(); // it is noticed
  if (!alarm.is_there)
    return {ENODEV, true, false, 0, 0};
  return {refuses<order::read_alarm>() ? EIO : 0, false, alarm.counts_minutes, alarm.count(now),
          alarm.read()};
}

void sim::start_job(unit of, millis runs) {
  const std::uint32_t id = next_job_++;
  jobs[id] = {of, now};
  answer(event::job_began{id, of});
  world_at(now + 3 * bus_ms + runs, [this, id] { end_job(id); });
}

void sim::end_job(std::uint32_t id) {
  if (state == life::kAsleep)
    frozen_jobs.push_back(id);
  else if (jobs.erase(id) != 0)
    answer(event::job_ended{id});
}

// A daily timer may be armed for its next day already.
event::late_timers sim::late_timers(std::int64_t from, std::int64_t to) {
  event::late_timers late;
  std::vector<sim_timer> asked = std::exchange(missed, {});
  if (is_halted || !is_clock_known())
    return late;
  asked.insert(asked.end(), timers.begin(), timers.end());
  for (const sim_timer &timer : asked)
    for_each_day(timer, -3, 3, [&](std::int64_t due, int) {
      if (due > std::max(from, timer.since) && due <= to && late.count < kLateTimers)
        late.timers[late.count++] = {timer.id, timer.type, due};
    });
  std::sort(late.timers.begin(), late.timers.begin() + late.count,
            [](const auto &left, const auto &right) { return left.utc < right.utc; });
  return late;
}
