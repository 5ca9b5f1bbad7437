// status, halt, holidays, wakeup
#include "calendar.h"
#include "commands.h"

#include <algorithm>
#include <array>
#include <set>

using namespace std::chrono;

// --- status ---

static const char *halt_text(const snapshot &view) {
  if (view.halt_on != 0)
    return view.halt_off != 0 ? "on- and off-timers" : "on-timers";
  return view.halt_off != 0 ? "off-timers" : "nothing";
}

static std::string clock_state(const snapshot &view) {
  if (!view.clock_known)
    return "unknown";
  const std::string zone = moment_of(view.now.set, view).zone;
  return time_text(view.now.set) + " (" + zone + "), " +
         (view.clock_confirmed ? "confirmed" : "not confirmed since the set woke up");
}

static bool turns_on(int type) { return timer_type_of(type).action == timer_action::kTurnOn; }

static bool only_wakes(int type) { return is_ontimer_type(type) && !turns_on(type); }

static bool turns_off(int type) { return timer_type_of(type).action == timer_action::kTurnOff; }

// The armed timer with the next firing of those whose type is such.
static const timer_record *next_of(bool (*is_such)(int type), const snapshot &view) {
  const timer_record *next = nullptr;
  for (const timer_record &timer : view.timers)
    if (is_such(timer.type) && view.armed.contains(timer.id) &&
        (next == nullptr || view.armed.at(timer.id) < view.armed.at(next->id)))
      next = &timer;
  return next;
}

static std::string count_text(const snapshot &view) {
  const std::string count = std::to_string(view.timers.size());
  const std::string limit = " of " + std::to_string(view.limit);
  if (view.timers.size() < view.limit)
    return count + limit;
  return count + (view.timers.size() == view.limit ? limit : "") + ", adding one removes another";
}

static std::string wakeup_text(const snapshot &view) {
  if (view.wakeup.id == 0)
    return "nothing";
  return "timer " + std::to_string(view.wakeup.id) + ", at " + time_text(view.wakeup.at) +
         (view.wakeup.is_utc ? " UTC" : "");
}

json json_of_status(const snapshot &view, const std::optional<timer_record> &woken_by,
                    const std::optional<machine_state> &machine) {
  const auto timer_or_null = [&](const timer_record *timer) {
    return timer != nullptr ? json_of(*timer, view) : json(nullptr);
  };
  json object;
  add_time(object, "clock", view.clock_known ? std::optional(view.now.set) : std::nullopt, view);
  object["clock_confirmed"] = view.clock_confirmed;
  object["halted"] = {{"on", view.halt_on != 0}, {"off", view.halt_off != 0}};
  object["timers"] = view.timers.size();
  object["limit"] = view.limit;
  object["full"] = view.timers.size() >= view.limit;
  object["next_on"] = timer_or_null(next_of(turns_on, view));
  object["next_wakeup"] = timer_or_null(next_of(only_wakes, view));
  object["next_off"] = timer_or_null(next_of(turns_off, view));
  object["wakeup"] = nullptr;
  if (view.wakeup.id != 0) {
    object["wakeup"] = {{"id", view.wakeup.id}, {"type", view.wakeup.type}};
    add_wakeup_time(object["wakeup"], view.wakeup, view);
  }
  object["woken_by"] = timer_or_null(woken_by ? &*woken_by : nullptr);
  object["machine"] = json_of(machine);
  object["problems"] = problems_of(view, machine);
  object["platform"] = view.platform;
  object["version"] = {{"dravel-manager", view.version}, {"dravelctl", DRAVEL_VERSION}};
  return object;
}

static std::string first_of(const std::vector<std::string> &problems) {
  return problems[0] + (problems.size() == 1 ? "" : " dravelctl check shows more.");
}

void show_status(client &client, const options &given) {
  const snapshot view = client.look_at_state(false);
  const auto woken_by = client.wakeup_timer();
  const auto machine = client.machine();
  if (given.json)
    return say(true, json_of_status(view, woken_by, machine), "");
  const auto next = [&](bool (*is_such)(int type)) {
    const timer_record *timer = next_of(is_such, view);
    return timer != nullptr ? next_text(*timer, view) + ": " + title_of(*timer) : "none";
  };
  const auto problems = problems_of(view, machine);
  if (!problems.empty())
    print_fields({{"Problem", first_of(problems)}});
  print_fields({
      {"Clock", clock_state(view)},
      {"Halted", halt_text(view)},
      {"Timers", count_text(view)},
      {"Next on", next(turns_on)},
      {"Next wake-up", next(only_wakes)},
      {"Next off", next(turns_off)},
      {"Wakes for", wakeup_text(view)},
      {"Woken by", woken_by ? title_of(*woken_by) : "no timer"},
  });
  if (machine)
    print_fields(fields_of(*machine, view.now.set));
  print_fields({{"Platform", view.platform},
                {"Version", "dravel-manager " + view.version + ", dravelctl " DRAVEL_VERSION}});
}

