// Brings faults upon the daemon and prints what was seen, a line for each kind. Seeded: the same
// seed brings the same faults, but for the moments at which processes are killed.
//
// Usage: soak DAEMON SEED ROUNDS-PERCENT [FAULT...]   in scripts/house

#include "soak.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <string_view>

#include <sqlite3.h>

namespace fs = std::filesystem;

struct fault_kind {
  std::string_view name;
  std::string (*run)(soak_run &run);
  int rounds; // of the full run
};

static constexpr fault_kind kFaults[] = {
    {"kills", run_kills, 300},      // the daemon killed amid changes
    {"files", run_files, 2000},     // damaged and foreign database files
    {"disk", run_disk, 40},         // a full disk, a read-only one, one that fails
    {"calls", run_calls, 100000},   // random calls
    {"refusals", run_refusals, 10}, // each operation of the set refused
    {"clocks", run_clocks, 10000},  // clocks, zones and clock modes that change
    {"lost-bus", run_lost_bus, 50}, // the bus killed amid changes
};

static constexpr const char *kMarkers[] = {"/tmp/dravel_init", "/tmp/dravel_finish"};
static constexpr unsigned kFullLedger = 60; // of 80 that the daemon keeps

void write_set(const std::string &keys) {
  std::ofstream(std::getenv("DRAVEL_STANDIN"))
      << "[set]\nTimeZone=UTC\nClocksRunning=false\nTvClock=" << kNoon << "\nRtc=" << kNoon << '\n'
      << keys;
}

std::unique_ptr<service> start_daemon(soak_run &run, bus_client &bus) {
  fs::remove(kMarkers[1]); // which says that the timers have been loaded
  auto started =
      std::make_unique<service>(bus, daemon_service, std::vector{run.daemon}, kDaemonErrors);
  const dbus_int32_t unused = 0;
  const double begun = microseconds();
  while (!fs::exists(kMarkers[1])) {
    if (!bus.try_call(daemon_service, "request_get_timers_halt_effect", {&unused, 1}))
      fail("the daemon does not answer");
    if (microseconds() - begun > 1e7)
      fail("the daemon never loads its timers");
  }
  return started;
}

timer_arguments lasting_timer(soak_run &run) {
  static constexpr int kTypes[] = {0, 1, 2, 3, 5};
  const bool repeats = run.below(2) == 0;
  const std::uint32_t at = kNoon + 3600 + 60 * run.below(300 * 24 * 60);
  timer_arguments timer =
      timer_at(at, run.pick(kTypes), repeats ? 1 + static_cast<int>(run.below(127)) : 0);
  timer[2] = static_cast<int>(run.below(5));
  timer[3] = static_cast<int>(run.below(1000));
  return timer;
}

timer_arguments distinct_timer(soak_run &run, unsigned index) {
  const std::uint32_t at = kNoon + kDay * run.below(300) + 60 * (1 + 17 * index);
  const bool repeats = run.below(2) == 0;
  return timer_at(at, 1 + static_cast<int>(index % 3),
                  repeats ? 1 + static_cast<int>(run.below(127)) : 0);
}

timer_words words_of(int id, const timer_arguments &timer) {
  const auto [type, week_flag, priority, delay, year, mon, mday, hour, min, sec, wday, yday, isdst,
              effect, time_type] = timer;
  return {id,   type, priority, 0, sec, min,   hour,      mday,   mon,      year,
          wday, yday, isdst,    0, 0,   delay, week_flag, effect, time_type};
}

timer_map listed_timers(bus_client &bus) {
  const std::vector<unsigned char> images = bus.list(daemon_service);
  timer_map timers;
  for (std::size_t at = 0; at + sizeof(timer_words) <= images.size(); at += sizeof(timer_words)) {
    timer_words words{};
    std::memcpy(words.data(), &images[at], sizeof words);
    if (!timers.emplace(words[kWordId], words).second)
      fail(text("timer %d is listed twice", words[kWordId]));
  }
  if (timers.size() * sizeof(timer_words) != images.size())
    fail("the list is not made of whole images");
  return timers;
}

