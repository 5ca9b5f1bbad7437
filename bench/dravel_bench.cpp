// What single operations of the daemon cost, in this process on its library and a simulated set;
// and what whole calls cost, on the bus with the real daemon.
//
// Run through scripts/bench --single, which sees to the sandbox and to the log.

#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-timer.h"
#include "dravel-util.h"
#include "measure.h"

#include <Ecore.h>
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

// An empty database beside the daemon's own.
static constexpr const char *kSqlStore = "/opt/dbspace/sql.db";

static dravel_item *make(const timer_arguments &t, int time_type = TIME_TYPE_BROADCAST) {
  const auto [type, week_flag, priority, delay, year, mon, mday, hour, min, sec, wday, yday, isdst,
              effect, unused] = t;
  return create_dravel_item(type, priority, 0, year, mon, mday, hour, min, sec, wday, yday, isdst,
                            delay, week_flag, effect, time_type);
}

using item = std::unique_ptr<dravel_item, decltype(&std::free)>;

// --- without a store ---

static constexpr int kEveryDay = 0x7f;

static void next_expiry(benchmark::State &state, int week_flag, int time_type) {
  const item timer(make(timer_at(wall_clock() + 7200, 2, week_flag), time_type), std::free);
  std::tm expire{};
  for (auto _ : state)
    benchmark::DoNotOptimize(get_next_expire_date(timer.get(), &expire));
}
BENCHMARK_CAPTURE(next_expiry, one_shot, 0, int{TIME_TYPE_BROADCAST});
BENCHMARK_CAPTURE(next_expiry, weekly, kEveryDay, int{TIME_TYPE_BROADCAST});
BENCHMARK_CAPTURE(next_expiry, internet_time, 0, int{TIME_TYPE_INTERNET});

static void compare(benchmark::State &state) {
  const item listed(make(timer_at(wall_clock() + 7200, 2, 0)), std::free);
  const item added(make(timer_at(wall_clock() + 3600, 1, kEveryDay)), std::free);
  for (auto _ : state)
    benchmark::DoNotOptimize(compare_dravel_cb(listed.get(), added.get()));
}
BENCHMARK(compare);

// --- on a store in this process ---

static void remove_all(void) {
  while (get_dravel_list() != nullptr)
    remove_dravel_item(static_cast<dravel_item *>(eina_list_data_get(get_dravel_list())));
}

static void add_and_remove(benchmark::State &state) {
  const int listed = static_cast<int>(state.range(0));
  empty_store();
  initialize_dravel_db();
  for (int i = 0; i < listed; ++i)
    add_dravel_item(make(household_timer(wall_clock(), i, true)));
  const timer_arguments added = household_timer(wall_clock(), listed / 2, false);
  for (auto _ : state) {
    dravel_item *timer = make(added);
    add_dravel_item(timer);
    remove_dravel_item(timer);
  }
  remove_all();
  close_dravel_db();
}
BENCHMARK(add_and_remove)->Arg(0)->Arg(40)->Arg(79)->Unit(benchmark::kMicrosecond);

// --- on the bus, with the daemon as a process of its own ---

static constexpr const char *kDaemonProgram = DRAVEL_MANAGER;

static void fill(bus_client &bus, int timers) {
  for (int i = 0; i < timers; ++i)
    bus.schedule(kDaemon, household_timer(wall_clock(), i, true));
}

static void empty_round_trip(benchmark::State &state) {
  empty_store();
  bus_client bus;
  const process ours = start_service(bus, kDaemon, {kDaemonProgram});
  const int unused = 0;
  for (auto _ : state)
    bus.call(kDaemon, "request_get_timers_halt_effect", {&unused, 1});
}
BENCHMARK(empty_round_trip)->UseRealTime()->Unit(benchmark::kMicrosecond);

static void list_round_trip(benchmark::State &state) {
  empty_store();
  bus_client bus;
  const process ours = start_service(bus, kDaemon, {kDaemonProgram});
  fill(bus, static_cast<int>(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(bus.list(kDaemon));
}
BENCHMARK(list_round_trip)->Arg(0)->Arg(80)->UseRealTime()->Unit(benchmark::kMicrosecond);

static void schedule_and_cancel_round_trips(benchmark::State &state) {
  empty_store();
  bus_client bus;
  const process ours = start_service(bus, kDaemon, {kDaemonProgram});
  const int listed = static_cast<int>(state.range(0));
  fill(bus, listed);
  const timer_arguments added = household_timer(wall_clock(), listed / 2, false);
  for (auto _ : state)
    bus.cancel(kDaemon, bus.schedule(kDaemon, added));
}
BENCHMARK(schedule_and_cancel_round_trips)
    ->Arg(0)
    ->Arg(40)
    ->Arg(79)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// The same two statements on a table like the daemon's.
static void bare_insert_and_delete(benchmark::State &state) {
  empty_store();
  initialize_dravel_db();
  for (int i = 0; i < static_cast<int>(state.range(0)); ++i)
    add_dravel_item(make(household_timer(wall_clock(), i, true)));
  std::filesystem::copy_file(kDravelDbPath, kSqlStore);
  remove_all();
  close_dravel_db();

  sqlite3 *db = nullptr;
  sqlite3_open(kSqlStore, &db);
  for (auto _ : state) {
    sqlite3_exec(db,
                 "INSERT INTO dravel \t(type, priority, date_type, tm_sec, tm_min, tm_hour, "
                 "tm_mday, tm_mon,\ttm_year, tm_wday, tm_yday, tm_isdst, delay, "
                 "week_flag,\tdisable_period_effect, time_type, micom_flag) \tVALUES (2, 0, 0, 0, "
                 "30, 7, 24, 10, 126, 2, 327, 0, 0, 62, 0, 0, 0)",
                 nullptr, nullptr, nullptr);
    const std::string deletion =
        "DELETE FROM dravel WHERE timer_id = " + std::to_string(sqlite3_last_insert_rowid(db));
    if (sqlite3_exec(db, deletion.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
      state.SkipWithError(sqlite3_errmsg(db));
  }
  sqlite3_close(db);
}
BENCHMARK(bare_insert_and_delete)->Arg(0)->Arg(40)->Arg(79)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv) {
  prepare_measuring();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  eina_init();
  ecore_init();
  init_hash_table();
  benchmark::RunSpecifiedBenchmarks();
  fini_hash_table();
  ecore_shutdown();
  return 0;
}
