#include "fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <dlfcn.h>
#include <glib.h>

#include "kinto-signal-subscribe.h"

struct loop_timer {
  Ecore_Timer *handle;
  double seconds;
  Ecore_Task_Cb callback;
  void *data;
};

static std::vector<loop_timer> live_timers;
static std::time_t system_clock; // 0: the machine's own

extern "C" {

std::time_t time(std::time_t *out) noexcept {
  timespec now{system_clock, 0};
  if (system_clock == 0)
    clock_gettime(CLOCK_REALTIME, &now);
  return out == nullptr ? now.tv_sec : *out = now.tv_sec;
}

Ecore_Timer *ecore_timer_add(double seconds, Ecore_Task_Cb callback, const void *data) {
  static const auto real =
      reinterpret_cast<decltype(&ecore_timer_add)>(dlsym(RTLD_NEXT, "ecore_timer_add"));
  Ecore_Timer *handle = real(seconds, callback, data);
  live_timers.push_back({handle, seconds, callback, const_cast<void *>(data)});
  return handle;
}

void *ecore_timer_del(Ecore_Timer *timer) {
  static const auto real =
      reinterpret_cast<decltype(&ecore_timer_del)>(dlsym(RTLD_NEXT, "ecore_timer_del"));
  const auto ended = [=](const loop_timer &live) { return live.handle == timer; };
  if (std::erase_if(live_timers, ended) == 1)
    return real(timer);
  ADD_FAILURE() << "a main-loop timer is deleted that has already ended";
  return nullptr;
}
}

int pending(Ecore_Task_Cb callback) {
  return static_cast<int>(std::ranges::count(live_timers, callback, &loop_timer::callback));
}

bool run(Ecore_Task_Cb callback) {
  const auto found = std::ranges::find(live_timers, callback, &loop_timer::callback);
  if (found == live_timers.end()) {
    ADD_FAILURE() << "no such main-loop timer";
    return false;
  }
  const loop_timer timer = *found;
  const bool again = timer.callback(timer.data);
  if (!again)
    ecore_timer_del(timer.handle);
  return again;
}

std::string armed(int timer_id) {
  void *handle = g_hash_table_lookup(scheduled_timer_table, GINT_TO_POINTER(timer_id));
  const auto found = std::ranges::find(live_timers, handle, &loop_timer::handle);
  EXPECT_EQ(handle != nullptr, found != live_timers.end()) << "armed with a timer that has ended";
  return found == live_timers.end()
             ? ""
             : text(standin_tv_clock() + static_cast<time_value>(found->seconds));
}

