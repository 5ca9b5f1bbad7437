// list, show, add, change, cancel
#include "commands.h"

#include <algorithm>
#include <set>

using namespace std::chrono;

int id_of(const std::string &text, const std::string &list) {
  const auto id = parse_int(text);
  if (!id)
    throw usage((text.empty() ? "''" : text) + " is no id", list + " shows the ids");
  return *id;
}

std::vector<int> ids_of(const std::vector<std::string> &words, const std::string &list) {
  std::vector<int> ids;
  for (const auto &word : words)
    if (const int id = id_of(word, list); std::ranges::find(ids, id) == ids.end())
      ids.push_back(id);
  return ids;
}

failure no_such_timer(int id) {
  return {"there is no timer " + std::to_string(id), "dravelctl list shows those there are"};
}

std::vector<int> timers_of(client &client, const std::vector<std::string> &words) {
  auto ids = ids_of(words, "dravelctl list");
  const auto timers = client.timers();
  for (const int id : ids)
    if (find_timer(timers, id) == nullptr)
      throw no_such_timer(id);
  return ids;
}

// --- list, show ---

void list_timers(client &client, const options &given) {
  snapshot view = client.look();
  std::ranges::stable_sort(view.timers, {}, [&](const timer_record &timer) {
    const auto armed = view.armed.find(timer.id);
    return armed != view.armed.end() ? armed->second : civil_time::max();
  });
  json list = json::array();
  std::vector<std::vector<std::string>> rows;
  for (const timer_record &timer : view.timers) {
    list.push_back(json_of(timer, view));
    rows.push_back({std::to_string(timer.id), type_name(timer.type), next_text(timer, view),
                    days_text(timer.week_flag), std::to_string(timer.priority),
                    timer.holiday_effect != 0 ? "skip" : "ignore", clock_name(timer.clock)});
  }
  if (given.json || rows.empty())
    return say(given.json, list, "No timers.");
  print_table({"ID", "TYPE", "NEXT FIRING", "DAYS", "PRIORITY", "HOLIDAYS", "CLOCK"}, rows);
}

void print_timer(const timer_record &timer, const snapshot &view) {
  print_fields({
      {"Timer", std::to_string(timer.id)},
      {"Type", type_name(timer.type) + " (" + std::to_string(timer.type) +
                   "): " + type_meaning(timer.type)},
      {"Next firing", next_text(timer, view)},
      {"Days", days_text(timer.week_flag)},
      {"Set for", timer.week_flag == 0 ? time_text(timer.at) : time_of_day_text(timer.at)},
      {"Clock", clock_name(timer.clock)},
      {"Priority", std::to_string(timer.priority)},
      {"Holidays",
       timer.holiday_effect != 0 ? "skip: does not fire on them" : "ignore: fires on them too"},
  });
}

void show_timer(client &client, const options &given) {
  const int id = id_of(given.words.at(0));
  const auto timer = client.timer(id);
  if (!timer)
    throw no_such_timer(id);
  const snapshot view = client.look();
  if (given.json)
    return say(true, json_of(*timer, view), "");
  print_timer(*timer, view);
}

// --- what would become of a new timer ---

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
  const auto ontimer = ontimer_soon_after(*next, view, 0);
  if (timer.type == TIMER_TYPE_STANDBY && ontimer)
    return "timer " + std::to_string(*ontimer) +
           " turns the set on within ten minutes after it, and a standby timer is then left out";
  return "";
}

std::string same_second_text(const std::vector<int> &others, civil_time at) {
  std::string ids;
  for (const int id : others)
    ids += (ids.empty() ? "" : ", ") + std::to_string(id);
  return (others.size() == 1 ? "Timer " + ids + " is" : "Timers " + ids + " are") +
         " for the same second, " + time_text(at) + ": only the first to expire will fire.";
}

civil_time forecast_end(const snapshot &view) {
  civil_time end = view.now.set + days(35);
  for (const auto &[id, at] : view.armed)
    end = std::max(end, at);
  return end;
}

// The other timers that are for the same second as `timer`, by the time of the first such firing.
static std::map<civil_time, std::vector<int>> clashes_of(timer_record timer, civil_time next,
                                                         snapshot view) {
  timer.id = 0; // none has it
  view.timers.push_back(timer);
  view.armed[0] = next;
  std::map<civil_time, std::vector<int>> clashes;
  std::set<int> known{0};
  for (const firing &firing : forecast(view, forecast_end(view))) {
    if (firing.id != 0 && std::ranges::find(firing.passed, 0) == firing.passed.end())
      continue;
    auto others = firing.passed;
    others.push_back(firing.id);
    std::ranges::sort(others);
    for (const int other : others)
      if (known.insert(other).second)
        clashes[firing.at].push_back(other);
  }
  return clashes;
}

