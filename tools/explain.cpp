// explain: what will become of a timer and why, one sentence a line.
#include "commands.h"

#include <algorithm>

using namespace std::chrono;

static constexpr int kFollowing = 4; // firings after the next
static constexpr seconds kTooSoonToProgram{59};

namespace {

// What is known of one timer; `sentences` is what a person reads.
struct explanation {
  std::vector<civil_time> firings;
  std::vector<passed_over> passed;
  std::vector<std::string> sentences;
};

} // namespace

// --- why it is not armed ---

static std::string reason_unarmed(const timer_record &timer, const snapshot &view) {
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

// --- when it fires ---

static std::string name_of(const passed_over &day) {
  return day.holiday == 0 ? "its time of day has passed"
                          : "holidays " + std::to_string(day.holiday);
}

// Days that follow each other and have the same reason make one sentence.
static void tell_passed(explanation &told, int week_flag) {
  const auto follows = [&](const passed_over &a, const passed_over &b) {
    const auto has_day = [&](sys_days day) {
      return (week_flag >> weekday(day).c_encoding() & 1) != 0;
    };
    sys_days next = a.day + days(1);
    while (!has_day(next) && next < b.day)
      next += days(1);
    return a.holiday == b.holiday && next == b.day;
  };
  for (std::size_t first = 0; first < told.passed.size();) {
    std::size_t last = first;
    while (last + 1 < told.passed.size() && follows(told.passed[last], told.passed[last + 1]))
      ++last;
    const std::string from = day_text(told.passed[first].day);
    told.sentences.push_back(
        from + (last > first ? " to " + day_text(told.passed[last].day) + " are" : " is") +
        " passed over: " + name_of(told.passed[first]) + ".");
    first = last + 1;
  }
}

// The days passed over, the next firing as the daemon has it, and those after it.
static void compute_firings(explanation &told, const timer_record &timer, const snapshot &view) {
  timer_record copy = timer;
  const auto armed = view.armed.find(timer.id);
  next_firing(copy, view.now, view.holidays, &told.passed);
  if (armed == view.armed.end())
    return;
  told.firings.push_back(armed->second);
  for (int i = 0; i < kFollowing && timer.week_flag != 0; ++i) {
    std::vector<passed_over> passed;
    const auto next =
        next_firing(copy, clocks_at(view.now, told.firings.back()), view.holidays, &passed);
    if (!next)
      break;
    std::ranges::copy_if(passed, std::back_inserter(told.passed),
                         [](const passed_over &day) { return day.holiday != 0; });
    told.firings.push_back(*next);
  }
}

// Where the expiries of other timers move a timer for one moment; nothing when they remove it.
static std::optional<civil_time> moved_to(const timer_record &timer,
                                          const std::vector<firing> &firings) {
  const auto own = std::ranges::find(firings, timer.id, &firing::id);
  return own != firings.end() ? std::optional(own->at) : std::nullopt;
}

static void tell_once(explanation &told, const timer_record &timer, const snapshot &view) {
  const civil_time armed = told.firings[0];
  const auto firings = forecast(view, armed);
  const auto moved = moved_to(timer, firings);
  told.sentences.push_back((moved == armed ? "It fires once, on " : "It is armed for ") +
                           firing_text(armed, view.now.set) + ".");
  if (moved == armed || firings.empty() || firings[0].at == armed)
    return;
  told.sentences.push_back("Timer " + std::to_string(firings[0].id) + " fires before it, on " +
                           time_text(firings[0].at) + ", and " +
                           (moved ? "moves it to " + time_text(*moved) : "removes it") + ".");
}

static void tell_repeating(explanation &told, const snapshot &view) {
  told.sentences.push_back("It fires next on " + firing_text(told.firings[0], view.now.set) + ".");
  std::string after;
  for (std::size_t i = 1; i < told.firings.size(); ++i)
    after += (i == 1 ? "After that it fires on " : ", ") + time_text(told.firings[i]);
  if (!after.empty())
    told.sentences.push_back(after + ".");
}

static void tell_when(explanation &told, const timer_record &timer, const snapshot &view) {
  if (told.firings.empty()) {
    told.sentences.push_back("It is not armed: " + reason_unarmed(timer, view) + ".");
    return;
  }
  if (timer.week_flag == 0)
    tell_once(told, timer, view);
  else
    tell_repeating(told, view);
  for (const auto &[id, at] : view.armed)
    if (id != timer.id && at == told.firings[0])
      told.sentences.push_back(same_second_text(id));
}

// --- what it does ---

static void tell_action(explanation &told, const timer_record &timer, const snapshot &view) {
  told.sentences.push_back("It then " + type_meaning(timer.type) + ".");
  const action acts = type_action(timer.type);
  if (is_halted(timer, view))
    told.sentences.push_back(std::string(acts == action::kTurnOn ? "On" : "Off") +
                             "-timers are halted: it is announced and does nothing else.");
  else if (acts == action::kTurnOn)
    told.sentences.push_back("A set that is on already only announces it.");
  else if (timer.type == TIMER_TYPE_OFF)
    told.sentences.push_back("In ambient mode the set only announces it.");
}

// --- what the set wakes for ---

// Why the set is not woken for an on-timer that comes first.
static std::string reason_not_woken(const timer_record &timer, const snapshot &view) {
  if (const timer_record *off = coinciding_offtimer(timer, view))
    return "off-timer " + std::to_string(off->id) + " is set for the same time";
  if (view.armed.at(timer.id) - view.now.set <= kTooSoonToProgram)
    return "it is due within this minute";
  return "the daemon has chosen so";
}

static std::string wakeup_reason(const timer_record &chosen, const snapshot &view) {
  const civil_time at = view.armed.at(chosen.id);
  for (const timer_record &other : view.timers)
    if (other.id != chosen.id && turns_the_set_on(other.type) && view.armed.contains(other.id) &&
        view.armed.at(other.id) == at)
      return other.priority < chosen.priority
                 ? "of the on-timers at that second it has the highest priority"
                 : "no on-timer at that second has a higher priority";
  return "it is the earliest on-timer";
}

static std::vector<std::string> tell_wakeup(const snapshot &view) {
  const timer_record *chosen = find_timer(view.timers, view.wakeup.id);
  const bool is_armed = chosen != nullptr && view.armed.contains(chosen->id);
  std::vector<std::string> sentences;
  for (const timer_record &timer : view.timers) {
    const auto armed = view.armed.find(timer.id);
    if (turns_the_set_on(timer.type) && armed != view.armed.end() &&
        (!is_armed || armed->second < view.armed.at(chosen->id)))
      sentences.push_back("The set is not woken for timer " + std::to_string(timer.id) + " on " +
                          time_text(armed->second) + ": " + reason_not_woken(timer, view) + ".");
  }
  if (view.wakeup.id == 0)
    sentences.emplace_back(sentences.empty() ? "The set is woken for nothing: no on-timer is armed."
                                             : "The set is woken for nothing.");
  else
    sentences.push_back("The set is woken on " + time_text(view.wakeup.at) +
                        (view.wakeup.is_utc ? " UTC" : "") + " for timer " +
                        std::to_string(view.wakeup.id) +
                        (is_armed ? ": " + wakeup_reason(*chosen, view) : "") + ".");
  return sentences;
}

// --- the command ---

static explanation explain_timer(const timer_record &timer, const snapshot &view) {
  explanation told;
  std::string title = title_of(timer) + " is set for " +
                      (timer.week_flag == 0 ? time_text(timer.at) : time_of_day_text(timer.at)) +
                      (timer.holiday_effect != 0 ? " and skips holidays." : ".");
  title[0] = 'T';
  told.sentences.push_back(title);
  compute_firings(told, timer, view);
  tell_passed(told, timer.week_flag);
  tell_when(told, timer, view);
  tell_action(told, timer, view);
  return told;
}

static json json_of(const explanation &told, const timer_record &timer, const snapshot &view) {
  json object = json_of(timer, view);
  object["following"] = json::array();
  for (std::size_t i = 1; i < told.firings.size(); ++i) {
    json firing;
    add_time(firing, "at", told.firings[i]);
    object["following"].push_back(firing);
  }
  object["passed_over"] = json::array();
  for (const passed_over &passed : told.passed)
    object["passed_over"].push_back(
        {{"day", iso_text(passed.day).substr(0, 10)}, {"why", name_of(passed)}});
  object["sentences"] = told.sentences;
  return object;
}

void explain(client &client, const options &given) {
  const snapshot view = client.look_at_state();
  std::vector<timer_record> timers = view.timers;
  if (!given.words.empty()) {
    const int id = id_of(given.words[0]);
    std::erase_if(timers, [id](const timer_record &timer) { return timer.id != id; });
    if (timers.empty())
      throw no_such_timer(id);
  }
  json list = json::array();
  const auto wakeup = tell_wakeup(view);
  for (const timer_record &timer : timers) {
    const explanation told = explain_timer(timer, view);
    list.push_back(json_of(told, timer, view));
    for (const auto &sentence : told.sentences)
      if (!given.json)
        std::puts(sentence.c_str());
    if (!given.json)
      std::puts("");
  }
  if (given.json)
    return say(true, {{"timers", list}, {"wakeup", wakeup}}, "");
  for (const auto &sentence : wakeup)
    std::puts(sentence.c_str());
}
