// export, import: timers and holidays as JSON, which is added through the bus.
#include "commands.h"
#include "judgement.h"

#include <glib.h>

#include <algorithm>
#include <climits>
#include <cstdio>

// Sorted, so that equal sets give equal files.
void export_timers(client &client, const options &) {
  std::vector<json> timers;
  for (const timer_record &timer : client.timers())
    timers.push_back(exported(timer));
  std::vector<json> holidays;
  for (const holiday &holiday : client.holidays()) {
    json object = json_of(holiday);
    object.erase("id");
    holidays.push_back(object);
  }
  for (auto *list : {&timers, &holidays})
    std::ranges::sort(*list, {}, [](const json &entry) { return entry.dump(); });
  std::puts(json{{"timers", timers}, {"holidays", holidays}}.dump(1).c_str());
}

// --- reading: a failure names the entry and the field ---

namespace {

// A value and its place in the file: "timers.json: timers[0]".
struct element {
  const json &value;
  std::string where;
};

} // namespace

static constexpr const char *kWanted = "dravelctl export writes what is wanted";

// Lists and objects are not printed: they may be nested deeply.
[[noreturn]] static void reject(const element &element, const std::string &wanted) {
  const json &value = element.value;
  const std::string text = value.is_object()  ? "an object"
                           : value.is_array() ? "a list"
                                              : value.dump(-1, ' ', true).substr(0, 40);
  throw failure{element.where + " is " + text + "; it must be " + wanted, kNothingChanged};
}

static element field_of(const element &of, const char *name) {
  if (!of.value.contains(name))
    throw failure{of.where + " has no " + name, kNothingChanged};
  return {of.value.at(name), of.where + "." + name};
}

// A misspelt name would leave the field at its default.
static void check_names(const element &of, const json &like) {
  if (!of.value.is_object())
    reject(of, "an object");
  for (const auto &[name, value] : of.value.items())
    if (!like.contains(name))
      throw failure{of.where + " has a field " + name + ", which dravelctl export does not write",
                    kNothingChanged};
}

