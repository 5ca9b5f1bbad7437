// The daemon and a bare service, measured in turn on one bus: medians, and how many times the
// daemon takes what the bare service takes.
//
// Usage: compare DAEMON BARE-SERVICE DISK-DIRECTORY   in scripts/sandbox

#include "measure.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr int kFullList = 80;
static constexpr double kHighestRatio = 1.1;

static std::string daemon_program;
static std::string bare_program;

static std::vector<std::string> bare_command(int signals_at_start = 0) {
  return {bare_program, kBareStore, kBareWakeupStore, std::to_string(signals_at_start)};
}

namespace {

// What is measured on both sides, in one unit.
struct figures {
  double ours;
  double bare;
};

// A directory for the store: the sandbox's own, which lies in memory, or one on a disk.
struct place {
  const char *name;
  std::string directory;
  int rounds;
};

// The daemon with timers, and the bare service on a copy of its store.
struct pair_of_services {
  pair_of_services(bus_client &bus, int timers, bool repeating) : client(bus) {
    empty_store();
    ours.emplace(start_service(bus, kDaemon, {daemon_program}));
    for (int i = 0; i < timers; ++i)
      bus.schedule(kDaemon, household_timer(wall_clock(), i, repeating));
    fs::copy_file(kDravelDbPath, kBareStore);
    fs::copy_file(kWakeupDbPath, kBareWakeupStore);
    bare.emplace(start_service(bus, kBare, bare_command()));
  }

  bus_client &client;
  std::optional<process> ours;
  std::optional<process> bare;
};

} // namespace