void show_wakeup(client &client, const options &given) {
  const auto timer = client.wakeup_timer();
  const snapshot view = client.look();
  if (given.json || !timer)
    return say(given.json, timer ? json_of(*timer, view) : json(nullptr), "No timer woke the set.");
  print_timer(*timer, view);
}

// --- halt ---

// "none" halts exactly what is named beside it.
void halt(client &client, const options &given) {
  constexpr std::pair<const char *, const char *> kKinds[] = {{"on", "request_halt_ontimers"},
                                                              {"off", "request_halt_offtimers"}};
  const std::set<std::string> words(given.words.begin(), given.words.end());
  const std::set<std::string> known{"on", "off", "both", "none"};
  for (const auto &word : words)
    if (!known.contains(word))
      throw usage("halt takes no " + word, "give on, off, both or none");
  for (const auto &[kind, method] : kKinds) {
    const bool is_named = words.contains(kind) || words.contains("both");
    if (is_named || words.contains("none"))
      client.call_int(method, {is_named ? 1 : 0});
  }

  const bus_message reply = client.call("request_get_timers_halt_effect", {0}, "ii");
  std::array<int, 2> halted{};
  sd_bus_message_read(reply.get(), "ii", &halted[0], &halted[1]);
  const auto state = [](int value) { return value != 0 ? "halted" : "active"; };
  say(given.json, {{"on", halted[0] != 0}, {"off", halted[1] != 0}},
      std::string(" On-timers: ") + state(halted[0]) + "\nOff-timers: " + state(halted[1]));
}

// --- holidays ---

void list_holidays(client &client, const options &given) {
  json list = json::array();
  std::vector<std::vector<std::string>> rows;
  for (const holiday &holiday : client.holidays()) {
    list.push_back(json_of(holiday));
    rows.push_back({std::to_string(holiday.id), date_text(holiday.first), date_text(holiday.last)});
  }
  if (given.json || rows.empty())
    return say(given.json, list, "No holidays.");
  print_table({"ID", "FIRST DAY", "LAST DAY"}, rows);
}

static holiday_end holiday_end_of(const std::string &text, bool end_of_february) {
  auto end = parse_date(text);
  if (!end)
    throw usage(text + " is no date of the year", "write month and day, as in 12-24");
  end->end_of_february = end_of_february && end->month == 2 && end->day >= 28;
  return *end;
}

static std::string armed_text(int id, const snapshot &view) {
  if (find_timer(view.timers, id) == nullptr)
    return "removed";
  const auto armed = armed_for(id, view);
  return armed ? "armed for " + time_text(*armed) : "not armed";
}

// A change of holidays arms all timers again, which moves and removes some.
changes changes_since(const snapshot &before, const snapshot &after) {
  changes found;
  for (const timer_record &timer : before.timers) {
    const std::string was = armed_text(timer.id, before);
    const std::string is = armed_text(timer.id, after);
    if (was == is)
      continue;
    std::string note = "Timer " + std::to_string(timer.id);
    found.notes.push_back(note.append(" is now ").append(is).append("; it was ").append(was) +=
                          '.');
    json moved{{"id", timer.id}};
    add_time(moved, "was", armed_for(timer.id, before), before);
    add_time(moved, "now", armed_for(timer.id, after), after);
    found.moved.push_back(moved);
  }
  return found;
}

static void say_with_changes(client &client, bool as_json, json about, const std::string &text,
                             const snapshot &before, std::vector<std::string> notes = {}) {
  const auto [changed, moved] = changes_since(before, client.look());
  notes.insert(notes.end(), changed.begin(), changed.end());
  about["moved"] = moved;
  say(as_json, about, text, notes);
}

bool runs_over_new_year(const holiday &holiday) {
  return std::pair(holiday.last.month, holiday.last.day) <
         std::pair(holiday.first.month, holiday.first.day);
}

