#include "sim_acts.h"

#include <cerrno>

static constexpr std::int64_t kDays[] = {1, 1, 7, 28};
static constexpr std::uint32_t kTypes[] = {0, 1, 2, 4, 0};
static const auto kLastAlarmOrder =
    static_cast<std::int64_t>(order::any(order::switch_off_alarm{}).index());
static constexpr std::int64_t kLastOrder = std::variant_size_v<order::any> - 1;

static bool runs(const sim &w) { return w.state == life::kRunning; }

static void later(sim &w, std::int64_t seconds, sim::action what) {
  w.world_at(w.now + seconds * kSecondMs, std::move(what));
}

// --- devices ---

static void add_timer(sim &w, std::int64_t type, std::int64_t ahead) {
  w.add_timer(kTypes[type], w.tv_clock() + ahead, type == kDaily);
}

static void set_transition(sim &w, std::int64_t hours, std::int64_t spring) {
  w.transition = kEvening + hours * 3600;
  (spring != 0 ? w.offset_after : w.offset_before) = 7200;
}

static void use_remote(sim &w, std::int64_t on, std::int64_t tells) {
  w.tv.on = on != 0;
  w.tv.changed_at = w.tv.boots_until = w.now;
  if (tells != 0 && on == 0 && w.tv.answers() && runs(w)) // a machine that sleeps hears nothing
    w.process_at(w.now + 5, [&w] { w.send(event::tv_standby{}); });
}

static void use_monitor(sim &w, std::int64_t, std::int64_t) {
  w.tv.has_cec = false;
  w.tv.is_monitor = true;
}

static void change_tv(sim &w, std::int64_t how, std::int64_t) {
  w.tv.is_silent = how == 1;
  w.tv.has_address = how != 2;
  w.tv.denies = how == 3;
  w.tv.lies = how == 4;
  w.tv.changed_at = w.now;
  w.tell_reachable();
}

// Without an adapter the television hears nothing and nobody hears of it.
static void pull_adapter(sim &w, std::int64_t seconds, std::int64_t) {
  w.tv.is_pulled = w.tv.has_cec && seconds != 0;
  if (!w.tv.has_cec)
    return;
  w.tv.changed_at = w.now;
  w.tell_reachable();
  if (seconds != 0)
    later(w, seconds, [&w] { pull_adapter(w, 0, 0); });
}

static void slow_tv(sim &w, std::int64_t answer_ms, std::int64_t boot_seconds) {
  w.tv.changed_at = w.now;
  w.tv.answers_after = answer_ms;
  w.tv.boots_for = boot_seconds * kSecondMs;
}

static void set_refusal(sim &w, int error) {
  w.alarm.refuses = error;
  w.checks.tampered();
}

static void refuse_alarm(sim &w, std::int64_t busy, std::int64_t seconds) {
  set_refusal(w, busy != 0 ? EBUSY : EIO);
  later(w, seconds, [&w] { set_refusal(w, 0); });
}

// --- people and programs ---

static void press_key(sim &w, std::int64_t, std::int64_t) {
  if (w.state == life::kAsleep)
    w.wake(cause::kUser);
  else if (w.state == life::kOff)
    w.boot(cause::kUser);
  w.input_at = w.now;
  if (!w.is_alive || !w.watches_input)
    return;
  w.process_at(w.now + 1, [&w, pressed = w.now, at = w.boot_ms()] {
    w.first_seen_at = w.first_seen_at < w.up_at ? pressed : w.first_seen_at;
    w.seen_at = pressed;
    w.send(event::input{at});
  });
}

static void wake_by_itself(sim &w, std::int64_t, std::int64_t) {
  if (w.state == life::kAsleep)
    w.wake(cause::kNothing);
}

// As a bad driver or a mouse on the bed does.
static void wake_often(sim &w, std::int64_t times, std::int64_t seconds) {
  for (std::int64_t time = 1; time <= times; ++time)
    later(w, time * seconds, [&w] { wake_by_itself(w, 0, 0); });
}

static void hibernate(sim &w, std::int64_t, std::int64_t) {
  if ((w.can & kHibernateBit) != 0)
    w.begin_sleep(off_action::kHibernate);
}

static void change_use(sim &w) {
  w.use_changed_at = w.now;
  w.tell_use(false);
}

static void log_in(sim &w, std::int64_t, std::int64_t) {
  w.session_at = w.active_at = w.boot_ms();
  change_use(w);
}

static void change_idle(sim &w, std::int64_t active, std::int64_t) {
  w.active_at = active != 0 ? w.boot_ms() : 0;
  change_use(w);
}

