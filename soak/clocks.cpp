// Clocks, zones and clock modes that change under a full list: no timer gets lost, and the daemon's
// memory stays.

#include "soak.h"

#include <algorithm>
#include <cstring>
#include <fstream>

static constexpr unsigned kTimers = 80;
static constexpr std::uint32_t kYear2000 = 946684800;
static constexpr std::uint32_t kYear2100 = 4102444800;
static constexpr const char *kZones[] = {"UTC",          "Europe/Berlin",    "America/New_York",
                                         "Asia/Kolkata", "Pacific/Apia",     "Australia/Lord_Howe",
                                         "Asia/Tokyo",   "America/St_Johns", "Antarctica/Troll"};
static constexpr int kSettlingRounds = 500; // until the heap has found its size
static constexpr long kGrowthKb = 128;      // from then on

static long resident_kb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:"))
      return std::atol(line.c_str() + std::strlen("VmRSS:"));
  fail("no resident memory");
}

// Timers stand on whole minutes: a clock that shows no whole minute makes none of them due.
static std::uint32_t between_minutes(std::uint32_t time) { return time / 60 * 60 + 30; }

static void change_something(soak_run &run, bus_client &bus) {
  static std::uint32_t now = kNoon;
  switch (run.below(6)) {
  case 0:
    bus.set_text("TimeZone", run.pick(kZones));
    return;
  case 1:
    bus.set_property("ClockMode", DBUS_TYPE_INT32, run.below(3));
    return;
  case 2: { // some known time of the century
    now = kYear2000 + static_cast<std::uint32_t>(run.random()) % (kYear2100 - kYear2000 - 2 * kDay);
    break;
  }
  default: // up to two days forth or back
    now += run.below(4 * kDay) - 2 * kDay;
    if (now < kYear2000 || now > kYear2100 - 2 * kDay)
      now = kNoon;
  }
  bus.set_property("TvClock", DBUS_TYPE_UINT32, between_minutes(now));
  bus.call(daemon_set, "TimeSet");
}

std::string run_clocks(soak_run &run) {
  bus_client bus;
  const auto daemon = start_daemon(run, bus);
  bus.set_property("TvClock", DBUS_TYPE_UINT32, between_minutes(kNoon));
  for (unsigned i = 0; i < kTimers; ++i)
    bus.schedule(daemon_service, distinct_timer(run, i));

  const int settling = std::max(run.rounds / 10, kSettlingRounds);
  long settled_kb = resident_kb(daemon->pid());
  for (int round = 0; round < run.rounds; ++round) {
    change_something(run, bus);
    if (round == settling)
      settled_kb = resident_kb(daemon->pid());
    if (round % 100 == 0 && listed_timers(bus).size() != kTimers)
      fail(text("%zu timers are left after %d changes", listed_timers(bus).size(), round + 1));
  }
  if (listed_timers(bus).size() != kTimers)
    fail(text("%zu timers are left", listed_timers(bus).size()));
  const long grown_kb = resident_kb(daemon->pid()) - settled_kb;
  // A shorter run, and one under sanitizers, which hold released memory back, says nothing of it.
  if (run.rounds <= settling || std::getenv("ASAN_OPTIONS") != nullptr)
    return text("%d changes, %u timers kept", run.rounds, kTimers);
  if (grown_kb > kGrowthKb)
    fail(text("the daemon has grown by %ld kB", grown_kb));
  return text("%d changes, %u timers kept, memory grown by %ld kB since the %dth", run.rounds,
              kTimers, grown_kb, settling);
}
