#include "forecast.h"

#include "words.h"

#include <algorithm>
#include <set>

using namespace std::chrono;

static constexpr days kForecast{35};
static constexpr seconds kStandbySkip{DRAVEL_STANDBY_SKIP_SECONDS};

// --- timers beside each other ---

std::optional<int> ontimer_soon_after(civil_time at, snapshot &view, int except) {
  for (timer_record &timer : view.timers) {
    if (timer.id == except || !is_ontimer_type(timer.type))
      continue;
    const auto next = next_firing(timer, view.now, view.holidays);
    if (next && *next > at && *next <= at + kStandbySkip)
      return timer.id;
  }
  return std::nullopt;
}

static civil_time on_the_set(const timer_record &timer, const clocks &now) {
  return timer.at + (now.set - now.of(timer.clock));
}

static bool is_off_at(const timer_record &other, const timer_record &timer, const clocks &now) {
  return other.type == TIMER_TYPE_OFF && on_the_set(other, now) == on_the_set(timer, now);
}

static int stored_day_of(const timer_record &timer) {
  const int day = timer.stored_day.value_or(weekday_of(timer.at));
  return day >= 0 && day < 32 ? 1 << day : 0;
}

const timer_record *coinciding_offtimer(const timer_record &timer, const snapshot &view) {
  const auto days_of = [](const timer_record &any) {
    return any.week_flag != 0 ? any.week_flag : stored_day_of(any);
  };
  const auto found = std::ranges::find_if(view.timers, [&](const timer_record &other) {
    return is_off_at(other, timer, view.now) && (days_of(other) & days_of(timer)) != 0;
  });
  return found != view.timers.end() ? &*found : nullptr;
}

// --- the daemon's scheduler ---

namespace {

// The on-time that the daemon has programmed: choosing it disarms on-timers for one moment.
struct ontime {
  civil_time at;
  int priority;
};

class scheduler {
public:
  explicit scheduler(const snapshot &now) : view(now) {
    sort_lists();
    view = now; // where sorting has moved nothing
  }

  snapshot view;
  std::set<int> awaited{}; // timers that have yet to fire

  void add(const timer_record &timer);
  std::optional<firing> soonest() const;
  void expire(const firing &next, outlook &found);
  void change_clock(civil_time system, outlook &found);

private:
  std::optional<ontime> programmed_{};
  std::vector<std::size_t> ontimers_; // their places in the list, sorted at the last removal
  std::vector<std::size_t> offtimers_;
  bool choice_matters_ = true;

  bool goes_ahead(timer_record &added, timer_record &before);
  std::vector<timer_record>::iterator place_of(timer_record added);
  std::vector<std::size_t> sorted(bool (*is_such)(int type));
  bool may_choice_matter() const;
  void sort_lists();
  void arm_all(civil_time from, effects &told);
  bool arm(timer_record &timer);
  void reconsider(const timer_record &timer, civil_time next);
  std::optional<ontime> choose();
  bool leave_out_offtimers(timer_record &ontimer);
};

} // namespace

bool scheduler::goes_ahead(timer_record &added, timer_record &before) {
  const auto before_next = next_firing(before, view.now, view.holidays);
  if (!before_next)
    return false;
  const auto added_next = next_firing(added, view.now, view.holidays);
  if (!added_next || *added_next != *before_next)
    return !added_next || *added_next < *before_next;
  return added.priority >= before.priority && before.type != TIMER_TYPE_OFF;
}

// Each comparison computes both next firings, which moves timers past holidays, one after another
// where several follow each other.
std::vector<std::size_t> scheduler::sorted(bool (*is_such)(int type)) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < view.timers.size(); ++i)
    if (is_such(view.timers[i].type))
      places.insert(std::ranges::find_if(places,
                                         [&](std::size_t place) {
                                           return goes_ahead(view.timers[i], view.timers[place]);
                                         }),
                    i);
  return places;
}

// Item by item the daemon does both lists at once, which gives the same.
void scheduler::sort_lists() {
  ontimers_ = sorted([](int type) { return is_ontimer_type(type); });
  offtimers_ = sorted([](int type) { return type == TIMER_TYPE_OFF; });
}