static int number_of(const element &of, int least, int most) {
  std::optional<int> number;
  if (of.value.is_number())
    number = parse_int(of.value.dump());
  if (!number || *number < least || *number > most)
    reject(of, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
  return *number;
}

template <typename Parse> static auto word_of(const element &of, Parse parse, const char *wanted) {
  const auto value = of.value.is_string() ? parse(of.value.get<std::string>()) : std::nullopt;
  if (!value)
    reject(of, wanted);
  return *value;
}

static bool flag_of(const element &of) {
  if (!of.value.is_boolean())
    reject(of, "true or false");
  return of.value.get<bool>();
}

// When the timer fires: `time` for one that repeats, `at` for one that does not. In place of the
// other either is understood; the offset of an `at` counts only with its date.
static civil_time time_of(const element &of, const timer_record &timer,
                          std::vector<std::string> &notes) {
  const clocks now{civil_of(machine_time()), machine_time()};
  if (timer.week_flag == 0 && of.value.contains("time") && of.value.contains("at"))
    throw failure{of.where + " is for once and has both time and at", "leave out time"};
  if (of.value.contains("time"))
    return requested_time(
        {.time_of_day = word_of(field_of(of, "time"), parse_time_of_day, "such as 07:00")}, timer,
        now);
  time_request at = word_of(field_of(of, "at"), parse_moment, "such as 2026-12-24T07:00:00+01:00");
  if (timer.week_flag == 0)
    return requested_time(at, timer, now);
  if (at.offset)
    notes.push_back(of.where + ": it repeats at " + time_of_day_text(civil_time(at.time_of_day)) +
                    " of its clock; the offset of at is ignored.");
  return requested_time({.time_of_day = at.time_of_day}, timer, now);
}

static timer_record timer_of(const element &of, std::vector<std::string> &notes) {
  json known = json_of(timer_record(), snapshot());
  known.update(exported(timer_record()));
  known["time"] = nullptr;
  check_names(of, known);
  const auto given = [&](const char *name) { return of.value.contains(name); };
  timer_record timer{.type = number_of(field_of(of, "type"), 0, TIMER_TYPE_ONTIMER_MAX)};
  for (const auto &[name, field] :
       {std::pair{"priority", &timer.priority}, std::pair{"delay", &timer.delay}})
    if (given(name))
      *field = number_of(field_of(of, name), INT_MIN, INT_MAX);
  if (given("holidays"))
    timer.holiday_effect = word_of(field_of(of, "holidays"), parse_effect, "skip or ignore");
  if (given("clock"))
    timer.clock = word_of(field_of(of, "clock"), parse_clock, "broadcast, internet or rtc");
  if (given("days")) {
    const element days = field_of(of, "days");
    if (!days.value.is_array())
      reject(days, "a list of days");
    for (const json &day : days.value)
      timer.week_flag |= word_of({day, days.where}, parse_days, "a list such as [\"Mon\",\"Fri\"]");
  }
  timer.at = time_of(of, timer, notes);
  return timer;
}

static holiday_end end_of(const element &of) {
  check_names(of, json_of(holiday())["first"]);
  holiday_end end{.month = static_cast<unsigned>(number_of(field_of(of, "month"), 1, 12)),
                  .day = static_cast<unsigned>(number_of(field_of(of, "day"), 1, 31))};
  if (!parse_date(std::to_string(end.month) + "-" + std::to_string(end.day)))
    reject(field_of(of, "day"), "a day of that month");
  if (of.value.contains("end_of_february"))
    end.end_of_february = flag_of(field_of(of, "end_of_february"));
  return end;
}

static holiday holiday_of(const element &of, std::vector<std::string> &) {
  check_names(of, json_of(holiday()));
  const holiday period{.first = end_of(field_of(of, "first")),
                       .last = end_of(field_of(of, "last"))};
  if (runs_over_new_year(period))
    throw failure{of.where + " runs over the new year and matches no day", kNothingChanged};
  return period;
}

template <typename Record>
static std::vector<Record>
list_of(const element &all, const char *name, std::vector<std::string> &notes,
        Record (*record_of)(const element &, std::vector<std::string> &)) {
  std::vector<Record> records;
  if (!all.value.contains(name))
    return records;
  const element list{all.value.at(name), all.where + ": " + name};
  if (!list.value.is_array())
    reject(list, "a list");
  for (const json &entry : list.value)
    records.push_back(
        record_of({entry, list.where + "[" + std::to_string(records.size()) + "]"}, notes));
  return records;
}

std::string reason_of(const json::exception &error) {
  const std::string text = error.what();
  return text.substr(text.find("] ") + 2); // after the library's own number
}

static json parse(const std::string &text, const std::string &name) {
  try {
    return json::parse(text);
  } catch (const json::exception &error) {
    throw failure{name + " is no JSON: " + reason_of(error), kWanted};
  }
}

static int type_of(const element &of, std::vector<std::string> &) {
  return of.value.is_string() ? word_of(of, parse_type, "a type")
                              : number_of(of, 0, TIMER_TYPE_ONTIMER_MAX);
}

static void check_dates(const json &timers, const std::string &where) {
  for (std::size_t i = 0; i < timers.size(); ++i)
    if (timers[i].value("days", json::array()).empty() && !timers[i].contains("at"))
      throw failure{where + "[" + std::to_string(i) + "] is for once and has no date",
                    kNothingChanged};
}

timer_record read_timer(const json &value, const std::string &where,
                        std::vector<std::string> &notes) {
  return timer_of({value, where}, notes);
}

holiday read_holiday(const json &value, const std::string &where) {
  std::vector<std::string> notes;
  return holiday_of({value, where}, notes);
}

import_contents read_import_text(const std::string &text, const std::string &name, bool dated) {
  return read_import(parse(text, name), name, dated);
}

import_contents read_import(const json &all, const std::string &name, bool dated) {
  if (!all.is_object() || !(all.contains("timers") || all.contains("holidays")))
    throw failure{name + " holds neither timers nor holidays", kWanted};
  const element whole{all, name};
  check_names(whole, {{"timers", nullptr}, {"holidays", nullptr}, {"types", nullptr}});
  import_contents read;
  read.has_holidays = all.contains("holidays");
  read.has_timers = all.contains("timers");
  read.holidays = list_of(whole, "holidays", read.notes, holiday_of);
  read.timers = list_of(whole, "timers", read.notes, timer_of);
  const auto types = list_of(whole, "types", read.notes, type_of);
  read.types.insert(types.begin(), types.end());
  if (dated && read.has_timers)
    check_dates(all["timers"], name + ": timers");
  return read;
}

std::string source_name(const std::string &file) { return file == "-" ? "standard input" : file; }

static std::string standard_input() {
  std::string contents;
  char part[4096];
  while (const std::size_t size = std::fread(part, 1, sizeof part, stdin))
    contents.append(part, size);
  return contents;
}

// Without the library's streams, which would be most of the bridge.
std::string contents_of(const std::string &file) {
  if (file == "-")
    return standard_input();
  g_autofree char *contents = nullptr;
  gsize length = 0;
  g_autoptr(GError) error = nullptr;
  if (g_file_get_contents(file.c_str(), &contents, &length, &error) == FALSE) {
    const std::string reason = error->message;
    throw failure{"cannot read " + file + reason.substr(reason.rfind(": ")), ""};
  }
  return {contents, length};
}

import_contents read_import_file(const std::string &name, bool dated) {
  return read_import_text(contents_of(name), source_name(name), dated);
}

// --- adding ---

// At one time of one type: the second would only be in the way of the first.
static bool is_same(const timer_record &a, const timer_record &b) {
  const auto moment = [](const timer_record &timer) {
    return timer.week_flag == 0
               ? timer.at
               : civil_time(timer.at - std::chrono::floor<std::chrono::days>(timer.at));
  };
  return a.type == b.type && a.week_flag == b.week_flag && a.clock == b.clock &&
         moment(a) == moment(b);
}

namespace {

struct summary {
  std::size_t added = 0;
  json ids = json::array();
  std::vector<std::string> notes{};
  json refused = json::array();
};

} // namespace

// Returns the notes on the timer.
static std::vector<std::string> import_timer(client &client, const timer_record &timer, bool force,
                                             summary &summary) {
  const snapshot view = client.look();
  const auto same = std::ranges::find_if(
      view.timers, [&](const timer_record &other) { return is_same(timer, other); });
  if (same != view.timers.end() && exported(*same) == exported(timer))
    throw failure{"it is there already as timer " + std::to_string(same->id), ""};
  if (same != view.timers.end())
    throw failure{"timer " + std::to_string(same->id) +
                      " is of this type and for this time, and differs otherwise",
                  ""};
  check_room(timer, view, force);
  const int id = add_to_set(client, timer, view);
  ++summary.added;
  summary.ids.push_back(id);
  auto notes = notes_of_added(id, timer, view, client.look());
  note_eviction(notes, timer, view);
  return notes;
}

static std::vector<std::string> import_holiday(client &client, const holiday &period,
                                               summary &summary) {
  const snapshot view = client.look();
  if (const holiday *same = find_same(period, view.holidays))
    throw failure{"they are there already as holidays " + std::to_string(same->id), ""};
  add_holiday(client, period, view.now.set);
  ++summary.added;
  return {};
}

// Hands each record to `add` and keeps account.
template <typename Record, typename Add>
static void import_each(const std::vector<Record> &records, const char *name, summary &summary,
                        Add add) {
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::string what = std::string(name) + "[" + std::to_string(i) + "]";
    try {
      for (const std::string &note : add(records[i]))
        summary.notes.push_back(std::string(what).append(": ").append(note));
    } catch (const failure &failure) {
      if (failure.kind != fault::kRefused) // so will be all that follow
        throw;
      summary.refused.push_back({{"what", what}, {"why", failure.what}});
    }
  }
}

