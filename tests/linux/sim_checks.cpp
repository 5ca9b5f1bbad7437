#include "sim.h"

#include <algorithm>
#include <cstdlib>

static constexpr millis kOnTimeMs = 2 * kSecondMs;
static constexpr millis kOrderMs = 20 * kSecondMs; // an order to a television is repeated so long
static constexpr millis kSlowestMs = 125 * kSecondMs; // until a television that boots has its pair
static constexpr millis kBootsMs = kOrderMs + 35 * kSecondMs; // with the boot of a machine before
static constexpr millis kResumeMs = 2100;
static constexpr millis kWindowMs = 9 * kSecondMs;        // a key in it has woken the machine,
static constexpr millis kDoubtMs = 11 * kSecondMs;        // and one until then perhaps
static constexpr millis kAnswerMs = 3 * kSecondMs;        // waited for
static constexpr millis kScreenAnswersMs = 2 * kSecondMs; // one that is switched, on a slow bus
static constexpr millis kAskedMs = 5 * kSecondMs;
static constexpr millis kUnseenMs = kSecondMs;
static constexpr millis kNoticedMs = 2 * kSecondMs; // until an alarm that passes is looked at
static constexpr millis kBeliefMs = 15 * kSecondMs; // a television is asked 10 s before an on-time
static constexpr std::int64_t kReturnSlack = 30;
static constexpr std::int64_t kRetries[] = {0, 30, 60, 300, 900}; // seconds
static constexpr std::int64_t kLookAgain = 900;
static constexpr std::int64_t kLoopPause = 900;
static constexpr int kMostShortSleeps = 3;
static constexpr millis kShortSleepMs = 60 * kSecondMs;
static constexpr std::size_t kMostSleepsAnHour = 6;
static constexpr std::int64_t kLateSeconds = 300;
static constexpr millis kLateMs = kLateSeconds * kSecondMs;
static constexpr std::int64_t kShutdownSeconds = 120;
static constexpr std::int64_t kSleepSeconds = 15;
static constexpr std::int64_t kHopSeconds = 82800; // 23 hours
static constexpr std::int64_t kNearSeconds = 3;
static constexpr std::int64_t kMostStepSeconds = 4000; // of the clock
static constexpr std::int64_t kMostDays = 3;           // a night
static constexpr int kMostDues = 10;                   // a day
static constexpr millis kFoundMs = 3 * kSecondMs;      // jobs that run, after a start
static constexpr millis kLastTryMs = 1600;             // before the end of the delay
static constexpr millis kSettlesMs = 3 * kSecondMs;    // a reading may be a second late

static bool is_of_screen(unit of) { return of == unit::kOn || of == unit::kOff; }

// A user who has not pressed a key is not known.
static bool is_nobodys(cause by) { return by == cause::kUser || by == cause::kNothing; }

static bool boots(off_action method) { return method != off_action::kSuspend; }

static std::int64_t lead_of(const sim &world, off_action method) {
  return boots(method) ? world.set.lead_poweroff : world.set.lead_suspend;
}

static std::int64_t nearness_of(const sim &world, off_action method) {
  return method == off_action::kPoweroff ? kShutdownSeconds : world.delay_max + kSleepSeconds;
}

static bool refuses_alarm(const sim &world) {
  return world.alarm.refuses != 0 || !world.alarm.is_there ||
         world.refuses<order::read_alarm, order::write_alarm, order::switch_off_alarm>();
}

static bool has_problem(const sim &world, problem part) {
  return world.m.problems[static_cast<std::size_t>(part)] != 0;
}

millis sim_checks::now() const { return world_.now; }

std::int64_t sim_checks::ahead() const { return wanted_.on_time - world_.utc(); }

void sim_checks::never(int sentence, bool holds, const char *text) {
  if (holds)
    world_.broken(sentence, text);
}

bool sim_checks::is_timer_second(millis at) const {
  return at >= due_at_ && at < due_at_ + kSecondMs;
}

// A process that starts now takes a step for time that has passed, and a timer for a late one.
bool sim_checks::is_step_unseen(millis at) const { return stepped_at_ > at - kUnseenMs; }

bool sim_checks::is_clock_known() const { return world_.rtc_valid || is_clock_set_; }

void sim_checks::tampered() {
  tampered_at_ = now();
  knows_cause_ = knows_cause_ && !is_cause_open_;
  // What stands so near its time may not have been written again.
  const bool is_near = wanted_.on_time != 0 && ahead() < world_.set.lead_poweroff + kMinute;
  world_.may_move = world_.may_move || is_near;
}

// --- 1: on-timers ---

void sim_checks::expect_nothing() {
  expected_.clear();
  off_until_ = kNever;
  unknown_due_ = -kDayMs;
}

void sim_checks::miss(millis due) {
  const sim_television &tv = world_.tv;
  const bool may_err =
      tv.lies || tv.answers_after > kAnswerMs || asked_at_ + tv.answers_after > due;
  if (tv.changed_at > now() - kBeliefMs || said_off_at_ > due) // believed on, and asked too late
    return;
  never(1, tv.has_adapter() ? !said_on_ : !world_.plain_on,
        "an on-timer has not turned the screen on");
  never(1, tv.has_adapter() && !tv.on && !may_err, "the screen is believed on");
}