int add_holiday(client &client, const holiday &holiday, civil_time now) {
  const year this_year = year_month_day(floor<days>(now)).year();
  const int id = client.call_int("request_set_disable_period", arguments_of(holiday, this_year));
  if (id == -1)
    throw not_stored("the holidays", "");
  return id;
}

bool remove_holiday(client &client, int id) {
  const bool was_there = client.call_int("request_remove_disabled_period", {id}) == 0;
  const auto left = client.holidays();
  if (std::ranges::find(left, id, &holiday::id) != left.end())
    throw not_stored("to remove holidays " + std::to_string(id), "");
  return was_there;
}

const holiday *find_same(const holiday &wanted, const std::vector<holiday> &holidays) {
  const auto found = std::ranges::find_if(
      holidays, [&](const holiday &other) { return date_text(other) == date_text(wanted); });
  return found != holidays.end() ? &*found : nullptr;
}

// The daemon compares month and day: what runs over the new year has two parts.
static std::vector<holiday> parts_of(const holiday &period) {
  if (!runs_over_new_year(period))
    return {period};
  return {{.first = period.first, .last = {.month = 12, .day = 31}},
          {.first = {}, .last = period.last}};
}

// A refusal names those that were added before it.
static int add_one_more(client &client, const holiday &part, civil_time now, const json &before) {
  try {
    return add_holiday(client, part, now);
  } catch (const failure &refused) {
    std::string added;
    for (const json &one : before)
      added += (added.empty() ? "; added before: holidays " : ", ") + one["id"].dump();
    throw failure{refused.what + added, refused.advice, refused.kind};
  }
}

static void let_all_skip(client &client, const snapshot &view) {
  for (const timer_record &timer : view.timers)
    if (timer.holiday_effect == 0)
      client.call_int("request_set_disable_period_effect", {timer.id, 1});
}

static std::vector<int> skipping_timers(const snapshot &view, bool all) {
  std::vector<int> ids;
  for (const timer_record &timer : view.timers)
    if ((all || timer.holiday_effect != 0) && timer.type != TIMER_TYPE_ALWAYS)
      ids.push_back(timer.id);
  std::ranges::sort(ids);
  return ids;
}

static std::string skipping_text(const std::vector<int> &ids) {
  std::string text = "Timers that skip them:";
  for (const int id : ids)
    text += " " + std::to_string(id);
  return text + (ids.empty() ? " none" : "");
}

static std::vector<std::string> notes_on_skipping(const options &given, const snapshot &view) {
  if (given.all || std::ranges::any_of(view.timers, &timer_record::holiday_effect))
    return {};
  return {"No timer skips holidays: dravelctl holidays skip ID lets one skip them."};
}

static holiday period_of(const options &given) {
  holiday period{.first = holiday_end_of(given.first_day, given.end_of_february)};
  period.last =
      given.last_day ? holiday_end_of(*given.last_day, given.end_of_february) : period.first;
  if (given.end_of_february && !period.first.end_of_february && !period.last.end_of_february)
    throw usage("--end-of-february needs 02-28 or 02-29 as one of the days");
  return period;
}

// Days that were exchanged leave few that are no holidays.
static void note_length(std::vector<std::string> &notes, const std::vector<holiday> &parts) {
  constexpr int kLongPeriod = 90;
  static constexpr year kPlainYear{2027};
  const auto day_of = [](const holiday_end &end) {
    return sys_days(kPlainYear / month(end.month) / day(end.day));
  };
  int length = 0;
  for (const holiday &part : parts)
    length += static_cast<int>((day_of(part.last) - day_of(part.first)).count()) + 1;
  if (length > kLongPeriod)
    notes.push_back("These are " + std::to_string(length) + " days of each year.");
}

void add_holidays(client &client, const options &given) {
  const auto parts = parts_of(period_of(given));
  const snapshot before = client.look();
  std::string text;
  std::string known;
  json added = json::array();
  json about;
  for (holiday part : parts) {
    if (const holiday *same = find_same(part, before.holidays)) {
      known += (known.empty() ? "these days are holidays " : " and ") + std::to_string(same->id);
      part.id = same->id;
    } else {
      part.id = add_one_more(client, part, before.now.set, added);
      added.push_back(json_of(part));
      text += "Holidays " + std::to_string(part.id) + " are added: " + date_text(part) + ".\n";
    }
    about = added.empty() ? json_of(part) : added[0];
  }
  if (added.empty() && !given.all)
    throw failure{"not added: " + known + " already", ""};
  if (added.empty())
    text = sentence(known + " already") + "\n";
  if (given.all) {
    let_all_skip(client, before);
    text += skipping_text(skipping_timers(before, true)) + "\n";
  }
  text.pop_back();
  about["added"] = added;
  auto notes = notes_on_skipping(given, before);
  note_length(notes, parts);
  say_with_changes(client, given.json, about, text, before, notes);
}

