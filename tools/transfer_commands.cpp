// export, import: timers and holidays as JSON, which is added through the bus.
#include "commands.h"

#include <algorithm>
#include <fstream>
#include <iostream>

void export_timers(client &client, const options &) {
  const snapshot view = client.look();
  json timers = json::array();
  for (const timer_record &timer : view.timers)
    timers.push_back(json_of(timer, view));
  json holidays = json::array();
  for (const holiday &holiday : view.holidays)
    holidays.push_back(json_of(holiday));
  std::puts(json{{"timers", timers}, {"holidays", holidays}}.dump(1).c_str());
}

// --- reading; a json::exception says what is missing or of the wrong kind ---

static int number_of(const json &word, std::optional<int> (*parse)(const std::string &),
                     const char *name) {
  const auto number = parse(word.get<std::string>());
  if (!number)
    throw failure{std::string(name) + " " + word.dump() + " is not understood", ""};
  return *number;
}

static timer_record timer_of(const json &from) {
  timer_record timer{.type = from.at("type").get<int>(),
                     .priority = from.value("priority", 0),
                     .delay = from.value("delay", 0),
                     .holiday_effect = from.value("holidays", "ignore") == "skip" ? 1 : 0,
                     .clock =
                         number_of(from.value("clock", json("broadcast")), parse_clock, "clock")};
  if (!parse_type(std::to_string(timer.type)))
    throw failure{"type " + std::to_string(timer.type) + " is none from 0 to 254", ""};
  const auto at = parse_iso(from.at("at").get<std::string>());
  if (!at)
    throw failure{"at " + from.at("at").dump() + " is no time such as 2026-12-24T07:00:00", ""};
  timer.at = *at;
  for (const json &day : from.value("days", json::array()))
    timer.week_flag |= number_of(day, parse_days, "day");
  return timer;
}

static holiday_end end_of(const json &from) {
  const auto month = from.at("month").get<unsigned>();
  const auto day = from.at("day").get<unsigned>();
  if (!parse_date(std::to_string(month) + "-" + std::to_string(day)))
    throw failure{"month " + std::to_string(month) + ", day " + std::to_string(day) + " is no date",
                  ""};
  return {month, day, from.value("end_of_february", false)};
}

static std::string reason_of(const json::exception &error) {
  const std::string text = error.what();
  return text.substr(text.find("] ") + 2); // after the library's own number
}

static json read_file(const std::string &name) {
  try {
    if (name == "-")
      return json::parse(std::cin);
    std::ifstream file(name);
    if (!file.is_open())
      throw failure{"cannot read " + name + ": " + g_strerror(errno), ""};
    return json::parse(file);
  } catch (const json::exception &error) {
    throw failure{name + " is no JSON: " + reason_of(error),
                  "dravelctl export writes what is wanted"};
  } catch (const std::ios_base::failure &error) { // a directory opens but cannot be read
    throw failure{"cannot read " + name + ": " + error.code().message(), ""};
  }
}

// --- adding ---

static bool is_same(const timer_record &a, const timer_record &b) {
  const auto moment = [](const timer_record &timer) {
    return timer.week_flag == 0
               ? timer.at
               : civil_time(timer.at - std::chrono::floor<std::chrono::days>(timer.at));
  };
  return a.type == b.type && a.week_flag == b.week_flag && a.clock == b.clock &&
         moment(a) == moment(b);
}

static void import_timer(client &client, const json &from, bool force) {
  const timer_record timer = timer_of(from);
  const snapshot view = client.look();
  const auto same = std::ranges::find_if(
      view.timers, [&](const timer_record &other) { return is_same(timer, other); });
  if (same != view.timers.end())
    throw failure{"it is there already as timer " + std::to_string(same->id), ""};
  add_checked(client, timer, view, force);
}

static void import_holiday(client &client, const json &from) {
  const holiday period{.first = end_of(from.at("first")), .last = end_of(from.at("last"))};
  const auto text = [](const holiday &any) { return date_text(any.first) + date_text(any.last); };
  const snapshot view = client.look();
  for (const holiday &other : view.holidays)
    if (text(other) == text(period))
      throw failure{"they are there already as holidays " + std::to_string(other.id), ""};
  add_holiday(client, period, view.now.set);
}

namespace {

struct summary {
  std::size_t added = 0;
  json refused = json::array();
};

} // namespace

// Hands each element of the list `name` to `add` and keeps account.
template <typename Add>
static void import_each(const json &all, const char *name, summary &summary, Add add) {
  const json list = all.value(name, json::array());
  for (std::size_t i = 0; i < list.size(); ++i) {
    std::string why;
    try {
      add(list[i]);
      ++summary.added;
    } catch (const failure &failure) {
      why = failure.what;
    } catch (const json::exception &error) {
      why = reason_of(error);
    }
    if (!why.empty())
      summary.refused.push_back(
          {{"what", std::string(name) + "[" + std::to_string(i) + "]"}, {"why", why}});
  }
}

// Holidays go first, because they move timers.
void import_timers(client &client, const options &given) {
  const json all = read_file(given.words.at(0));
  if (!all.is_object() || !(all.contains("timers") || all.contains("holidays")))
    throw failure{given.words[0] + " holds neither timers nor holidays",
                  "dravelctl export writes what is wanted"};
  summary done;
  import_each(all, "holidays", done, [&](const json &from) { import_holiday(client, from); });
  import_each(all, "timers", done,
              [&](const json &from) { import_timer(client, from, given.force); });
  std::string text =
      std::to_string(done.added) + " added, " + std::to_string(done.refused.size()) + " refused.";
  for (const json &refused : done.refused)
    text += "\n" + refused["what"].get<std::string>() + ": " + refused["why"].get<std::string>();
  say(given.json, {{"added", done.added}, {"refused", done.refused}}, text);
  if (!done.refused.empty())
    throw failure{"not everything was imported", ""};
}