// A timer becomes due, whether the machine notices or not.
void sim_checks::becomes_due(const sim_timer &timer, std::int64_t due) {
  sim &world = world_;
  due_at_ = (due - kEvening) * kSecondMs - world.wall_offset;
  const millis since_on = due_at_ - world.tv.boots_until; // it may say so before or after
  if (world.acted_at > due_at_ - kScreenAnswersMs || std::abs(since_on) < kScreenAnswersMs)
    world.may_move = true;
  if (!is_clock_known()) { // made up for when it is known soon
    may_turn_on(due_at_ + kLateMs);
    world.may_move = true;
    if (world.is_armed()) {
      is_off_open_ = is_off_open_ || timer.type == 1;
      if (timer.type <= 1 && due_at_ >= unknown_due_) {
        unknown_due_ = world.is_halted ? -kDayMs : due_at_;
        unknown_type_ = timer.type;
      }
      return;
    }
  }
  if (world.is_halted)
    return;
  if (timer.type == 1) {
    off_due_ = std::max(off_due_, due);
    off_at_ = due_at_;
    is_off_open_ = true;
  }
  if (timer.type != 0)
    return;
  // In the second in which the hour changes, or the machine has woken, it may be taken for late.
  if (due == world.transition || is_cause_open_)
    may_turn_on(due_at_ + kOnTimeMs);
  // The daemon hears after the wake-up of a step on the way down, and fires by the old clock.
  const bool is_step_held = world.is_leaving() && stepped_at_ >= world.begun_at();
  const bool runs = world.state == life::kRunning;
  if (is_step_held || (runs && !world.is_armed())) // made up for once the process has started
    may_turn_on(due_at_ + kLateMs);
  const bool is_watched = world.tv.has_adapter() && (world.tv.on || world.tv.lies) && said_on_;
  if (runs && world.is_armed() && !is_watched && !is_step_held)
    expected_.push_back(due_at_ + kOnTimeMs);
  if (runs)
    return;
  slept_through_ = std::max(slept_through_, due);
  const millis least = (nearness_of(world, world.method) + kMinute) * kSecondMs;
  never(1,
        world.alarm.stands() != 0 && !world.foreign_stands && was_right_ && !is_step_held &&
            due_at_ > world.down_at + least,
        "the alarm is later than the on-time");
}

void sim_checks::time_passes(millis next) {
  follow_return(next);
  follow_foreign(next);
  never(9, !lost_units_.empty() && world_.is_alive && next > world_.alive_at + kFoundMs,
        "a unit is not started after a restart");
  if (is_cause_open_ && next > std::max(world_.up_at, world_.alive_at) + kSecondMs)
    check_cause();
  std::erase_if(expected_, [&](millis until) {
    if (until < next)
      miss(until - kOnTimeMs);
    return until < next;
  });
  never(1, off_until_ < next, "an off-timer of an unknown clock does not turn the screen off");
  const std::int64_t from = world_.utc();
  const std::int64_t to = kEvening + seconds_of(next + world_.wall_offset);
  if (from == to)
    return;
  for (const sim_timer &timer : world_.timers)
    // One that is armed for its next day comes again when the clock is set back.
    world_.for_each_day(timer, -1, kMostDays, [&](std::int64_t due, std::int64_t day) {
      if (due > from && due <= to && (day >= 0 || due > timer.since))
        becomes_due(timer, due);
    });
}

void sim_checks::clock_stepped() {
  stepped_at_ = now();
  tampered();
  slept_through_ = off_due_ = 0; // by the old clock
  unknown_due_ = -kDayMs;
  expected_.clear();
  const bool is_heard = world_.is_armed() && is_clock_known();
  const bool is_off_time = std::ranges::any_of(world_.timers, [&](const sim_timer &timer) {
    const std::int64_t late = world_.utc() - world_.to_utc(timer.local);
    return timer.type == 1 && late >= 0 && late <= (is_heard ? kNearSeconds : kLateSeconds);
  });
  // It may be made up for after the wake-up, or by the next process.
  is_off_open_ = is_off_open_ || is_off_time;
  if (is_heard && !is_cause_open_)
    return;
  may_turn_on(now() + kLateMs); // what it goes past is made up for
  off_at_ = is_off_time ? now() : off_at_;
}

// --- 2: the screen ---

// Who calls uses the machine.
void sim_checks::note_call(const event::screen_wanted &call) {
  quiet_since_.reset();
  if (call.on) {
    may_turn_on(now() + kOrderMs);
    return;
  }
  expected_.clear();
  const bool is_timer = call.by == event::asker::kDaemon;
  stays_at_ = is_timer ? -1 : now();
  off_at_ = is_timer ? now() : off_at_;
  is_off_open_ = is_off_open_ && !is_timer;
}

// A timer of this second, or one that is made up for later, may count or not.
void sim_checks::halted() {
  expect_nothing();
  may_turn_on(now() + kLateMs);
}

// A unit whose job nobody has seen is begun again after a restart.
void sim_checks::check_turned_on(bool by_unit) {
  const bool is_lost = by_unit && world_.alive_at >= turned_on_at_;
  const millis again_until = turned_on_at_ + (by_unit ? kOrderMs : kSlowestMs);
  const bool is_again = is_ordered_on_ && (is_lost || !by_unit) && now() < again_until;
  const bool follows = world_.set.screen_follows || !is_televisions_;
  const bool is_user = world_.up_by == cause::kUser || world_.input_at >= world_.up_at;
  const bool comes_back =
      follows && is_user && now() < std::max(world_.up_at, world_.input_at) + kOrderMs;
  never(2, !is_again && now() > on_until_ && !comes_back,
        "the screen is turned on without a cause");
}

