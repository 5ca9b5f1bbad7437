// The process: the queue of events, and a small model of the daemon.
#include "sim.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <cxxabi.h>
#include <iterator>
#include <typeinfo>

static constexpr millis kDaemonStartsMs = 400;
static constexpr std::int32_t kRecordReason = 20;

// --- the shell ---

template <class Variant> static std::string name_of(const Variant &what) {
  const char *mangled = std::visit([](const auto &held) { return typeid(held).name(); }, what);
  char *name = abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr);
  std::string text = name;
  std::free(name);
  return text;
}

static std::string text_of(const order::any &what) {
  std::string text = name_of(what);
  const auto add = [&](auto... values) {
    ((text += ' ' + std::to_string(static_cast<std::int64_t>(values))), ...);
  };
  if (const auto *write = std::get_if<order::write_alarm>(&what))
    add(write->count, write->owner);
  else if (const auto *start = std::get_if<order::start_unit>(&what))
    add(start->name);
  else if (const auto *told = std::get_if<order::deliver>(&what))
    add(told->callback, told->value);
  else if (const auto *sleep = std::get_if<order::sleep>(&what))
    add(sleep->method);
  else if (const auto *said = std::get_if<order::say>(&what))
    add(said->what, said->number);
  return text;
}

// What a restart must not change. An order to the television is repeated, and a unit begins with
// it.
static bool reaches_outside(const order::any &what) {
  return is_one_of<order::sleep, order::start_unit, order::stop_unit>(what);
}

// By the TV clock.
static std::string time_of(const sim &world) {
  const std::time_t clock = static_cast<std::time_t>(world.tv_clock());
  std::tm parts{};
  char text[16];
  std::strftime(text, sizeof text, "%d %T.", gmtime_r(&clock, &parts));
  return text + std::to_string(kSecondMs + world.now % kSecondMs).substr(1) + ' ';
}

void sim::note(const std::string &text) {
  if (trace)
    trace->push_back(time_of(*this) + text);
}

// An order that has perhaps been carried out before a restart is given again. A sleep that is
// ordered twice before the next one has failed, and its retries drift: sentence 4 looks at them.
void sim::keep_order(const std::string &text, bool is_sleep) {
  const millis since = is_sleep ? std::max(up_at, down_at) : now - kRestartMs;
  const auto is_same_since = [&](millis time) {
    return std::ranges::any_of(
        given, [&](const auto &one) { return one.second == text && one.first >= time; });
  };
  const bool is_kept = is_same_since(since);
  may_move = may_move || is_same_since(since - kSecondMs) != is_same_since(since + kSecondMs);
  if (!is_kept)
    given.emplace_back(now, text);
}

// What a new process asks must not tell it more or less than the old one knew, and what nobody has
// seen meanwhile must not count: a key at a sleep. A screen that was on is doubted as soon as an
// event shows the sleep. A test ends with its caller.
bool sim::may_restart() const {
  const screen_state truth = tv.on ? screen_state::kOn : screen_state::kOff;
  const bool is_doubted = tv.on && m.power.seen.sleeps != sleeps;
  const bool is_known = !tv.has_cec || (!tv.lies && m.screen.believed == truth && !is_doubted);
  const bool is_busy = m.sleep.wish != sleep_wish::kNone ||
                       std::ranges::any_of(m.jobs, [](const job &one) { return one.id != 0; });
  return (is_busy || !restarts_busy_) && is_known && m.armed && !m.test.running &&
         !set.follow_screen && counts_sleep && !is_leaving() && tv.answers_after < kSecondMs &&
         tv.changed_at < now - kSecondMs && !checks.is_step_unseen(now);
}

void sim::send(const event::any &what) {
  if (!is_alive)
    return;
  if (depth_ == 0 && calls == 0 && events++ >= restart_at_event_ && may_restart()) {
    restart_at_event_ = UINT32_MAX;
    end_process();
    start_process();
  }
  if (trace)
    note(name_of(what));
  const auto [after, list] = decide(m, what, this_moment());
  m = stored = after;
  has_stored = true;
  checks.decided(what, list);
  const int run = run_;
  ++depth_;
  for (const order::any &one : list) {
    if (orders_to_live == 0 && run == run_)
      checks.lost(one);
    if (orders_to_live == 0 || run != run_)
      continue;
    orders_to_live -= orders_to_live > 0 ? 1 : 0;
    if (trace)
      note("  " + text_of(one));
    if (reaches_outside(one))
      keep_order(text_of(one), is_one_of<order::sleep>(one));
    checks.ordered(one);
    carry_out(one);
  }
  --depth_;
  if (orders_to_live == 0) {
    orders_to_live = -1;
    checks.tampered();
    end_process();
    world_at(now + kDaemonStartsMs, [this] { start_process(); });
  }
  if (run != run_)
    return;
  const std::int64_t due = next_due(m);
  timer_ = due == kNever ? kNever : mono_ms() + due - boot_ms();
}

void sim::call(const event::any &what) {
  ++calls;
  send(what);
  --calls;
  checks.called(what);
}

