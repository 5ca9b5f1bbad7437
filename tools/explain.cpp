// explain: what will become of a timer and why, one sentence a line.
#include "commands.h"
#include "judgement.h"

#include <algorithm>

using namespace std::chrono;

static constexpr std::size_t kFollowing = 4; // firings after the next

namespace {

// What is known of one timer; `sentences` is what a person reads.
struct explanation {
  std::vector<firing> firings;
  std::vector<passed_over> passed;
  std::vector<std::string> sentences;
};

} // namespace

// --- when it fires ---

static std::string name_of(const passed_over &day) {
  return day.holiday != 0 ? "holidays " + std::to_string(day.holiday)
                          : "its time of day has passed";
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
    std::size_t end = first;
    while (end + 1 < told.passed.size() && follows(told.passed[end], told.passed[end + 1]))
      ++end;
    const std::string from = day_text(told.passed[first].day);
    told.sentences.push_back(
        from + (end > first ? " to " + day_text(told.passed[end].day) + " are" : " is") +
        " passed over: " + name_of(told.passed[first]) + ".");
    first = end + 1;
  }
}

// The firings that come, and the days passed over between them.
static void compute_firings(explanation &told, const timer_record &timer, const snapshot &view,
                            const std::vector<firing> &firings) {
  if (!view.clock_known)
    return;
  timer_record copy = timer;
  next_firing(copy, view.now, view.holidays, &told.passed);
  for (const firing &firing : firings) {
    if (firing.id != timer.id && std::ranges::find(firing.passed, timer.id) == firing.passed.end())
      continue;
    told.firings.push_back(firing);
    if (timer.week_flag == 0 || told.firings.size() > kFollowing)
      return;
    std::vector<passed_over> passed;
    next_firing(copy, {firing.at, firing.system}, view.holidays, &passed);
    std::ranges::copy_if(passed, std::back_inserter(told.passed),
                         [](const passed_over &day) { return day.holiday != 0; });
  }
}

static void tell_repeating(explanation &told, const snapshot &view) {
  told.sentences.push_back("It fires next on " + firing_text(told.firings[0].at, view) + ".");
  std::string after;
  for (std::size_t i = 1; i < told.firings.size(); ++i)
    after += (i == 1 ? "After that it fires on " : ", ") + time_text(told.firings[i].at);
  if (!after.empty())
    told.sentences.push_back(after + ".");
}

// A timer of the system clock is armed for a time that the set's clock calls otherwise once it has
// jumped.
static bool fires_as_armed(const explanation &told, const timer_record &timer,
                           const snapshot &view) {
  const auto armed = armed_for(timer.id, view);
  if (!armed || told.firings.empty())
    return false;
  const firing &first = told.firings[0];
  return moment_of(first.at, first.system, view).since_1970 == moment_of(*armed, view).since_1970;
}

static void tell_when(explanation &told, const timer_record &timer, const snapshot &view,
                      const outlook &ahead) {
  const auto armed = armed_for(timer.id, view);
  if (!armed) {
    told.sentences.push_back("It is not armed: " + reason_unarmed(timer, view) + ".");
    return;
  }
  if (!fires_as_armed(told, timer, view)) {
    told.sentences.push_back("It is armed for " + firing_text(*armed, view) + ".");
    if (const std::string fate = fate_of(timer, ahead); !fate.empty())
      told.sentences.push_back(fate);
    else if (told.firings.empty())
      told.sentences.emplace_back("It does not fire in the coming five weeks.");
  } else if (timer.week_flag == 0) {
    told.sentences.push_back("It fires once, on " + firing_text(told.firings[0].at, view) + ".");
  }
  if (timer.week_flag != 0 && !told.firings.empty())
    tell_repeating(told, view);
  for (const clash &clash : clashes_of(timer.id, ahead.firings))
    told.sentences.push_back(sentence(clash.text(view)));
}

// --- what it does ---

// What this platform does with a reason; empty for one that is not known here.
static std::string wake_text(int reason, const snapshot &view) {
  if (view.platform == "linux")
    return "This machine then starts dravel-wakeup@" + std::to_string(reason) +
           ".target; the television stays off.";
  return view.platform == "standin" ? "The simulated set keeps the reason; it turns nothing on."
                                    : "";
}