// Takes the days of off-timers at the on-timer's time from its days, or the on-timer's arming.
// False when none is left.
bool scheduler::leave_out_offtimers(timer_record &ontimer) {
  const int all_days = ontimer.week_flag;
  for (const std::size_t place : offtimers_) {
    const timer_record &off = view.timers[place];
    if (!is_off_at(off, ontimer, view.now))
      continue;
    if (all_days != 0) {
      ontimer.week_flag = off.week_flag == 0 ? ontimer.week_flag ^ stored_day_of(off)
                                             : ontimer.week_flag & all_days & ~off.week_flag;
    } else if (off.week_flag == 0 || (off.week_flag & stored_day_of(ontimer)) != 0) {
      view.armed.erase(ontimer.id);
      return false;
    }
  }
  return all_days == 0 || ontimer.week_flag != 0;
}

std::optional<ontime> scheduler::choose() {
  std::optional<ontime> best;
  for (const std::size_t place : ontimers_) {
    timer_record &ontimer = view.timers[place];
    timer_record narrowed = ontimer;
    if (!leave_out_offtimers(narrowed))
      continue;
    const auto next =
        next_firing(ontimer.week_flag == 0 ? ontimer : narrowed, view.now, view.holidays);
    if (next && (!best || *next < best->at))
      best = {*next, ontimer.priority};
  }
  return best;
}

// Choosing takes most of the time, and changes something only where an on-timer has the time of day
// of an off-timer or may be moved past holidays.
bool scheduler::may_choice_matter() const {
  const auto time_of_day = [&](const timer_record &timer) {
    const civil_time at = on_the_set(timer, view.now);
    return at - floor<days>(at);
  };
  std::set<seconds> off_times;
  for (const std::size_t place : offtimers_)
    off_times.insert(time_of_day(view.timers[place]));
  return std::ranges::any_of(ontimers_, [&](std::size_t place) {
    const timer_record &timer = view.timers[place];
    return off_times.contains(time_of_day(timer)) ||
           (timer.week_flag == 0 && timer.holiday_effect != 0 && !view.holidays.empty());
  });
}

// After `timer` is armed.
void scheduler::reconsider(const timer_record &timer, civil_time next) {
  if (!choice_matters_)
    return;
  const civil_time now = view.now.set;
  const bool is_pending = programmed_ && programmed_->at >= now;
  if (!is_ontimer_type(timer.type)) {
    if (timer.type == TIMER_TYPE_OFF && is_pending)
      programmed_ = choose();
    return;
  }
  const bool is_too_soon = next - now <= kTooSoon && floor<minutes>(next) == floor<minutes>(now);
  const bool goes_before = !is_pending || next < programmed_->at ||
                           (next == programmed_->at && timer.priority > programmed_->priority);
  if (is_too_soon || !goes_before)
    return;
  if (const auto chosen = choose())
    programmed_ = chosen;
}

// False when the daemon removes the timer.
bool scheduler::arm(timer_record &timer) {
  const auto next = next_firing(timer, view.now, view.holidays);
  if (!next || *next - view.now.set > kFarthest ||
      (timer.type == TIMER_TYPE_STANDBY && ontimer_soon_after(*next, view, timer.id)))
    return false;
  view.armed[timer.id] = *next;
  reconsider(timer, *next);
  return true;
}

// Where the timer goes in the list. Holidays move only what is listed: until then a timer that they
// would move has no next firing.
std::vector<timer_record>::iterator scheduler::place_of(timer_record added) {
  const civil_time at = added.at;
  next_firing(added, view.now, view.holidays);
  const bool is_moved = added.at != at;
  return std::ranges::find_if(view.timers, [&](timer_record &listed) {
    return is_moved ? next_firing(listed, view.now, view.holidays).has_value()
                    : goes_ahead(added, listed);
  });
}

// Sorting may move the timer past holidays.
void scheduler::add(const timer_record &timer) {
  timer_record &added = *view.timers.insert(place_of(timer), timer);
  sort_lists();
  if (const timer_record *chosen = find_timer(view.timers, view.wakeup.id))
    programmed_ = {civil_of(view.wakeup), chosen->priority};
  choice_matters_ = may_choice_matter();
  arm(added);
}

// Moves a timer for one moment by whole days into the 24 hours from now.
static void anchor(timer_record &timer, const clocks &now) {
  timer.at -= floor<days>(on_the_set(timer, now) - now.set);
  timer.stored_day.reset();
}

