#include "scenario.h"

#include "dravel-edbus.h"
#include "dravel-list.h"

#include <due_timers.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>

static std::string result; // of the last step that has one

void begin_scenario() {
  end_clean_set();
  begin_clean_set();
}

// --- steps ---

static int number(arguments a, std::size_t index) {
  return index < a.size() ? std::stoi(a[index]) : 0;
}

static constexpr auto kDays = &new_timer::week_flag;

static const std::map<std::string_view, std::pair<int new_timer::*, int>> kFields = {
    {"sun", {kDays, kSun}},
    {"mon", {kDays, kMon}},
    {"tue", {kDays, kTue}},
    {"wed", {kDays, kWed}},
    {"thu", {kDays, kThu}},
    {"fri", {kDays, kFri}},
    {"daily", {kDays, kDaily}},
    {"days", {kDays, 0}},
    {"holidays", {&new_timer::effect, 1}},
    {"system", {&new_timer::time_type, TIME_TYPE_INTERNET}},
    {"rtc", {&new_timer::time_type, TIME_TYPE_RTC}},
    {"priority", {&new_timer::priority, 0}},
    {"wday", {&new_timer::wday, 0}}};

// As in "0 '16 07:00' tue wed holidays priority=4".
static new_timer timer_of(arguments a) {
  new_timer timer{number(a, 0), a[1]};
  for (const std::string &word : a.subspan(2)) {
    const std::string name = word.substr(0, word.find('='));
    const auto [field, value] = find_word(kFields, name);
    timer.*field = name == word ? timer.*field | value : std::stoi(word.substr(name.size() + 1));
  }
  return timer;
}

static dravel_item *item_of(arguments a) {
  dravel_item *item = find_dravel_item(std::stoi(a.empty() ? last_id : a[0]));
  return item != nullptr ? item : throw std::runtime_error("no such timer is listed");
}

static void call_method(const std::string &method, std::span<const int> values) {
  text_list reply;
  for (const int word : call(method.c_str(), values))
    reply.push_back(std::to_string(word));
  result = joined(reply, " ");
  if (method == "schedule_timer")
    last_id = result;
}

static void program(arguments a) {
  const std::tm ontime = broken_down(a[1]);
  result = std::to_string(schedule_micom_ontimer(
      number(a, 0), &ontime, static_cast<unsigned>(number(a, 2)), number(a, 3)));
}

static void can_skip(arguments a) {
  const std::tm standby = broken_down(a[0]);
  result = std::to_string(can_skip_standby(&standby, number(a, 1)));
}

// The main file, or one beside it.
static std::filesystem::path file_of(arguments a) {
  const std::filesystem::path main = kDravelDbPath;
  return a.empty() ? main : main.parent_path() / a[0];
}

// What it prints beside the main file, on one line.
static void shell(arguments a) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> out(
      popen(("cd " + file_of({}).parent_path().string() + ";" + a[0]).c_str(), "r"), pclose);
  std::string text(1000, ' ');
  text.resize(std::fread(text.data(), 1, text.size(), out.get()));
  std::istringstream in(text);
  result = joined({std::istream_iterator<std::string>(in), {}}, " ");
}

// The timers due between two times, at most the given number, as "id/type time".
static void due(arguments a) {
  std::array<due_timer, 8> timers{};
  const std::size_t room = a.size() > 2 ? std::stoul(a[2]) : timers.size();
  const std::size_t count = dravel_due_timers(time_of(a[0]), time_of(a[1]), timers.data(), room);
  text_list texts;
  for (const auto &[id, type, time] : std::span(timers).first(count))
    texts.push_back(std::to_string(id) + "/" + std::to_string(type) + " " + time_text(time));
  result = joined(texts, ", ");
}

static const std::map<std::string_view, Ecore_Task_Cb> kWaits = {{"finish", wait_dravel_finish_cb},
                                                                 {"adjust", adjust_wait_timer_cb},
                                                                 {"retry", retry_adjust_all_timers},
                                                                 {"clock", wait_cur_time_cb}};

static const loop_timer &last_timer() { return *live_timers().at(live_timers().size() - 1); }

using step_fn = void (*)(arguments a);

