// list, show, add, change, cancel
#include "commands.h"
#include "judgement.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace std::chrono;

static constexpr seconds kSoon{2};     // "now" is still to come when the daemon reads it
static constexpr seconds kSoonDue{60}; // no timer is moved so shortly before it fires
static constexpr const char *kNotChanged = "not changed";
static constexpr const char *kStoreDirectory = "/opt/dbspace";
static constexpr fsblkcnt_t kLeastRoom = 65536; // bytes: a change of the store and its journal

int id_of(const std::string &text, const std::string &list) {
  const auto id = parse_int(text);
  if (!id)
    throw usage((text.empty() ? "''" : text) + " is no id", list + " shows the ids");
  return *id;
}

// "1,2" or "2-5"
static bool is_several_ids(const std::string &word) {
  return !word.empty() && word.find_first_not_of("0123456789,-") == std::string::npos &&
         !parse_int(word);
}

std::vector<int> ids_of(const std::vector<std::string> &words, const std::string &list) {
  std::vector<int> ids;
  for (const auto &word : words)
    if (is_several_ids(word))
      throw usage(word + " is no id", "give ids with blanks between them");
    else if (const int id = id_of(word, list); std::ranges::find(ids, id) == ids.end())
      ids.push_back(id);
  return ids;
}

failure no_such_timer(int id) {
  return {"there is no timer " + std::to_string(id), "dravelctl list shows those there are"};
}

std::vector<int> timers_of(const std::vector<timer_record> &timers, const options &given,
                           const std::string &command) {
  const std::string as = "dravelctl " + command;
  const std::string advice = "write it as in " + as + " 3 5, or " + as + " --all";
  if (given.all != given.words.empty())
    throw usage(given.all ? "--all goes with no ID" : command + " needs ID", advice, "--all");
  if (given.words == std::vector<std::string>{"all"})
    throw usage("all is no id", advice, "--all");
  auto ids = ids_of(given.words, "dravelctl list");
  for (const timer_record &timer : timers)
    if (given.all)
      ids.push_back(timer.id);
  for (const int id : ids)
    if (find_timer(timers, id) == nullptr)
      throw no_such_timer(id);
  return ids;
}

// --- values of options ---

template <typename Parse>
static int option_value(const char *name, const std::optional<std::string> &text, int otherwise,
                        Parse parse, const char *forms) {
  if (!text)
    return otherwise;
  const std::optional<int> value = parse(*text);
  if (!value)
    throw usage(std::string(name) + "=" + *text + " is not understood", forms, name);
  return *value;
}

static int week_flag_of(const options &given, int otherwise, const char *name) {
  if (given.days.empty())
    return otherwise;
  int week_flag = 0;
  if (given.days.size() > 1 && std::ranges::find(given.days, "once") != given.days.end())
    throw usage(std::string(name) + "=once goes with no other " + name,
                "give once alone, or days alone", name);
  for (const auto &text : given.days)
    week_flag |= text == "once" ? 0 : option_value(name, text, 0, parse_days, kDayForms);
  return week_flag;
}

// --- list, show ---

static bool is_wanted(const timer_record &timer, int wanted_days, const options &given) {
  const int own_days = timer.week_flag != 0 ? timer.week_flag : 1 << weekday_of(timer.at);
  const bool fits_day =
      wanted_days == 0 ? timer.week_flag == 0 : (own_days & wanted_days) != 0; // 0: once
  const bool is_off = timer_type_of(timer.type).action == timer_action::kTurnOff;
  const bool fits_kind = (!given.on_timers && !given.off_timers) ||
                         (given.on_timers && is_ontimer_type(timer.type)) ||
                         (given.off_timers && is_off);
  return fits_day && fits_kind;
}

// What is not as usual.
static std::string remarks_of(const timer_record &timer, const snapshot &view) {
  std::string text;
  const auto add = [&](bool applies, const std::string &word) {
    if (applies)
      text += (text.empty() ? "" : ", ") + word;
  };
  add(is_halted(timer.type, view), "halted");
  add(timer.holiday_effect != 0, "no holidays");
  add(timer.priority != 0, "priority " + std::to_string(timer.priority));
  add(timer.clock != TIME_TYPE_BROADCAST, clock_name(timer.clock));
  add(!view.has_state, "guessed");
  return text;
}

// "16 h": a line fits a terminal of 80 columns.
static std::string short_span(civil_time at, const snapshot &view) {
  const std::string span = span_until(at, view);
  return span.substr(0, span.find(' ') + 2);
}

static std::vector<std::string> row_of(const timer_record &timer, const snapshot &view) {
  const auto armed = armed_for(timer.id, view);
  return {std::to_string(timer.id),
          type_name(timer.type),
          armed ? short_time_text(*armed) : "not armed",
          armed ? short_span(*armed, view) : "",
          short_days_text(timer.week_flag),
          remarks_of(timer, view)};
}