// What the user should know of a timer that is added to those in `view`.
static std::vector<std::string> warnings_of(const options &given, timer_record timer,
                                            const snapshot &view) {
  std::vector<std::string> warnings;
  if (!view.clock_known) {
    warnings.emplace_back("The set's clock is unknown: the timer is armed once it is known.");
    const bool is_dated = !given.at || given.at->find('-') != std::string::npos;
    if (timer.week_flag == 0 && !is_dated)
      warnings.push_back(*given.at + " is counted from this machine's clock, " +
                         time_text(view.now.of(timer.clock)) + ".");
    return warnings;
  }
  const civil_time wanted = timer.at;
  const auto next = next_firing(timer, view.now, view.holidays);
  if (timer.at != wanted)
    warnings.push_back("Holidays move it from " + time_text(wanted) + " to " +
                       time_text(next.value_or(timer.at)) + ".");
  const bool is_moved = timer.type != TIMER_TYPE_ALWAYS && timer.type != TIMER_TYPE_TRANSIENT;
  if (next && timer.week_flag == 0 && is_moved && *next - view.now.set > days(1))
    warnings.push_back("A change of the clock, the zone or the holidays, or the expiry of another "
                       "timer before, moves this timer to the next " +
                       time_of_day_text(*next) +
                       ". To keep its day, add it less than 24 hours ahead, or repeat it on its "
                       "weekday (--on) and cancel it afterwards.");
  if (next)
    for (const auto &[at, others] : clashes_of(timer, *next, view))
      warnings.push_back(same_second_text(others, at));
  return warnings;
}

// The timer that the daemon removes to make room for one more; nothing while there is room.
static const timer_record *evicted_by(const timer_record &timer, const snapshot &view) {
  if (timer.type == TIMER_TYPE_TRANSIENT || view.timers.size() < view.limit)
    return nullptr;
  return &*std::ranges::min_element(view.timers, {}, &timer_record::id);
}

int add_checked(client &client, const timer_record &timer, const snapshot &view, bool force,
                int replaced) {
  const std::string refusal = refusal_of(timer, view);
  if (view.has_state && !refusal.empty())
    throw failure{"not added: " + refusal, ""};
  const timer_record *evicted = evicted_by(timer, view);
  if (evicted != nullptr && evicted->id != replaced && !force)
    throw failure{"not added: there are " + plural(view.timers.size(), "timer") + ", and " +
                      title_of(*evicted) + " would be removed to make room",
                  replaced == 0 ? "cancel one, or give --force"
                                : "cancel timer " + std::to_string(replaced) +
                                      " first, and add it with the other options"};
  const int id = client.call_int("schedule_timer", arguments_of(timer));
  if (id == -1)
    throw failure{"dravel-manager refused the timer" + (refusal.empty() ? "" : ": " + refusal),
                  kLogHint};
  return id;
}

// --- add, change ---

template <typename Parse>
static int option_value(const char *name, const std::optional<std::string> &text, int otherwise,
                        Parse parse, const char *forms) {
  if (!text)
    return otherwise;
  const std::optional<int> value = parse(*text);
  if (!value)
    throw usage(std::string(name) + "=" + *text + " is not understood", forms);
  return *value;
}

static int week_flag_of(const options &given, int otherwise) {
  if (given.days.empty())
    return otherwise;
  int week_flag = 0;
  if (given.days.size() > 1 && std::ranges::find(given.days, "once") != given.days.end())
    throw usage("--on=once goes with no other --on", "give once alone, or days alone");
  for (const auto &text : given.days)
    week_flag |= text == "once" ? 0 : option_value("--on", text, 0, parse_days, kDayForms);
  return week_flag;
}

// A repeating timer needs no date; it gets that of its next day, as does a time of day alone.
static civil_time requested_time(const time_request &time, const timer_record &timer,
                                 civil_time now) {
  if (time.day && timer.week_flag != 0)
    throw usage("a timer for a date does not repeat",
                "give --at a time of day alone, or leave --on out");
  if (time.day)
    return *time.day + time.time_of_day;
  timer_record next{.type = timer.type,
                    .at = civil_time(time.time_of_day),
                    .week_flag = timer.week_flag != 0 ? timer.week_flag : kEveryDay};
  return floor<days>(next_firing(next, {now, now}, {}).value()) + time.time_of_day;
}

