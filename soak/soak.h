// What the endurance runs share. Each run brings one kind of fault upon the daemon, many times and
// at random, and ends the program where the daemon lost, invented or refused anything.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "house.h"

// A timer's image on the bus, as words.
using timer_words = std::array<dbus_int32_t, 19>;
using timer_map = std::map<int, timer_words>; // by id

// The words of an image that the runs look at.
enum timer_word {
  kWordId = 0,
  kWordType = 1,
  kWordWeekFlag = 16,
  kWordEffect = 17,
  kWordClock = 18
};

struct soak_run {
  std::string daemon; // the program
  int rounds;
  std::mt19937 random;

  // From 0 to `limit` - 1.
  unsigned below(unsigned limit) { return static_cast<unsigned>(random()) % limit; }
  template <typename Range> auto &pick(Range &from) { return from[below(std::size(from))]; }
};

// The runs. Each gives the line that reports what was seen; the first number is its rounds.
std::string run_kills(soak_run &run);
std::string run_files(soak_run &run);
std::string run_disk(soak_run &run);
std::string run_calls(soak_run &run);
std::string run_refusals(soak_run &run);
std::string run_clocks(soak_run &run);
std::string run_lost_bus(soak_run &run);

// The set's clocks stand still here, a Thursday at noon; `keys` are further start values.
constexpr std::uint32_t kNoon = 1798718400;
constexpr std::uint32_t kDay = 86400;
void write_set(const std::string &keys = "");

// Starts the daemon and returns when it has loaded its timers.
std::unique_ptr<service> start_daemon(soak_run &run, bus_client &bus);

// What it said on its standard error, where sanitizers report.
inline constexpr const char *kDaemonErrors = "/tmp/daemon.errors";

// What schedule_timer is given so that the timer is kept until it is cancelled, and what is then
// listed.
timer_arguments lasting_timer(soak_run &run);

// A timer at a minute of the day of its own, by `index` up to 83: an off-timer that met an on-timer
// would take it away.
timer_arguments distinct_timer(soak_run &run, unsigned index);
timer_words words_of(int id, const timer_arguments &timer);
timer_map listed_timers(bus_client &bus);

// The file is a sound database and `sql` gives this text from it: columns apart by '|', rows by
// newlines.
std::string read_store(const char *path, const char *sql);
void check_sound(const char *path);

// What a client may rely on while the daemon comes and goes: the changes that were acknowledged.
class ledger {
public:
  explicit ledger(soak_run &run) : run_(run) {}

  // Sets or cancels a timer; false when that was not answered. A refusal ends the program.
  bool change(bus_client &bus);

  // Holds the list against the ledger. The change that was not answered may have been made or not.
  void compare(const timer_map &listed);

  int acknowledged() const; // some, or the run has shown nothing and ends the program

private:
  soak_run &run_;
  timer_map timers_;
  std::optional<timer_arguments> unanswered_add_;
  std::optional<int> unanswered_cancel_;
  int acknowledged_ = 0;
};

template <typename... Values> std::string text(const char *format, Values... values) {
  char line[256];
  std::snprintf(line, sizeof line, format, values...);
  return line;
}