static double median(std::vector<double> values) {
  std::ranges::sort(values);
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

template <typename Action> static double timed(Action action) {
  const double start = microseconds();
  action();
  return microseconds() - start;
}

// Takes the sides in turn, each first in every other round; `ours` and `bare` return what they
// took.
template <typename Ours, typename Bare> static figures in_turn(int rounds, Ours ours, Bare bare) {
  std::vector<double> ours_took;
  std::vector<double> bare_took;
  for (int round = -rounds / 10 - 1; round < rounds; ++round) {
    double first = 0;
    double second = 0;
    if (round % 2 == 0) {
      first = ours();
      second = bare();
    } else {
      second = bare();
      first = ours();
    }
    if (round < 0) // warming up
      continue;
    ours_took.push_back(first);
    bare_took.push_back(second);
  }
  return {median(ours_took), median(bare_took)};
}

static void print_row(const std::string &what, const figures &took, const char *unit) {
  const double ratio = took.ours / took.bare;
  std::printf("  %-46s %9.1f %9.1f %-3s %6.2f%s\n", what.c_str(), took.ours, took.bare, unit, ratio,
              ratio > kHighestRatio ? "  above" : "");
  std::fflush(stdout);
}

static void print_figure(const std::string &what, double value, const char *unit) {
  std::printf("  %-46s %9.1f %9s %-3s\n", what.c_str(), value, "", unit);
  std::fflush(stdout);
}

static void ask_nothing(bus_client &bus, const bus_target &target) {
  const int unused = 0;
  bus.call(target, "request_get_timers_halt_effect", {&unused, 1});
}

// How many signals the daemon sends for an action: those of the stand-in set and of the timers.
template <typename Action> static int signals_of(Action action) {
  bus_client listener;
  listener.listen("type='signal',interface='org.olvara.tv.standin'");
  listener.listen("type='signal',path_namespace='/org/olvara/tv/system/dravel'");
  action();
  ask_nothing(listener, kDaemon); // what a change tells once it has ended has arrived as well
  ask_nothing(listener, kDaemon);
  int count = 0;
  listener.drain([&](DBusMessage *) { ++count; });
  return count;
}

// Gives the bare service the images of a list.
static void keep(bus_client &bus, const words &list) {
  message request = method_call(kBare, "keep");
  const std::int32_t *images = &list[1];
  dbus_message_append_args(request.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &images,
                           static_cast<int>((list.size() - 1) * sizeof list[1]), DBUS_TYPE_INVALID);
  bus.send(request);
}

static void announce(bus_client &bus, int signals) { bus.call(kBare, "announce", {&signals, 1}); }

static void use(const place &where) {
  fs::remove_all("/opt/dbspace");
  if (where.directory.empty()) {
    fs::create_directory("/opt/dbspace");
    return;
  }
  fs::create_directories(where.directory);
  fs::create_directory_symlink(where.directory, "/opt/dbspace");
}

// --- what calls cost ---

static void compare_empty_calls(bus_client &bus) {
  const pair_of_services both(bus, 0, true);
  const auto ask = [&](const bus_target &target) {
    return timed([&] { ask_nothing(bus, target); });
  };
  print_row("empty round trip",
            in_turn(
                2000, [&] { return ask(kDaemon); }, [&] { return ask(kBare); }),
            "us");
}

static void compare_list(bus_client &bus) {
  const pair_of_services both(bus, kFullList, true);
  keep(bus, bus.list(kDaemon));
  if (bus.list(kDaemon) != bus.list(kBare))
    throw std::runtime_error("the two lists differ");
  const auto ask = [&](const bus_target &target) { return timed([&] { bus.list(target); }); };
  print_row("list of " + std::to_string(kFullList),
            in_turn(
                2000, [&] { return ask(kDaemon); }, [&] { return ask(kBare); }),
            "us");
}

static void compare_schedule_and_cancel(bus_client &bus, const place &where, int listed) {
  const pair_of_services both(bus, listed, true);
  // In the middle of the list; no other timer is set for that time.
  timer_arguments added = household_timer(wall_clock(), listed / 2, false);
  added[9] += 420 / 60;
  const auto run = [&](const bus_target &target) {
    return timed([&] { bus.cancel(target, bus.schedule(target, added)); });
  };
  announce(bus, (signals_of([&] { run(kDaemon); }) + 1) / 2);
  print_row("schedule + cancel, " + std::to_string(listed) + " listed",
            in_turn(
                where.rounds, [&] { return run(kDaemon); }, [&] { return run(kBare); }),
            "us");
}

static void set_property(bus_client &bus, const char *name, const std::string &value) {
  const std::string reply =
      bus.ask({kStandin.name, kStandin.path, DBUS_INTERFACE_PROPERTIES}, "Set",
              std::string("('") + kStandin.interface + "', '" + name + "', <" + value + ">)");
  if (reply != "()")
    throw std::runtime_error(std::string(name) + " " + value + ": " + reply);
}

// The clock stands at half a minute, where no timer is due, and goes forth and back. SQLite writes
// nothing for a row that stays as it is, so the bare service is given the rows that the daemon has
// just moved, and the daemon always goes first.
static void compare_clock_change(bus_client &bus, const place &where, const char *what,
                                 std::uint32_t distance) {
  const pair_of_services both(bus, kFullList - 1, false);
  constexpr std::uint32_t kMinute = 60;
  const std::uint32_t now = wall_clock() / kMinute * kMinute + kMinute / 2;
  set_property(bus, "ClocksRunning", "false");
  std::vector<double> ours_took;
  std::vector<double> bare_took;
  for (int round = 0; round < where.rounds / 10; ++round) {
    set_property(bus, "TvClock", u32(round % 2 == 0 ? now + distance : now));
    if (round == 0)
      announce(bus, signals_of([&] { bus.call(kStandin, "TimeSet"); }));
    const double ours = timed([&] { bus.call(kStandin, "TimeSet"); });
    keep(bus, bus.list(kDaemon));
    const double bare = timed([&] { bus.call(kBare, "update_all"); });
    if (round < 2) // warming up
      continue;
    ours_took.push_back(ours);
    bare_took.push_back(bare);
  }
  if (bus.list(kDaemon).size() != 1 + TIMER_WORDS * (kFullList - 1))
    throw std::runtime_error("the clock change left " + std::to_string(bus.list(kDaemon)[0]) +
                             " timers");
  print_row(what, {median(ours_took), median(bare_took)}, "us");
}

// --- start-up and memory ---

static double memory_of(pid_t pid, const char *file, const char *field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
  for (std::string line; std::getline(in, line);)
    if (line.starts_with(field))
      return std::atof(line.c_str() + std::strlen(field) + 1);
  throw std::runtime_error(std::string(file) + " has no " + field);
}

static void compare_starts(bus_client &bus, int rounds) {
  { const pair_of_services filled(bus, kFullList - 1, true); }
  const auto start = [&](const bus_target &target, const std::vector<std::string> &command) {
    std::optional<process> started;
    return timed([&] {
             started.emplace(start_service(bus, target, command));
             ask_nothing(bus, target);
           }) /
           1000;
  };
  std::optional<process> counted;
  const int signals =
      signals_of([&] { counted.emplace(start_service(bus, kDaemon, {daemon_program})); });
  counted.reset();
  print_row("start with 79 stored timers, to the first answer",
            in_turn(
                rounds, [&] { return start(kDaemon, {daemon_program}); },
                [&] { return start(kBare, bare_command(signals)); }),
            "ms");
}

static void compare_memory(bus_client &bus) {
  { const pair_of_services filled(bus, kFullList - 1, true); }
  const process ours = start_service(bus, kDaemon, {daemon_program});
  const process bare = start_service(bus, kBare, bare_command());
  if (bus.list(kDaemon).size() != 1 + TIMER_WORDS * (kFullList - 1))
    throw std::runtime_error("stored timers are missing");
  bus.list(kBare);
  const auto both = [&](const char *file, const char *field) {
    return figures{memory_of(ours.pid(), file, field), memory_of(bare.pid(), file, field)};
  };
  print_row("resident memory, VmRSS", both("status", "VmRSS:"), "kB");
  print_row("resident memory, Pss", both("smaps_rollup", "Pss:"), "kB");
}

// --- expiries ---

static void measure_wakeups(bus_client &bus) {
  const pair_of_services both(bus, kFullList - 1, true);
  constexpr unsigned kSeconds = 5;
  sleep(1);
  const double before = memory_of(both.ours->pid(), "status", "voluntary_ctxt_switches:");
  sleep(kSeconds);
  print_figure("wake-ups in 5 idle seconds, 79 armed",
               memory_of(both.ours->pid(), "status", "voluntary_ctxt_switches:") - before, "");
}

namespace {

// A timer on its way: the second at which it is due, and how far into its second the daemon armed
// it, as the system counts seconds: they begin up to a tick late. Below 0 where a second began
// meanwhile.
struct due_timer {
  double due;
  double into_second;
};

} // namespace

static void print_lateness(const char *what, std::vector<double> seconds) {
  print_figure(std::string(what) + ", median", median(seconds) * 1000, "ms");
  print_figure(std::string(what) + ", worst", *std::ranges::max_element(seconds) * 1000, "ms");
}

// Ordinary timers every two seconds: of those due in the second of an expiry, which may be a second
// late, the clock's adjustment after it takes the others for past. Then transient ones, which it
// leaves alone, 20 a second. They are set over a whole second, because the daemon arms them by
// whole seconds.
static void measure_lateness(bus_client &bus) {
  constexpr int kOrdinary = 20;
  constexpr int kTransient = 180;
  constexpr int kTransientASecond = 20;
  constexpr int kOffTimer = 1;
  constexpr int kTransientTimer = 10;
  constexpr useconds_t kApartUs = 1000000 / (kOrdinary + kTransient);

  empty_store();
  const process ours = start_service(bus, kDaemon, {daemon_program});
  bus.listen("type='signal',path='/org/olvara/tv/system/dravel',member='dravel_expired'");
  for (int i = 0; i < 40; ++i)
    bus.schedule(kDaemon, timer_at(wall_clock() + 7200 + 900U * static_cast<unsigned>(i),
                                   i % 2 == 0 ? 2 : kOffTimer, 0x7f));

  const std::uint32_t start = wall_clock() + 4;
  std::map<int, due_timer> awaited;
  const auto set = [&](int type, std::uint32_t due) {
    const std::uint32_t second = wall_clock();
    const double before = precise_wall_clock();
    const int id = bus.schedule(kDaemon, timer_at(due, type, 0));
    const double armed = (before + precise_wall_clock()) / 2;
    awaited[id] = {static_cast<double>(due), wall_clock() == second ? armed - second : -1};
    usleep(kApartUs);
  };
  for (int i = 0; i < kOrdinary; ++i)
    set(kOffTimer, start + 2 * static_cast<unsigned>(i));
  for (int i = 0; i < kTransient; ++i)
    set(kTransientTimer, start + 2 * kOrdinary + static_cast<unsigned>(i / kTransientASecond));

  std::vector<double> late;
  std::vector<double> beyond_arming;
  bus.receive([&](DBusMessage *arrived) {
    const double now = precise_wall_clock();
    dbus_int32_t id = 0;
    if (!dbus_message_is_signal(arrived, kDaemon.interface, "dravel_expired") ||
        !dbus_message_get_args(arrived, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INVALID))
      return false;
    const auto found = awaited.find(id);
    if (found == awaited.end())
      throw std::runtime_error("a timer fired that was not due");
    const auto [due, into_second] = found->second;
    late.push_back(now - due);
    if (id < 0 && into_second >= 0) // transient ones have kept the arming that the client saw
      beyond_arming.push_back(now - due - into_second);
    awaited.erase(found);
    return awaited.empty();
  });
  print_lateness("200 expiries after the due second", late);
  print_lateness("of the transient ones past the whole-second arming", beyond_arming);
}

static void compare_all(const char *disk_directory) {
  bus_client bus;
  std::printf("  %-46s %9s %9s %-3s %6s\n", "", "daemon", "bare", "", "ratio");
  for (const place &where :
       {place{"store in memory", "", 1000}, place{"store on disk", disk_directory, 200}}) {
    std::printf("%s\n", where.name);
    use(where);
    for (const int listed : {0, 40, kFullList - 1})
      compare_schedule_and_cancel(bus, where, listed);
    compare_clock_change(bus, where, "clock change by a day, 79 one-shot timers move", 86400);
    compare_clock_change(bus, where, "clock change by 67 minutes, few of 79 move", 67 * 60);
    compare_starts(bus, 31);
  }
  use({"", "", 0});
  std::printf("no store in use\n");
  compare_empty_calls(bus);
  compare_list(bus);
  compare_memory(bus);
  measure_wakeups(bus);
  measure_lateness(bus);
}

int main(int argc, char **argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: compare DAEMON BARE-SERVICE DISK-DIRECTORY\n");
    return 64;
  }
  prepare_measuring();
  daemon_program = argv[1];
  bare_program = argv[2];
  try {
    compare_all(argv[3]);
  } catch (const std::exception &trouble) {
    std::fprintf(stderr, "compare: %s\n", trouble.what());
    return 1;
  }
  return 0;
}
