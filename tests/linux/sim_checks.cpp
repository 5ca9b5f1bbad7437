#include "sim.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

static constexpr millis kOnTimeMs = 2 * kSecondMs;
static constexpr millis kOrderMs = 20 * kSecondMs; // an order to a television is repeated so long
static constexpr millis kSlowestMs = 125 * kSecondMs; // until a television that boots has its pair
static constexpr millis kLongestBootMs = 35 * kSecondMs;
static constexpr millis kResumeMs = 2100;
static constexpr millis kWindowMs = 9 * kSecondMs;        // a key in it has woken the machine,
static constexpr millis kDoubtMs = 11 * kSecondMs;        // and one until then perhaps
static constexpr millis kAnswerMs = 3 * kSecondMs;        // waited for
static constexpr millis kScreenAnswersMs = 2 * kSecondMs; // one that is switched, on a slow bus
static constexpr millis kAskedMs = 5 * kSecondMs;
static constexpr millis kUnseenMs = kSecondMs;
static constexpr millis kNoticedMs = 2 * kSecondMs; // until an alarm that passes is looked at
static constexpr millis kBeliefMs = 15 * kSecondMs; // a television is asked 10 s before an on-time
static constexpr millis kReturnSlackMs = 30 * kSecondMs;
static constexpr millis kRetries[] = {30, 60, 300, 900}; // seconds
static constexpr millis kLookAgain = 900;                // seconds
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
static constexpr std::int64_t kMostStepSeconds = 4000; // of the clock
static constexpr std::int64_t kMostDays = 3;           // a night
static constexpr int kMostDues = 10;                   // a day
static constexpr millis kFoundMs = 3 * kSecondMs;      // jobs that run, after a start
static constexpr millis kLastTryMs = 1600;             // before the end of the delay
static constexpr millis kSettlesMs = 3 * kSecondMs;    // a reading may be a second late

static bool boots(off_action method) { return method != off_action::kSuspend; }

static std::int64_t lead_of(const sim &world, off_action method) {
  return boots(method) ? world.set.lead_poweroff : world.set.lead_suspend;
}

static std::int64_t nearness_of(const sim &world, off_action method) {
  return method == off_action::kPoweroff ? kShutdownSeconds : world.delay_max + kSleepSeconds;
}

template <class... Orders> static bool refuses(const sim &world) {
  return (((world.refused >> order::any(Orders{}).index() & 1U) != 0) || ...);
}

static bool refuses_alarm(const sim &world) {
  return world.alarm.refuses != 0 || !world.alarm.is_there ||
         refuses<order::read_alarm, order::write_alarm, order::switch_off_alarm>(world);
}

static bool has_job(const sim &world, unit of, millis since) {
  return std::ranges::any_of(world.jobs, [&](const auto &job) {
    return job.second.first == of && job.second.second < since;
  });
}

millis sim_checks::now() const { return world_.now; }

bool sim_checks::is_timer_second() const { return now() >= due_at_ && now() < due_at_ + kSecondMs; }

// A process that starts now takes a step for time that has passed, and a timer for a late one.
bool sim_checks::is_step_unseen() const { return stepped_at_ > now() - kUnseenMs; }

bool sim_checks::is_clock_known() const { return world_.rtc_valid || is_clock_set_; }

// --- 1: on-timers ---

void sim_checks::miss(millis due) {
  const sim_television &tv = world_.tv;
  const bool may_err =
      tv.lies || tv.answers_after > kAnswerMs || asked_at_ + tv.answers_after > due;
  if (tv.changed_at > now() - kBeliefMs || said_off_at_ > due) // believed on, and asked too late
    return;
  if (tv.has_adapter() ? !said_on_ : !world_.plain_on)
    world_.broken(1, "an on-timer has not turned the screen on");
  else if (tv.has_adapter() && !tv.on && !may_err)
    world_.broken(1, "the screen is believed on");
}

