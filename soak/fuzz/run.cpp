#include "run.h"

#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-edbus.h"
#include "dravel-list.h"
#include "kinto-signal-subscribe.h"
#include "standin.h"

#include <KintoAPI.h>
#include <sanitizer/lsan_interface.h>
#include <sqlite3.h>
#include <system_log.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

static constexpr const char *kMarkers[] = {"/tmp/dravel_init", "/tmp/dravel_finish"};
static constexpr unsigned kInputsPerLeakCheck = 500;

// 2038, the wrap of the TV clock, 2106.
static constexpr time_value kLastSecondOf31Bits = 0x7fffffff;
static constexpr time_value kLastSecondOf2099 = 4102444799;

// Stack traces and everything that the sanitizers can look for, also without scripts/fuzz.
extern "C" const char *__asan_default_options() {
  return "detect_leaks=1:detect_stack_use_after_return=1";
}
extern "C" const char *__ubsan_default_options() { return "print_stacktrace=1"; }

// --- the log -------------------------------------------------------------------------------------

system_log_priority system_log_threshold = SYSTEM_LOG_ERROR;
static const bool copy_to_stderr = std::getenv("DRAVEL_LOG_STDERR") != nullptr;

// Every line is formed, so that what it reads is watched, and goes nowhere.
void system_log_print(system_log_priority, const char *, const char *format, ...) {
  char line[2048];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (copy_to_stderr)
    std::fprintf(stderr, "%s\n", line);
}

// --- the set and the store -----------------------------------------------------------------------

// While the daemon has new files open: what they were, and a connection of the fuzzer's own.
static bool store_is_new;
static ino_t store_inodes[2];
static sqlite3 *watcher;

