#include "judgement.h"

#include "output.h"
#include "words.h"

#include <algorithm>
#include <climits>

using namespace std::chrono;

static constexpr int kUnlisted = INT_MAX; // the id of a timer that is not added yet

// --- refused, or not armed ---

static std::string past_text(const timer_record &timer, const snapshot &view) {
  const civil_time now = view.now.of(timer.clock);
  const std::string clock =
      timer.clock == TIME_TYPE_INTERNET ? "the system clock" : "the set's clock";
  if (timer.at > now)
    return "on-timers ignore seconds: " + time_text(timer.at) + " counts as " +
           time_text(floor<minutes>(timer.at)) + ", which has passed";
  return time_text(timer.at) + " has passed: " + clock + " reads " + time_text(now);
}

std::string refusal_of(timer_record timer, const snapshot &view) {
  if (!view.clock_known)
    return ""; // it is accepted and stays unarmed
  const auto next = next_firing(timer, view.now, view.holidays);
  if (!next && timer.week_flag == 0)
    return past_text(timer, view);
  if (!next)
    return "holidays cover every day on which it would fire";
  if (*next - view.now.set > kFarthest)
    return time_text(*next) + " is more than 365 days ahead";
  snapshot after = view;
  const auto ontimer = ontimer_soon_after(*next, after, timer.id);
  if (timer.type == TIMER_TYPE_STANDBY && ontimer)
    return "timer " + std::to_string(*ontimer) +
           " follows within ten minutes after it, and a standby timer is then left out";
  return "";
}

std::string reason_unarmed(const timer_record &timer, const snapshot &view) {
  if (!view.clock_known)
    return "the set's clock is unknown";
  if (!view.clock_confirmed)
    return "the set has woken up and its time is not confirmed yet";
  if (timer.type == TIMER_TYPE_TRANSIENT)
    return "it has expired, and a transient timer stays listed";
  if (const timer_record *off = coinciding_offtimer(timer, view);
      off != nullptr && timer.week_flag == 0)
    return "off-timer " + std::to_string(off->id) + " is set for the same time";
  if (std::string refusal = refusal_of(timer, view); !refusal.empty())
    return refusal;
  return "the daemon gives no reason; " + std::string(kLogHint);
}

const timer_record *evicted_by(const timer_record &timer, const snapshot &view) {
  if (timer.type == TIMER_TYPE_TRANSIENT || view.timers.size() < view.limit)
    return nullptr;
  return &*std::ranges::min_element(view.timers, {}, &timer_record::id);
}

void note_eviction(std::vector<std::string> &notes, const timer_record &timer, const snapshot &view,
                   bool is_check) {
  if (const timer_record *evicted = evicted_by(timer, view))
    notes.push_back(
        sentence(title_of(*evicted) + (is_check ? " would be" : " was") + " removed to make room"));
}

// --- several timers in one second ---

std::vector<clash> clashes_of(int id, const std::vector<firing> &firings) {
  std::vector<clash> clashes;
  for (const firing &firing : firings) {
    clash found{firing.at, firing.passed};
    found.ids.push_back(firing.id);
    std::ranges::sort(found.ids);
    const bool concerns = id == 0 || std::ranges::find(found.ids, id) != found.ids.end();
    if (concerns && found.ids.size() > 1 &&
        std::ranges::find(clashes, found.ids, &clash::ids) == clashes.end())
      clashes.push_back(found);
  }
  return clashes;
}

// "timers 1, 2 and 3"; the timer that is not added yet comes first.
static std::string names_of(const std::vector<int> &ids) {
  std::vector<std::string> names;
  names.reserve(ids.size());
  for (const int id : ids)
    names.push_back(std::to_string(id));
  std::string text = ids.size() == 1 ? "timer " : "timers ";
  if (ids.back() == kUnlisted) {
    names.pop_back();
    if (names.empty())
      return "it";
    text = "it and " + std::string(names.size() == 1 ? "timer " : "timers ");
  }
  for (std::size_t i = 0; i < names.size(); ++i)
    text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  return text;
}

// The daemon arms all timers again when one fires, and the others of that second then count as
// past. Which one is the first depends on when within a second each was armed. Transient timers are
// left as they are; of several each has a firing of its own.
std::string clash::text(const snapshot &view) const {
  std::vector<int> transient;
  std::vector<int> others;
  bool is_on = false;
  for (const int id : ids) {
    const int type = find_timer(view.timers, id)->type;
    (type == TIMER_TYPE_TRANSIENT ? transient : others).push_back(id);
    is_on = is_on || is_ontimer_type(type);
  }
  std::string what = "only one of them will fire, and which one is not certain";
  if (!transient.empty())
    what = names_of(transient) + " fires, and " +
           (others.size() == 1 ? "whether " + names_of(others) + " does is not certain"
                               : "at most one of the others, it is not certain which");
  return names_of(ids) + " are due in the same second, " + time_text(at) + ": " + what +
         "; choose another " + (is_on ? "minute" : "second");
}