static void block(sim &w, std::int64_t bits, std::int64_t seconds) {
  w.blocked = runs(w) ? static_cast<std::uint8_t>(bits) : 0;
  change_use(w);
  if (bits != 0)
    later(w, seconds, [&w] { block(w, 0, 0); });
}

// Others write 0 first, which erases ours without notice.
static void write_foreign(sim &w, std::int64_t ahead) {
  const bool is_ours = ahead != 0 && ahead == w.alarm.left(w.now);
  if (!w.alarm.is_there || is_ours || w.alarm.switch_off() != 0)
    return;
  w.foreign_at = w.now;
  w.forgotten = std::exchange(w.foreign, {});
  w.foreign_stands = ahead != 0 && w.alarm.write(w.now, w.alarm.count(w.now) + ahead) == 0 &&
                     w.alarm.stands() != 0;
  if (w.foreign_stands)
    w.foreign = w.alarm.stands();
}

// One at a time: of two, nobody can tell afterwards which the last was. 0 switches the alarm off.
static void set_foreign(sim &w, std::int64_t ahead, std::int64_t) {
  if (w.foreign && ahead != 0)
    return;
  if (w.is_leaving() || w.checks.is_cause_open())
    w.checks.tampered();
  write_foreign(w, ahead);
}

static void rtcwake(sim &w, std::int64_t seconds, std::int64_t) {
  if (w.is_leaving() || w.foreign)
    return;
  w.checks.tampered();
  write_foreign(w, seconds);
  if (w.foreign_stands)
    w.go_down(off_action::kSuspend, false);
}

static void cut_power(sim &w, std::int64_t, std::int64_t) {
  w.checks.tampered();
  w.go_down(off_action::kPoweroff, false);
}

static void step_clock(sim &w, std::int64_t seconds, std::int64_t) {
  w.wall_offset += seconds * kSecondMs;
  w.process_at(w.now + 2, [&w] { w.send(event::clock_stepped{}); });
  w.checks.clock_stepped();
}

static void synchronise(sim &w, std::int64_t, std::int64_t) {
  w.ntp_synchronised = true;
  w.process_at(w.now + w.bus_ms, [&w] { w.send(event::ntp{w.ntp_on, true, true}); });
}

// --- the process ---

static void kill_now(sim &w, std::int64_t for_ms, std::int64_t) {
  if (!w.is_alive)
    return;
  w.end_process();
  w.checks.tampered();
  w.world_at(w.now + for_ms, [&w] {
    w.checks.tampered();
    w.start_process();
  });
}

static void set_refused(sim &w, std::int64_t which, bool refused) {
  const std::uint32_t bit = 1U << which;
  w.refused = refused ? w.refused | bit : w.refused & ~bit;
  if (which <= kLastAlarmOrder)
    w.checks.tampered();
}

static void refuse_order(sim &w, std::int64_t which, std::int64_t seconds) {
  set_refused(w, which, true);
  later(w, seconds, [&w, which] {
    set_refused(w, which, false);
    w.may_move = w.may_move || w.m.sleep.held; // the next try may be before or after
  });
}

// In a sleep it waits, and comes before anything else at the wake-up.
static void call_screen(sim &w, std::int64_t on, std::int64_t) {
  if (w.state == life::kAsleep)
    w.process_at(w.now, [&w, on] { call_screen(w, on, 0); });
  else if (w.is_alive)
    w.call(event::screen_wanted{on != 0, event::asker::kBus});
  else if (w.state == life::kRunning) // it may just have started
    w.may_move = true;
}

static void test_wake(sim &w, std::int64_t seconds, std::int64_t) {
  if (w.state == life::kAsleep)
    w.process_at(w.now, [&w, seconds] { test_wake(w, seconds, 0); });
  else if (w.is_alive)
    w.send(event::test_wake{1, seconds});
}

static void halt(sim &w, std::int64_t halts, std::int64_t) {
  w.is_halted = runs(w) ? halts != 0 : w.is_halted;
  w.checks.halted();
}