std::string read_store(const char *path, const char *sql) {
  sqlite3 *handle = nullptr;
  const int opened = sqlite3_open_v2(path, &handle, SQLITE_OPEN_READONLY, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3 *)> store(handle, sqlite3_close);
  std::string result;
  const auto add_row = [](void *out, int columns, char **values, char **) {
    auto &rows = *static_cast<std::string *>(out);
    for (int i = 0; i < columns; ++i)
      rows.append(i > 0 ? "|" : "").append(values[i] != nullptr ? values[i] : "");
    rows += '\n';
    return 0;
  };
  if (opened != SQLITE_OK || sqlite3_exec(handle, sql, add_row, &result, nullptr) != SQLITE_OK)
    fail(std::string(path) + ": " + sqlite3_errmsg(handle));
  return result;
}

void check_sound(const char *path) {
  if (const std::string found = read_store(path, "pragma integrity_check"); found != "ok\n")
    fail(std::string(path) + " is damaged: " + found);
}

bool ledger::change(bus_client &bus) {
  const bool cancel = !timers_.empty() && (timers_.size() >= kFullLedger || run_.below(5) < 2);
  if (cancel) {
    const int id =
        std::next(timers_.begin(), run_.below(static_cast<unsigned>(timers_.size())))->first;
    unanswered_cancel_ = id;
    const message reply = bus.try_call(daemon_service, "cancel_timer", {&id, 1});
    dbus_int32_t result = -1;
    if (!reply)
      return false;
    dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &result, DBUS_TYPE_INVALID);
    if (result != 0)
      fail(text("the listed timer %d was not cancelled", id));
    timers_.erase(id);
    unanswered_cancel_.reset();
  } else {
    const timer_arguments timer = lasting_timer(run_);
    unanswered_add_ = timer;
    const message reply = bus.try_call(daemon_service, "schedule_timer", timer);
    dbus_int32_t id = -1;
    if (!reply)
      return false;
    dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INVALID);
    if (id <= 0 || !timers_.emplace(id, words_of(id, timer)).second)
      fail(text("a new timer was answered with %d", id));
    unanswered_add_.reset();
  }
  ++acknowledged_;
  return true;
}

void ledger::compare(const timer_map &listed) {
  if (unanswered_cancel_ && !listed.contains(*unanswered_cancel_))
    timers_.erase(*unanswered_cancel_);
  for (const auto &[id, words] : listed)
    if (unanswered_add_ && !timers_.contains(id) && words == words_of(id, *unanswered_add_))
      timers_.emplace(id, words);
  unanswered_cancel_.reset();
  unanswered_add_.reset();
  if (listed != timers_)
    fail(text("%zu timers are listed, not the %zu that were acknowledged", listed.size(),
              timers_.size()));
}

int ledger::acknowledged() const {
  if (acknowledged_ == 0)
    fail("no change was acknowledged");
  return acknowledged_;
}

static void show_daemon_errors() {
  std::ifstream errors(kDaemonErrors);
  if (errors.peek() != std::ifstream::traits_type::eof())
    std::cerr << "the daemon's own errors:\n" << errors.rdbuf();
}

int main(int argc, char **argv) {
  if (argc < 4)
    fail("usage: soak DAEMON SEED ROUNDS-PERCENT [FAULT...]");
  prepare_house();
  std::atexit(show_daemon_errors);
  setenv("DRAVEL_STANDIN", "/run/bench/set.ini", 1);
  const auto seed = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
  const double percent = std::strtod(argv[3], nullptr);
  const std::set<std::string_view> wanted(argv + 4, argv + argc);
  for (const std::string_view name : wanted)
    if (std::ranges::find(kFaults, name, &fault_kind::name) == std::end(kFaults))
      fail("there is no fault " + std::string(name));

  for (const fault_kind &fault : kFaults) {
    if (!wanted.empty() && !wanted.contains(fault.name))
      continue;
    empty_store();
    write_set();
    const int rounds = std::max(1, static_cast<int>(fault.rounds * percent / 100));
    soak_run run{argv[1], rounds, std::mt19937(seed)};
    std::printf("%-9s seed %u: ", fault.name.data(), seed);
    std::fflush(stdout);
    const double begun = microseconds();
    const std::string seen = fault.run(run);
    std::printf("%s, %.0f s\n", seen.c_str(), (microseconds() - begun) / 1e6);
    std::fflush(stdout);
  }
  return 0;
}
