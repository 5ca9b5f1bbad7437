#include "fixture.h"

#include "dravel-manager.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

std::string armed(int timer_id) {
  void *handle = g_hash_table_lookup(scheduled_timer_table, GINT_TO_POINTER(timer_id));
  const loop_timer *timer = find_timer(handle);
  EXPECT_EQ(handle != nullptr, timer != nullptr) << "armed with a timer that has ended";
  return timer == nullptr ? ""
                          : time_text(standin_tv_clock() + static_cast<time_value>(timer->seconds));
}

void set_clocks(const std::string &tv, const std::string &system, const std::string &rtc) {
  set_system_clock(time_of(system)); // which the others follow while they run
  standin_set_tv_clock(time_of(tv));
  standin_set_rtc(time_of(rtc));
}

void set_now(const std::string &when) { set_clocks(when, when, when); }

dravel_item *make(const new_timer &timer) {
  const std::tm tm = broken_down(timer.when);
  return create_dravel_item(timer.type, timer.priority, 0, tm.tm_year, tm.tm_mon, tm.tm_mday,
                            tm.tm_hour, tm.tm_min, tm.tm_sec,
                            timer.wday == kDatesOwn ? tm.tm_wday : timer.wday, tm.tm_yday, 0, 0,
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

disabled_period_item *add_period(const std::string &start, const std::string &end, int start_leap,
                                 int end_leap) {
  auto *period = static_cast<disabled_period_item *>(std::calloc(1, sizeof(disabled_period_item)));
  *period = {broken_down(start), broken_down(end), start_leap, end_leap, 0};
  EXPECT_NE(add_disabled_period_item(period), nullptr);
  return period;
}

std::string next(const dravel_item *item) {
  std::tm expire{};
  const int result = get_next_expire_date(item, &expire);
  return result == 0 ? time_text(expire) : std::to_string(result);
}

std::string ids(Eina_List *timers) {
  std::string out;
  for (; timers != nullptr; timers = timers->next)
    out += (out.empty() ? "" : " ") +
           std::to_string(static_cast<dravel_item *>(timers->data)->timer_id);
  return out;
}

words call(const char *method, std::span<const int> arguments) {
  const auto found = std::ranges::find(bound_methods(), method, &bound_method::name);
  const message request = request_with(kDaemon, method, arguments);
  dbus_message_set_serial(request.get(), 1);
  const message reply(found->handler(nullptr, request.get()));
  if (found->reply_signature == "iay")
    return image_of(reply);
  return {int_of(reply)};
}

static std::string formatted(const standin_request &request) {
  const auto &[operation, first, second] = request;
  if (operation.starts_with("dravel_"))
    return operation + " " + std::to_string(static_cast<int>(first));
  return operation + " " + std::to_string(first) + " " +
         (operation == "set_wakeup_time" ? time_text(second) : std::to_string(second));
}

static std::string taken(bool with_signals) {
  std::string out;
  for (const standin_request &request : std::exchange(standin().requests, {}))
    if (with_signals || !request.operation.starts_with("dravel_"))
      out += (out.empty() ? "" : "; ") + formatted(request);
  return out;
}

std::string requests() { return taken(false); }

std::string events() { return taken(true); }

std::string subscriptions() {
  std::string out;
  for (const std::string name :
       {"poweroff", "standby", "wakeup", "ambient_poweroff", "state_changed_event", "signal"})
    for (int left = standin_subscribers(name.c_str()); left > 0; --left)
      out += (out.empty() ? "" : " ") + name;
  return out;
}

void close_and_empty_store() {
  EXPECT_EQ(close_dravel_db(), 0);
  empty_store();
}

// What is open besides is closed by those who open it.
static long open_files() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

static long files_before;

void clear_set() {
  files_before = open_files();
  standin_reset();
  standin_run_clocks(false);
  set_now(kNoon);
  empty_store();
}

void begin_clean_set() {
  clear_set();
  EXPECT_EQ(start_dravel(), 0);
}

// A new store, in which rows can be deleted. The polls for a readable clock end only when it is
// readable; every other main-loop timer has an owner.
void end_clean_set() {
  standin().refused.clear();
  close_and_empty_store();
  EXPECT_EQ(initialize_dravel_db(), 0);
  while (get_dravel_list() != nullptr) {
    auto *item = static_cast<dravel_item *>(get_dravel_list()->data);
    cancel_ecore_timer(item->timer_id);
    const Eina_List *left = remove_dravel_item(item);
    EXPECT_EQ(left, get_dravel_list());
  }
  while (get_disabled_period_list() != nullptr)
    remove_disabled_period_item(
        static_cast<disabled_period_item *>(get_disabled_period_list()->data));
  EXPECT_EQ(g_hash_table_size(scheduled_timer_table), 0U);
  run_idle_steps();
  stop_dravel();
  EXPECT_TRUE(scheduled_timer_table == nullptr && cb_data_table == nullptr);
  EXPECT_EQ(open_files(), files_before);
  EXPECT_EQ(subscriptions(), "");
  reset_runtime_state();
  state_changes();
  EXPECT_EQ(pending(wait_cur_time_cb), static_cast<int>(live_timers().size()));
  forget_timers();
  logged();
  set_system_clock(0);
}

void start_again(const std::string &tv) {
  constexpr const char *kKept = "/run/bench/kept.db";
  constexpr auto kOverwrite = std::filesystem::copy_options::overwrite_existing;
  std::filesystem::copy_file(kDravelDbPath, kKept, kOverwrite);
  end_clean_set();
  clear_set();
  std::filesystem::copy_file(kKept, kDravelDbPath, kOverwrite);
  set_clocks(tv, kNoon, kNoon);
  EXPECT_EQ(start_dravel(), 0);
}

void CleanSet::restart(const std::string &row) {
  end_clean_set();
  begin_clean_set();
  trace_.emplace(__FILE__, __LINE__, row);
}
