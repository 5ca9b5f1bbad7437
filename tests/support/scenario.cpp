#include "scenario.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string_view>

using arguments = std::span<const std::string>;
using text_list = std::vector<std::string>;

static int last_id;        // of the timer listed last
static std::string result; // of the last step that has one

// --- texts ---

static std::string joined(const text_list &parts, const char *separator) {
  std::string text;
  for (const std::string &part : parts)
    text += (text.empty() ? "" : separator) + part;
  return text;
}

// The words of each clause, without their quotes.
static std::vector<text_list> clauses_of(const std::string &scenario) {
  std::vector<text_list> clauses(1);
  bool quoted = false, inside = false; // a word
  for (const char letter : scenario) {
    const bool ends = !quoted && (letter == ' ' || letter == ';');
    if (!ends && !inside)
      clauses.back().emplace_back();
    inside = !ends;
    if (!quoted && letter == ';')
      clauses.emplace_back();
    else if (letter == '\'')
      quoted = !quoted;
    else if (!ends)
      clauses.back().back() += letter;
  }
  return clauses;
}

// --- steps ---

static int number(arguments given, std::size_t index, int missing = 0) {
  return index < given.size() ? std::stoi(given[index], nullptr, 0) : missing;
}

// As in "0 '16 07:00' tue wed holidays system priority=4": weekdays, whether holidays count, the
// clock, and other fields.
static new_timer timer_of(arguments given) {
  static const std::map<std::string, int, std::less<>> kDays = {
      {"sun", kSun}, {"mon", kMon}, {"tue", kTue}, {"wed", kWed},
      {"thu", kThu}, {"fri", kFri}, {"sat", kSat}, {"daily", kDaily}};
  new_timer timer{number(given, 0), given[1]};
  for (const std::string &word : given.subspan(2)) {
    const std::string field = word.substr(0, word.find('='));
    const int value = field == word ? 0 : std::stoi(word.substr(field.size() + 1));
    if (const auto day = kDays.find(word); day != kDays.end())
      timer.week_flag |= day->second;
    else if (word == "holidays")
      timer.effect = 1;
    else if (word == "system" || word == "rtc")
      timer.time_type = word == "rtc" ? TIME_TYPE_RTC : TIME_TYPE_INTERNET;
    else if (field == "days")
      timer.week_flag = value;
    else if (field == "priority")
      timer.priority = value;
    else if (field == "wday")
      timer.wday = value;
    else
      throw std::runtime_error("no such field of a timer: " + word);
  }
  return timer;
}

static dravel_item *item_of(arguments given) {
  dravel_item *item = find_dravel_item(number(given, 0, last_id));
  return item != nullptr ? item : throw std::runtime_error("no such timer is listed");
}

static void call_method(const std::string &method, std::span<const int> values) {
  text_list reply;
  for (const int word : call(method.c_str(), values))
    reply.push_back(std::to_string(word));
  result = joined(reply, " ");
  if (method == "schedule_timer" && result != "-1")
    last_id = std::stoi(result);
}

static void call_with_numbers(arguments given) {
  std::vector<int> values;
  for (std::size_t i = 1; i < given.size(); ++i)
    values.push_back(number(given, i));
  call_method(given[0], values);
}

static void program(arguments given) {
  const std::tm ontime = broken_down(given[1]);
  result = std::to_string(schedule_micom_ontimer(
      number(given, 0), &ontime, static_cast<unsigned>(number(given, 2)), number(given, 3)));
}

static void can_skip(arguments given) {
  const std::tm standby = broken_down(given[0]);
  result = std::to_string(can_skip_standby(&standby, number(given, 1)));
}

static const std::map<std::string_view, Ecore_Task_Cb> kWaits = {{"finish", wait_dravel_finish_cb},
                                                                 {"adjust", adjust_wait_timer_cb},
                                                                 {"retry", retry_adjust_all_timers},
                                                                 {"clock", wait_cur_time_cb}};

static void step(arguments given);

using step_fn = void (*)(arguments given);