// --- 3: sleeps ---

bool sim_checks::is_user_seen(millis window) const {
  return world_.first_seen_at >= world_.up_at && world_.first_seen_at < world_.up_at + window;
}

void sim_checks::check_return() {
  const sim_television &tv = world_.tv;
  never(3, said_on_, "the screen is on at a return");
  never(3, stays_at_ >= std::max({world_.up_at, off_at_, made_up_at_ + 1}),
        "only the screen was to be turned off, at a return");
  const bool says_on = tv.answers() && tv.answers_after < kAnswerMs && !tv.lies && tv.on;
  never(3, says_on && !is_silent_ && tv.changed_at < now() - kAskedMs,
        "somebody watches at a return");
  never(3, tv.has_adapter() && std::max(asked_at_, tv.changed_at) < now() - kAskedMs,
        "the television is not asked before a return");
  const millis quiet = now() - world_.seen_at;
  const bool has_come = world_.seen_at > world_.up_at && quiet > kUnseenMs;
  never(3, has_come && quiet < world_.set.return_to_sleep * kSecondMs,
        "somebody presses keys at a return");
  never(3, has_come && said_off_at_ <= world_.seen_at,
        "somebody has come, and no television is off, at a return");
  const cause by = world_.up_by;
  never(3,
        is_cause_sure() && (by == cause::kForeign || (is_nobodys(by) && is_welcomed_) ||
                            (by == cause::kUser && is_user_seen(kWindowMs))),
        "who has woken the machine decides when it sleeps");
}

void sim_checks::check_sleep(const order::sleep &what) {
  const sleep_wish wish = world_.m.sleep.wish;
  const bool is_return = wish == sleep_wish::kReturn;
  const bool is_wanted = wanted_.on_time != 0 && ahead() > 0;
  // What it is said to be for has happened.
  const bool follows = world_.set.follow_screen && left_at_ >= world_.up_at;
  never(3,
        (wish == sleep_wish::kOffTimer && std::max(off_at_, made_up_at_) < world_.down_at) ||
            (wish == sleep_wish::kScreen && !follows) ||
            (wish == sleep_wish::kTest && test_at_ < world_.up_at),
        "a sleep that nobody wants");
  const std::int64_t near = lead_of(world_, what.method) + nearness_of(world_, what.method);
  never(3, is_wanted && ahead() < near, "an on-time is near at a sleep");
  const std::int64_t unsure = world_.alarm.rounding() + kNearSeconds;
  const bool was_refused = alarm_refused_at_ >= world_.up_at; // a restart tries sooner or later
  world_.may_move = world_.may_move || was_refused || (is_wanted && ahead() < near + unsure);
  never(3,
        is_wanted && std::max(tampered_at_, world_.foreign_at) < now() - kAskedMs &&
            !is_led_to(what.method),
        "no alarm stands at a sleep");
  const std::uint8_t own = what.method == off_action::kPoweroff ? kShutdownBit : kSleepBit;
  const std::uint8_t mask = is_return ? kSleepBit | kShutdownBit | kIdleBit : own;
  const millis seen_until = now() - kUnseenMs;
  never(3, world_.use_changed_at < seen_until && (world_.blocked & mask) != 0,
        "a block inhibitor at a sleep");
  const bool has_job = std::ranges::any_of(world_.jobs, [&](const auto &job) {
    return job.second.first == unit::kWakeup && job.second.second < seen_until;
  });
  never(3, has_job, "a job of a timer at a sleep");
  if (is_return)
    check_return();
  const millis came_at =
      std::max({world_.session_at, world_.active_at, world_.seen_at - world_.booted_at});
  never(3,
        (wish == sleep_wish::kOffTimer || wish == sleep_wish::kScreen) &&
            std::max(world_.use_changed_at, world_.seen_at) < seen_until &&
            came_at > world_.m.sleep.wished_at + kLateMs,
        "somebody has come long after the off-time, at its sleep");
}

void sim_checks::ordered(const order::any &what) {
  const auto *start = std::get_if<order::start_unit>(&what);
  const bool starts_on = start != nullptr && start->name == unit::kOn;
  const bool starts_off = start != nullptr && start->name == unit::kOff;
  if (starts_on || starts_off)
    is_televisions_ = has_spoken_;
  if (starts_on || is_one_of<order::tv_on>(what)) {
    check_turned_on(starts_on);
    turned_on_at_ = starts_on ? now() : turned_on_at_;
    expected_.clear();
    is_ordered_on_ = true;
    is_sent_off_ = false;
    stays_at_ = -1;
    // A refused order leaves it unknown: an on-timer must not take it for on.
    if (starts_on && !world_.m.screen.has_cec && world_.m.screen.believed == screen_state::kOn)
      said_on_ = !world_.refuses<order::start_unit>();
  }
  if (starts_off || is_one_of<order::tv_off>(what)) {
    is_ordered_on_ = false;
    is_sent_off_ = true;
    off_until_ = kNever;
    said_on_ = said_on_ && starts_off && world_.tv.has_adapter(); // which has its own order
  }
  if (starts_on || starts_off) // the opposite is not wanted now
    std::erase_if(lost_units_, is_of_screen);
  else if (start != nullptr)
    std::erase(lost_units_, start->name);
  if (is_one_of<order::tv_ask>(what)) {
    asked_at_ = now();
    is_silent_ = !world_.tv.answers() || world_.refuses<order::tv_ask>();
  }
  if (is_one_of<order::ask_use>(what) && world_.refuses<order::ask_use>())
    use_unknown_at_ = now();
  if (is_one_of<order::ask_late>(what) && std::exchange(is_off_open_, false))
    made_up_at_ = now();
  if (const auto *write = std::get_if<order::write_alarm>(&what); write != nullptr)
    note_hop(*write);
  if (is_one_of<order::release_inhibitor>(what))
    check_release();
  if (const auto *said = std::get_if<order::say>(&what))
    check_line(*said);
  if (const auto *answer = std::get_if<order::answer>(&what))
    never(6, answer->error == 0 && test_at_ >= world_.up_at, "a test has slept before it began");
  if (const auto *sleep = std::get_if<order::sleep>(&what)) {
    check_sleep(*sleep);
    is_test_ = world_.m.sleep.wish == sleep_wish::kTest;
    quiet_since_.reset();
    ++failed_;
    sent_at_ = now();
  }
}