std::tm broken_down(const char *when) {
  std::tm tm{};
  const std::string full = when[4] == '-' ? when : std::string("2026-12-") + when;
  EXPECT_GE(std::sscanf(full.c_str(), "%d-%d-%d %d:%d:%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                        &tm.tm_hour, &tm.tm_min, &tm.tm_sec),
            5);
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  std::tm normal = tm;
  timegm(&normal);
  tm.tm_wday = normal.tm_wday;
  tm.tm_yday = normal.tm_yday;
  return tm;
}

time_value at(const char *when) {
  std::tm tm = broken_down(*when == '\0' ? "1970-01-01 00:00" : when);
  return static_cast<time_value>(timegm(&tm));
}

std::string text(const std::tm &time) {
  char out[100];
  std::strftime(out, sizeof out, time.tm_sec == 0 ? "%F %H:%M" : "%F %T", &time);
  const std::string full = out;
  return full.starts_with("2026-12-") ? full.substr(8) : full;
}

std::string text(time_value time) {
  const std::time_t value = time;
  std::tm tm{};
  return text(*gmtime_r(&value, &tm));
}

void set_clocks(const char *tv, const char *system, const char *rtc) {
  standin_set_tv_clock(at(tv));
  standin_set_rtc(at(rtc));
  system_clock = at(system);
}

void set_now(const char *when) { set_clocks(when, when, when); }

dravel_item *make(const new_timer &timer) {
  const std::tm tm = broken_down(timer.when);
  return create_dravel_item(timer.type, timer.priority, 0, tm.tm_year, tm.tm_mon, tm.tm_mday,
                            tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday, tm.tm_yday, 0, 0,
                            timer.week_flag, timer.effect, timer.time_type);
}

dravel_item *add(const new_timer &timer) {
  dravel_item *item = make(timer);
  EXPECT_NE(add_dravel_item(item), nullptr);
  return item;
}

dravel_item *arm(const new_timer &timer) {
  dravel_item *item = add(timer);
  EXPECT_EQ(schedule_dravel_item(item, dravel_expire_cb, nullptr), SCHEDULE_ARMED);
  return item;
}

disabled_period_item *add_period(const char *start, const char *end, int start_leap, int end_leap) {
  auto *period = static_cast<disabled_period_item *>(std::calloc(1, sizeof(disabled_period_item)));
  *period = {broken_down(start), broken_down(end), start_leap, end_leap, 0};
  EXPECT_NE(add_disabled_period_item(period), nullptr);
  return period;
}

std::string next(const dravel_item *item) {
  std::tm expire{};
  const int result = get_next_expire_date(item, &expire);
  return result == 0 ? text(expire) : std::to_string(result);
}

std::string ids(Eina_List *timers) {
  std::string out;
  for (; timers != nullptr; timers = timers->next)
    out += (out.empty() ? "" : " ") +
           std::to_string(static_cast<dravel_item *>(timers->data)->timer_id);
  return out;
}

std::string asked() {
  std::string out;
  for (const auto &[operation, first, second] : std::exchange(standin().requests, {}))
    out += (out.empty() ? "" : "; ") + operation + " " + std::to_string(first) + " " +
           (operation == "set_wakeup_time" ? text(second) : std::to_string(second));
  return out;
}

static void open_new_store() {
  close_dravel_db();
  for (const char *path : {kMainDb, kWakeupDb, "/tmp/dravel_init", "/tmp/dravel_finish"})
    std::filesystem::remove_all(path);
  ASSERT_EQ(initialize_dravel_db(), 0) << "run through scripts/sandbox";
}

void CleanSet::SetUp() {
  live_timers.clear();
  standin_reset();
  standin_run_clocks(false);
  set_now(kNoon);
  init_hash_table();
  open_new_store();
  load_wakeup_timer();
}

// Some of the daemon's timers end only as the set ends them: the retry by a switch to manual mode,
// the waits by a time update.
void CleanSet::TearDown() {
  standin().refused.clear();
  open_new_store();
  while (get_dravel_list() != nullptr) {
    auto *item = static_cast<dravel_item *>(get_dravel_list()->data);
    cancel_ecore_timer(item->timer_id);
    remove_dravel_item(item);
  }
  while (get_disabled_period_list() != nullptr)
    remove_disabled_period_item(
        static_cast<disabled_period_item *>(get_disabled_period_list()->data));
  init_settings_handler();
  standin_change_clock_mode(CLOCK_MODE_MANUAL);
  set_now(kNoon);
  standin().power_state = 0;
  set_kinto_time_updated(0);
  auto_time_set();
  while (!live_timers.empty())
    ecore_timer_del(live_timers.back().handle);
  unsubscribe_kinto_signal_cb();
  ambient_poweroff_received = false;
  set_relaunch_state(0);
  set_wakeup_state(1);
  ontimer_halt = offtimer_halt = 0;
  micom_ontimer = {0, 0, 0, TIMER_TYPE_ONTIMER_MAX + 1, 0};
  fini_hash_table();
  close_dravel_db();
  take_timer_changes();
  system_clock = 0;
}

void CleanSet::restart(const std::string &row) {
  TearDown();
  SetUp();
  trace.emplace(__FILE__, __LINE__, row);
}