// A timer becomes due, whether the machine notices or not.
void sim_checks::becomes_due(const sim_timer &timer, std::int64_t due) {
  const sim &world = world_;
  due_at_ = (due - kEvening) * kSecondMs - world.wall_offset;
  const millis since_on = due_at_ - world.tv.boots_until; // it may say so before or after
  if (world.acted_at > due_at_ - kScreenAnswersMs || std::abs(since_on) < kScreenAnswersMs)
    world_.has_acted = true;
  const bool is_armed = world.is_alive && world.m.armed;
  if (!is_clock_known()) { // made up for when it is known soon
    on_until_ = std::max(on_until_, due_at_ + kLateSeconds * kSecondMs);
    world_.is_close = true;
  }
  if (is_armed && !is_clock_known()) {
    is_off_open_ = is_off_open_ || timer.type == 1;
    if (timer.type <= 1 && due_at_ >= unknown_due_) {
      unknown_due_ = world.is_halted ? -kDayMs : due_at_;
      unknown_type_ = timer.type;
    }
  }
  if (world.is_halted || (is_armed && !is_clock_known()))
    return;
  if (timer.type == 1) {
    off_due_ = std::max(off_due_, due);
    off_at_ = due_at_;
    is_off_open_ = true;
  }
  if (timer.type != 0)
    return;
  const bool is_watched = world.tv.has_adapter() && (world.tv.on || world.tv.lies) && said_on_;
  // In the second in which the hour changes, or the machine has woken, it may be taken for late.
  if (due == world.transition || is_cause_open_)
    on_until_ = std::max(on_until_, due_at_ + kOnTimeMs);
  // The daemon hears after the wake-up of a step on the way down, and fires by the old clock.
  const bool is_step_held =
      (world.sleeps_now || world.stops_now) && stepped_at_ >= world.begun_at();
  if (is_step_held)
    on_until_ = std::max(on_until_, due_at_ + kLateSeconds * kSecondMs);
  if (world.state == life::kRunning && is_armed && !is_watched && !is_step_held)
    expected_.push_back(due_at_ + kOnTimeMs);
  else if (world.state == life::kRunning && !is_armed) // made up for once the process has started
    on_until_ = due_at_ + kLateSeconds * kSecondMs;
  if (world.state == life::kRunning)
    return;
  slept_through_ = std::max(slept_through_, due);
  const millis least = (nearness_of(world, world.method) + kMinuteSeconds) * kSecondMs;
  if (world.alarm.stands() != 0 && !world.foreign_stands && was_right_ && !is_step_held &&
      due_at_ > world.down_at + least)
    world_.broken(1, "the alarm is later than the on-time");
}

void sim_checks::time_passes(millis next) {
  follow_return(next);
  follow_foreign(next);
  check_lost(next);
  if (is_cause_open_ && next > std::max(world_.up_at, world_.alive_at) + kSecondMs)
    check_cause();
  std::erase_if(expected_, [&](millis until) {
    if (until >= next)
      return false;
    miss(until - kOnTimeMs);
    return true;
  });
  if (off_until_ < next) {
    off_until_ = kNever;
    world_.broken(1, "an off-timer of an unknown clock does not turn the screen off");
  }
  const std::int64_t from = world_.utc();
  const std::int64_t to = kEvening + seconds_of(next + world_.wall_offset);
  if (from == to)
    return;
  for (const sim_timer &timer : world_.timers)
    // One that is armed for its next day comes again when the clock is set back.
    for (std::int64_t day = timer.daily ? -1 : 0; day <= (timer.daily ? kMostDays : 0); ++day) {
      const std::int64_t local = timer.local + day * kDay;
      const std::int64_t due = world_.to_utc(local);
      if (due > from && due <= to && (day >= 0 || due > timer.since) &&
          due + world_.offset(due) == local)
        becomes_due(timer, due);
    }
}

void sim_checks::clock_stepped() {
  stepped_at_ = now();
  tampered();
  slept_through_ = off_due_ = 0; // by the old clock
  unknown_due_ = -kDayMs;
  expected_.clear();
  if (world_.is_alive && world_.m.armed && !is_cause_open_ && is_clock_known())
    return;
  on_until_ = now() + kLateSeconds * kSecondMs; // what it goes past is made up for
  const bool is_off_time = std::ranges::any_of(world_.timers, [&](const sim_timer &timer) {
    const std::int64_t late = world_.utc() - world_.to_utc(timer.local);
    const bool is_heard = world_.is_alive && is_clock_known();
    return timer.type == 1 && late >= 0 && late <= (is_heard ? kNearSeconds : kLateSeconds);
  });
  if (is_off_time)
    off_at_ = now();
}

// --- 2: the screen ---

void sim_checks::screen_called(bool on) {
  quiet_since_.reset(); // who calls uses the machine
  if (on)
    on_until_ = std::max(on_until_, now() + kOrderMs);
  else
    expected_.clear();
  if (!on)
    stays_at_ = now();
}

void sim_checks::turned_off_by_timer() {
  off_at_ = now();
  is_off_open_ = false;
  stays_at_ = -1;
}

// A timer of this second, or one that is made up for later, may count or not.
void sim_checks::halted() {
  expected_.clear();
  unknown_due_ = -kDayMs;
  on_until_ = std::max(on_until_, now() + kLateSeconds * kSecondMs);
}

static bool is_user_cause(const sim &world, bool has_television, millis limit) {
  const bool follows = world.set.screen_follows || !has_television;
  const bool is_user = world.up_by == cause::kUser || world.input_at >= world.up_at;
  return follows && is_user && world.now < std::max(world.up_at, world.input_at) + limit;
}