void sim::deliver(delivery callback) {
  if (is_delivering)
    broken(11, "a callback within a callback");
  is_delivering = true;
  if (callback != delivery::kState && callback != delivery::kStandby && m.armed)
    arm_timers();
  if (m.armed)
    program_alarm();
  is_delivering = false;
  send(event::returned{callback});
}

void sim::start_process() {
  if (is_alive || state != life::kRunning)
    return;
  is_alive = true;
  alive_at = now;
  event::started start;
  start.has_kept = has_stored;
  start.same_boot = has_run;
  // In the runtime directory is nearly all of it, in the state directory what the next boot needs.
  start.kept = has_run ? stored : machine{};
  start.kept.alarm = stored.alarm;
  start.kept.power.now = stored.power.now;
  start.kept.power.went.utc = stored.power.went.utc;
  has_run = true;
  start.device = read_device();
  start.rtc_valid = rtc_valid;
  start.booted_at = utc() - seconds_of(boot_ms());
  start.build_day = kEvening - 30 * kDay;
  start.next_transition = next_transition();
  start.set = set;
  m = {};
  for (sim_timer &timer : timers)
    timer.fires_at = kNever;
  ++calls;
  send(start);
  if (!is_alive)
    return;
  --calls;
  tell_reachable();
  for (const auto &[id, running] : jobs) // systemd lists a job before it says that it has ended
    process_at(now + bus_ms, [this, told = event::job_began{id, running.first}] { send(told); });
  process_at(now + kDaemonStartsMs, [this] {
    std::ranges::copy_if(timers, std::back_inserter(missed), [this](const sim_timer &timer) {
      return is_clock_known() && !timer.daily && timer.local <= tv_clock();
    });
    arm_timers();
    program_alarm();
    send(event::armed{});
  });
}

void sim::end_process() {
  checks.process_ended();
  is_alive = false;
  missed.clear();
  ++run_;
  is_delivering = false;
  calls = 0;
  timer_ = kNever;
  watches_input = false;
  holds_inhibitor = false;
  release_checked();
}

// --- the daemon ---

// The others stay as they are, also those that became due in a sleep that nobody has noticed yet.
void sim::add_timer(std::uint32_t type, std::int64_t local, bool daily) {
  while (daily && local - kDay > tv_clock())
    local -= kDay;
  timers.push_back({next_id_++, type, local, daily, utc()});
  if (is_armed()) {
    arm(timers.back());
    program_alarm();
  }
}

void sim::arm(sim_timer &timer) {
  const bool is_known = is_clock_known();
  timer.fires_at = is_known ? mono_ms() + (timer.local - tv_clock()) * kSecondMs : kNever;
  if (!is_known)
    return;
  process_at(now + timer.fires_at - mono_ms(), [this, id = timer.id, at = timer.fires_at] {
    const auto found = std::ranges::find(timers, id, &sim_timer::id);
    if (found != timers.end() && found->fires_at == at)
      fire(id);
  });
}

// Counted on the TV clock. What is past or due in this second does not fire, unless it is just
// about to; a daily timer goes on to the next day.
void sim::arm_timers() {
  const std::int64_t clock = tv_clock();
  const bool is_known = is_clock_known();
  const auto is_past = [&](const sim_timer &timer) {
    const bool fires_now =
        timer.local == clock && timer.fires_at != kNever && timer.fires_at < mono_ms() + kSecondMs;
    return is_known && timer.local <= clock && !fires_now;
  };
  std::erase_if(timers, [&](const sim_timer &timer) { return !timer.daily && is_past(timer); });
  for (sim_timer &timer : timers) {
    while (timer.daily && timer.local - kDay > clock) // the clock was set back
      timer.local -= kDay;
    while (is_past(timer))
      timer.local += kDay;
    arm(timer);
  }
}

const sim_timer *sim::next_on_timer() const {
  const sim_timer *next = nullptr;
  for (const sim_timer &timer : timers)
    if (timer.type != 1 && timer.fires_at != kNever && timer.local >= tv_clock() &&
        (next == nullptr || timer.local < next->local))
      next = &timer;
  return next;
}

void sim::program_alarm() {
  if (const sim_timer *next = next_on_timer())
    call(event::program{next->type, to_utc(next->local), 0});
  else
    call(event::unprogram{});
}

void sim::fire(std::uint32_t id) {
  const auto timer = std::ranges::find(timers, id, &sim_timer::id);
  const std::uint32_t type = timer->type;
  timer->local += kDay;
  timer->fires_at = kNever;
  if (!timer->daily)
    timers.erase(timer);
  const bool sleeping = m.screen.believed != screen_state::kOn;
  if (!is_halted && sleeping && (type == 0 || type == 2))
    call(event::fired{type == 0 ? 2 : kRecordReason});
  if (!is_halted && type <= 1 && (type == 1 || sleeping))
    call(event::screen_wanted{type == 0, event::asker::kDaemon});
  if (!is_alive)
    return;
  arm_timers();
  program_alarm();
}