// Somewhat earlier or later it is rounded to another minute.
void sim_checks::note_hop(const order::write_alarm &write) {
  const std::int64_t second = world_.alarm.count(now()) % kMinute;
  const bool is_near = second < kNearSeconds || second >= kMinute - kNearSeconds;
  if (write.owner == alarm_owner::kHop && world_.alarm.counts_minutes && is_near)
    world_.may_move = true;
}

// --- 4: the return ---

// Seconds by which an alarm may be taken for a hop or none, after a step of the clock.
std::int64_t sim_checks::step_slack() const {
  return stepped_at_ < world_.up_at ? 0 : kMostStepSeconds;
}

// What stands wakes the machine from such a sleep, and not later than at the on-time.
bool sim_checks::is_led_to(off_action method) const {
  const std::int64_t left = world_.alarm.left(now());
  const std::int64_t slack = world_.set.lead_poweroff + kShutdownSeconds + kMinute + step_slack();
  const bool is_hop = !world_.foreign_stands && left < ahead() - slack;
  const bool boots = method != off_action::kPoweroff || world_.set.hop_boots;
  const bool is_in_time = left <= ahead() + 1; // the two clocks change their seconds apart
  return world_.alarm.stands() != 0 && is_in_time && (boots || !is_hop);
}

// An off-timer of since the wake-up wants its own kind of sleep, and perhaps a late one. It gives
// up one that the machine cannot do.
off_action sim_checks::wanted_method() const {
  const off_action before = has_booted_ ? off_action::kPoweroff : world_.method;
  const bool is_late = made_up_at_ >= world_.up_at && before == off_action::kSuspend;
  const bool can = world_.set.off != off_action::kHibernate || (world_.can & kHibernateBit) != 0;
  return can && (is_late || off_at_ >= world_.up_at) ? world_.set.off : before;
}

bool sim_checks::wants_return() const {
  const sim &world = world_;
  const sim_television &tv = world.tv;
  if (world.state != life::kRunning || !world.is_armed() || world.is_leaving() ||
      world.set.return_to_sleep == 0 || !is_clock_known() || is_cause_open_ ||
      world.refuses<order::sleep, order::ask_use>())
    return false;
  const millis off_at = std::max(off_at_, made_up_at_);
  const bool stays =
      (world.set.off == off_action::kNone && off_at >= world.down_at) || stays_at_ >= world.up_at;
  const cause by = is_cause_sure() ? world.up_by : world.m.woken.by;
  const bool is_by_nothing = by == cause::kNothing;
  if (stays || by == cause::kForeign || by == cause::kUser ||
      (is_by_nothing && (is_user_seen(kDoubtMs) || may_be_welcomed_)))
    return false;
  const bool says_off = tv.answers() && !tv.on && !tv.lies && tv.answers_after < kSecondMs;
  // One that was turned on, or by somebody who has come, and does not answer may well be watched.
  const bool must_say = is_by_nothing || world.seen_at >= world.up_at || is_ordered_on_;
  if ((must_say && (!says_off || is_silent_ || tv.changed_at >= asked_at_)) || said_on_ ||
      (tv.on && tv.answers()) || tv.lies)
    return false;
  const millis used_at = std::max(world.session_at, world.active_at) + world.booted_at;
  if (world.blocked != 0 || used_at > world.up_at || !world.jobs.empty())
    return false;
  if (world.foreign && *world.foreign - world.alarm.count(now()) < kLateSeconds)
    return false;
  const off_action method = wanted_method();
  // The wish to follow a television may be for a slower sleep, and waits for the on-time.
  const bool follows_slowly = world.set.follow_screen && said_off_at_ >= world.up_at &&
                              world.set.off == off_action::kHibernate;
  const std::int64_t lead = lead_of(world, follows_slowly ? off_action::kHibernate : method);
  const std::int64_t near =
      lead + nearness_of(world, method) + world.set.return_to_sleep + kReturnSlack;
  return wanted_.on_time == 0 || ahead() <= 0 ||
         (ahead() > near && is_led_to(method) && !refuses_alarm(world));
}