void list_timers(client &client, const options &given) {
  const int wanted_days = week_flag_of(given, kEveryDay, "--day");
  snapshot view = client.look(false);
  std::erase_if(view.timers,
                [&](const timer_record &timer) { return !is_wanted(timer, wanted_days, given); });
  std::ranges::stable_sort(view.timers, {}, [&](const timer_record &timer) {
    return armed_for(timer.id, view).value_or(civil_time::max());
  });
  if (given.json) {
    json list = json::array();
    for (const timer_record &timer : view.timers)
      list.push_back(json_of(timer, view));
    return say(true, list, "");
  }
  const bool is_filtered = given.on_timers || given.off_timers || !given.days.empty();
  if (view.timers.empty())
    return say(false, {}, is_filtered ? "No such timers." : "No timers.");
  std::vector<std::vector<std::string>> rows;
  for (const timer_record &timer : view.timers)
    rows.push_back(row_of(timer, view));
  print_table({"ID", "TYPE", "NEXT FIRING", "IN", "DAYS", "REMARKS"}, rows);
}

void print_timer(const timer_record &timer, const snapshot &view) {
  print_fields({
      {"Timer", timer.id != 0 ? std::to_string(timer.id) : "new"},
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
  const snapshot view = client.look(false);
  const timer_record *timer = find_timer(view.timers, id);
  if (timer == nullptr)
    throw no_such_timer(id);
  if (given.json)
    return say(true, json_of(*timer, view), "");
  print_timer(*timer, view);
}

// --- add, change ---

static civil_time on_clock(civil_time utc, int clock) {
  return clock == TIME_TYPE_INTERNET ? utc : civil_of(utc);
}

// The next time of the clock that has this time of day, on one of the days.
static civil_time next_such(const timer_record &timer, int week_flag, seconds time_of_day,
                            civil_time now) {
  timer_record next{.type = timer.type, .at = civil_time(time_of_day), .week_flag = week_flag};
  return floor<days>(next_firing(next, {now, now}, {}).value()) + time_of_day;
}

// A repeating timer needs no date; it gets that of its next day, as does a time of day alone.
civil_time requested_time(const time_request &time, const timer_record &timer, const clocks &now) {
  const civil_time own_now = now.of(timer.clock);
  if (time.is_now)
    return is_ontimer_type(timer.type) ? floor<minutes>(own_now) + 1min : own_now + kSoon;
  if (time.day && time.offset)
    return on_clock(*time.day + time.time_of_day - *time.offset, timer.clock);
  if (time.day)
    return *time.day + time.time_of_day;
  const int own_days = timer.week_flag != 0 ? timer.week_flag : kEveryDay;
  return next_such(timer, time.week_flag != 0 ? time.week_flag : own_days, time.time_of_day,
                   own_now);
}

static time_request given_time(const std::string &text, int clock, const snapshot &view) {
  const civil_time now = view.now.of(clock);
  auto time = parse_time(text, now);
  const std::string with_time = text + " 7:00";
  if (!time && !text.empty() && parse_time(with_time, now))
    throw usage("--at=" + text + " has no time of day", "write it as in --at \"" + with_time + "\"",
                "--at");
  if (!time)
    throw usage("--at=" + text + " is no time", kTimeForms, "--at");
  // Hours pass also where the clock jumps; after days it is the same time of day again.
  if (time->span && *time->span < days(1) && view.follows_zone && clock != TIME_TYPE_INTERNET) {
    const civil_time at = civil_of(view.now.system + *time->span);
    time->day = floor<days>(at);
    time->time_of_day = at - *time->day;
  }
  return *time;
}

// `base` is the timer that is changed, or the defaults.
static timer_record requested(const options &given, const snapshot &view,
                              const timer_record &base) {
  timer_record timer = base;
  timer.type = option_value("--type", given.type, base.type, parse_type,
                            "dravelctl types lists them; numbers go from 0 to 254");
  timer.week_flag = week_flag_of(given, base.week_flag, "--on");
  timer.priority = option_value("--priority", given.priority, base.priority, parse_int,
                                "give a whole number from -2147483648 to 2147483647");
  timer.holiday_effect = option_value("--holidays", given.holidays, base.holiday_effect,
                                      parse_effect, "give skip or ignore");
  timer.clock = option_value("--clock", given.clock, base.clock, parse_clock,
                             "give broadcast, internet or rtc");
  const sys_days day = floor<days>(base.at);
  time_request time{.time_of_day = base.at - day};
  if (given.at)
    time = given_time(*given.at, timer.clock, view);
  // A timer for a date keeps it when another time of day is given.
  const bool is_dated = base.id != 0 && base.week_flag == 0 && timer.week_flag == 0;
  if (is_dated && !time.day && time.week_flag == 0 && !time.is_now)
    time.day = day;
  if ((time.day || time.week_flag != 0) && timer.week_flag != 0)
    throw usage("a timer for a date does not repeat",
                std::string("give --at a time of day alone, or ") +
                    (given.days.empty() ? "add --on once" : "leave --on out"),
                "--at");
  timer.at = requested_time(time, timer, view.now);
  return timer;
}

void check_room(const timer_record &timer, const snapshot &view, bool force,
                const std::string &fault) {
  const std::string refusal = refusal_of(timer, view);
  if (view.has_state && !refusal.empty())
    throw failure{fault + ": " + refusal, ""};
  const timer_record *evicted = evicted_by(timer, view);
  if (evicted != nullptr && !force)
    throw failure{fault + ": there are " + plural(view.timers.size(), "timer") + ", and " +
                      title_of(*evicted) + " would be removed to make room",
                  "cancel one, or give --force"};
}

// Why the disk of the store takes nothing, and what to do; empty when it does.
static std::pair<std::string, std::string> fault_of_disk() {
  const std::string disk = "the disk of " + std::string(kStoreDirectory);
  struct statvfs root {};
  struct statvfs found {};
  // A service such as the bridge sees all disks as read-only.
  const bool is_all_read_only = statvfs("/", &root) == 0 && (root.f_flag & ST_RDONLY) != 0;
  if (statvfs(kStoreDirectory, &found) == 0 && (found.f_flag & ST_RDONLY) != 0 && !is_all_read_only)
    return {disk + " is read-only", "make it writable"};
  if (found.f_blocks != 0 && found.f_bavail * found.f_frsize < kLeastRoom)
    return {disk + " is full", "make room there"};
  return {};
}

failure not_stored(const std::string &what, const std::string &refusal) {
  const auto [fault, advice] = fault_of_disk();
  const std::string &why = fault.empty() ? refusal : fault;
  return {"dravel-manager refused " + what + (why.empty() ? "" : ": " + why),
          fault.empty() ? kLogHint : advice};
}

std::vector<std::string> notes_on_disk() {
  const auto [fault, advice] = fault_of_disk();
  if (fault.empty())
    return {};
  return {sentence(fault + ": the next start of dravel-manager may undo this; " + advice)};
}

int add_to_set(client &client, const timer_record &timer, const snapshot &view) {
  const int id = client.call_int("schedule_timer", arguments_of(timer));
  if (id != -1)
    return id;
  throw not_stored("the timer", refusal_of(timer, view));
}

static void note_machine_time(std::vector<std::string> &notes, const options &given,
                              const timer_record &timer, const snapshot &view) {
  const bool is_dated = !given.at || given.at->find('-') != std::string::npos;
  if (!view.clock_known && timer.week_flag == 0 && !is_dated)
    notes.push_back(*given.at + " is counted from this machine's clock, " +
                    time_text(view.now.of(timer.clock)) + ".");
}

static void tell_timer(const options &given, const timer_record &timer, const snapshot &view,
                       const std::string &text, const std::vector<std::string> &notes) {
  if (!given.json) {
    std::puts(text.c_str());
    print_timer(timer, view);
    return std::ranges::for_each(notes, print_note), void();
  }
  say(true, json_of(timer, view), "", notes);
}

// What would be added; the timer has no id.
static void tell_checked(const options &given, timer_record timer, const snapshot &view,
                         const std::string &text) {
  timer.id = kUnlisted;
  snapshot after = with_timer(timer, view);
  auto notes = notes_of_added(kUnlisted, timer, view, after);
  note_machine_time(notes, given, timer, view);
  note_eviction(notes, timer, view, true);
  timer = *find_timer(after.timers, kUnlisted); // where holidays may have moved it
  timer.id = 0;
  if (const auto armed = armed_for(kUnlisted, after))
    after.armed[0] = *armed;
  tell_timer(given, timer, after, text, notes);
}

// The timer that was added to those of `before`, where holidays may have moved it.
static void tell_added(client &client, const options &given, int id, const std::string &text,
                       const timer_record &wanted, const snapshot &before) {
  const snapshot view = client.look();
  const timer_record *timer = find_timer(view.timers, id);
  if (timer == nullptr)
    throw failure{"timer " + std::to_string(id) + " was added and is gone already", kLogHint};
  auto notes = notes_of_added(id, wanted, before, view);
  note_machine_time(notes, given, wanted, before);
  note_eviction(notes, wanted, before);
  tell_timer(given, *timer, view, text, notes);
}

void add_timer(client &client, const options &given) {
  if (!given.at)
    throw usage("add needs --at, the time", kTimeForms, "--at");
  const snapshot view = client.look();
  const timer_record timer = requested(given, view, {});
  check_room(timer, view, given.force);
  if (given.check)
    return tell_checked(given, timer, view, "This timer would be added:");
  const int id = add_to_set(client, timer, view);
  tell_added(client, given, id, "Timer " + std::to_string(id) + " is added.", timer, view);
}

void cancel_one(client &client, int id) {
  if (client.call_int("cancel_timer", {id}) != 0)
    throw no_such_timer(id); // it expired in between
}

static std::string add_again(client &client, const timer_record &old, const snapshot &view) {
  try {
    return "; it is as it was, as timer " + std::to_string(add_to_set(client, old, view));
  } catch (const failure &) {
    return "; timer " + std::to_string(old.id) + " is cancelled and could not be added again";
  }
}

// The list is full: the daemon would remove another timer for the new one.
static int change_in_full_list(client &client, const timer_record &old, const timer_record &timer,
                               const snapshot &view, bool is_due) {
  if (is_due)
    throw failure{std::string(kNotChanged) + ": timer " + std::to_string(old.id) +
                      " is due within a minute, and the list is full",
                  "change it once it has fired"};
  cancel_one(client, old.id);
  try {
    return add_to_set(client, timer, view);
  } catch (failure &refused) {
    refused.what += add_again(client, old, view);
    throw;
  }
}

static int change_by_adding(client &client, int old_id, const timer_record &timer,
                            const snapshot &view) {
  const int id = add_to_set(client, timer, view);
  // Replacing an equal timer may have removed the old one already.
  if (client.call_int("cancel_timer", {old_id}) != 0 && client.timer(old_id))
    throw failure{"timer " + std::to_string(id) + " is added, but timer " + std::to_string(old_id) +
                      " could not be cancelled",
                  kLogHint};
  return id;
}

static snapshot without(int id, snapshot view) {
  view.armed.erase(id);
  std::erase_if(view.timers, [id](const timer_record &timer) { return timer.id == id; });
  return view;
}

int change_in_set(client &client, const timer_record &old, const timer_record &timer,
                  const snapshot &view) {
  const snapshot others = without(old.id, view); // the old timer stands in nobody's way
  check_room(timer, others, false, kNotChanged);
  const auto armed = armed_for(old.id, view);
  const bool is_due = armed && *armed - view.now.set <= kSoonDue;
  return evicted_by(timer, view) != nullptr ? change_in_full_list(client, old, timer, view, is_due)
                                            : change_by_adding(client, old.id, timer, view);
}

void change_timer(client &client, const options &given) {
  const int old_id = id_of(given.words.at(0));
  if (!given.at && !given.type && !given.priority && !given.holidays && !given.clock &&
      given.days.empty())
    throw usage("change needs what to change", "give --at, --on, --type or another option of add");
  const snapshot view = client.look();
  const timer_record *old = find_timer(view.timers, old_id);
  if (old == nullptr)
    throw no_such_timer(old_id);
  const timer_record timer = requested(given, view, *old);
  const std::string place = "the place of timer " + std::to_string(old_id);
  const snapshot others = without(old_id, view);
  if (given.check) {
    check_room(timer, others, false, kNotChanged);
    return tell_checked(given, timer, others, "This timer would take " + place + ":");
  }
  const int id = change_in_set(client, *old, timer, view);
  tell_added(client, given, id, "Timer " + std::to_string(id) + " takes " + place + ".", timer,
             others);
}

// --- cancel ---

// Where somebody sits at a terminal.
static void ask_before(std::size_t count) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0)
    return;
  std::fprintf(stderr, "Cancel %s? [y/N] ", plural(count, "timer").c_str());
  char answer[64] = {};
  if (std::fgets(answer, sizeof answer, stdin) == nullptr)
    answer[0] = '\0';
  g_autofree char *word = g_ascii_strdown(g_strstrip(answer), -1);
  if (std::string_view(word) != "y" && std::string_view(word) != "yes")
    throw failure{"nothing is cancelled", ""};
}

void cancel_timers(client &client, const options &given) {
  const auto timers = client.timers();
  const auto ids = timers_of(timers, given, "cancel");
  if (ids.empty() && !given.json)
    return say(false, {}, "No timers.");
  if (given.all && !ids.empty())
    ask_before(ids.size());
  for (const int id : ids) {
    cancel_one(client, id);
    say(given.json, {{"cancelled", id}, {"timer", exported(*find_timer(timers, id))}},
        "Timer " + std::to_string(id) + " is cancelled.",
        id == ids.back() ? notes_on_disk() : std::vector<std::string>());
  }
}