static void tell_action(explanation &told, const timer_record &timer, const snapshot &view) {
  const timer_type &type = timer_type_of(timer.type);
  told.sentences.push_back("It then " + type_meaning(timer.type) + ".");
  if (is_halted(timer.type, view)) {
    told.sentences.push_back(std::string(type.action == timer_action::kTurnOff ? "Off" : "On") +
                             "-timers are halted: it is announced and does nothing else.");
  } else if (type.action == timer_action::kTurnOn) {
    told.sentences.emplace_back(
        "A set that is on already, or in open ambient mode, only announces it.");
  } else if (type.action == timer_action::kWake) {
    if (const std::string text = wake_text(type.reason, view); !text.empty())
      told.sentences.push_back(text);
    told.sentences.emplace_back("A set that is on already only announces it.");
  } else if (timer.type == TIMER_TYPE_OFF) {
    told.sentences.emplace_back("In ambient mode the set only announces it.");
  }
}

// --- what the set wakes for ---

// Why the set is not woken for an on-timer that comes first.
static std::string reason_not_woken(const timer_record &timer, const snapshot &view) {
  const civil_time at = view.armed.at(timer.id);
  timer_record that_day = timer; // another off-timer may be set for other days
  if (timer.week_flag != 0)
    that_day.week_flag = 1 << weekday_of(at);
  if (const timer_record *off = coinciding_offtimer(that_day, view))
    return "off-timer " + std::to_string(off->id) + " is set for the same time";
  if (at - view.now.set <= kTooSoon)
    return "it is due within this minute";
  return "the daemon has chosen so";
}

static std::string wakeup_reason(const timer_record &chosen, const snapshot &view) {
  const civil_time at = view.armed.at(chosen.id);
  for (const timer_record &other : view.timers)
    if (other.id != chosen.id && is_ontimer_type(other.type) && view.armed.contains(other.id) &&
        view.armed.at(other.id) == at)
      return other.priority < chosen.priority
                 ? "of the on-timers at that second it has the highest priority"
                 : "no on-timer at that second has a higher priority";
  return "it is the earliest on-timer";
}

// Of the timer for which the set is woken: an earlier day of it is left out.
static bool is_woken_later(const timer_record &timer, const snapshot &view) {
  return timer.id == view.wakeup.id &&
         floor<days>(view.armed.at(timer.id)) < floor<days>(civil_of(view.wakeup));
}

static std::vector<std::string> tell_wakeup(const snapshot &view) {
  const timer_record *chosen = find_timer(view.timers, view.wakeup.id);
  const bool is_armed = chosen != nullptr && view.armed.contains(chosen->id);
  std::vector<std::string> sentences;
  for (const timer_record &timer : view.timers) {
    const auto armed = armed_for(timer.id, view);
    if (is_ontimer_type(timer.type) && armed &&
        (!is_armed || *armed < view.armed.at(chosen->id) || is_woken_later(timer, view)))
      sentences.push_back("The set is not woken for timer " + std::to_string(timer.id) + " on " +
                          time_text(*armed) + ": " + reason_not_woken(timer, view) + ".");
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

static void print_sentence(const std::string &sentence) {
  std::puts(wrapped(sentence, line_width()).c_str());
}

static explanation explain_timer(const timer_record &timer, const snapshot &view,
                                 const outlook &ahead) {
  explanation told;
  told.sentences.push_back(
      sentence(title_of(timer) + " is set for " +
               (timer.week_flag == 0 ? time_text(timer.at) : time_of_day_text(timer.at)) +
               (timer.holiday_effect != 0 ? " and skips holidays" : "")));
  compute_firings(told, timer, view, ahead.firings);
  tell_passed(told, timer.week_flag);
  tell_when(told, timer, view, ahead);
  if (view.armed.contains(timer.id))
    tell_action(told, timer, view);
  return told;
}

static json json_of(const explanation &told, const timer_record &timer, const snapshot &view) {
  json object = json_of(timer, view);
  object["following"] = json::array();
  for (std::size_t i = fires_as_armed(told, timer, view) ? 1 : 0; i < told.firings.size(); ++i) {
    json firing;
    add_time(firing, "at", moment_of(told.firings[i].at, told.firings[i].system, view));
    object["following"].push_back(firing);
  }
  object["passed_over"] = json::array();
  for (const passed_over &passed : told.passed)
    object["passed_over"].push_back(
        {{"day", iso_text(passed.day).substr(0, 10)}, {"why", name_of(passed)}});
  object["sentences"] = told.sentences;
  return object;
}

json json_of_explanation(const timer_record &timer, const snapshot &view, const outlook &ahead) {
  return json_of(explain_timer(timer, view, ahead), timer, view);
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
  const outlook ahead = forecast(view);
  for (const timer_record &timer : timers)
    list.push_back(json_of_explanation(timer, view, ahead));
  if (given.json)
    return say(true, {{"timers", list}, {"wakeup", wakeup}}, "");
  for (const json &told : list) {
    for (const std::string sentence : told["sentences"])
      print_sentence(sentence);
    std::puts("");
  }
  std::ranges::for_each(wakeup, print_sentence);
}
