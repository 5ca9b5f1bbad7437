#include "sim.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

static constexpr millis kOnTimeMs = 2 * kSecondMs;
static constexpr millis kOrderMs = 20 * kSecondMs; // an order to a television is repeated so long
static constexpr millis kBootMs = 35 * kSecondMs;
static constexpr millis kAnswerMs = 3 * kSecondMs; // waited for
static constexpr millis kAskedMs = 5 * kSecondMs;
static constexpr millis kUnseenMs = kSecondMs;
static constexpr millis kBeliefMs = 15 * kSecondMs; // a television is asked 10 s before an on-time
static constexpr millis kReturnSlackMs = 30 * kSecondMs;
static constexpr millis kRetries[] = {30, 60, 300, 900}; // seconds
static constexpr millis kLoopPause = 900;                // seconds
static constexpr int kMostShortSleeps = 3;
static constexpr millis kShortSleepMs = 60 * kSecondMs;
static constexpr std::size_t kMostSleepsAnHour = 6;
static constexpr std::int64_t kLateSeconds = 300;
static constexpr std::int64_t kShutdownSeconds = 120;
static constexpr std::int64_t kSleepSeconds = 15;
static constexpr std::int64_t kHopSeconds = 82800; // 23 hours
static constexpr std::int64_t kNearSeconds = 3;
static constexpr std::int64_t kMinuteSeconds = 60;
static constexpr int kMostDues = 10; // a day
static constexpr millis kTamperMs = 120 * kSecondMs;

static bool boots(off_action method) { return method != off_action::kSuspend; }

static std::int64_t lead_of(const sim &world, off_action method) {
  return boots(method) ? world.set.lead_poweroff : world.set.lead_suspend;
}

static std::int64_t nearness_of(const sim &world, off_action method) {
  return method == off_action::kPoweroff ? kShutdownSeconds : world.delay_max + kSleepSeconds;
}

static bool has_job(const sim &world, unit of, millis since) {
  return std::ranges::any_of(world.jobs, [&](const auto &job) {
    return job.second.first == of && job.second.second < since;
  });
}

millis sim_checks::now() const { return world_.now; }

// --- 1: on-timers ---

void sim_checks::miss() {
  const sim_television &tv = world_.tv;
  const bool is_on = tv.has_cec ? tv.on : world_.plain_on;
  const bool may_err = tv.lies || tv.answers_after > kAnswerMs || (tv.has_cec && !tv.answers());
  if (tv.changed_at > now() - kBeliefMs)
    return;
  if (world_.m.screen.believed != screen_state::kOn)
    world_.broken(1, "an on-timer has not turned the screen on");
  else if (!is_on && !may_err)
    world_.broken(1, "the screen is believed on");
}

// A timer becomes due, whether the machine notices or not.
void sim_checks::becomes_due(const sim_timer &timer, std::int64_t due) {
  const sim &world = world_;
  due_at_ = (due - kEvening) * kSecondMs - world.wall_offset;
  if (world.is_halted || world.m.clock.state == clock_state::kUnknown)
    return;
  if (timer.type == 1)
    off_due_ = due;
  if (timer.type != 0)
    return;
  const bool is_armed = world.is_alive && world.m.armed;
  if (world.state == life::kRunning && is_armed)
    expected_.push_back(due_at_ + kOnTimeMs);
  else if (world.state == life::kRunning) // made up for once the process has started
    on_until_ = due_at_ + kLateSeconds * kSecondMs;
  if (world.state == life::kRunning)
    return;
  slept_through_.push_back(due);
  const millis least = (nearness_of(world, world.method) + kMinuteSeconds) * kSecondMs;
  if (world.alarm.stands() != 0 && !world.foreign_stands && was_right_ &&
      due_at_ > world.down_at + least)
    world_.broken(1, "the alarm is later than the on-time");
}

void sim_checks::time_passes(millis next) {
  follow_return(next);
  std::erase_if(expected_, [&](millis until) {
    if (until >= next)
      return false;
    miss();
    return true;
  });
  const std::int64_t from = world_.utc();
  const std::int64_t to = kEvening + seconds_of(next + world_.wall_offset);
  if (from == to)
    return;
  for (const sim_timer &timer : world_.timers) {
    const std::int64_t due = world_.to_utc(timer.local);
    if (due > from && due <= to && due + world_.offset(due) == timer.local)
      becomes_due(timer, due);
  }
}