millis sim_checks::return_limit() const {
  const std::int64_t pause = short_sleeps_ > kMostShortSleeps ? kLoopPause : 0;
  const std::int64_t retry = kRetries[std::min(failed_, 4)];
  // So often a clock is looked at that has refused its alarm, that may hold another program's, or
  // whose range the on-time of a machine that must not boot for hops may have come into.
  const bool must_not_hop = world_.alarm.range && !world_.set.hop_boots && boots(wanted_method());
  const bool is_looked_at = std::max(tampered_at_, world_.foreign_at) >= world_.up_at;
  // A use that is over was not told, and counts until then.
  const bool is_use_unknown = use_unknown_at_ >= world_.up_at;
  const std::int64_t used = is_use_unknown ? world_.set.return_to_sleep : 0;
  const std::int64_t look = is_looked_at || must_not_hop || is_use_unknown ? kLookAgain + used : 0;
  const std::int64_t hop = must_not_hop ? step_slack() : 0;
  const millis limit =
      (look + hop + std::max({retry, pause, world_.set.return_to_sleep})) * kSecondMs;
  // After so many sleeps in an hour it waits.
  const bool is_often = sleeps_.size() >= kMostSleepsAnHour;
  const millis oldest = is_often ? sleeps_[sleeps_.size() - kMostSleepsAnHour] : -kDayMs;
  const millis again = std::max(oldest, lost_sleep_at_) + kHourMs;
  return std::max(limit, again - quiet_since_.value_or(now())) + kReturnSlack * kSecondMs;
}

void sim_checks::follow_return(millis next) {
  if (!wants_return() || due_at_ == now()) {
    quiet_since_.reset();
    return;
  }
  const millis since = quiet_since_.value_or(now());
  quiet_since_ = std::max({since, world_.input_at, stepped_at_, counted_from_});
  never(4, next > *quiet_since_ + return_limit(), "the machine does not go back to sleep");
}

// --- 5: what stands ---

void sim_checks::check_alarm() {
  const sim_register &alarm = world_.alarm;
  const std::int64_t stands = alarm.stands();
  const bool is_foreign = world_.foreign.has_value();
  const std::int64_t foreign = world_.foreign.value_or(0);
  if (wanted_.on_time != 0 && ahead() <= 0 && ahead() > -world_.delay_max - 1) // it has just passed
    return;
  if (wanted_.on_time == 0 || ahead() <= 0) {
    never(5, stands != foreign && stands != world_.forgotten,
          is_foreign ? "a foreign alarm is lost" : "an alarm that nobody wants");
    return;
  }
  const off_action method = world_.method;
  const std::int64_t least = nearness_of(world_, method);
  // Somebody's sleep that begins while ours is on its way to logind, or lost, is taken for ours.
  const millis crossed_at = std::max(crossed_at_, lost_sleep_at_);
  const bool crosses = crossed_at > world_.down_at - (world_.delay_max + 1) * kSecondMs;
  const std::int64_t lead = crosses ? world_.set.lead_suspend : lead_of(world_, method);
  const std::int64_t ours = std::max(ahead() - lead, least);
  const std::int64_t left = alarm.left(now());
  world_.may_move = world_.may_move || ahead() - lead < least + alarm.rounding();
  // Which of the two leads is taken is not known.
  const std::int64_t leads = world_.set.lead_poweroff - world_.set.lead_suspend;
  if (is_foreign) {
    const std::int64_t theirs = foreign - alarm.count(now());
    // One that is too near may go off before the machine sleeps; ours is set then.
    if (theirs <= least + kNearSeconds)
      return;
    if (theirs < std::min(ours, ahead()) - kMinute - leads) {
      never(5, stands != foreign, "an earlier foreign alarm is lost");
      return;
    }
    if (std::abs(theirs - ours) <= kMinute + leads + kNearSeconds)
      return;
  } else if (stands != 0 && stands == world_.forgotten) {
    return;
  }
  if (method == off_action::kPoweroff && !world_.set.hop_boots && alarm.range) // hops are left out
    return;
  never(5, stands == 0, "no alarm stands");
  never(5, left > ours + (alarm.counts_minutes ? kMinute : 2), "the alarm is too late");
  const bool is_hop = alarm.range && ours > std::min(*alarm.range, kHopSeconds);
  // Which sleep an announced one is, is not known: that of the off-action is assumed.
  const std::int64_t slack = alarm.rounding() + 3 + world_.delay_max + leads;
  never(5, !is_hop && left < ours - slack, "the alarm is too early");
}

// Six sleeps in an hour that are ours are a loop: sentence 10.
void sim_checks::went_down(bool is_ready) {
  expect_nothing();
  lost_units_.clear();
  if (const millis sent_at = std::exchange(sent_at_, -1); sent_at >= 0) {
    sleeps_.push_back(sent_at);
    std::erase_if(sleeps_, [&](millis at) { return is_test_ || at < sent_at - kHourMs; });
    never(10, sleeps_.size() > kMostSleepsAnHour, "more than 6 sleeps in an hour");
  }
  quiet_since_.reset();
  wanted_at_down_ = wanted_;
  timer_went_off_ = timer_went_off_ && !is_ready;
  was_ready_ = is_ready;
  if (world_.state == life::kOff)
    is_down_known_ = is_ready;
  else if (world_.is_armed())
    is_down_known_ = true;
  was_timer_second_ = is_timer_second(now());
  was_right_ =
      is_ready && !world_.m.test.running && tampered_at_ < released_at_ && !refuses_alarm(world_);
  if (was_right_ && off_went_at_ < released_at_) // nothing has gone off since
    check_alarm();
}