// The clock read `from` before. A timer of the system clock keeps its moment when the set's jumps.
void scheduler::arm_all(civil_time from, effects &told) {
  const auto before = view.armed;
  programmed_.reset();
  choice_matters_ = may_choice_matter();
  for (std::size_t i = 0; i < view.timers.size();) {
    timer_record &timer = view.timers[i];
    const int id = timer.id;
    if (timer.type == TIMER_TYPE_TRANSIENT) {
      ++i;
      continue;
    }
    if (view.armed.erase(id) != 0 && timer.week_flag == 0 && timer.type != TIMER_TYPE_ALWAYS)
      anchor(timer, view.now);
    if (arm(timer)) {
      ++i;
      continue;
    }
    view.timers.erase(view.timers.begin() + static_cast<std::ptrdiff_t>(i));
    sort_lists();
    awaited.erase(id);
    told.removed.push_back(id);
  }
  for (const auto &[id, at] : before)
    if (const auto after = view.armed.find(id); after != view.armed.end() && after->second != at &&
                                                after->second - view.now.set != at - from)
      told.moved.push_back(id);
}

// Whether the timer of `a` fires before that of `b` at the same second: a transient one was armed
// before the others, and of two that with the larger id; else the first in the list.
static bool is_ahead(const timer_record &a, const timer_record &b) {
  return a.type == TIMER_TYPE_TRANSIENT && (b.type != TIMER_TYPE_TRANSIENT || a.id > b.id);
}

// The armed timer that expires first.
std::optional<firing> scheduler::soonest() const {
  const timer_record *found = nullptr;
  for (const timer_record &timer : view.timers) {
    const auto armed = armed_for(timer.id, view);
    if (!armed || *armed < view.now.set)
      continue;
    const civil_time best = found != nullptr ? view.armed.at(found->id) : civil_time::max();
    if (found == nullptr || *armed < best || (*armed == best && is_ahead(timer, *found)))
      found = &timer;
  }
  if (found == nullptr)
    return std::nullopt;
  const civil_time at = view.armed.at(found->id);
  return firing{found->id, at, at - (view.now.set - view.now.system)};
}

static std::vector<int> passed_by(const firing &first, const snapshot &view) {
  std::vector<int> passed;
  for (const timer_record &timer : view.timers)
    if (armed_for(timer.id, view) == first.at && timer.id != first.id &&
        timer.type != TIMER_TYPE_TRANSIENT) // stays armed, and fires next
      passed.push_back(timer.id);
  return passed;
}

// A repeating timer may have been armed for a day that has become one of the holidays: in a leap
// year their end of February is another.
void scheduler::expire(const firing &next, outlook &found) {
  firing told = next;
  told.passed = passed_by(next, view);
  view.now = {next.at, next.system};
  const auto timer = std::ranges::find(view.timers, next.id, &timer_record::id);
  const bool is_skipped =
      rest_at(*timer, view.now.set, view.now, view.holidays) != 0 && timer->week_flag != 0;
  view.armed.erase(next.id);
  arm_all(next.at, told.others);
  if (is_skipped)
    return;
  found.firings.push_back(told);
  awaited.erase(told.id);
  for (const int id : told.passed)
    awaited.erase(id);
}

// A transient timer is left alone: it counts on.
void scheduler::change_clock(civil_time system, outlook &found) {
  const civil_time from = system + (view.now.set - view.now.system);
  view.now = {civil_of(system), system};
  for (const timer_record &timer : view.timers)
    if (const auto armed = view.armed.find(timer.id);
        timer.type == TIMER_TYPE_TRANSIENT && armed != view.armed.end())
      armed->second += view.now.set - from;
  found.changes.push_back({from, view.now.set, system});
  arm_all(from, found.changes.back().others);
}

// A change of the clock comes before what is due in its second. One at the end may set the clock
// back to before it.
static outlook run(scheduler set, civil_time until) {
  outlook found;
  const auto next_change = [&] {
    return set.view.follows_zone ? next_change_of_offset(set.view.now.system) : std::nullopt;
  };
  auto change = next_change();
  for (auto next = set.soonest(); next; next = set.soonest()) {
    const bool is_change = change && *change <= next->system;
    const civil_time at = is_change ? std::min(next->at, civil_of(*change)) : next->at;
    if (at > until && set.awaited.empty())
      break;
    if (is_change) {
      set.change_clock(*change, found);
      change = next_change();
    } else {
      set.expire(*next, found);
    }
  }
  return found;
}

snapshot with_timer(const timer_record &timer, const snapshot &view) {
  if (view.clock_known) {
    scheduler set(view);
    set.add(timer);
    return set.view;
  }
  snapshot with = view;
  with.timers.push_back(timer);
  return with;
}

outlook forecast(const snapshot &view, civil_time until) { return run(scheduler(view), until); }

outlook forecast(const snapshot &view) {
  const civil_time until = view.now.set + kForecast;
  scheduler set(view);
  for (const auto &[id, at] : view.armed)
    if (at > until)
      set.awaited.insert(id);
  return run(set, until);
}