static const act kActs[] = {
    {"add timer", 6, {0, kDaily}, {60, 50000}, add_timer, kAwake},

    {"range", -4, {0, 3}, {}, [](sim &w, auto a, auto) { w.alarm.range = kDays[a] * kDay; }},
    {"minutes", -8, {}, {}, [](sim &w, auto, auto) { w.alarm.counts_minutes = true; }},
    {"rtc wrong", -4, {-40000, 40000}, {}, [](sim &w, auto a, auto) { w.alarm.ahead = a; }},
    {"rtc drifts", -4, {-2000, 2000}, {}, [](sim &w, auto a, auto) { w.alarm.drift = a; }},
    {"flag stays", -4, {}, {}, [](sim &w, auto, auto) { w.alarm.keeps_flag = true; }},
    {"no rtc", -30, {}, {}, [](sim &w, auto, auto) { w.alarm.is_there = false; }},
    {"no boot", -8, {}, {}, [](sim &w, auto, auto) { w.alarm.boots = false; }},
    {"no CEC", -3, {}, {}, [](sim &w, auto, auto) { w.tv.has_cec = false; }},
    {"monitor", -9, {}, {}, use_monitor},
    {"no hibernation", -3, {}, {}, [](sim &w, auto, auto) { w.can = kSleepBit | kShutdownBit; }},
    {"off", -3, {}, {}, [](sim &w, auto, auto) { w.tv.on = w.plain_on = false; }},
    {"off-action", -2, {0, 3}, {}, [](sim &w, auto a, auto) { w.set.off = off_action(a); }},
    {"return", -3, {0, 600}, {}, [](sim &w, auto a, auto) { w.set.return_to_sleep = a; }},
    {"no hop boot", -4, {}, {}, [](sim &w, auto, auto) { w.set.hop_boots = false; }},
    {"follow-screen", -5, {}, {}, [](sim &w, auto, auto) { w.set.follow_screen = true; }},
    {"screen-follows", -5, {}, {}, [](sim &w, auto, auto) { w.set.screen_follows = true; }},
    {"delay max", -3, {5, 30}, {}, [](sim &w, auto a, auto) { w.delay_max = a; }},
    {"s2idle", -5, {}, {}, [](sim &w, auto, auto) { w.counts_sleep = false; }},
    {"slow bus", -4, {20, 300}, {}, [](sim &w, auto a, auto) { w.bus_ms = a; }},
    {"doubled end", -4, {}, {}, [](sim &w, auto, auto) { w.doubles_end = true; }},
    {"transition", -6, {1, 14}, {0, 1}, set_transition},
    {"no clock", -12, {}, {}, [](sim &w, auto, auto) { w.rtc_valid = w.ntp_synchronised = false; }},
    {"long job", -3, {10, 2000}, {}, [](sim &w, auto a, auto) { w.job_runs = a * kSecondMs; }},

    {"key", 4, {}, {}, press_key},
    {"wakes by itself", 3, {}, {}, wake_by_itself},
    {"wakes often", 1, {4, 20}, {20, 400}, wake_often},
    {"log in", 2, {}, {}, log_in, kAwake},
    {"idle", 2, {0, 1}, {}, change_idle, kAwake},
    {"remote", 5, {0, 1}, {0, 1}, use_remote},
    {"tv is", 5, {0, 4}, {}, change_tv},
    {"tv slow", 2, {50, 4000}, {1, 20}, slow_tv},
    {"adapter pulled", 2, {1, 4000}, {}, pull_adapter},
    {"menu: sleep", 8, {}, {}, [](sim &w, auto, auto) { w.begin_sleep(off_action::kSuspend); }},
    {"menu: hibernate", 2, {}, {}, hibernate},
    {"menu: off", 2, {}, {}, [](sim &w, auto, auto) { w.begin_shutdown(false); }},
    {"called off", 1, {}, {}, [](sim &w, auto, auto) { w.begin_shutdown(true); }},
    {"power cut", 1, {}, {}, cut_power},
    {"foreign alarm", 4, {0, 30000}, {}, set_foreign, kAwake | kNoticed},
    {"slow foreign", 2, {1, 60}, {}, [](sim &w, auto a, auto) { w.foreign_delay = a * kSecondMs; }},
    {"block", 4, {0, 7}, {1, 4000}, block},
    {"sleep fails", 2, {1, 5}, {}, [](sim &w, auto a, auto) { w.fails = a; }},
    {"rtcwake", 2, {5, 3000}, {}, rtcwake, kAwake | kNoticed},
    {"clock steps", 2, {-4000, 4000}, {}, step_clock, kAwake},
    {"synchronised", 2, {}, {}, synchronise, kAwake},
    {"killed", 3, {1, 3000}, {}, kill_now, kAwake},
    {"killed soon", 2, {0, 12}, {}, [](sim &w, auto a, auto) { w.orders_to_live = a; }, kNoticed},
    {"alarm refused", 2, {0, 1}, {1, 200}, refuse_alarm},
    {"order refused", 3, {0, kLastOrder}, {1, 400}, refuse_order},
    {"TurnScreen", 2, {0, 1}, {}, call_screen},
    {"TestWake", 2, {10, 300}, {}, test_wake, kNoticed},
    {"halted", 1, {0, 1}, {}, halt},
};

std::span<const act> acts() { return kActs; }
