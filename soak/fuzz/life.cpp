#include "life.h"

#include "dravel-list.h"
#include "dravel-manager.h"

#include <KintoAPI.h>
#include <system_log.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <sanitizer/lsan_interface.h>
#include <set>
#include <unistd.h>

static constexpr unsigned kInputsPerLeakCheck = 500;
static constexpr int kMaxSteps = 100;
static constexpr std::size_t kMaxStoredTimers = 80;

std::size_t most_stored;
int last_transient = -10;

// Stack traces and everything that the sanitizers can look for, also without scripts/fuzz.
extern "C" const char *__asan_default_options() {
  return "detect_leaks=1:detect_stack_use_after_return=1";
}
extern "C" const char *__ubsan_default_options() { return "print_stacktrace=1"; }

// --- what must hold ---

static void check_armed() {
  EXPECT_EQ(g_hash_table_size(scheduled_timer_table), g_hash_table_size(cb_data_table));
  EXPECT_EQ(static_cast<int>(g_hash_table_size(cb_data_table)), pending(ecore_timer_cb));
  GHashTableIter iter;
  void *key = nullptr;
  void *value = nullptr;
  g_hash_table_iter_init(&iter, cb_data_table);
  while (g_hash_table_iter_next(&iter, &key, &value) != 0) {
    EXPECT_NE(g_hash_table_contains(scheduled_timer_table, key), 0);
    EXPECT_EQ(static_cast<const cb_data *>(value)->timer_item,
              find_dravel_item(GPOINTER_TO_INT(key)));
  }
}

static std::size_t check_listed() {
  std::set<const dravel_item *> listed;
  std::set<int> listed_ids;
  std::size_t stored = 0;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    EXPECT_TRUE(listed.insert(item).second && listed_ids.insert(item->timer_id).second);
    stored += has_type(item, TIMER_TYPE_TRANSIENT) ? 0U : 1U;
  }
  for (Eina_List *derived : {get_ontimer_list(), get_offtimer_list()})
    for (const dravel_item *item : items_of<dravel_item>(derived))
      EXPECT_TRUE(listed.contains(item));
  return stored;
}

static void check_state() {
  check_armed();
  EXPECT_LE(check_listed(), most_stored);
}

// Too slow for every input. libFuzzer itself looks for leaks only until it has seen a thousand
// inputs that leave more allocated than before, as a timer whose row cannot be deleted does.
static void check_leaks() {
  static unsigned inputs = 0;
  if (++inputs % kInputsPerLeakCheck == 0)
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "by this input or one before it";
}

// --- numbers, timers, periods ---

int draw_number(input &in) {
  static constexpr int kNumbers[] = {0,       -1, 1,   2,   6,    7,     10,      13,
                                     31,      60, 127, 200, 254,  255,   366,     65535,
                                     INT_MAX, -2, -10, 206, 8099, -1900, INT_MIN, INT_MAX / 2};
  const std::size_t choice = in.below(64);
  return choice < std::size(kNumbers) ? kNumbers[choice] : static_cast<int>(in.word());
}

std::string joined(const std::vector<std::string> &values) {
  std::string text;
  for (const std::string &value : values)
    text += (text.empty() ? "" : ",") + value;
  return text;
}

// Mostly near the clock, so that times coincide often.
static time_value near(time_value anchor, input &in) {
  static constexpr time_value kUnits[] = {60, 60, 3600, 86400, 1, 86400 * 30};
  const time_value steps = in.seldom(32) ? in.byte() : static_cast<time_value>(in.below(24)) - 4;
  return anchor + steps * in.one_of(kUnits);
}

static time_value draw_clock(input &in) {
  static constexpr const char *kAnchors[] = {"",
                                             kNoon,
                                             "1970-01-01 00:00:01",
                                             "2028-02-29 00:00",
                                             "2038-01-19 03:14:07",
                                             "2099-12-31 23:59:59",
                                             "2100-03-01 00:00",
                                             "2106-02-07 06:28:15"};
  if (in.seldom(10))
    return in.word();
  return near(in.seldom(80) ? time_of(in.one_of(kAnchors)) : standin_tv_clock(), in);
}

static std::string draw_moment(input &in) {
  const time_value clock = standin_tv_clock();
  return time_text(near((clock == 0 ? time_of(kNoon) : clock) / 60 * 60, in));
}