// A unit whose job nobody has seen is begun again after a restart.
void sim_checks::check_turned_on(bool by_unit) {
  const bool is_lost = by_unit && world_.alive_at >= turned_on_at_;
  const millis again_until = turned_on_at_ + (by_unit ? kOrderMs : kSlowestMs);
  const bool is_again = is_ordered_on_ && (is_lost || !by_unit) && now() < again_until;
  if (!is_again && now() > on_until_ &&
      !is_user_cause(world_, world_.tv.has_adapter() && has_spoken_, kOrderMs))
    world_.broken(2, "the screen is turned on without a cause");
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

bool sim_checks::is_user_seen(millis window) const {
  return world_.first_seen_at >= world_.up_at && world_.first_seen_at < world_.up_at + window;
}

void sim_checks::check_return() {
  const sim_television &tv = world_.tv;
  if (said_on_)
    world_.broken(3, "the screen is on at a return");
  if (stays_at_ >= std::max(world_.up_at, off_at_))
    world_.broken(3, "only the screen was to be turned off, at a return");
  if (tv.answers() && tv.answers_after < kAnswerMs && !tv.lies && tv.on && !is_silent_ &&
      tv.changed_at < now() - kAskedMs)
    world_.broken(3, "somebody watches at a return");
  if (tv.has_adapter() && asked_at_ < now() - kAskedMs)
    world_.broken(3, "the television is not asked before a return");
  const millis quiet = now() - world_.seen_at;
  if (world_.seen_at > world_.up_at && quiet > kUnseenMs &&
      quiet < world_.set.return_to_sleep * kSecondMs)
    world_.broken(3, "somebody presses keys at a return");
  if (world_.seen_at > world_.up_at && quiet > kUnseenMs && said_off_at_ <= world_.seen_at)
    world_.broken(3, "somebody has come, and no television is off, at a return");
  const bool is_sure = knows_cause_ && !is_alarm_near();
  const bool is_nobodys = world_.up_by == cause::kNothing || world_.up_by == cause::kUser;
  if (is_sure && (world_.up_by == cause::kForeign || (is_nobodys && is_welcomed_) ||
                  (world_.up_by == cause::kUser && is_user_seen(kWindowMs))))
    world_.broken(3, "who has woken the machine decides when it sleeps");
}

// What it is said to be for has happened.
void sim_checks::check_wish(sleep_wish wish) {
  const bool follows = world_.set.follow_screen && left_at_ >= world_.up_at;
  if ((wish == sleep_wish::kOffTimer && std::max(off_at_, made_up_at_) < world_.down_at) ||
      (wish == sleep_wish::kScreen && !follows) ||
      (wish == sleep_wish::kTest && test_at_ < world_.up_at))
    world_.broken(3, "a sleep that nobody wants");
}

void sim_checks::check_sleep(const order::sleep &what) {
  const sleep_wish wish = world_.m.sleep.wish;
  const wanted_alarm &wanted = wanted_;
  const std::int64_t ahead = wanted.on_time - world_.utc();
  const bool is_wanted = wanted.on_time != 0 && ahead > 0;
  check_wish(wish);
  const std::int64_t near = lead_of(world_, what.method) + nearness_of(world_, what.method);
  if (is_wanted && ahead < near)
    world_.broken(3, "an on-time is near at a sleep");
  const std::int64_t rounding = world_.alarm.counts_minutes ? kMinuteSeconds : 0;
  world_.is_close = world_.is_close || (is_wanted && ahead < near + rounding + kNearSeconds);
  if (is_wanted && std::max(tampered_at_, world_.foreign_at) < now() - kAskedMs &&
      !is_led_to(what.method))
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
    check_turned_on(turns_on);
    turned_on_at_ = turns_on ? now() : turned_on_at_;
    expected_.clear();
    is_ordered_on_ = true;
    is_sent_off_ = false;
    stays_at_ = -1;
    // A refused order leaves it unknown: an on-timer must not take it for on.
    if (turns_on && !world_.m.screen.has_cec && world_.m.screen.believed == screen_state::kOn)
      said_on_ = !refuses<order::start_unit>(world_);
  }
  if (std::holds_alternative<order::tv_off>(what) ||
      (start != nullptr && start->name == unit::kOff)) {
    is_ordered_on_ = false;
    is_sent_off_ = true;
    off_until_ = kNever;
    said_on_ = said_on_ && start != nullptr && world_.tv.has_adapter(); // which has its own order
  }
  if (start != nullptr)
    if (const auto found = std::ranges::find(lost_units_, start->name); found != lost_units_.end())
      lost_units_.erase(found);
  if (start != nullptr && (turns_on || start->name == unit::kOff)) // the opposite is not wanted now
    std::erase(lost_units_, turns_on ? unit::kOff : unit::kOn);
  if (std::holds_alternative<order::tv_ask>(what)) {
    asked_at_ = now();
    is_silent_ = !world_.tv.answers() || refuses<order::tv_ask>(world_);
  }
  if (std::holds_alternative<order::ask_use>(what) && refuses<order::ask_use>(world_))
    use_unknown_at_ = now();
  if (std::holds_alternative<order::ask_late>(what) && std::exchange(is_off_open_, false))
    made_up_at_ = now();
  if (std::holds_alternative<order::release_inhibitor>(what))
    check_release();
  if (const auto *said = std::get_if<order::say>(&what))
    check_line(*said);
  if (const auto *sleep = std::get_if<order::sleep>(&what)) {
    check_sleep(*sleep);
    is_test_ = world_.m.sleep.wish == sleep_wish::kTest;
    quiet_since_.reset();
    ++failed_;
    sent_at_ = now();
  }
}

// --- 4: the return ---