// --- what becomes of it ---

static bool holds(const std::vector<int> &ids, int id) {
  return std::ranges::find(ids, id) != ids.end();
}

template <typename Event> static const Event *first_with(const std::vector<Event> &events, int id) {
  const auto found = std::ranges::find_if(events, [id](const Event &event) {
    return holds(event.others.moved, id) || holds(event.others.removed, id);
  });
  return found != events.end() ? &*found : nullptr;
}

static const firing *firing_of(int id, const outlook &ahead) {
  const auto found = std::ranges::find_if(ahead.firings, [id](const firing &firing) {
    return firing.id == id || holds(firing.passed, id);
  });
  return found != ahead.firings.end() ? &*found : nullptr;
}

std::string fate_of(const timer_record &timer, const outlook &ahead) {
  const firing *fires = firing_of(timer.id, ahead);
  const firing *other = first_with(ahead.firings, timer.id);
  const clock_change *change = first_with(ahead.changes, timer.id);
  if (change != nullptr && other != nullptr && other->system < change->system)
    change = nullptr;
  const civil_time when = change != nullptr  ? change->system
                          : other != nullptr ? other->system
                                             : civil_time::max();
  if (when == civil_time::max() || (fires != nullptr && fires->system <= when))
    return "";
  const std::string what =
      change != nullptr
          ? "The clock jumps from " + time_of_day_text(change->from) + " to " +
                time_of_day_text(change->to) + " before it, on " +
                day_text(floor<days>(change->from))
          : "Timer " + std::to_string(other->id) + " fires before it, on " + time_text(other->at);
  if (fires == nullptr)
    return what + ", and removes it.";
  return what + ", and " +
         (timer.week_flag == 0 ? "moves it to " + time_text(fires->at) : "leaves this time out") +
         ".";
}

// --- a new timer ---

static outlook with_new(timer_record timer, civil_time next, snapshot &view) {
  timer.id = kUnlisted;
  view.timers.push_back(timer);
  view.armed[kUnlisted] = next;
  return forecast(view);
}

// The daemon keeps the time of day of a timer for one moment, not its day.
static std::string note_of_day(timer_record timer, civil_time next, const snapshot &view,
                               const outlook &ahead) {
  timer.id = kUnlisted;
  const std::string fate = fate_of(timer, ahead);
  const std::string day = day_names(1 << weekday_of(next)).front();
  const bool is_near = next - view.now.set < days(7);
  return (fate.empty() ? "" : fate + " ") +
         "Each expiry of another timer, each wake-up of the set and each change of the clock, the "
         "zone or the holidays moves this timer to the next " +
         time_of_day_text(next) + ". To keep its day, add it " +
         (is_near ? "" : "less than a week ahead ") + "with --on " + day +
         ", and cancel it afterwards.";
}

std::vector<std::string> notes_of(timer_record timer, const snapshot &view) {
  if (!view.clock_known)
    return {"The set's clock is unknown: the timer is armed once it is known."};
  std::vector<std::string> notes;
  if (is_ontimer_type(timer.type) && timer.at != floor<minutes>(timer.at))
    notes.emplace_back("On-timers ignore seconds.");
  if (timer.type == TIMER_TYPE_TRANSIENT && timer.week_flag != 0)
    notes.emplace_back("A transient timer fires once, whatever its days.");
  const civil_time wanted = timer.at;
  const auto next = next_firing(timer, view.now, view.holidays);
  if (!next)
    return notes;
  if (timer.at != wanted)
    notes.push_back("Holidays move it from " + time_text(wanted) + " to " + time_text(*next) + ".");
  snapshot with = view;
  const outlook ahead = with_new(timer, *next, with);
  const bool is_moved = timer.type != TIMER_TYPE_ALWAYS && timer.type != TIMER_TYPE_TRANSIENT;
  if (timer.week_flag == 0 && is_moved && *next - view.now.set > days(1))
    notes.push_back(note_of_day(timer, *next, view, ahead));
  for (const clash &clash : clashes_of(kUnlisted, ahead.firings))
    notes.push_back(sentence(clash.text(with)));
  return notes;
}