// `base` is the timer that is changed, or the defaults.
static timer_record requested(const options &given, const snapshot &view, timer_record base) {
  const bool was_repeating = base.week_flag != 0;
  timer_record timer = base;
  timer.type = option_value("--type", given.type, base.type, parse_type,
                            "dravelctl help add lists the types; numbers go from 0 to 254");
  timer.week_flag = week_flag_of(given, base.week_flag);
  timer.priority = option_value("--priority", given.priority, base.priority, parse_int,
                                "give a whole number from -2147483648 to 2147483647");
  timer.holiday_effect = option_value("--holidays", given.holidays, base.holiday_effect,
                                      parse_effect, "give skip or ignore");
  timer.clock = option_value("--clock", given.clock, base.clock, parse_clock,
                             "give broadcast, internet or rtc");
  const civil_time now = view.now.of(timer.clock);
  const sys_days day = floor<days>(base.at);
  time_request time{day, base.at - day};
  if (was_repeating || timer.week_flag != 0)
    time.day.reset();
  if (given.at) {
    const auto wanted = parse_time(*given.at, now);
    if (!wanted)
      throw usage("--at=" + *given.at + " is no time", kTimeForms);
    time = *wanted;
  }
  timer.at = requested_time(time, timer, now);
  return timer;
}

// Shows the timer that was added, where holidays may have moved it, with the warnings.
static void tell_added(client &client, const options &given, int id, const std::string &text,
                       std::vector<std::string> warnings) {
  const snapshot view = client.look();
  const timer_record *timer = find_timer(view.timers, id);
  if (timer == nullptr)
    throw failure{"timer " + std::to_string(id) + " was added and is gone already", kLogHint};
  if (view.clock_known && !view.armed.contains(id))
    warnings = {"It is not armed: " + reason_unarmed(*timer, view) + "."};
  if (given.json) {
    json object = json_of(*timer, view);
    object["warnings"] = warnings;
    return say(true, object, "");
  }
  std::puts(text.c_str());
  print_timer(*timer, view);
  for (const auto &warning : warnings)
    print_note(warning);
}

void add_timer(client &client, const options &given) {
  if (!given.at)
    throw usage("add needs --at, the time", kTimeForms);
  const snapshot view = client.look();
  const timer_record timer = requested(given, view, {});
  const int id = add_checked(client, timer, view, given.force);
  tell_added(client, given, id, "Timer " + std::to_string(id) + " is added.",
             warnings_of(given, timer, view));
}

void change_timer(client &client, const options &given) {
  const int old_id = id_of(given.words.at(0));
  if (!given.at && !given.type && !given.priority && !given.holidays && !given.clock &&
      given.days.empty())
    throw usage("change needs what to change", "give --at, --on, --type or another option of add");
  snapshot view = client.look();
  const timer_record *old = find_timer(view.timers, old_id);
  if (old == nullptr)
    throw no_such_timer(old_id);
  const timer_record timer = requested(given, view, *old);
  view.armed.erase(old_id); // it stands in nobody's way
  const int id = add_checked(client, timer, view, false, old_id);
  std::erase_if(view.timers, [old_id](const auto &other) { return other.id == old_id; });
  // Making room or replacing an equal timer may have removed the old one already.
  if (client.call_int("cancel_timer", g_variant_new("(i)", old_id)) != 0 && client.timer(old_id))
    throw failure{"timer " + std::to_string(id) + " is added, but timer " + std::to_string(old_id) +
                      " could not be cancelled",
                  kLogHint};
  tell_added(client, given, id,
             "Timer " + std::to_string(id) + " takes the place of timer " + std::to_string(old_id) +
                 ".",
             warnings_of(given, timer, view));
}

// --- cancel ---

void cancel_timers(client &client, const options &given) {
  for (const int id : timers_of(client, given.words)) {
    if (client.call_int("cancel_timer", g_variant_new("(i)", id)) != 0)
      throw no_such_timer(id); // it expired in between
    say(given.json, {{"cancelled", id}}, "Timer " + std::to_string(id) + " is cancelled.");
  }
}