// Holidays go first, because they move timers.
static void import_all(client &client, const import_contents &wanted, bool force, summary &done) {
  import_each(wanted.holidays, "holidays", done,
              [&](const holiday &period) { return import_holiday(client, period, done); });
  import_each(wanted.timers, "timers", done,
              [&](const timer_record &timer) { return import_timer(client, timer, force, done); });
}

static void tell(bool as_json, const summary &done) {
  std::string text =
      std::to_string(done.added) + " added, " + std::to_string(done.refused.size()) + " refused.";
  for (const json &refused : done.refused)
    text += "\n" + refused["what"].get<std::string>() + ": " + refused["why"].get<std::string>();
  say(as_json, {{"added", done.added}, {"ids", done.ids}, {"refused", done.refused}}, text,
      done.notes);
}

failure rest_of_file(const failure &failure, bool as_json, json &refused) {
  if (!as_json)
    return failure;
  refused.push_back({{"what", "the rest"}, {"why", failure.what}});
  return {"", "", failure.kind};
}

void import_timers(client &client, const options &given) {
  const import_contents wanted = read_import_file(given.words.at(0));
  summary done{.notes = wanted.notes};
  try {
    import_all(client, wanted, given.force, done);
  } catch (const failure &failure) {
    if (done.added == 0 && done.refused.empty())
      throw;
    const auto rest = rest_of_file(failure, given.json, done.refused);
    tell(given.json, done);
    throw rest;
  }
  tell(given.json, done);
  if (!done.refused.empty())
    throw failure{given.json ? "" : "not everything was imported", ""};
}