void sim_checks::clock_stepped() {
  stepped_at_ = now();
  tampered();
  slept_through_.clear();
  expected_.clear();
  if (!world_.is_alive || !world_.m.armed) // what it goes past is made up for
    on_until_ = now() + kLateSeconds * kSecondMs;
}

// --- 2: the screen ---

void sim_checks::screen_called(bool on) {
  if (on)
    on_until_ = now() + kOrderMs;
  else
    expected_.clear();
}

static bool is_user_cause(const sim &world, millis limit) {
  const bool follows = world.set.screen_follows || !world.tv.has_cec;
  const bool is_user = world.up_by == cause::kUser || world.input_at >= world.up_at;
  return follows && is_user && world.now < world.up_at + limit;
}

// --- 3: sleeps ---

void sim_checks::check_use(bool is_return, off_action method) {
  const std::uint8_t own = method == off_action::kPoweroff ? kShutdownBit : kSleepBit;
  const std::uint8_t mask = is_return ? kSleepBit | kShutdownBit | kIdleBit : own;
  if (world_.use_changed_at < now() - kUnseenMs && (world_.blocked & mask) != 0)
    world_.broken(3, "a block inhibitor at a sleep");
  if (has_job(world_, unit::kWakeup, now() - kUnseenMs))
    world_.broken(3, "a job of a timer at a sleep");
}

void sim_checks::check_return() {
  const sim_television &tv = world_.tv;
  if (world_.m.screen.believed == screen_state::kOn)
    world_.broken(3, "the screen is on at a return");
  if (tv.answers() && tv.answers_after < kAnswerMs && !tv.lies && tv.on && world_.refused == 0 &&
      tv.changed_at < now() - kAskedMs)
    world_.broken(3, "somebody watches at a return");
  if (tv.has_cec && asked_at_ < now() - kAskedMs)
    world_.broken(3, "the television is not asked before a return");
  const millis quiet = now() - world_.seen_at;
  if (world_.seen_at > world_.up_at && quiet > kUnseenMs &&
      quiet < world_.set.return_to_sleep * kSecondMs)
    world_.broken(3, "somebody presses keys at a return");
  if (world_.seen_at > world_.up_at && quiet > kUnseenMs && said_off_at_ <= world_.seen_at)
    world_.broken(3, "somebody has come, and no television is off, at a return");
}

void sim_checks::check_sleep(const order::sleep &what) {
  const sleep_wish wish = world_.m.sleep.wish;
  const wanted_alarm &wanted = wanted_;
  const std::int64_t ahead = wanted.on_time - world_.utc();
  const bool is_wanted = wanted.on_time != 0 && ahead > 0;
  if (is_wanted && ahead < lead_of(world_, what.method) + nearness_of(world_, what.method))
    world_.broken(3, "an on-time is near at a sleep");
  const std::int64_t alarm_ahead = world_.alarm.stands() - world_.alarm.count(now());
  if (is_wanted && tampered_at_ < now() - kTamperMs &&
      (world_.alarm.stands() == 0 || alarm_ahead > ahead))
    world_.broken(3, "no alarm stands at a sleep");
  check_use(wish == sleep_wish::kReturn, what.method);
  if (wish == sleep_wish::kReturn)
    check_return();
  const millis came_at =
      std::max({world_.session_at, world_.active_at, world_.seen_at - world_.booted_at});
  if ((wish == sleep_wish::kOffTimer || wish == sleep_wish::kScreen) &&
      std::max(world_.use_changed_at, world_.seen_at) < now() - kUnseenMs &&
      came_at > world_.m.sleep.wished_at + kLateSeconds * kSecondMs)
    world_.broken(3, "somebody has come long after the off-time, at its sleep");
}

// --- 10 ---

static bool is_loop(std::deque<millis> &sleeps, millis now) {
  sleeps.push_back(now);
  while (sleeps.front() < now - 3600 * kSecondMs)
    sleeps.pop_front();
  return sleeps.size() > kMostSleepsAnHour;
}