static const std::map<std::string_view, step_fn> kSteps = {
    // the set's clocks
    {"now", [](arguments a) { set_now(a[0]); }},
    {"tv", [](arguments a) { standin_set_tv_clock(time_of(a[0])); }},
    {"clocks", [](arguments a) { set_clocks(a[0], a[1], a[2]); }},
    {"zone", [](arguments a) { standin_set_time_zone(a[0].c_str()); }},
    {"time_set", [](arguments) { standin_announce_time_set(); }},
    {"switch_mode", [](arguments a) { standin_change_clock_mode(number(a, 0)); }},
    {"signal", [](arguments a) { standin_middleware_signal(number(a, 0)); }},
    // its record, what it refuses, what it tells
    {"mode", [](arguments a) { standin().clock_mode = number(a, 0); }},
    {"power", [](arguments a) { standin().power_state = number(a, 0); }},
    {"ambient", [](arguments a) { standin().ambient_mode = number(a, 0); }},
    {"reason", [](arguments a) { standin().wakeup_reason = number(a, 0); }},
    {"sync", [](arguments a) { standin().sync_db = number(a, 0); }},
    {"refuse",
     [](arguments a) {
       standin().refused = {a.begin(), a.end()};
     }},
    {"off", [](arguments a) { standin_power_off(number(a, 0)); }},
    {"standby", [](arguments) { standin_standby(0); }},
    {"ambient_off", [](arguments) { standin_ambient_power_off(); }},
    {"wake", [](arguments) { standin_wakeup(3); }},
    {"state", [](arguments a) { standin_state_changed(number(a, 0), number(a, 1)); }},
    // timers and periods
    {"add", [](arguments a) { last_id = std::to_string(add(timer_of(a))->timer_id); }},
    {"arm", [](arguments a) { last_id = std::to_string(arm(timer_of(a))->timer_id); }},
    {"schedule",
     [](arguments a) {
       result = std::to_string(schedule_dravel_item(item_of(a), dravel_expire_cb, nullptr));
     }},
    {"cancel", [](arguments a) { cancel_dravel_item(item_of(a)); }},
    {"disarm", [](arguments a) { cancel_ecore_timer(number(a, 0)); }},
    {"mark", [](arguments a) { set_micom_flag(number(a, 0)); }},
    {"woken_by", [](arguments a) { set_wakeup_timer(item_of(a)); }},
    {"period", [](arguments a) { add_period(a[0], a[1], number(a, 2), number(a, 2)); }},
    {"next", [](arguments a) { result = next(item_of(a)); }},
    {"skip", can_skip},
    {"holiday",
     [](arguments a) { result = std::to_string(can_skip_timer(item_of({}), time_of(a[0]))); }},
    {"take", [](arguments a) { call_method("schedule_timer", arguments_of(timer_of(a))); }},
    {"due", due},
    {"call",
     [](arguments a) {
       std::vector<int> values(a.size() - 1);
       std::ranges::transform(a.subspan(1), values.begin(),
                              [](auto &word) { return std::stoi(word); });
       call_method(a[0], values);
     }},
    // what the daemon does with them
    {"init", [](arguments) { init_dravel(); }},
    {"load", [](arguments) { result = ids(load_dravel_list()); }},
    {"load_periods", [](arguments) { load_disabled_period_list(); }},
    {"load_wakeup", [](arguments) { load_wakeup_timer(); }},
    {"start_bus", [](arguments) { result = std::to_string(init_edbus_handler()); }},
    {"stop_bus", [](arguments) { shutdown_edbus_handler(); }},
    {"start_again", [](arguments a) { start_again(a[0]); }},
    {"adjust", [](arguments) { adjust_dravel_all_items(nullptr, nullptr); }},
    {"reschedule", [](arguments) { reschedule_all_timers(); }},
    {"sort", [](arguments) { rebuild_onoff_timer_lists(); }},
    {"program", program},
    {"unprogram", [](arguments) { disable_micom_ontimer(); }},
    {"update_ontime", [](arguments) { update_micom_ontimer(); }},
    {"expire", [](arguments a) { dravel_expire_cb(item_of(a), nullptr); }},
    {"trusted", [](arguments a) { set_kinto_time_updated(number(a, 0)); }},
    {"awake", [](arguments a) { set_wakeup_state(number(a, 0)); }},
    {"updated", [](arguments a) { set_auto_clock_mode_time_update(number(a, 0)); }},
    {"relaunched", [](arguments a) { set_relaunch_state(number(a, 0)); }},
    // the store; "read_only": from now on writes are refused
    {"sql", [](arguments a) { result = rows(a[0], file_of(a.subspan(1)).c_str()); }},
    {"read_only", [](arguments) { reset_dravel_db(); }},
    {"close_store", [](arguments) { close_dravel_db(); }},
    {"open_store", [](arguments) { result = std::to_string(initialize_dravel_db()); }},
    {"check", [](arguments a) { result = std::to_string(integrity_check(file_of(a).c_str())); }},
    {"make", [](arguments a) { result = std::to_string(make_db_file_manual(file_of(a).c_str())); }},
    {"shell", shell},
    // the main loop; "pass": its next pass, whose signals are forgotten, too
    {"fire", [](arguments a) { result = fire(find_word(kWaits, a[0])) ? "goes on" : "ended"; }},
    {"fire_at", [](arguments a) { set_now(a[0]), fire(ecore_timer_cb); }},
    {"elapse", [](arguments a) { pass(std::stod(a[0])); }},
    {"fire_last", [](arguments) { result = fire(last_timer()) ? "goes on" : "ended"; }},
    {"idle", [](arguments a) { run_idle_steps(a.empty() ? 1 : std::stod(a[0])); }},
    {"forget", [](arguments) { events(), logged(), logged_events(); }},
    {"pass", [](arguments) { state_changes(), events(), logged(); }},
};