// What stands wakes the machine from such a sleep, and not later than at the on-time.
bool sim_checks::is_led_to(off_action method) const {
  const std::int64_t ahead = wanted_.on_time - world_.utc();
  const std::int64_t left = world_.alarm.stands() - world_.alarm.count(now());
  const std::int64_t stepped = stepped_at_ < world_.up_at ? 0 : kMostStepSeconds;
  const std::int64_t slack = world_.set.lead_poweroff + kShutdownSeconds + kMinuteSeconds + stepped;
  const bool is_hop = !world_.foreign_stands && left < ahead - slack;
  const bool boots = method != off_action::kPoweroff || world_.set.hop_boots;
  return world_.alarm.stands() != 0 && left <= ahead && (boots || !is_hop);
}

// An off-timer of since the wake-up wants its own kind of sleep, and perhaps a late one.
off_action sim_checks::wanted_method() const {
  const off_action before = has_booted_ ? off_action::kPoweroff : world_.method;
  const bool is_late = made_up_at_ >= world_.up_at && before == off_action::kSuspend;
  return is_late || off_at_ >= world_.up_at ? world_.set.off : before;
}

bool sim_checks::wants_return() const {
  const sim &world = world_;
  const sim_television &tv = world.tv;
  if (world.state != life::kRunning || !world.is_alive || !world.m.armed || world.sleeps_now ||
      world.stops_now || world.set.return_to_sleep == 0 || !is_clock_known() ||
      refuses<order::sleep, order::ask_use>(world))
    return false;
  const bool stays =
      (world.set.off == off_action::kNone && off_at_ >= world.down_at) || stays_at_ >= world.up_at;
  const cause by = knows_cause_ && !is_alarm_near() ? world.up_by : world.m.woken.by;
  const bool says_off = tv.answers() && !tv.on && !tv.lies && tv.answers_after < kSecondMs;
  // One that was turned on, or by somebody who has come, and does not answer may well be watched.
  const bool must_say = by == cause::kNothing || world.seen_at >= world.up_at || is_ordered_on_;
  if ((must_say && (!says_off || is_silent_ || tv.changed_at >= asked_at_)) ||
      by == cause::kForeign || by == cause::kUser || stays || is_cause_open_ ||
      (by == cause::kNothing && (is_user_seen(kDoubtMs) || is_welcomed_)))
    return false;
  if (said_on_ || (tv.on && tv.answers()) || tv.lies)
    return false;
  const bool is_used = world.blocked != 0 || world.session_at > world.up_at - world.booted_at ||
                       world.active_at > world.up_at - world.booted_at;
  if (is_used || !world.jobs.empty())
    return false;
  if (world.foreign && *world.foreign - world.alarm.count(now()) < kLateSeconds)
    return false;
  const std::int64_t ahead = wanted_.on_time - world.utc();
  const off_action method = wanted_method();
  const std::int64_t near = lead_of(world, method) + nearness_of(world, method) +
                            world.set.return_to_sleep + kReturnSlackMs / kSecondMs;
  if (wanted_.on_time == 0 || ahead <= 0)
    return true;
  return ahead > near && is_led_to(method) && !refuses_alarm(world);
}

millis sim_checks::return_limit() const {
  const millis pause = short_sleeps_ > kMostShortSleeps ? kLoopPause : 0;
  const std::size_t row = std::min<std::size_t>(static_cast<std::size_t>(failed_), 4);
  const millis retry = row == 0 ? 0 : kRetries[row - 1];
  // So often a clock is looked at that has refused its alarm, that may hold another program's, or
  // whose range the on-time of a machine that must not boot for hops may have come into.
  const bool must_not_hop = world_.alarm.range && !world_.set.hop_boots && boots(wanted_method());
  const bool is_looked_at = std::max(tampered_at_, world_.foreign_at) >= world_.up_at;
  // A use that is over was not told, and counts until then.
  const bool is_use_unknown = use_unknown_at_ >= world_.up_at;
  const millis used = is_use_unknown ? world_.set.return_to_sleep : 0;
  const millis look = is_looked_at || must_not_hop || is_use_unknown ? kLookAgain + used : 0;
  const millis limit = (look + std::max({retry, pause, world_.set.return_to_sleep})) * kSecondMs;
  // After so many sleeps in an hour it waits.
  const bool is_often = sleeps_.size() >= kMostSleepsAnHour;
  const millis again =
      is_often ? sleeps_[sleeps_.size() - kMostSleepsAnHour] + 3600 * kSecondMs : 0;
  return std::max(limit, again - quiet_since_.value_or(now())) + kReturnSlackMs;
}

void sim_checks::follow_return(millis next) {
  if (!wants_return() || due_at_ == now()) {
    quiet_since_.reset();
    return;
  }
  const millis since = quiet_since_.value_or(now());
  quiet_since_ = std::max({since, world_.input_at, stepped_at_, counted_from_});
  if (next > *quiet_since_ + return_limit())
    world_.broken(4, "the machine does not go back to sleep");
}

// --- 5: what stands ---