void sim_checks::ordered(const order::any &what) {
  const auto *start = std::get_if<order::start_unit>(&what);
  const bool turns_on = start != nullptr && start->name == unit::kOn;
  if (turns_on || std::holds_alternative<order::tv_on>(what)) {
    expected_.clear();
    ordered_on_at_ = now();
    if (now() > on_until_ && !is_user_cause(world_, kOrderMs))
      world_.broken(2, "the screen is turned on without a cause");
  }
  if (std::holds_alternative<order::tv_ask>(what)) {
    asked_at_ = now();
    is_silent_ = !world_.tv.answers() || world_.refused != 0;
  }
  if (const auto *sleep = std::get_if<order::sleep>(&what)) {
    check_sleep(*sleep);
    quiet_since_.reset();
    ++failed_;
    sent_at_ = now();
  }
}

// --- 4: the return ---

bool sim_checks::wants_return() const {
  const sim &world = world_;
  const sim_television &tv = world.tv;
  if (world.state != life::kRunning || !world.is_alive || !world.m.armed || world.sleeps_now ||
      world.stops_now || world.set.return_to_sleep == 0 || world.refused != 0 ||
      world.m.clock.state == clock_state::kUnknown || world.m.woken.stays)
    return false;
  const cause by = world.m.woken.by;
  const bool says_off = tv.answers() && !tv.on && !tv.lies && tv.answers_after < kSecondMs;
  // One that was turned on, or by somebody who has come, and does not answer may well be watched.
  const bool must_say = by == cause::kNothing || world.seen_at >= world.up_at ||
                        (tv.has_cec && ordered_on_at_ >= world.up_at);
  if ((must_say && (!says_off || is_silent_ || tv.changed_at >= asked_at_)) ||
      by == cause::kForeign || by == cause::kUser)
    return false;
  if (world.m.screen.believed == screen_state::kOn || (tv.on && tv.answers()) || tv.lies)
    return false;
  const bool is_used = world.blocked != 0 || world.session_at > world.up_at - world.booted_at ||
                       world.active_at > world.up_at - world.booted_at;
  if (is_used || !world.jobs.empty() || world.m.told.now != delivery::kNone)
    return false;
  if (world.foreign && *world.foreign - world.alarm.count(now()) < kLateSeconds)
    return false;
  const std::int64_t ahead = wanted_.on_time - world.utc();
  const off_action method = world.m.woken.booted ? off_action::kPoweroff : world.method;
  const std::int64_t near = lead_of(world, method) + nearness_of(world, method) +
                            world.set.return_to_sleep + kReturnSlackMs / kSecondMs;
  if (wanted_.on_time != 0 && ahead > 0)
    return ahead > near && world.alarm.stands() != 0 && world.m.problems[1] == 0 &&
           world.m.problems[2] == 0;
  return tampered_at_ < now() - kTamperMs;
}

millis sim_checks::return_limit() const {
  if (short_sleeps_ > kMostShortSleeps)
    return kLoopPause * kSecondMs + kReturnSlackMs;
  const std::size_t row = std::min<std::size_t>(static_cast<std::size_t>(failed_), 4);
  const millis retry = row == 0 ? 0 : kRetries[row - 1];
  const millis limit = std::max(retry, world_.set.return_to_sleep) * kSecondMs;
  // After so many sleeps in an hour, a test's among them, it waits.
  const bool is_often = sleeps_.size() + 1 >= kMostSleepsAnHour;
  const millis again = is_often ? sleeps_.back() + 3600 * kSecondMs : 0;
  return std::max(limit, again - quiet_since_.value_or(now())) + kReturnSlackMs;
}

void sim_checks::follow_return(millis next) {
  if (!wants_return() || due_at_ == now()) {
    quiet_since_.reset();
    return;
  }
  const millis since = quiet_since_.value_or(now());
  quiet_since_ = std::max({since, world_.input_at, stepped_at_ + kTamperMs});
  if (next > *quiet_since_ + return_limit())
    world_.broken(4, "the machine does not go back to sleep");
}

// --- 5: what stands ---