static const std::map<std::string_view, step_fn> kSteps = {
    // the set's clocks
    {"now", [](arguments given) { set_now(given[0]); }},
    {"tv", [](arguments given) { standin_set_tv_clock(time_of(given[0])); }},
    {"clocks", [](arguments given) { set_clocks(given[0], given[1], given[2]); }},
    {"zone", [](arguments given) { standin_set_time_zone(given[0].c_str()); }},
    {"time_set", [](arguments) { standin_announce_time_set(); }},
    {"switch_mode", [](arguments given) { standin_change_clock_mode(number(given, 0)); }},
    {"signal", [](arguments given) { standin_middleware_signal(number(given, 0)); }},
    // its record, what it refuses, what it tells
    {"mode", [](arguments given) { standin().clock_mode = number(given, 0); }},
    {"power", [](arguments given) { standin().power_state = number(given, 0); }},
    {"ambient", [](arguments given) { standin().ambient_mode = number(given, 0); }},
    {"reason", [](arguments given) { standin().wakeup_reason = number(given, 0); }},
    {"sync", [](arguments given) { standin().sync_db = number(given, 0); }},
    {"refuse",
     [](arguments given) {
       standin().refused = {given.begin(), given.end()};
     }},
    {"off", [](arguments given) { standin_power_off(number(given, 0)); }},
    {"standby", [](arguments) { standin_standby(0); }},
    {"ambient_off", [](arguments) { standin_ambient_power_off(); }},
    {"wake", [](arguments) { standin_wakeup(3); }},
    {"state", [](arguments given) { standin_state_changed(number(given, 0), number(given, 1)); }},
    // timers and periods
    {"add", [](arguments given) { last_id = add(timer_of(given))->timer_id; }},
    {"arm", [](arguments given) { last_id = arm(timer_of(given))->timer_id; }},
    {"schedule",
     [](arguments given) {
       result = std::to_string(schedule_dravel_item(item_of(given), dravel_expire_cb, nullptr));
     }},
    {"cancel", [](arguments given) { cancel_dravel_item(item_of(given)); }},
    {"disarm", [](arguments given) { cancel_ecore_timer(number(given, 0)); }},
    {"period",
     [](arguments given) { add_period(given[0], given[1], number(given, 2), number(given, 2)); }},
    {"next", [](arguments given) { result = next(item_of(given)); }},
    {"sort", [](arguments) { rebuild_onoff_timer_lists(); }},
    {"skip", can_skip},
    {"holiday_test",
     [](arguments given) {
       result = std::to_string(can_skip_timer(item_of({}), time_of(given[0])));
     }},
    {"take", [](arguments given) { call_method("schedule_timer", arguments_of(timer_of(given))); }},
    {"call", call_with_numbers},
    // what the daemon does with them
    {"adjust", [](arguments) { adjust_dravel_all_items(nullptr, nullptr); }},
    {"reschedule", [](arguments) { reschedule_all_timers(); }},
    {"program", program},
    {"unprogram", [](arguments) { disable_micom_ontimer(); }},
    {"update_ontime", [](arguments) { update_micom_ontimer(); }},
    {"expire", [](arguments given) { dravel_expire_cb(item_of(given), nullptr); }},
    {"fire", [](arguments given) { result = fire(kWaits.at(given[0])) ? "goes on" : "ended"; }},
    {"fire_at", [](arguments given) { set_now(given[0]), fire(ecore_timer_cb); }},
    {"trusted", [](arguments given) { set_kinto_time_updated(number(given, 0)); }},
    {"awake", [](arguments given) { set_wakeup_state(number(given, 0)); }},
    {"updated", [](arguments given) { set_auto_clock_mode_time_update(number(given, 0)); }},
    {"relaunched", [](arguments given) { set_relaunch_state(number(given, 0)); }},
    // the store, the main loop, time
    {"sql", [](arguments given) { result = rows(given[0]); }},
    {"read_only", [](arguments) { reset_dravel_db(); }}, // from now on writes are refused
    {"close_store", [](arguments) { close_dravel_db(); }},
    {"load", [](arguments) { result = ids(load_dravel_list()); }},
    {"start_again", [](arguments given) { start_again(given[0]); }},
    {"idle", [](arguments) { run_idle_steps(); }},
    {"forget", [](arguments) { events(), logged(); }},
    // the end of the main loop's pass, and forget
    {"pass", [](arguments) { state_changes(), events(), logged(); }},
    {"times",
     [](arguments given) {
       for (int left = number(given, 0); left > 0; --left)
         step(given.subspan(1));
     }},
};

// --- what is seen ---

// Of the timers in the order in which they were made; "-" for one that is not armed.
static std::string all_armed() {
  std::map<unsigned, std::string> all;
  for (const Eina_List *node = get_dravel_list(); node != nullptr; node = node->next) {
    const int id = static_cast<const dravel_item *>(node->data)->timer_id;
    const std::string when = armed(id);
    all[static_cast<unsigned>(id < 0 ? -id : id)] = when.empty() ? "-" : when;
  }
  text_list texts;
  for (const auto &[id, when] : all)
    texts.push_back(when);
  return joined(texts, ", ");
}

// The state in which the last timer was armed.
static std::string armed_while() {
  std::string state;
  for (const auto &timer : live_timers())
    if (timer->callback == ecore_timer_cb)
      state = timer->made_while;
  return state;
}

static std::string all_waits() {
  text_list texts;
  for (const auto &[name, callback] : kWaits)
    for (const double seconds : waits(callback)) {
      std::ostringstream text;
      text << name << " " << seconds;
      texts.push_back(text.str());
    }
  return joined(texts, ", ");
}

static std::string chosen() {
  dravel_item *item = nullptr;
  std::tm expire{};
  const bool found = get_next_ontimer_not_overlap_with_offtimer(&item, &expire) == 0;
  return found ? std::to_string(item->timer_id) + " " + time_text(expire) : "-";
}