// What must be done before a sleep is done when the delay ends, not somewhat later.
void sim_checks::check_release() {
  const millis begun_at = world_.begun_at();
  released_at_ = now();
  if (!world_.is_leaving())
    return;
  const millis last_try = begun_at + world_.m.use.delay_max_ms - kLastTryMs;
  // One that is still to hear of this sleep, or has started since, may take it for the last one,
  // which has failed meanwhile.
  const bool is_unheard = world_.alive_at >= begun_at || world_.is_signal_under_way();
  const bool is_mistaken = is_unheard && world_.booted_at + world_.m.power.went.boot < begun_at;
  never(5, told_at_ < begun_at && !is_unheard,
        "the delay ends before the daemon knows of the standby");
  never(5, has_problem(world_, problem::kAlarmRefused) && now() < last_try && !is_mistaken,
        "a refused alarm is given up with the delay");
  if (!world_.m.test.running && std::max(tampered_at_, off_went_at_) < begun_at &&
      !refuses_alarm(world_))
    check_alarm();
}

// A process that was there all the time has still not said that it is ready. Just after a sleep it
// may take the signal of the next one for that of this one.
void sim_checks::delay_ended(millis begun_at) {
  never(5,
        world_.is_armed() && world_.holds_inhibitor && begun_at > world_.up_at + kResumeMs &&
            std::max(world_.alive_at, tampered_at_) < begun_at && !refuses_alarm(world_),
        "the delay is over before the alarm is set");
}

// Another program's alarm, later than ours, stands again when ours has gone off.
void sim_checks::follow_foreign(millis next) {
  const std::int64_t latest = nearness_of(world_, off_action::kSuspend) + world_.alarm.rounding();
  const bool is_lost = world_.foreign && !world_.foreign_stands && ahead() + latest <= 0 &&
                       world_.state == life::kRunning && world_.is_armed() &&
                       !world_.is_leaving() && !world_.m.test.running &&
                       tampered_at_ < world_.up_at && !refuses_alarm(world_);
  if (!is_lost)
    lost_since_ = kNever;
  else if (lost_since_ == kNever)
    lost_since_ = std::max(now(), world_.alive_at);
  else
    never(5, next > lost_since_ + kSettlesMs, "a foreign alarm is not put back");
}

void sim_checks::went_off(cause by) {
  timer_went_off_ = timer_went_off_ || by == cause::kTimer;
  off_went_at_ = now();
}

