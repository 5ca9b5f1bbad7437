// The faults: how each is prepared, does its harm and is repaired.

#include "soak.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sched.h>
#include <standin.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

// --- SIGKILL for the daemon, or for the bus, while changes are made ---

static void change_until_killed(soak_run &run, pid_t victim, unsigned longest_us) {
  auto killed = std::async(std::launch::async, [victim, wait = run.below(longest_us)] {
    usleep(wait);
    return kill(victim, SIGKILL);
  });
  while (change(run))
    continue;
  if (killed.get() != 0)
    fail("a process ended before it was killed");
}

static void kill_daemon(soak_run &run) { change_until_killed(run, run.daemon->pid(), 30000); }

static void use_bus(soak_run &run, const char *address) {
  run.address = address;
  run.bus.reset();
}

// dbus-daemon takes connections once --fork returns.
static void start_bus(soak_run &run) {
  static constexpr const char *kAddress = "unix:path=/run/bench/short-lived";
  process({"/usr/bin/dbus-daemon", "--fork", "--nosyslog",
           std::string("--config-file=") + BUS_CONFIGURATION, std::string("--address=") + kAddress})
      .wait();
  use_bus(run, kAddress);
}

static void kill_bus(soak_run &run) {
  change_until_killed(run, run.bus->pid_of(DBUS_SERVICE_DBUS), 50000);
}

static void use_sandbox_bus(soak_run &run) { use_bus(run, kSandboxBus); }

// --- a disk that is full, read-only or failing ---

static constexpr const char *kDisk = "/opt/dbspace";
static constexpr const char *kFiller = "/opt/dbspace/filler";
static constexpr const char *kBackup = "/opt/dbspace/backup";
static constexpr const char *kAllRows = "SELECT * FROM dravel";

static void write_line(const char *path, const std::string &line) { std::ofstream(path) << line; }

static void mount_disk(const char *source, unsigned long flags) {
  if (mount(source, kDisk, "tmpfs", flags, "size=160k") != 0)
    fail(std::string("no small disk: ") + std::strerror(errno));
}

// An ordinary user makes itself the owner of its own mounts first.
static void use_small_disk() {
  if (geteuid() != 0) {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
      fail("no mounts of its own for this user");
    write_line("/proc/self/uid_map", user + ' ' + user + " 1");
    write_line("/proc/self/setgroups", "deny");
    write_line("/proc/self/gid_map", group + ' ' + group + " 1");
  }
  mount_disk("small", 0);
}

static void fill_disk() { std::ofstream(kFiller) << std::string(1 << 20, 'x'); }

static void limit_writes(const soak_run &run, rlim_t bytes) {
  const rlimit limit{bytes, RLIM_INFINITY};
  if (prlimit(run.daemon->pid(), RLIMIT_FSIZE, &limit, nullptr) != 0)
    fail("no limit");
}

enum hindrance { FULL, READ_ONLY, FAILING, kHindrances };

static void prepare_disk(soak_run &run) {
  std::signal(SIGXFSZ, SIG_IGN); // the daemon inherits it: a failing write is then an error alone
  if (run.round == 0)
    use_small_disk();
  else if (run.round % kHindrances == READ_ONLY)
    mount_disk(nullptr, MS_REMOUNT | MS_RDONLY);
  else if (run.below(2) == 0)
    fill_disk(); // a start without room
}

static bool copies(soak_run &run, const char *direction) {
  return run.bus->is_answered(kDaemon, "request_copy_db",
                              std::string("(") + direction + ", '" + kBackup + "')");
}

// While nothing can be written, new timers and periods are refused, and a cancelled timer whose row
// cannot be deleted is gone until the next start. No copy has room, and none damages what is there.
static void check_refusing(soak_run &run) {
  timer_map listed = listed_timers(*run.bus);
  const std::string stored = rows(kAllRows);
  const auto period = period_arguments("24 00:00", "26 00:00");
  if (run.bus->call_int(kDaemon, "schedule_timer", any_timer(run)) != -1 ||
      run.bus->call_int(kDaemon, "request_set_disable_period", period) != -1)
    fail("what cannot be stored was not refused");
  if (run.round % kHindrances == FULL && (copies(run, "0") || copies(run, "1")))
    fail("a copy without room was answered");
  if (!listed.empty()) {
    run.bus->cancel(kDaemon, listed.begin()->first);
    listed.erase(listed.begin());
  }
  if (listed_timers(*run.bus) != listed || rows(kAllRows) != stored)
    fail("refused changes were made");
}