static void prepare_process() {
  // List nodes are allocations of their own, which the sanitizers watch.
  setenv("EINA_MEMPOOL", "pass_through", 1);
  {
    const __lsan::ScopedDisabler made_once; // and hidden where the sanitizer does not look
    eina_init();
    ecore_init();
  }
  // libFuzzer leaves a signal alone that has a handler: without this an input that hangs is never
  // noticed.
  for (const int taken_by_the_loop : {SIGALRM, SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
    std::signal(taken_by_the_loop, SIG_DFL);
  if (live_timer_count() != 0)
    breach("the main loop has timers of its own");
  // Relative paths of a client stay in the house.
  if (access("/run/bench/bus", F_OK) != 0 || chdir("/tmp") != 0)
    breach("run through scripts/house");
}

void reset_set() {
  standin_reset();
  standin_run_clocks(false);
  standin_set_tv_clock(kNoon);
  standin_set_rtc(kNoon);
  set_system_clock(kNoon);
}

static ino_t inode_of(const char *path) {
  struct stat status {};
  return stat(path, &status) == 0 ? status.st_ino : 0;
}

void remove_store() {
  sqlite3_close(watcher);
  watcher = nullptr;
  close_dravel_db();
  store_is_new = false;
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    for (const char *suffix : {"", "-journal", "-wal", "-shm", ".part"})
      std::filesystem::remove_all(std::string(path) + suffix);
}

void open_new_store() {
  remove_store();
  if (initialize_dravel_db() != 0 || sqlite3_open(kDravelDbPath, &watcher) != SQLITE_OK)
    breach("no new store");
  store_inodes[0] = inode_of(kDravelDbPath);
  store_inodes[1] = inode_of(kWakeupDbPath);
  store_is_new = true;
}

static bool store_is_in_place() {
  return store_is_new && store_inodes[0] == inode_of(kDravelDbPath) &&
         store_inodes[1] == inode_of(kWakeupDbPath);
}

// The store of a daemon without timers and periods is as good as new, when its ids begin anew.
static void renew_store() {
  static const auto found_row = [](void *, int, char **, char **) -> int {
    breach("a row is left");
  };
  for (const char *sql :
       {"SELECT 1 FROM dravel", "SELECT 1 FROM disabled_period", "DELETE FROM sqlite_sequence"})
    if (sqlite3_exec(watcher, sql, found_row, nullptr, nullptr) != SQLITE_OK)
      breach(sqlite3_errmsg(watcher));
}

// --- the daemon's life ---------------------------------------------------------------------------

// A call that waits is not to be ended by libFuzzer's alarm, or one that waits for ever would pass.
static bool let_calls_wait() {
  struct sigaction action {};
  sigaction(SIGALRM, nullptr, &action);
  action.sa_flags |= SA_RESTART;
  return sigaction(SIGALRM, &action, nullptr) == 0;
}

bool start_daemon() {
  static const bool calls_wait = let_calls_wait();
  if (!calls_wait)
    breach("no alarm");
  init_dravel();
  init_hash_table();
  if (!store_is_new)
    initialize_dravel_db();
  load_wakeup_timer();
  load_disabled_period_list();
  if (init_settings_handler() != 0 || init_edbus_handler() != 0 || init_power_state_handler() != 0)
    return false;
  register_ambient_mode_cb();
  subscribe_kinto_signal_cb();
  return true;
}

void load_and_schedule() {
  Eina_List *timers = load_dravel_list();
  if (get_kinto_time_updated() == 0)
    return;
  for (dravel_item *item : items_of<dravel_item>(timers)) {
    cancel_ecore_timer(item->timer_id);
    if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == SCHEDULE_NEVER_FIRES)
      remove_dravel_item(item);
  }
  create_dravel_finish_file();
}

static void remove_everything() {
  while (get_dravel_list() != nullptr)
    cancel_dravel_item(static_cast<dravel_item *>(eina_list_data_get(get_dravel_list())));
  while (get_disabled_period_list() != nullptr) {
    auto *period =
        static_cast<disabled_period_item *>(eina_list_data_get(get_disabled_period_list()));
    remove_disabled_period_item(period);
  }
}

// The daemon's waits end as the set ends them: the retry by a switch to manual mode, the others by
// a time update and a readable clock.
static void end_waits() {
  reset_set();
  init_settings_handler();
  standin_change_clock_mode(CLOCK_MODE_MANUAL);
  set_kinto_time_updated(0);
  auto_time_set();
  while (live_timer_count() != 0) {
    if (live_timer(0).callback != wait_cur_time_cb)
      breach("a main-loop timer is left over");
    fire_timer(0);
  }
}

static void reset_daemon_state() {
  ambient_poweroff_received = false;
  set_kinto_time_updated(1);
  set_relaunch_state(0);
  set_wakeup_state(1);
  set_auto_clock_mode_time_update(0);
  ontimer_halt = offtimer_halt = 0;
  micom_ontimer = {0, 0, 0, TIMER_TYPE_ONTIMER_MAX + 1, 0};
  for (const char *marker : kMarkers)
    unlink(marker);
}

void stop_daemon() {
  standin().refused.clear();
  const bool in_place = store_is_in_place();
  if (!in_place)
    open_new_store(); // one that lets rows go
  remove_everything();
  if (in_place)
    renew_store();
  unsubscribe_kinto_signal_cb();
  unregister_ambient_mode_cb();
  fini_power_state_handler();
  end_waits();
  if (get_dravel_list() != nullptr || g_hash_table_size(scheduled_timer_table) != 0)
    breach("a timer is left over");
  fini_hash_table();
  reset_daemon_state();
  reset_set();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  prepare_process();
  reset_set();
  open_new_store();
  return 0;
}

// --- what must hold ------------------------------------------------------------------------------

static void check_armed() {
  if (g_hash_table_size(scheduled_timer_table) != g_hash_table_size(cb_data_table))
    breach("the scheduled-timer tables differ in size");
  GHashTableIter iter;
  void *key = nullptr;
  void *value = nullptr;
  g_hash_table_iter_init(&iter, cb_data_table);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    const auto *record = static_cast<const cb_data *>(value);
    const dravel_item *item = find_dravel_item(GPOINTER_TO_INT(key));
    if (!g_hash_table_contains(scheduled_timer_table, key))
      breach("an armed id is in one table only");
    if (item == nullptr)
      breach("an armed id is not listed");
    if (record->timer_item != item)
      breach("an armed timer carries another item than the listed one");
  }
  std::size_t firing = 0;
  for (std::size_t i = 0; i < live_timer_count(); ++i)
    firing += live_timer(i).callback == ecore_timer_cb ? 1U : 0U;
  if (firing != g_hash_table_size(scheduled_timer_table))
    breach("a main-loop timer would fire for an item that is not armed");
}