void sim_checks::check_alarm() {
  const sim_register &alarm = world_.alarm;
  const std::int64_t count = alarm.count(now());
  const std::int64_t stands = alarm.stands();
  const std::int64_t foreign = world_.foreign.value_or(0);
  const std::int64_t ahead = wanted_.on_time - world_.utc();
  const bool has_passed = ahead <= 0 && ahead > -world_.delay_max - 1; // while it went down
  if (wanted_.on_time != 0 && has_passed)
    return;
  if (wanted_.on_time == 0 || ahead <= 0) {
    if (stands != foreign && stands != world_.forgotten)
      world_.broken(5, foreign != 0 ? "a foreign alarm is lost" : "an alarm that nobody wants");
    return;
  }
  const off_action method = world_.method;
  const std::int64_t least = nearness_of(world_, method);
  // Somebody else's sleep that begins while ours is on its way to logind is taken for ours.
  const bool crosses = crossed_at_ > world_.down_at - (world_.delay_max + 1) * kSecondMs;
  const std::int64_t lead = crosses ? world_.set.lead_suspend : lead_of(world_, method);
  const std::int64_t ours = std::max(ahead - lead, least);
  const std::int64_t rounding = alarm.counts_minutes ? kMinuteSeconds : 0;
  world_.is_close = world_.is_close || ahead - lead < least + rounding;
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
  if (foreign == 0 && stands != 0 && stands == world_.forgotten)
    return;
  if (foreign != 0 && std::abs(foreign - count - ours) <= unsure + kNearSeconds)
    return;
  const bool is_left_out = method == off_action::kPoweroff && !world_.set.hop_boots && alarm.range;
  if (is_left_out)
    return;
  if (stands == 0 || stands - count > ours + (alarm.counts_minutes ? kMinuteSeconds : 2))
    world_.broken(5, stands == 0 ? "no alarm stands" : "the alarm is too late");
  const bool is_hop = alarm.range && ours > std::min(*alarm.range, kHopSeconds);
  // Which sleep an announced one is, is not known: that of the off-action is assumed.
  const std::int64_t slack = (alarm.counts_minutes ? kMinuteSeconds + 3 : 3) + world_.delay_max +
                             world_.set.lead_poweroff - world_.set.lead_suspend;
  if (!is_hop && stands - count < ours - slack)
    world_.broken(5, "the alarm is too early");
}

void sim_checks::went_down(bool is_ready) {
  expected_.clear();
  unknown_due_ = -kDayMs;
  lost_units_.clear();
  const millis sent_at = std::exchange(sent_at_, -1);
  if (sent_at >= 0 && is_test_)
    sleeps_.clear();
  else if (sent_at >= 0 && is_loop(sleeps_, sent_at))
    world_.broken(10, "more than 6 sleeps in an hour");
  quiet_since_.reset();
  wanted_at_down_ = wanted_;
  timer_went_off_ = timer_went_off_ && !is_ready;
  was_ready_ = is_ready;
  if (world_.state == life::kOff)
    is_down_known_ = is_ready;
  else if (world_.m.armed)
    is_down_known_ = true;
  was_timer_second_ = is_timer_second();
  was_right_ =
      is_ready && !world_.m.test.running && tampered_at_ < released_at_ && !refuses_alarm(world_);
  if (was_right_ && off_went_at_ < released_at_) // nothing has gone off since
    check_alarm();
}

// What must be done before a sleep is done when the delay ends, not somewhat later.
void sim_checks::check_release() {
  const millis begun_at = world_.begun_at();
  released_at_ = now();
  if (!world_.sleeps_now && !world_.stops_now)
    return;
  const millis last_try = begun_at + world_.m.use.delay_max_ms - kLastTryMs;
  // One that has started since may take this sleep for the last one, which has failed meanwhile.
  const millis taken_for = world_.booted_at + world_.m.power.went.boot;
  const bool is_mistaken = world_.alive_at >= begun_at && taken_for < begun_at;
  const bool is_refused = world_.m.problems[static_cast<std::size_t>(problem::kAlarmRefused)] != 0;
  if (told_at_ < begun_at && world_.alive_at < begun_at)
    world_.broken(5, "the delay ends before the daemon knows of the standby");
  if (is_refused && now() < last_try && !is_mistaken)
    world_.broken(5, "a refused alarm is given up with the delay");
  if (!world_.m.test.running && tampered_at_ < begun_at && off_went_at_ < begun_at &&
      !refuses_alarm(world_))
    check_alarm();
}

// A process that was there all the time has still not said that it is ready.
void sim_checks::delay_ended(millis begun_at) {
  if (world_.is_alive && world_.m.armed && world_.holds_inhibitor && world_.alive_at < begun_at &&
      tampered_at_ < begun_at && !refuses_alarm(world_))
    world_.broken(5, "the delay is over before the alarm is set");
}

// Another program's alarm, later than ours, stands again when ours has gone off.
void sim_checks::follow_foreign(millis next) {
  const std::int64_t latest = wanted_.on_time + nearness_of(world_, off_action::kSuspend);
  const bool is_ours = latest + (world_.alarm.counts_minutes ? kMinuteSeconds : 0) > world_.utc();
  const bool is_lost = world_.foreign && !world_.foreign_stands && !is_ours &&
                       world_.state == life::kRunning && world_.is_alive && world_.m.armed &&
                       !world_.sleeps_now && !world_.stops_now && !world_.m.test.running &&
                       tampered_at_ < world_.up_at && !refuses_alarm(world_);
  if (!is_lost)
    lost_since_ = kNever;
  else if (lost_since_ == kNever)
    lost_since_ = std::max(now(), world_.alive_at);
  else if (next > lost_since_ + kSettlesMs)
    world_.broken(5, "a foreign alarm is not put back");
}