std::vector<int> draw_timer(input &in) {
  static constexpr int kTypes[] = {0, 1, 2, 6, 10, 9, 13, 15, 16, 3, 4, 5, 7, 8, 11, 12, 14, 254};
  static constexpr int kWeekdays[] = {0, 0, 0, kDaily, 62, 65, kTue, kWed, kMon, kSun};
  const int type = in.one_of(kTypes);
  const int week_flag = in.one_of(kWeekdays);
  const int flags = in.byte();
  const auto timer =
      arguments_of({type, draw_moment(in), week_flag, flags & 1, (flags >> 1 & 3) % 3, flags >> 6});
  return {timer.begin(), timer.end()};
}

std::vector<int> draw_period(input &in) {
  const std::string start = draw_moment(in);
  const auto period = period_arguments(start, draw_moment(in), in.byte() % 2);
  return {period.begin(), period.end()};
}

// --- what happens on the set ---

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

static void change_power_state(input &in) {
  standin().power_state = in.byte() % 6 - 1;
  standin().ambient_mode = in.byte() % 4;
  if (in.byte() % 2 != 0)
    standin_state_changed(standin().power_state, standin().ambient_mode);
}

static void refuse(input &in) {
  if (in.seldom(32))
    standin().refused.clear();
  else
    standin().refused.emplace(in.one_of(kStandinOperations));
}

static void draw_event(input &in) {
  static constexpr const char *kZones[] = {"UTC", "Europe/Berlin", "Pacific/Apia", "Not/AZone"};
  static constexpr void (*kEvents[])(input &) = {
      change_clocks,
      change_clocks,
      change_power_state,
      refuse,
      [](input &from) { standin_wakeup(standin().wakeup_reason = from.byte() % 32); },
      [](input &from) { standin_power_off(from.byte() % 16); },
      [](input &from) { standin_standby(from.byte() % 4); },
      [](input &from) { standin_middleware_signal(from.byte() % 8 == 7 ? 0 : 108); },
      [](input &from) { standin_change_clock_mode(from.byte() % 4 - 1); },
      [](input &from) { standin_set_time_zone(from.one_of(kZones)); },
      [](input &from) { standin_run_clocks(from.byte() % 2 != 0); },
      [](input &) { standin_ambient_power_off(); },
      [](input &) { standin_announce_time_set(); }};
  in.one_of(kEvents)(in);
}

// With the clocks moved to the timer's time, or not.
static void draw_expiry(input &in) {
  run_idle_steps();
  if (live_timers().empty())
    return;
  const loop_timer &timer = *live_timers()[in.below(live_timers().size())];
  if (in.byte() % 4 != 3) {
    const auto passed = static_cast<time_value>(timer.seconds);
    if (standin_tv_clock() != 0)
      standin_set_tv_clock(standin_tv_clock() + passed);
    set_system_clock(time(nullptr) + passed);
  }
  fire(timer);
}

// --- a life ---

static void prepare_set(input &in) {
  static constexpr int kReasons[] = {0, 20, 1, 2, -1};
  system_log_threshold = in.seldom(32) ? SYSTEM_LOG_DEBUG : SYSTEM_LOG_ERROR;
  clear_set();
  standin().wakeup_reason = in.one_of(kReasons);
  standin().sync_db = in.byte() % 3 - 1;
  if (in.seldom(48))
    standin_set_tv_clock(in.seldom(80) ? 0 : draw_clock(in));
}

static constexpr void (*kSteps[])(input &) = {call_schedule, call_schedule, call_any,  call_any,
                                              call_any,      draw_expiry,   draw_event};

// A call that waits is not ended by libFuzzer's alarm, or one that waits for ever would pass.
static int let_calls_wait() {
  struct sigaction action {};
  sigaction(SIGALRM, nullptr, &action);
  action.sa_flags |= SA_RESTART;
  return sigaction(SIGALRM, &action, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const int calls_wait = let_calls_wait();
  EXPECT_EQ(calls_wait, 0);
  input in(data, size);
  prepare_set(in);
  prepare_store(in);
  EXPECT_EQ(start_dravel(), 0);
  run_idle_steps();
  most_stored = std::max(kMaxStoredTimers, check_listed());
  for (int step = 0; step < kMaxSteps && !in.empty(); ++step) {
    in.one_of(kSteps)(in);
    check_state();
  }
  while (get_dravel_list() != nullptr)
    cancel_dravel_item(static_cast<dravel_item *>(eina_list_data_get(get_dravel_list())));
  check_state();
  end_clean_set();
  check_leaks();
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  GTEST_FLAG_SET(throw_on_failure, true);
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
  require_sandbox();
  return chdir("/tmp"); // for a client's relative paths
}