void check_state(std::size_t most) {
  end_pass();
  check_armed();
  std::set<const dravel_item *> listed;
  std::set<int> ids;
  std::size_t stored = 0;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    if (!listed.insert(item).second)
      breach("an item is listed twice");
    if (!ids.insert(item->timer_id).second)
      breach("two listed items have one id");
    stored += has_type(item, TIMER_TYPE_TRANSIENT) ? 0U : 1U;
  }
  if (stored > most)
    breach("too many stored timers are listed");
  for (Eina_List *derived : {get_ontimer_list(), get_offtimer_list()})
    for (const dravel_item *item : items_of<dravel_item>(derived))
      if (!listed.contains(item))
        breach("the on- and off-timer lists hold an item that is not listed");
}

void check_leaks() {
  static unsigned inputs = 0;
  if (++inputs % kInputsPerLeakCheck == 0 && __lsan_do_recoverable_leak_check() != 0)
    breach("memory has leaked, by this input or one before it");
}

// --- numbers, timers, periods --------------------------------------------------------------------

int draw_number(input &in) {
  static constexpr int kNumbers[] = {0,     -1,  1,           2,       6,       7,   10,
                                     13,    31,  60,          127,     128,     200, 254,
                                     255,   366, 1900,        65535,   INT_MAX, -2,  INT_MIN,
                                     -1900, -10, INT_MAX / 2, 1 << 24, 8099,    206, 3652059};
  const std::size_t choice = in.below(64);
  return choice < std::size(kNumbers) ? kNumbers[choice] : static_cast<int>(in.word());
}

time_value draw_clock(input &in) {
  static constexpr time_value kAnchors[] = {
      kNoon,      kNoon, kNoon, kLastSecondOf31Bits, kLastSecondOf2099, kInvalidTime, 1,
      86400 * 59,  // before the end of a February
      1835438400,  // 2028-02-29
      4107542400}; // 2100-03-01
  const std::size_t choice = in.below(24);
  if (choice == 22)
    return 0;
  if (choice == 23)
    return in.word();
  const time_value anchor = choice < std::size(kAnchors) ? kAnchors[choice] : standin_tv_clock();
  static constexpr int kUnits[] = {1, 60, 3600, 86400, 86400 * 30};
  const int steps = static_cast<std::int8_t>(in.byte());
  return anchor + static_cast<time_value>(steps * in.one_of(kUnits));
}

static std::tm draw_moment(input &in) {
  static constexpr int kUnits[] = {60, 60, 3600, 86400, 1, 86400 * 30};
  const time_value clock = standin_tv_clock();
  const time_value minute = (clock == 0 ? kNoon : clock) / 60 * 60;
  const int steps = static_cast<int>(in.below(24)) - 4;
  std::tm moment{};
  unsigned_gmtime_r(minute + static_cast<time_value>(steps * in.one_of(kUnits)), &moment);
  return moment;
}

wanted_timer draw_timer(input &in) {
  static constexpr int kTypes[] = {0, 1, 2, 6, 10, 9, 13, 15, 16, 3, 4, 5, 7, 8, 11, 12, 14, 254};
  static constexpr int kWeekdays[] = {0, 0, 0, 127, 62, 65, 4, 8, 2, 1};
  const int type = in.one_of(kTypes);
  const int week_flag = in.one_of(kWeekdays);
  const std::tm tm = draw_moment(in);
  const unsigned flags = in.byte();
  static constexpr int kTimeTypes[] = {0, 0, 1, 2};
  return {{type, week_flag, static_cast<int>(flags >> 6), 0, tm.tm_year, tm.tm_mon, tm.tm_mday,
           tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday, tm.tm_yday, 0,
           static_cast<int>(flags >> 2 & 1), kTimeTypes[flags & 3]}};
}

static void put_date(int *values, const std::tm &tm) {
  const int date[] = {tm.tm_year, tm.tm_mon,  tm.tm_mday, tm.tm_hour, tm.tm_min,
                      tm.tm_sec,  tm.tm_wday, tm.tm_yday, tm.tm_isdst};
  std::ranges::copy(date, values);
}