// `has_begun`: when the machine is down; otherwise after a wake-up.
void sim_checks::check_alarm(bool has_begun) {
  const sim_register &alarm = world_.alarm;
  const std::int64_t count = alarm.count(now());
  const std::int64_t stands = alarm.stands();
  const std::int64_t foreign = world_.foreign.value_or(0);
  const std::int64_t ahead = wanted_.on_time - world_.utc();
  if (wanted_.on_time == 0 || ahead <= 0) {
    if (stands != foreign)
      world_.broken(5, foreign != 0 ? "a foreign alarm is lost" : "an alarm that nobody wants");
    return;
  }
  const off_action method = has_begun ? world_.method : off_action::kSuspend;
  const std::int64_t least = nearness_of(world_, method);
  const std::int64_t ours = std::max(ahead - lead_of(world_, method), least);
  // One that is too near may go off before the machine sleeps; ours is set then.
  if (foreign != 0 && foreign - count <= least + kNearSeconds)
    return;
  // Which of the two leads is taken is not known either.
  const std::int64_t unsure = kMinuteSeconds + world_.set.lead_poweroff - world_.set.lead_suspend;
  if (foreign != 0 && foreign - count < std::min(ours, ahead) - unsure) {
    if (stands != foreign)
      world_.broken(5, "an earlier foreign alarm is lost");
    return;
  }
  if (foreign != 0 && std::abs(foreign - count - ours) <= unsure + kNearSeconds)
    return;
  const bool is_left_out = world_.state == life::kOff && !world_.set.hop_boots && alarm.range;
  if (is_left_out)
    return;
  if (stands == 0 || stands - count > ours + (alarm.counts_minutes ? kMinuteSeconds : 1))
    world_.broken(5, stands == 0 ? "no alarm stands" : "the alarm is too late");
  const bool is_hop = alarm.range && ours > std::min(*alarm.range, kHopSeconds);
  // Which sleep an announced one is, is not known: that of the off-action is assumed.
  const std::int64_t slack = (alarm.counts_minutes ? kMinuteSeconds + 3 : 3) + world_.delay_max +
                             world_.set.lead_poweroff - world_.set.lead_suspend;
  if (!is_hop && stands - count < ours - slack)
    world_.broken(5, "the alarm is too early");
}

void sim_checks::went_down(bool is_ready) {
  process_ended();
  if (sent_at_ >= 0 && is_loop(sleeps_, std::exchange(sent_at_, -1)))
    world_.broken(10, "more than 6 sleeps in an hour");
  quiet_since_.reset();
  wanted_at_down_ = wanted_;
  timer_went_off_ = timer_went_off_ && !is_ready;
  const bool is_excused = !is_ready || world_.m.test.running || tampered_at_ > now() - kTamperMs ||
                          world_.alarm.refuses != 0 || world_.refused != 0 ||
                          !world_.alarm.is_there || !world_.m.power.released;
  was_right_ = !is_excused;
  if (was_right_)
    check_alarm(true);
}

void sim_checks::went_off(cause by) { timer_went_off_ = timer_went_off_ || by == cause::kTimer; }

void sim_checks::asked_at_start() { slept_through_.clear(); }

void sim_checks::came_up() {
  credited_at_ = -1;
  const std::int64_t stands = world_.alarm.stands();
  left_at_up_ = stands == 0 ? kDay : stands - world_.alarm.count(now());
  const bool is_short = now() - world_.down_at < kShortSleepMs;
  const bool is_known = world_.up_by != cause::kNothing;
  short_sleeps_ = is_short && !is_known ? short_sleeps_ + 1 : 0;
  failed_ = 0;
  if (is_known && world_.up_by != cause::kForeign && world_.up_by != cause::kUser)
    sleeps_.clear();
  const std::int64_t last = slept_through_.empty() ? 0 : slept_through_.back();
  if (world_.is_alive) // otherwise a daemon that has not started yet makes up for them
    slept_through_.clear();
  if (last == 0 || world_.utc() - last > kLateSeconds || off_due_ >= last)
    return;
  on_until_ = now() + kOrderMs + kBootMs;
  // Without a slept time the daemon's own timers end at the wake-up, before anything is known.
  if (world_.is_alive && world_.counts_sleep && world_.tv.changed_at < asked_at_)
    expected_.push_back(now() + kOnTimeMs + 3 * world_.bus_ms);
}

// --- 6: causes and credits ---

// Another cause may be taken for the alarm that is about to go off.
bool sim_checks::is_alarm_near() const { return left_at_up_ <= kNearSeconds; }