static std::string programmed() {
  const auto &[id, is_utc, ontime, type, priority] = micom_ontimer;
  return std::to_string(id) + " " + time_text(ontime) + (is_utc != 0 ? " utc" : "") + " type " +
         std::to_string(type) + " priority " + std::to_string(priority);
}

static std::string markers() {
  text_list names;
  for (const auto &[name, path] :
       {std::pair{"init", kInitMarkerPath}, {"finish", kFinishMarkerPath}})
    if (std::filesystem::exists(path))
      names.emplace_back(name);
  return joined(names, " ");
}

static const std::map<std::string_view, std::string (*)()> kSeen = {
    {"is", [] { return result; }},
    {"armed", all_armed},
    {"row", [] { return rows("SELECT tm_mday FROM dravel"); }},
    {"stored", [] { return rows("SELECT timer_id FROM dravel"); }},
    {"marked", [] { return rows("SELECT timer_id FROM dravel WHERE micom_flag = 1"); }},
    {"listed", [] { return ids(get_dravel_list()); }},
    {"on", [] { return ids(get_ontimer_list()); }},
    {"next", [] { return next(item_of({})); }},
    {"set", [] { return time_text(item_of({})->tm); }},
    {"chosen", chosen},
    {"programmed", programmed},
    {"woke",
     [] {
       return get_wakeup_timer() == nullptr ? "-" : std::to_string(get_wakeup_timer()->timer_id);
     }},
    {"asked", requests},
    {"events", events},
    {"told", state_changes},
    {"log", logged},
    {"waits", all_waits},
    {"timers", [] { return std::to_string(pending(ecore_timer_cb)); }},
    {"armed_while", armed_while},
    {"markers", markers},
    {"trusted", [] { return std::to_string(get_kinto_time_updated()); }},
    {"awake", [] { return std::to_string(get_wakeup_state()); }},
    {"updated", [] { return std::to_string(get_auto_clock_mode_time_update()); }},
};

// --- running ---

template <typename Table> static auto find(const Table &table, const std::string &name) {
  const auto found = table.find(name);
  return found != table.end() ? found->second : throw std::runtime_error("no such word: " + name);
}

static void step(arguments given) { find(kSteps, given[0])(given.subspan(1)); }

static void expect(const std::string &name, const std::string &expected, const std::string &after) {
  const std::string seen = find(kSeen, name)();
  const bool holds = expected.starts_with('~') ? seen.find(expected.substr(1)) != std::string::npos
                                               : seen == expected;
  if (!holds)
    ADD_FAILURE() << "after \"" << after << "\" \"" << name << "\" should be \"" << expected
                  << "\" and is \"" << seen << "\"";
}

static std::string with_last_id(const std::string &word) {
  return std::regex_replace(word, std::regex("@"), std::to_string(last_id));
}

static void run_clause(const text_list &given) {
  const auto arrow = std::ranges::find(given, "=>");
  text_list done(given.begin(), arrow);
  std::ranges::transform(done, done.begin(), with_last_id);
  step(done);
  const std::span expected(arrow, given.end());
  if (!expected.empty() && expected.size() % 2 == 0)
    throw std::runtime_error("nothing is expected of " + given.back());
  for (std::size_t i = 1; i < expected.size(); i += 2)
    expect(expected[i], with_last_id(expected[i + 1]), joined(done, " "));
}

// A line that is indented further goes on with the one before; one with a bar first is a row.
static text_list lines_of(const std::string &text) {
  text_list lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos || line[first] == '#')
      continue;
    if (first > 2 && line[first] != '|')
      lines.back() += " " + line.substr(first);
    else
      lines.push_back(line.substr(first));
  }
  return lines;
}

void run_scenarios(const std::string &lines, const std::source_location &where) {
  for (const std::string &scenario : lines_of(lines)) {
    end_clean_set();
    begin_clean_set();
    const testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), scenario);
    EXPECT_NE(scenario.find("=>"), std::string::npos) << "nothing is expected";
    try {
      for (const text_list &clause : clauses_of(scenario))
        run_clause(clause);
    } catch (const std::exception &error) {
      ADD_FAILURE() << error.what();
    }
  }
}

void run_scenarios(const std::string &pattern, const std::string &rows,
                   const std::source_location &where) {
  static const std::regex kBar(" *\\|( +|$)");
  for (const std::string &row : lines_of(rows)) {
    const std::sregex_token_iterator columns(row.begin(), row.end(), kBar, -1);
    std::string scenario = pattern;
    int number = 0;
    for (auto column = columns; column != std::sregex_token_iterator(); ++column)
      scenario =
          std::regex_replace(scenario, std::regex("\\$" + std::to_string(++number)), column->str());
    run_scenarios(std::regex_replace(scenario, std::regex("\\$[1-9]"), ""), where);
  }
}