void sim_checks::went_off(cause by) {
  timer_went_off_ = timer_went_off_ || by == cause::kTimer;
  off_went_at_ = now();
}

void sim_checks::asked_at_start() { slept_through_ = 0; }

void sim_checks::came_up(bool boots) {
  credited_at_ = -1;
  off_went_before_up_ = off_went_at_;
  is_cause_open_ = true;
  has_booted_ = boots;
  knows_cause_ = was_ready_ && tampered_at_ < released_at_ && !refuses<order::read_alarm>(world_);
  const std::int64_t ahead = wanted_at_down_.on_time - world_.utc();
  if (ahead > 0 && ahead <= kLateSeconds)
    counted_from_ = now() + ahead * kSecondMs;
  is_clock_set_ = is_clock_set_ && !boots;
  said_on_ = said_on_ && !boots;
  has_spoken_ = has_spoken_ && !boots;
  is_sent_off_ = is_sent_off_ && !boots;
  if (boots) {
    has_line_ = {};
    sleeps_.clear(); // an alarm or somebody has booted it: that is no loop
  }
  is_ordered_on_ = is_seen_on_ = is_welcomed_ = false;
  const std::int64_t stands = world_.alarm.stands();
  left_at_up_ = stands == 0 ? kDay : stands - world_.alarm.count(now());
  short_sleeps_ = now() - world_.down_at < kShortSleepMs ? short_sleeps_ + 1 : 0;
  failed_ = 0;
  if (was_timer_second_) // it may have been about to fire
    on_until_ = std::max(on_until_, now() + kOrderMs + kLongestBootMs);
  const std::int64_t last = slept_through_;
  if (last == 0 || world_.utc() - last >= kLateSeconds || off_due_ > last)
    return;
  // One that was still starting hears of the television before it is asked for late timers.
  world_.is_close = world_.is_close || (world_.is_alive && !world_.m.armed && world_.tv.on);
  on_until_ = std::max(on_until_, now() + kOrderMs + kLongestBootMs);
  if (off_due_ == last) // the order in which the daemon has them counts
    return;
  // Without a slept time the daemon's own timers end at the wake-up, before anything is known. When
  // a machine went off that has told nobody is not known either: what it missed is over.
  if (world_.is_alive && world_.counts_sleep && is_down_known_ && !said_on_ && is_clock_known())
    expected_.push_back(now() + kOnTimeMs + 3 * world_.bus_ms);
}

// --- 6: causes and credits ---

// Another cause may be taken for the alarm that is about to go off, or that has just gone off and
// woken nothing.
bool sim_checks::is_alarm_near() const {
  const bool is_other = world_.up_by == cause::kUser || world_.up_by == cause::kNothing;
  const bool has_woken = off_went_before_up_ == world_.up_at && !is_other;
  const bool has_passed =
      off_went_before_up_ >= world_.down_at - kNoticedMs && !has_woken &&
      off_went_before_up_ > world_.up_at - (kLateSeconds + kNearSeconds) * kSecondMs;
  return left_at_up_ <= kNearSeconds || has_passed;
}

void sim_checks::check_credit() {
  const auto &woken = world_.m.woken;
  if (!woken.credited || credited_at_ == woken.at)
    return;
  if (credited_at_ >= 0)
    world_.broken(6, "a second credit");
  credited_at_ = woken.at;
  if (!timer_went_off_ && !is_alarm_near() && knows_cause_)
    world_.broken(6, "a credit without the alarm of a timer");
  if (woken.type != wanted_at_down_.type)
    world_.broken(6, "a credit for another timer");
}