void sim_checks::check_credit() {
  const auto &woken = world_.m.woken;
  if (!woken.credited || credited_at_ == woken.at)
    return;
  if (credited_at_ >= 0)
    world_.broken(6, "a second credit");
  credited_at_ = woken.at;
  if (!timer_went_off_ && !is_alarm_near() && tampered_at_ < world_.down_at - kTamperMs)
    world_.broken(6, "a credit without the alarm of a timer");
  if (woken.type != wanted_at_down_.type)
    world_.broken(6, "a credit for another timer");
}

// Two causes within the same seconds are not told apart.
void sim_checks::check_cause() {
  const cause by = world_.m.woken.by;
  const cause truth = world_.up_by;
  if (tampered_at_ > now() - kTamperMs || is_alarm_near())
    return;
  const bool is_user = by == cause::kUser || by == cause::kNothing;
  const bool is_right = truth == cause::kUser || truth == cause::kNothing ? is_user : by == truth;
  if (!is_right)
    world_.broken(6, "woken by " + std::to_string(static_cast<int>(truth)) + ", taken for " +
                         std::to_string(static_cast<int>(by)));
}

// --- 7: problems ---

static problem problem_of(unit of) {
  return static_cast<problem>(static_cast<int>(problem::kOnUnit) + static_cast<int>(of));
}

void sim_checks::check_problems(const event::any &what) {
  const auto mark = [&](problem part, bool is_bad) {
    is_bad_[static_cast<std::size_t>(part)] = is_bad;
    if ((world_.m.problems[static_cast<std::size_t>(part)] != 0) != is_bad)
      world_.broken(7, "problem " + std::to_string(static_cast<int>(part)) +
                           (is_bad ? " is not said" : " is said and over"));
  };
  if (const auto *refused = std::get_if<event::refused>(&what))
    mark(refused->part, true);
  else if (const auto *works = std::get_if<event::works>(&what))
    mark(works->part, false);
  else if (const auto *unit_error = std::get_if<event::unit_refused>(&what))
    mark(problem_of(unit_error->of), true);
  else if (const auto *job = std::get_if<event::job_began>(&what))
    mark(problem_of(job->of), false);
}

// --- 8: nothing due ---

void sim_checks::check_due(const event::any &what) {
  if (std::holds_alternative<event::due>(what) && next_due(world_.m) <= world_.boot_ms())
    world_.broken(8, "what is due stays due");
  const auto &problems = world_.m.problems;
  const bool has_problem = std::ranges::any_of(problems, [](int one) { return one != 0; });
  const bool is_own =
      std::holds_alternative<event::due>(what) || std::holds_alternative<event::idle>(what);
  if (!is_own || has_problem || world_.m.sleep.wish != sleep_wish::kNone ||
      world_.m.clock.state == clock_state::kUnknown || dues_since_ < now() - kDayMs) {
    dues_ = 0;
    dues_since_ = now();
  } else if (++dues_ > kMostDues) {
    world_.broken(8, "more than 10 events of its own without one from outside");
  }
}

void sim_checks::decided(const machine &before, const event::any &what, const orders &list) {
  const auto is_deliver = [](const order::any &one) {
    return std::holds_alternative<order::deliver>(one);
  };
  if (list.count > 0 && std::any_of(list.begin(), list.end() - 1, is_deliver))
    world_.broken(11, "an order after the call of the daemon");
  if (const auto *program = std::get_if<event::program>(&what))
    wanted_ = {program->type, program->on_time};
  if (std::holds_alternative<event::unprogram>(what) && world_.m.armed)
    wanted_ = {};
  if (world_.sleeps_now || world_.stops_now)
    expected_.clear();
  const auto *said = std::get_if<event::tv_reports>(&what);
  if (said != nullptr)
    is_silent_ = false;
  const bool is_off = said != nullptr && (said->state == event::tv_state::kOff ||
                                          said->state == event::tv_state::kTurningOff);
  if (is_off || std::holds_alternative<event::tv_standby>(what))
    said_off_at_ = now();
  if (std::holds_alternative<event::sleep_ends>(what) && before.woken.at != world_.m.woken.at)
    check_cause();
  check_credit();
  check_problems(what);
  check_due(what);
}