// Room again while the daemon runs, but for the read-only disk.
static void hinder_disk(soak_run &run) {
  if (run.round % kHindrances == READ_ONLY)
    return check_refusing(run);
  fs::remove(kFiller);
  for (unsigned changes = 1 + run.below(20); changes > 0; --changes)
    change(run);
  fs::create_directory(kBackup);
  if (!copies(run, "0"))
    fail("no backup");
  const std::string backup = rows(kAllRows);
  if (run.round % kHindrances == FULL)
    fill_disk();
  else
    limit_writes(run, 0);
  check_refusing(run);
  if (rows(kAllRows, "/opt/dbspace/backup/.dravel.db") != backup)
    fail("a copy without room damaged the backup");
  fs::remove(kFiller);
  limit_writes(run, RLIM_INFINITY);
  run.bus->cancel(kDaemon, run.bus->schedule(kDaemon, any_timer(run)));
}

static void repair_disk(soak_run &run) {
  if (run.round % kHindrances == READ_ONLY)
    mount_disk(nullptr, MS_REMOUNT);
}

// --- files that a worn memory or another program has left ---

static constexpr int kStoredTimers = 12;
static std::string sound_bytes;

static std::string bytes_of(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

static void write_bytes(const char *path, const std::string &bytes) {
  for (const char *ending : {"", "-journal", "-wal", "-shm"})
    fs::remove_all(std::string(path) + ending);
  std::ofstream(path, std::ios::binary) << bytes;
}

static std::string damaged(soak_run &run, std::string bytes) {
  static const std::string foreign[] = {
      "", "SQLite format 3", std::string("SQLite format 3\0", 16) + std::string(4080, '\0')};
  const auto size = static_cast<unsigned>(bytes.size());
  switch (run.below(5)) {
  case 0: // in the header and the schema, or anywhere
    for (unsigned flips = run.below(8) + 1, end = run.below(2) == 0 ? 120 : size; flips > 0;
         --flips)
      bytes[run.below(end)] ^= static_cast<char>(1U << run.below(8));
    return bytes;
  case 1:
    return bytes.substr(0, run.below(size));
  case 2: // a block of the flash memory
    return bytes.replace(run.below(size), 512, 512, run.below(2) == 0 ? '\0' : '\xff');
  case 3:
    return bytes.append(run.below(9000), 'x');
  default:
    return run.pick(foreign);
  }
}

static void damage_files(soak_run &run) {
  if (run.round == 0)
    return;
  // The daemon deletes a wake-up database that it cannot use; the next start makes a new one.
  const bool wakeup = run.below(8) == 0 && !bytes_of(kWakeupDbPath).empty();
  const char *path = wakeup ? kWakeupDbPath : kDravelDbPath;
  write_bytes(path, damaged(run, bytes_of(path)));
  write_bytes("/tmp/probe.db", bytes_of(kDravelDbPath));
}

// The rows that SQLite reads unchanged from a file in which it finds no fault.
static std::vector<std::string> readable_rows(const char *path) {
  try {
    if (rows("PRAGMA integrity_check; PRAGMA user_version", path) == "ok 1")
      return stored_timers(path);
  } catch (const std::runtime_error &) { // nothing is readable
  }
  return {};
}

static void check_kept(soak_run &run) {
  if (run.round == 0)
    return check_all(run);
  const timer_map listed = listed_timers(*run.bus);
  const std::vector<std::string> readable = readable_rows("/tmp/probe.db");
  for (const auto &[id, timer] : run.book.timers)
    if (std::ranges::count(readable, row_of(timer)) > 0 &&
        (!listed.contains(id) || listed.at(id) != timer))
      fail("the readable timer " + std::to_string(id) + " is not listed as it is stored");
}

static void use_files(soak_run &run) {
  if (run.round == 0)
    while (run.book.timers.size() < kStoredTimers)
      change(run);
  const int option = 0;
  run.bus->call(kStandin, "Standby", {&option, 1}); // fills the wake-up database
  const int id = run.bus->call_int(kDaemon, "schedule_timer", any_timer(run));
  if (listed_timers(*run.bus).contains(id) != (id != -1))
    fail("the answer and the list differ");
  if (id != -1)
    run.bus->cancel(kDaemon, id);
}

static void mend_files(soak_run &run) {
  if (run.round == 0)
    sound_bytes = bytes_of(kDravelDbPath);
  write_bytes(kDravelDbPath, sound_bytes);
}

// --- events of the set ---

static void send_event(soak_run &run, const char *event, std::initializer_list<int> arguments) {
  run.bus->call(kStandin, event, {arguments.begin(), arguments.size()});
}

// An adjustment moves one-shot timers by whole days.
static void accept_moved_dates(soak_run &run) {
  const timer_map listed = listed_timers(*run.bus);
  for (auto &[id, timer] : run.book.timers)
    if (timer[TIMER_WORD_WEEK_FLAG] == 0 && listed.contains(id))
      std::copy_n(&listed.at(id)[TIMER_WORD_MDAY], TIMER_WORD_YDAY - TIMER_WORD_MDAY + 1,
                  &timer[TIMER_WORD_MDAY]);
}

// --- operations of the set that are refused, at the start or later ---

// Without the first a timer has no time and is removed; without another the start fails.
static constexpr std::string_view kIndispensable[] = {"Unsigned_timegm",
                                                      "device_power_subscribe_poweroff",
                                                      "device_power_subscribe_standby",
                                                      "device_power_subscribe_wakeup",
                                                      "device_power_subscribe_ambient_poweroff",
                                                      "settings_notify_key_changed"};

static std::string refused_in(const soak_run &run) {
  const std::size_t index = static_cast<std::size_t>(run.round) / 2 % std::size(kStandinOperations);
  const std::string_view operation = kStandinOperations[index];
  const bool left_out = std::ranges::find(kIndispensable, operation) != std::end(kIndispensable);
  return left_out ? "" : std::string(operation);
}

static void refuse_at_start(soak_run &run) {
  run.keys = run.round % 2 == 0 ? "Refuse=" + refused_in(run) : "";
}

static void send_all_events(soak_run &run) {
  send_event(run, "Standby", {0});
  send_event(run, "Wakeup", {20});
  send_event(run, "AmbientPowerOff", {});
  send_event(run, "StateChanged", {4, 2});
  send_event(run, "TimeSet", {});
  for (const char *mode : {"0", "1"})
    run.bus->set_property("ClockMode", mode);
  send_event(run, "MiddlewareSignal", {108});
}

// Once the operations work again and the set sends an event, the next on-time is programmed.
static void refuse_and_recover(soak_run &run) {
  const std::string refused = "'" + refused_in(run) + "'";
  run.bus->set_property("Refuse", refused);
  for (unsigned changes = 1 + run.below(5); changes > 0; --changes)
    change(run);
  send_all_events(run);
  change(run);
  run.bus->set_property("Refuse", "''");
  send_event(run, "MiddlewareSignal", {108});
  send_event(run, "TimeSet", {});
  const int id = run.bus->schedule(kDaemon, arguments_of({2, "15 12:30"}));
  if (run.bus->property("WakeupTime") != u32(time_of("15 12:30")))
    fail(refused + ": the next on-time is not programmed");
  run.bus->cancel(kDaemon, id);
  accept_moved_dates(run);
  run.bus->set_property("Refuse", refused); // for its end
}

// --- clocks, zones and clock modes that change ---

static void change_clock(soak_run &run) {
  static constexpr const char *kZones[] = {"'UTC'", "'Europe/Berlin'", "'Asia/Kolkata'",
                                           "'Pacific/Apia'", "'Australia/Lord_Howe'"};
  constexpr std::uint32_t kMinute = 60;
  const std::uint32_t first = time_of("2001-01-01 00:00");
  const std::uint32_t span = time_of("2099-12-01 00:00") - first;
  const unsigned choice = run.below(6);
  if (choice == 0)
    return run.bus->set_property("TimeZone", run.pick(kZones));
  if (choice == 1)
    return run.bus->set_property("ClockMode", std::to_string(run.below(3)));
  // Timers stand on whole minutes: a clock that shows no whole minute makes none of them due.
  run.bus->set_property("TvClock",
                        u32((first + run.below(span)) / kMinute * kMinute + kMinute / 2));
  send_event(run, "TimeSet", {});
}

static void change_clocks(soak_run &run) {
  for (int changes = 0; changes < 40; ++changes)
    change(run);
  for (int changes = 0; changes < 50; ++changes)
    change_clock(run);
  run.bus->set_property("TvClock", u32(time_of(kNoon)));
  send_event(run, "TimeSet", {});
  accept_moved_dates(run);
}

std::span<const fault> faults() {
  static constexpr fault kFaults[] = {
      {"kills", 1000, 3, nullptr, check_all, kill_daemon, -SIGKILL, nullptr},
      {"lost-bus", 100, 1, start_bus, check_all, kill_bus, 0, use_sandbox_bus},
      {"files", 10000, 20, damage_files, check_kept, use_files, 0, mend_files},
      {"refusals", 600, 60, refuse_at_start, check_all, refuse_and_recover, 0, nullptr},
      {"clocks", 2000, 2, nullptr, check_all, change_clocks, 0, nullptr},
      // The last one: the small disk stays.
      {"disk", 120, 3, prepare_disk, check_all, hinder_disk, 0, repair_disk},
  };
  return kFaults;
}