wanted_period draw_period(input &in) {
  wanted_period period{};
  put_date(&period.values[0], draw_moment(in));
  put_date(&period.values[9], draw_moment(in));
  const unsigned flags = in.byte();
  period.values[18] = static_cast<int>(flags & 1);
  period.values[19] = static_cast<int>(flags >> 1 & 1);
  return period;
}

int draw_timer_id(input &in) {
  Eina_List *timers = get_dravel_list();
  const void *item =
      eina_list_nth(timers, static_cast<unsigned>(in.below(eina_list_count(timers))));
  return item == nullptr ? -1 : static_cast<const dravel_item *>(item)->timer_id;
}

int draw_period_id(input &in) {
  Eina_List *periods = get_disabled_period_list();
  const void *period =
      eina_list_nth(periods, static_cast<unsigned>(in.below(eina_list_count(periods))));
  return period == nullptr ? -1 : static_cast<const disabled_period_item *>(period)->period_id;
}

// --- what happens on the set ---------------------------------------------------------------------

static void change_clocks(input &in) {
  const unsigned which = in.byte();
  const time_value reading = draw_clock(in);
  if ((which & 1) == 0)
    standin_set_tv_clock(reading);
  if ((which & 2) != 0)
    standin_set_rtc(reading);
  if ((which & 4) != 0)
    set_system_clock(reading);
  if ((which & 8) != 0)
    standin_announce_time_set();
}

static void change_zone(input &in) {
  static constexpr const char *kZones[] = {"UTC",
                                           "Europe/Berlin",
                                           "America/New_York",
                                           "Asia/Kolkata",
                                           "Pacific/Kiritimati",
                                           "Pacific/Apia",
                                           "Pacific/Chatham",
                                           "Not/AZone",
                                           ""};
  standin_set_time_zone(in.one_of(kZones));
}

static void change_clock_mode(input &in) { standin_change_clock_mode(in.byte() % 4 - 1); }

static void change_power_state(input &in) {
  const int state = in.byte() % 6 - 1;
  const int ambient_mode = in.byte() % 4;
  standin().power_state = state;
  standin().ambient_mode = ambient_mode;
  if (in.byte() % 2 != 0)
    standin_state_changed(state, ambient_mode);
}

static void power_off(input &in) {
  static constexpr int kOptions[] = {0, 1, 13, 14, -1, 2};
  standin_power_off(in.one_of(kOptions));
}

static void standby(input &in) { standin_standby(in.byte() % 4); }

static void wake(input &in) {
  const int reason = in.byte();
  standin().wakeup_reason = reason;
  standin_wakeup(reason);
}

static void ambient_power_off(input &) { standin_ambient_power_off(); }

static void announce_time_set(input &) { standin_announce_time_set(); }

static void middleware_signal(input &in) {
  standin_middleware_signal(in.byte() % 8 == 7 ? 0 : SIGNAL_SYSTEM_TIME_UPDATED);
}

static void run_clocks(input &in) { standin_run_clocks(in.byte() % 2 != 0); }

static void refuse(input &in) {
  const std::size_t choice = in.below(std::size(kStandinOperations) + 3);
  if (choice >= std::size(kStandinOperations))
    standin().refused.clear();
  else
    standin().refused.emplace(kStandinOperations[choice]);
}

void draw_event(input &in) {
  static constexpr void (*kEvents[])(input &) = {change_clocks,
                                                 change_clocks,
                                                 standby,
                                                 wake,
                                                 middleware_signal,
                                                 change_zone,
                                                 change_clock_mode,
                                                 change_power_state,
                                                 power_off,
                                                 ambient_power_off,
                                                 refuse,
                                                 announce_time_set,
                                                 run_clocks};
  in.one_of(kEvents)(in);
}

void draw_expiry(input &in) {
  if (live_timer_count() == 0)
    return;
  const std::size_t index = in.below(live_timer_count());
  const loop_timer &timer = live_timer(index);
  if (in.byte() % 4 != 3) {
    const auto passed = static_cast<time_value>(timer.seconds);
    const time_value clock = standin_tv_clock();
    if (clock != 0)
      standin_set_tv_clock(clock + passed);
    set_system_clock(time(nullptr) + passed);
  }
  fire_timer(index);
}