// --- holidays import ---

namespace {

struct named_holiday {
  holiday period;
  std::string name;
};

} // namespace

static holiday_end end_of(sys_days day) {
  const year_month_day date(day);
  return {unsigned(date.month()), unsigned(date.day()), false};
}

// Those that are not among `known`, each once.
static std::vector<named_holiday> new_ones_of(const std::vector<calendar_entry> &entries,
                                              std::vector<holiday> known) {
  std::vector<named_holiday> found;
  for (const calendar_entry &entry : entries)
    for (const holiday &part :
         parts_of({.first = end_of(entry.first), .last = end_of(entry.last)})) {
      if (find_same(part, known) != nullptr)
        continue;
      known.push_back(part);
      found.push_back({part, entry.name});
    }
  return found;
}

static std::string text_of(const named_holiday &holiday, bool is_check) {
  const std::string what =
      date_text(holiday.period) + (holiday.name.empty() ? "" : ", " + holiday.name);
  return is_check ? "Would be added: " + what + ".\n"
                  : "Holidays " + std::to_string(holiday.period.id) + " are added: " + what + ".\n";
}

void import_holidays(client &client, const options &given) {
  const std::string &file = given.words.at(0);
  const snapshot before = client.look();
  const sys_days today = floor<days>(before.now.set);
  const auto entries = read_calendar(contents_of(file), source_name(file), today,
                                     sys_days(year_month_day(today) + years(1)));
  json about{{"added", json::array()}};
  std::string text;
  for (named_holiday &wanted : new_ones_of(entries, before.holidays)) {
    if (!given.check)
      wanted.period.id = add_one_more(client, wanted.period, before.now.set, about["added"]);
    text += text_of(wanted, given.check);
    about["added"].push_back(json_of(wanted.period));
    about["added"].back()["name"] = wanted.name;
    if (given.check)
      about["added"].back()["id"] = nullptr;
  }
  if (given.all && !given.check)
    let_all_skip(client, before);
  const std::vector<int> skipping = skipping_timers(before, given.all);
  about["skipped_by"] = skipping;
  text += (text.empty() ? "All of them are there already.\n" : "") + skipping_text(skipping);
  auto notes = notes_on_skipping(given, before);
  notes.emplace_back("Holidays recur on the same days of every year: import those that move, such "
                     "as Easter, each year, and remove the old ones.");
  say_with_changes(client, given.json, about, text, before, notes);
}

void remove_holidays(client &client, const options &given) {
  const auto ids = ids_of(given.words, "dravelctl holidays list");
  snapshot before = client.look();
  for (const int id : ids)
    if (std::ranges::find(before.holidays, id, &holiday::id) == before.holidays.end())
      throw failure{"there are no holidays " + std::to_string(id),
                    "dravelctl holidays list shows those there are"};
  for (const int id : ids) {
    if (!remove_holiday(client, id))
      throw failure{"dravel-manager did not remove holidays " + std::to_string(id), kLogHint};
    say_with_changes(client, given.json, {{"removed", id}},
                     "Holidays " + std::to_string(id) + " are removed.", before);
    before = client.look();
  }
}

static void set_effect(client &client, const options &given, int effect) {
  snapshot before = client.look();
  const char *command = effect != 0 ? "holidays skip" : "holidays ignore";
  const auto ids = timers_of(before.timers, given, command);
  for (const int id : ids) {
    if (client.call_int("request_set_disable_period_effect", {id, effect}) != 0)
      throw no_such_timer(id);
    say_with_changes(
        client, given.json, {{"id", id}, {"holidays", effect != 0 ? "skip" : "ignore"}},
        "Timer " + std::to_string(id) + (effect != 0 ? " skips" : " ignores") + " holidays.",
        before, id == ids.back() ? notes_on_disk() : std::vector<std::string>());
    before = client.look();
  }
}

void skip_holidays(client &client, const options &given) { set_effect(client, given, 1); }

void ignore_holidays(client &client, const options &given) { set_effect(client, given, 0); }
