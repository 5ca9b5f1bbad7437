// What the endurance runs share: a daemon, its client, and the changes that it has acknowledged.
#pragma once

#include "process.h"
#include "store.h"

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

using timer_map = std::map<int, timer_words>; // by id

// What a client may rely on while the daemon comes and goes.
struct ledger {
  timer_map timers;
  std::optional<timer_arguments> unanswered_add;
  std::optional<int> unanswered_cancel;
  int acknowledged = 0;
};

struct soak_run {
  std::string program;
  std::mt19937 random;
  int round = 0;
  unsigned timers_made = 0;
  std::string keys = {};             // of the set, for the next start
  const char *address = kSandboxBus; // likewise
  std::unique_ptr<bus_client> bus = {};
  std::optional<process> daemon = {};
  ledger book = {};

  // From 0 to `limit` - 1.
  unsigned below(unsigned limit) { return static_cast<unsigned>(random()) % limit; }
  template <typename Range> auto &pick(Range &from) { return from[below(std::size(from))]; }
};

// Each round of a fault: the preparation, a start, the check, the disturbance, the end, the repair.
// The preparation and the repair may be left out.
struct fault {
  const char *name;
  int rounds; // of the full run
  int least;  // of any
  void (*prepare)(soak_run &run);
  void (*check)(soak_run &run);
  void (*disturb)(soak_run &run);
  int status; // with which the daemon ends; by itself, or else by SIGTERM
  void (*repair)(soak_run &run);
};
std::span<const fault> faults();

[[noreturn]] void fail(const std::string &what);

// Sets or cancels a timer, and enters it. False when that was not answered. Fails when a new timer
// is refused, or a listed one not found.
bool change(soak_run &run);
timer_arguments any_timer(soak_run &run); // that no other one's time coincides with

timer_map listed_timers(bus_client &bus);
std::string row_of(const timer_words &timer);             // as stored_timers gives it
std::vector<std::string> stored_timers(const char *path); // the rows by their ids

// The list, the rows and the acknowledged changes are the same; the store is sound. The change that
// was not answered may have been made or not.
void check_all(soak_run &run);