void do_step(arguments step) { find_word(kSteps, step[0])(step.subspan(1)); }

// --- what is seen ---

// Of the timers in the order in which they were made; "-" for one that is not armed.
static std::string all_armed() {
  std::map<int, std::string> all;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    const std::string when = armed(item->timer_id);
    all[std::abs(item->timer_id)] = when.empty() ? "-" : when;
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
    state = timer->callback == ecore_timer_cb ? timer->made_while : state;
  return state;
}

static std::string text_of(double seconds) { return (std::ostringstream() << seconds).str(); }

static std::string all_waits() {
  text_list texts;
  for (const auto &[name, callback] : kWaits)
    for (const double seconds : waits(callback))
      texts.push_back(std::string(name) + " " + text_of(seconds));
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

static std::string woken_by() {
  const dravel_item *item = get_wakeup_timer();
  return item == nullptr ? "-" : std::to_string(item->timer_id);
}

static std::string files() {
  text_list names;
  for (const char *path : {kInitMarkerPath, kFinishMarkerPath, kDravelDbPath, kWakeupDbPath})
    if (std::filesystem::exists(path))
      names.push_back(std::filesystem::path(path).filename());
  return joined(names, " ");
}

static const std::map<std::string_view, std::string (*)()> kSeen = {
    {"is", [] { return result; }},
    {"armed", all_armed},
    {"timers", [] { return std::to_string(pending(ecore_timer_cb)); }},
    {"armed_while", armed_while},
    {"row", [] { return rows("SELECT tm_mday FROM dravel"); }},
    {"stored", [] { return rows("SELECT timer_id FROM dravel"); }},
    {"marked", [] { return rows("SELECT timer_id FROM dravel WHERE micom_flag = 1"); }},
    {"listed", [] { return ids(get_dravel_list()); }},
    {"on", [] { return ids(get_ontimer_list()); }},
    {"next", [] { return next(item_of({})); }},
    {"set", [] { return time_text(item_of({})->tm); }},
    {"chosen", chosen},
    {"programmed", programmed},
    {"woken_by", woken_by},
    {"asked", requests},
    {"events", events},
    {"told", state_changes},
    {"log", logged},
    {"levels", logged_levels},
    {"kept", logged_events},
    {"kept_text", last_logged_text},
    {"waits", all_waits},
    {"last_wait", [] { return text_of(last_timer().seconds); }},
    {"files", files},
    {"subscribed", subscriptions},
    {"trusted", [] { return std::to_string(get_kinto_time_updated()); }},
    {"awake", [] { return std::to_string(get_wakeup_state()); }},
    {"updated", [] { return std::to_string(get_auto_clock_mode_time_update()); }},
    {"relaunched", [] { return std::to_string(get_relaunch_state()); }},
};

std::string seen(const std::string &name) { return find_word(kSeen, name)(); }
