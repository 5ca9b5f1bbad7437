#include "judgement.h"

#include "output.h"
#include "words.h"

#include <algorithm>

using namespace std::chrono;

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
    return (off->id == kUnlisted ? "the new off-timer" : "off-timer " + std::to_string(off->id)) +
           " is set for the same time";
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

// "timers 1, 2 and 3", "it and timer 1"
static std::string names_of(std::vector<int> ids, int it) {
  const bool has_it = std::erase(ids, it) != 0;
  if (ids.empty())
    return "it";
  std::string text =
      (has_it ? "it and timer" : "timer") + std::string(ids.size() == 1 ? " " : "s ");
  for (std::size_t i = 0; i < ids.size(); ++i)
    text += (i == 0 ? "" : i + 1 == ids.size() ? " and " : ", ") + std::to_string(ids[i]);
  return text;
}

// The daemon arms all timers again when one fires, and the others of that second then count as
// past. Which one is the first depends on when within a second each was armed. Transient timers are
// left as they are; of several each has a firing of its own.
std::string clash::text(const snapshot &view, int it) const {
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
    what = names_of(transient, it) + " fires, and " +
           (others.size() == 1 ? "whether " + names_of(others, it) + " does is not certain"
                               : "at most one of the others, it is not certain which");
  return names_of(ids, it) + " are due in the same second, " + time_text(at) + ": " + what +
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

// The daemon keeps the time of day of a timer for one moment, not its day.
static std::string note_of_day(const timer_record &timer, civil_time next, const snapshot &view,
                               const outlook &ahead) {
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

// Of an armed timer; `wanted` has its id.
static std::vector<std::string> notes_of_armed(timer_record wanted, const snapshot &before,
                                               const snapshot &after) {
  std::vector<std::string> notes;
  const int type = wanted.type;
  const civil_time at = wanted.at;
  if (type == TIMER_TYPE_TRANSIENT && wanted.week_flag != 0)
    notes.emplace_back("A transient timer fires once, whatever its days.");
  const civil_time next = after.armed.at(wanted.id);
  if (is_ontimer_type(type) && at != floor<minutes>(at))
    notes.push_back(next == floor<minutes>(next)
                        ? "On-timers ignore seconds."
                        : "On-timers ignore seconds on the day itself: this one may fire at " +
                              time_of_day_text(floor<minutes>(next)) + "; give whole minutes.");
  next_firing(wanted, before.now, before.holidays);
  if (wanted.at != at)
    notes.push_back("Holidays move it from " + time_text(at) + " to " + time_text(next) + ".");
  const outlook ahead = forecast(after);
  const bool is_moved = type != TIMER_TYPE_ALWAYS && type != TIMER_TYPE_TRANSIENT;
  if (wanted.week_flag == 0 && is_moved && next - before.now.set > days(1))
    notes.push_back(note_of_day(wanted, next, before, ahead));
  for (const clash &clash : clashes_of(wanted.id, ahead.firings))
    notes.push_back(sentence(clash.text(after, wanted.id)));
  return notes;
}

std::vector<std::string> notes_of_added(int id, timer_record wanted, const snapshot &before,
                                        const snapshot &after) {
  if (!before.clock_known)
    return {"The set's clock is unknown: the timer is armed once it is known."};
  const std::string is = id == kUnlisted ? " would not be armed" : " is not armed";
  std::vector<std::string> notes;
  wanted.id = id;
  if (after.armed.contains(id))
    notes = notes_of_armed(wanted, before, after);
  else
    notes.push_back("It" + is + ": " + reason_unarmed(wanted, after) + ".");
  for (const timer_record &other : after.timers)
    if (before.armed.contains(other.id) && !after.armed.contains(other.id))
      notes.push_back(sentence("timer " + std::to_string(other.id) + is +
                               " any more: " + reason_unarmed(other, after)));
  return notes;
}