void sim_checks::came_up(bool boots) {
  credited_at_ = -1;
  off_went_before_up_ = off_went_at_;
  is_cause_open_ = true;
  has_booted_ = boots;
  knows_cause_ = was_ready_ && tampered_at_ < released_at_ && !world_.refuses<order::read_alarm>();
  const std::int64_t ahead = wanted_at_down_.on_time - world_.utc();
  if (ahead > 0 && ahead <= kLateSeconds)
    counted_from_ = now() + ahead * kSecondMs;
  is_ordered_on_ = is_seen_on_ = is_welcomed_ = may_be_welcomed_ = false;
  if (boots) {
    is_clock_set_ = said_on_ = has_spoken_ = is_televisions_ = is_sent_off_ = false;
    has_line_ = {};
    sleeps_.clear(); // an alarm or somebody has booted it: that is no loop
    lost_sleep_at_ = -kDayMs;
  }
  left_at_up_ = world_.alarm.stands() == 0 ? kDay : world_.alarm.left(now());
  const millis length = now() - world_.down_at;
  short_sleeps_ = length < kShortSleepMs ? short_sleeps_ + 1 : 0;
  if (std::abs(length - kShortSleepMs) <= kRestartMs)
    world_.may_move = true;
  failed_ = 0;
  if (was_timer_second_) // it may have been about to fire
    may_turn_on(now() + kBootsMs);
  const std::int64_t last = slept_through_;
  if (last == 0 || world_.utc() - last >= kLateSeconds || off_due_ > last)
    return;
  // One that was still starting hears of the television before it is asked for late timers.
  if (world_.is_alive && !world_.m.armed && world_.tv.on)
    world_.may_move = true;
  may_turn_on(now() + kBootsMs);
  if (world_.utc() - last >= kLateSeconds - 1) { // it may be late once the process asks
    world_.may_move = true;
    return;
  }
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
bool sim_checks::is_cause_sure() const {
  const bool has_woken = off_went_before_up_ == world_.up_at && !is_nobodys(world_.up_by);
  const bool has_passed = off_went_before_up_ >= world_.down_at - kNoticedMs && !has_woken &&
                          off_went_before_up_ > world_.up_at - kLateMs - kNearSeconds * kSecondMs;
  return knows_cause_ && left_at_up_ > kNearSeconds && !has_passed;
}

void sim_checks::check_credit() {
  const auto &woken = world_.m.woken;
  if (!woken.credited || credited_at_ == woken.at)
    return;
  never(6, credited_at_ >= 0, "a second credit");
  credited_at_ = woken.at;
  never(6, !timer_went_off_ && is_cause_sure(), "a credit without the alarm of a timer");
  never(6, woken.type != wanted_at_down_.type, "a credit for another timer");
}

// Two causes within the same seconds are not told apart.
void sim_checks::check_cause() {
  if (world_.state != life::kRunning || !world_.is_alive)
    return;
  is_cause_open_ = false;
  const cause by = world_.m.woken.by;
  // One that nobody wants any longer wakes for nobody.
  const bool is_wanted = world_.up_by != cause::kTimer || wanted_at_down_.on_time != 0;
  const cause truth = is_wanted ? world_.up_by : cause::kHop;
  const cause known = is_cause_sure() ? truth : by;
  if (known == cause::kTimer || known == cause::kHop || known == cause::kTest)
    sleeps_.clear();
  if (!is_nobodys(known)) // nor is an alarm known that was set just before
    short_sleeps_ = 0;
  if (!world_.tv.has_adapter() && !is_ordered_on_ &&
      (known == cause::kTimer || known == cause::kHop))
    said_on_ = false; // nobody knows what it did meanwhile
  const bool is_right = by == known || (is_nobodys(by) && is_nobodys(known));
  if (!is_right)
    world_.broken(6, "woken by " + std::to_string(static_cast<int>(truth)) + ", taken for " +
                         std::to_string(static_cast<int>(by)));
  never(6, is_cause_sure() && truth == cause::kTimer && !world_.m.woken.credited,
        "a timer gets no credit");
}

// What the process has found out in so short a time counts, too.
void sim_checks::goes_down() {
  const auto &woken = world_.m.woken;
  if (is_cause_open_ && !woken.cause_open && world_.booted_at + woken.at >= world_.up_at)
    check_cause();
}

// --- 7: problems ---

static problem problem_of(unit of) {
  return static_cast<problem>(static_cast<int>(problem::kOnUnit) + static_cast<int>(of));
}

void sim_checks::check_problems(const event::any &what) {
  const auto mark = [&](problem part, bool is_bad) {
    if (has_problem(world_, part) != is_bad)
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
  if (std::exchange(has_line_[static_cast<std::size_t>(said.number)], begins) == begins)
    world_.broken(7, "problem " + std::to_string(said.number) +
                         (begins ? " is said twice" : " is over and was never said"));
}

// The last line may be lost with the process; what was about to fire is made up for.
void sim_checks::process_ended() {
  const auto is_open = [&](millis at) { return is_timer_second(at) || is_step_unseen(at); };
  const millis seen_at = world_.booted_at + world_.m.power.seen.boot; // its last event
  if (!expected_.empty() || is_open(now()) || is_open(seen_at))
    may_turn_on(now() + kLateMs);
  if (sent_at_ >= 0)
    lost_sleep_at_ = now();
  expect_nothing();
  const bool is_starting = std::ranges::any_of(world_.stored.jobs, [](const job &one) {
    return one.id == kStarting && is_of_screen(one.of);
  });
  if (!world_.tv.has_adapter() && is_starting) // perhaps: nobody has seen its job
    said_on_ = false;
  for (std::size_t part = 0; part < kProblems; ++part)
    has_line_[part] = world_.stored.problems[part] != 0;
}

// --- 9: what a restart must not change, besides the night that it is compared with ---

void sim_checks::lost(const order::any &what) {
  if (is_one_of<order::sleep>(what)) // one that somebody orders meanwhile counts as its own
    lost_sleep_at_ = now();
  const auto *start = std::get_if<order::start_unit>(&what);
  if (start == nullptr)
    return;
  lost_units_.push_back(start->name);
  if (!is_of_screen(start->name))
    return;
  is_sent_off_ = start->name == unit::kOff;
  is_televisions_ = has_spoken_;
  if (!is_sent_off_) { // what is its cause now may be none when it is started again
    check_turned_on(true);
    is_ordered_on_ = true;
    turned_on_at_ = now();
  }
  if (!world_.tv.has_adapter())
    said_on_ = false; // a sleep may come before it is started again
}

// --- 8: nothing due ---

void sim_checks::check_due(const event::any &what) {
  const machine &m = world_.m;
  const bool is_due = is_one_of<event::due>(what);
  never(8, is_due && next_due(m) <= world_.boot_ms(), "what is due stays due");
  // Its own, and what answers it.
  const bool is_own =
      is_one_of<event::due, event::idle, event::ntp, event::tv_reports, event::tv_silent,
                event::alarm_read, event::alarm_written, event::use_changed, event::works>(what);
  const bool has_problems = std::ranges::any_of(m.problems, [](int one) { return one != 0; });
  const bool is_clock_asked = world_.ntp_on && !world_.ntp_synchronised;
  if (!is_own || has_problems || m.sleep.wish != sleep_wish::kNone || m.screen.pending ||
      is_clock_asked || !is_clock_known() || dues_since_ < now() - kDayMs) {
    dues_ = 0;
    dues_since_ = now();
  } else if (is_due) {
    never(8, ++dues_ > kMostDues, "more than 10 events of its own without one from outside");
  }
}

// --- 11 ---

// What the daemon has programmed stands, or a sentence says that it does not yet.
void sim_checks::called(const event::any &what) {
  const auto has = [&](problem part) { return has_problem(world_, part); };
  never(11,
        is_one_of<event::program>(what) && world_.alarm.stands() == 0 &&
            ahead() > lead_of(world_, off_action::kPoweroff) + kMinute && !world_.stops_now &&
            world_.m.power.now != phase::kShuttingDown && world_.is_alive &&
            !has(problem::kNoDevice) && !has(problem::kAlarmRefused) && !has(problem::kAlarmRead),
        "an alarm is neither set nor tried again");
}

void sim_checks::note_clock(const event::any &what) {
  const auto *ntp = std::get_if<event::ntp>(&what);
  // A process that starts after the wake-up notices it then, and cannot tell a step that somebody
  // makes at once from the one at its end.
  const millis noticed_at = std::max(world_.up_at, world_.booted_at + world_.m.woken.at);
  const bool is_step =
      is_one_of<event::clock_stepped>(what) && (has_booted_ || now() > noticed_at + kResumeMs);
  const bool was_known = is_clock_known();
  is_clock_set_ =
      is_clock_set_ || is_step || (ntp != nullptr && ntp->answered && ntp->synchronised);
  // Before such an on-time nobody asks the television whether it is still on.
  if (was_known || !is_clock_known() || !world_.m.armed || unknown_due_ <= now() - kLateMs)
    return;
  if (unknown_type_ == 0 && !said_on_)
    expected_.push_back(now() + kOnTimeMs);
  else if (unknown_type_ == 1 && unknown_due_ > std::max(world_.up_at, turned_on_at_))
    off_until_ = now() + kOnTimeMs;
}

// Where the screen comes back with its user, the first key after a wake-up by nothing known is the
// user's, however late: who has come decides from then on. One on the way to a sleep may have been
// the one that ordered it. A television that was sent off and says that it is on may be believed.
void sim_checks::note_user(const event::any &what) {
  const bool is_key = is_one_of<event::input>(what) && world_.seen_at >= world_.up_at &&
                      world_.m.power.now == phase::kAwake;
  const bool may_follow = !world_.tv.is_plain() || is_televisions_;
  const bool follows = world_.set.screen_follows && may_follow;
  const bool comes_back = follows || (!is_televisions_ && is_sent_off_);
  is_welcomed_ = is_welcomed_ || (is_key && comes_back && !said_on_);
  may_be_welcomed_ = may_be_welcomed_ || is_welcomed_ || (is_key && comes_back && is_sent_off_);
}

// After a start it was perhaps started by the last run, just before its end.
void sim_checks::note_job(const event::job_began &job) {
  if (world_.up_at > world_.alive_at || !is_of_screen(job.of))
    return;
  const bool is_believed = world_.tv.is_plain() && world_.m.screen.believed == screen_state::kOn;
  if (job.of == unit::kOn && is_believed && !is_sent_off_)
    said_on_ = true;
  std::erase(lost_units_, job.of);
}

void sim_checks::note_television(const event::any &what) {
  const auto *said = std::get_if<event::tv_reports>(&what);
  const bool is_on = said != nullptr && (said->state == event::tv_state::kOn ||
                                         said->state == event::tv_state::kTurningOn);
  const bool is_off = (said != nullptr && !is_on) || is_one_of<event::tv_standby>(what);
  const bool denies = is_one_of<event::tv_denies>(what);
  is_silent_ = is_silent_ && said == nullptr;
  // One that comes after the adapter is gone counts for nothing.
  const bool speaks = (is_on || is_off || denies) && world_.tv.has_adapter();
  has_spoken_ = has_spoken_ || speaks;
  is_televisions_ = is_televisions_ || speaks;
  const auto *reachable = std::get_if<event::tv_reachable>(&what);
  if (reachable != nullptr && !reachable->adapter && std::exchange(has_spoken_, false))
    said_on_ = false;
  if (reachable != nullptr && reachable->adapter && turned_on_at_ > now() - kSlowestMs)
    may_turn_on(now() + kOrderMs); // what it has missed is ordered again
  if (is_off) {
    said_off_at_ = now();
    // By its remote, and not before this machine has woken.
    if (said != nullptr ? is_seen_on_ : world_.tv.changed_at >= world_.up_at)
      left_at_ = now();
  }
  is_seen_on_ = is_seen_on_ || is_on;
  if (is_on)
    expected_.clear();
  if (is_on || is_off || (is_one_of<event::tv_silent>(what) && !world_.tv.is_plain()) ||
      (denies && is_sent_off_)) // and not on since
    said_on_ = is_on;
}

void sim_checks::decided(const event::any &what, const orders &list) {
  const auto is_deliver = [](const order::any &one) { return is_one_of<order::deliver>(one); };
  never(11, list.count > 0 && std::any_of(list.begin(), list.end() - 1, is_deliver),
        "an order after the call of the daemon");
  if (const auto *program = std::get_if<event::program>(&what))
    wanted_ = program->on_time > world_.utc() ? wanted_alarm{program->type, program->on_time}
                                              : wanted_alarm{}; // of an hour that comes twice
  const bool is_over =
      is_one_of<event::unprogram>(what) ||
      (is_one_of<event::idle>(what) && is_clock_known() && world_.next_on_timer() == nullptr);
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
  if (is_one_of<event::test_wake>(what) && world_.m.sleep.wish == sleep_wish::kTest)
    test_at_ = now();
  if (world_.m.armed && !world_.m.woken.late_open) // otherwise they are still made up for
    slept_through_ = 0;
  if (world_.is_leaving()) // who sends the machine to sleep does not want it any longer
    expect_nothing();
  if (const auto *call = std::get_if<event::screen_wanted>(&what))
    note_call(*call);
  note_user(what);
  if (const auto *job = std::get_if<event::job_began>(&what))
    note_job(*job);
  note_television(what);
  if (has_problem(world_, problem::kAlarmRefused))
    alarm_refused_at_ = now();
  check_credit();
  check_problems(what);
  check_due(what);
}