// Two causes within the same seconds are not told apart.
void sim_checks::check_cause() {
  const cause by = world_.m.woken.by;
  // One that nobody wants any longer wakes for nobody.
  const bool is_wanted = world_.up_by != cause::kTimer || wanted_at_down_.on_time != 0;
  const cause truth = is_wanted ? world_.up_by : cause::kHop;
  if (world_.state != life::kRunning || !world_.is_alive)
    return;
  is_cause_open_ = false;
  const cause known = knows_cause_ && !is_alarm_near() ? truth : by;
  if (known == cause::kTimer || known == cause::kHop || known == cause::kTest)
    sleeps_.clear();
  // A user who has not pressed a key is not known, nor is an alarm that was set just before.
  if (known != cause::kUser && known != cause::kNothing)
    short_sleeps_ = 0;
  if (!world_.tv.has_adapter() && !is_ordered_on_ &&
      (known == cause::kTimer || known == cause::kHop))
    said_on_ = false; // nobody knows what it did meanwhile
  if (!knows_cause_ || is_alarm_near())
    return;
  const bool is_user = by == cause::kUser || by == cause::kNothing;
  const bool is_right = truth == cause::kUser || truth == cause::kNothing ? is_user : by == truth;
  if (!is_right)
    world_.broken(6, "woken by " + std::to_string(static_cast<int>(truth)) + ", taken for " +
                         std::to_string(static_cast<int>(by)));
  if (is_right && truth == cause::kTimer && !world_.m.woken.credited)
    world_.broken(6, "a timer gets no credit");
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

// One when it begins, one when it is over.
void sim_checks::check_line(const order::say &said) {
  const bool begins = said.what == order::saying::kProblem;
  if (!begins && said.what != order::saying::kProblemOver)
    return;
  bool &has_line = has_line_[static_cast<std::size_t>(said.number)];
  if (has_line == begins)
    world_.broken(7, "problem " + std::to_string(said.number) +
                         (begins ? " is said twice" : " is over and was never said"));
  has_line = begins;
}

// The last line may be lost with the process; what was about to fire is made up for.
void sim_checks::process_ended() {
  if (!expected_.empty() || is_timer_second() || is_step_unseen())
    on_until_ = now() + kLateSeconds * kSecondMs;
  unknown_due_ = -kDayMs;
  off_until_ = kNever;
  expected_.clear();
  const bool is_starting = std::ranges::any_of(world_.stored.jobs, [](const job &one) {
    return one.id == kStarting && (one.of == unit::kOn || one.of == unit::kOff);
  });
  if (!world_.tv.has_adapter() && is_starting) // perhaps: nobody has seen its job
    said_on_ = false;
  for (std::size_t part = 0; part < kProblems; ++part)
    has_line_[part] = world_.stored.problems[part] != 0;
}

// --- 9: what a restart must not change, besides the night that it is compared with ---

void sim_checks::lost(const order::any &what) {
  const auto *start = std::get_if<order::start_unit>(&what);
  if (start == nullptr)
    return;
  if (std::ranges::find(lost_units_, start->name) == lost_units_.end()) // it may be lost again
    lost_units_.push_back(start->name);
  if (start->name == unit::kOn || start->name == unit::kOff)
    is_sent_off_ = start->name == unit::kOff;
  if (start->name == unit::kOn) { // what is its cause now may be none when it is started again
    check_turned_on(true);
    is_ordered_on_ = true;
    turned_on_at_ = now();
  }
  if (!world_.tv.has_adapter() && (start->name == unit::kOn || start->name == unit::kOff))
    said_on_ = false; // a sleep may come before it is started again
}

void sim_checks::check_lost(millis next) {
  if (!lost_units_.empty() && world_.is_alive && next > world_.alive_at + kFoundMs)
    world_.broken(9, "a unit is not started after a restart");
}

// --- 8: nothing due ---

template <class... Events> static bool is_one_of(const event::any &what) {
  return (std::holds_alternative<Events>(what) || ...);
}

// Its own, and what answers it.
static bool is_own(const event::any &what) {
  return is_one_of<event::due, event::idle, event::ntp, event::tv_reports, event::tv_silent,
                   event::alarm_read, event::alarm_written, event::use_changed, event::works>(what);
}

void sim_checks::check_due(const event::any &what) {
  if (std::holds_alternative<event::due>(what) && next_due(world_.m) <= world_.boot_ms())
    world_.broken(8, "what is due stays due");
  const auto &problems = world_.m.problems;
  const bool has_problem = std::ranges::any_of(problems, [](int one) { return one != 0; });
  const bool is_clock_asked = world_.ntp_on && !world_.ntp_synchronised;
  if (!is_own(what) || has_problem || world_.m.sleep.wish != sleep_wish::kNone ||
      world_.m.screen.pending || is_clock_asked || !is_clock_known() ||
      dues_since_ < now() - kDayMs) {
    dues_ = 0;
    dues_since_ = now();
  } else if (std::holds_alternative<event::due>(what) && ++dues_ > kMostDues) {
    world_.broken(8, "more than 10 events of its own without one from outside");
  }
}

// --- 11 ---

// What the daemon has programmed stands, or a sentence says that it does not yet.
void sim_checks::called(const event::any &what) {
  const std::int64_t ahead = wanted_.on_time - world_.utc();
  const auto has = [&](problem part) {
    return world_.m.problems[static_cast<std::size_t>(part)] != 0;
  };
  if (std::holds_alternative<event::program>(what) && world_.alarm.stands() == 0 &&
      ahead > lead_of(world_, off_action::kPoweroff) + kMinuteSeconds && !world_.stops_now &&
      world_.m.power.now != phase::kShuttingDown && world_.is_alive && !has(problem::kNoDevice) &&
      !has(problem::kAlarmRefused) && !has(problem::kAlarmRead))
    world_.broken(11, "an alarm is neither set nor tried again");
}

void sim_checks::note_clock(const event::any &what) {
  const auto *ntp = std::get_if<event::ntp>(&what);
  // A process that starts after the wake-up notices it then, and cannot tell a step that somebody
  // makes at once from the one at its end.
  const millis noticed_at = std::max(world_.up_at, world_.booted_at + world_.m.woken.at);
  const bool is_step = std::holds_alternative<event::clock_stepped>(what) &&
                       (has_booted_ || now() > noticed_at + kResumeMs);
  const bool was_known = is_clock_known();
  is_clock_set_ =
      is_clock_set_ || is_step || (ntp != nullptr && ntp->answered && ntp->synchronised);
  // Who sends the machine to sleep after such a time does not want it any longer.
  if (world_.sleeps_now || world_.stops_now)
    unknown_due_ = -kDayMs;
  // Before such an on-time nobody asks the television whether it is still on.
  if (was_known || !is_clock_known() || !world_.m.armed ||
      unknown_due_ <= now() - kLateSeconds * kSecondMs)
    return;
  if (unknown_type_ == 0 && !said_on_)
    expected_.push_back(now() + kOnTimeMs);
  else if (unknown_type_ == 1 && unknown_due_ > world_.up_at)
    off_until_ = now() + kOnTimeMs;
}

// Where the screen comes back with its user, the first key after a wake-up by nothing known is the
// user's, however late: who has come decides from then on. One on the way to a sleep may have been
// the one that ordered it.
void sim_checks::note_user(const event::any &what) {
  const bool is_key = std::holds_alternative<event::input>(what) &&
                      world_.seen_at >= world_.up_at && world_.m.power.now == phase::kAwake;
  const bool follows = world_.set.screen_follows && !world_.tv.is_plain();
  const bool comes_back = follows || (!has_spoken_ && is_sent_off_);
  is_welcomed_ = is_welcomed_ || (is_key && comes_back && (!said_on_ || is_sent_off_));
}

void sim_checks::note_television(const event::any &what) {
  const auto *said = std::get_if<event::tv_reports>(&what);
  const bool is_on = said != nullptr && (said->state == event::tv_state::kOn ||
                                         said->state == event::tv_state::kTurningOn);
  const bool is_off =
      (said != nullptr && !is_on) || std::holds_alternative<event::tv_standby>(what);
  if (said != nullptr)
    is_silent_ = false;
  has_spoken_ =
      has_spoken_ || said != nullptr || is_off || std::holds_alternative<event::tv_denies>(what);
  if (is_off)
    said_off_at_ = now();
  const auto *reachable = std::get_if<event::tv_reachable>(&what);
  if (reachable != nullptr && !reachable->adapter && std::exchange(has_spoken_, false))
    said_on_ = false;
  if (reachable != nullptr && reachable->adapter && turned_on_at_ > now() - kSlowestMs)
    on_until_ = std::max(on_until_, now() + kOrderMs);    // what it has missed is ordered again
  const auto *job = std::get_if<event::job_began>(&what); // perhaps one of the last run
  const bool is_found = job != nullptr && world_.up_at <= world_.alive_at;
  const bool is_believed = world_.tv.is_plain() && world_.m.screen.believed == screen_state::kOn;
  if (is_found && job->of == unit::kOn && is_believed && !is_sent_off_)
    said_on_ = true;
  if (is_found && (job->of == unit::kOn || job->of == unit::kOff)) // it was started just before
    std::erase(lost_units_, job->of);
  // By its remote, and not before this machine has woken.
  const bool is_left = said != nullptr ? is_seen_on_ : world_.tv.changed_at >= world_.up_at;
  if (is_off && is_left)
    left_at_ = now();
  is_seen_on_ = is_seen_on_ || is_on;
  if (is_on) {
    said_on_ = true;
    expected_.clear();
  } else if (is_off ||
             (std::holds_alternative<event::tv_silent>(what) && world_.tv.has_adapter()) ||
             (std::holds_alternative<event::tv_denies>(what) && is_sent_off_)) // and not on since
    said_on_ = false;
}

void sim_checks::decided(const event::any &what, const orders &list) {
  const auto is_deliver = [](const order::any &one) {
    return std::holds_alternative<order::deliver>(one);
  };
  if (list.count > 0 && std::any_of(list.begin(), list.end() - 1, is_deliver))
    world_.broken(11, "an order after the call of the daemon");
  if (const auto *program = std::get_if<event::program>(&what))
    wanted_ = program->on_time > world_.utc() ? wanted_alarm{program->type, program->on_time}
                                              : wanted_alarm{}; // of an hour that comes twice
  const bool is_over = std::holds_alternative<event::unprogram>(what) ||
                       (std::holds_alternative<event::idle>(what) && is_clock_known() &&
                        world_.next_on_timer() == nullptr);
  if (is_over && world_.m.armed)
    wanted_ = {};
  note_clock(what);
  // One that begins before the answer is taken for the process's own.
  const auto *answer = std::get_if<event::sleep_answered>(&what);
  const auto *state = std::get_if<event::preparing>(&what); // the order was lost with its process
  if ((answer != nullptr && answer->error != 0 && world_.m.power.now == phase::kAwake) ||
      (state != nullptr && !state->sleep && !state->shutdown))
    sleep_failed();
  if (const auto *back = std::get_if<event::returned>(&what);
      back != nullptr && back->callback == delivery::kStandby)
    told_at_ = now();
  if (world_.m.armed && !world_.m.woken.late_open) // otherwise they are still made up for
    slept_through_ = 0;
  if (world_.sleeps_now || world_.stops_now) {
    expected_.clear();
    off_until_ = kNever;
  }
  note_user(what);
  note_television(what);
  check_credit();
  check_problems(what);
  check_due(what);
}
