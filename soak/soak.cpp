// Injects faults into the daemon and prints what was seen. Seeded: the same seed gives the same
// faults, but for the moments at which processes are killed.
//
// Usage: soak DAEMON SEED ROUNDS-PERCENT FAULT   in scripts/sandbox

#include "process.h"
#include "store.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

static constexpr std::size_t kFullBook = 60; // of 80 timers that the daemon keeps
static constexpr std::uint32_t kDay = 86400;
static constexpr std::uint32_t kMinutesOutsideTheHour = 23 * 60;
static constexpr std::uint32_t kStepMinutes = 101; // has no factor in common with that

using timer_map = std::map<int, timer_words>; // by id

static std::string program;
static std::mt19937 generator;
static int current_round;
static std::optional<bus_client> bus;

// What a client may rely on while the daemon comes and goes.
static timer_map book;
static int acknowledged;
static timer_arguments unanswered_add;
static int unanswered_cancel;

[[noreturn]] static void fail(const std::string &what) { throw std::runtime_error(what); }

// From 0 to `limit` - 1.
template <typename T> static T below(T limit) {
  return static_cast<T>(generator() % static_cast<std::mt19937::result_type>(limit));
}

// --- the daemon and its timers ---

static process begin(const char *address = kSandboxBus) {
  bus.emplace(address);
  return start_daemon({program, "", "error", address}, *bus);
}

static void check_end(int status, int expected = 0) {
  if (status != expected)
    fail("the daemon ended with " + std::to_string(status));
}

// At a minute of the day of its own, not within the hour from noon, up to 300 days ahead, so that
// it lasts until it is cancelled.
static timer_arguments any_timer() {
  static constexpr int kTypes[] = {0, 1, 2, 3, 5};
  static std::uint32_t minute;
  minute = (minute + kStepMinutes) % kMinutesOutsideTheHour;
  const std::uint32_t at = time_of("16 13:00") + kDay * below(300U) + 60 * minute;
  const int week_flag = below(2) == 0 ? 0 : 1 + below(int{kDaily});
  timer_arguments timer =
      arguments_of({kTypes[below(std::size(kTypes))], time_text(at), week_flag});
  timer[TIMER_ARG_PRIORITY] = below(5);
  timer[TIMER_ARG_DELAY] = below(1000);
  return timer;
}

// Nothing when there was no answer.
static std::optional<int> answer_to(const char *method, std::span<const int> arguments) {
  const message reply = bus->try_call(kDaemon, method, arguments);
  acknowledged += reply == nullptr ? 0 : 1;
  return reply == nullptr ? std::nullopt : std::optional(int_of(reply));
}

static bool cancel_one() {
  unanswered_cancel = std::next(book.begin(), below(static_cast<long>(book.size())))->first;
  const auto answer = answer_to("cancel_timer", {&unanswered_cancel, 1});
  if (answer && *answer != 0)
    fail("the listed timer " + std::to_string(unanswered_cancel) + " was not cancelled");
  if (answer)
    book.erase(std::exchange(unanswered_cancel, 0));
  return answer.has_value();
}

static bool add_one() {
  unanswered_add = any_timer();
  const auto id = answer_to("schedule_timer", unanswered_add);
  if (id && (*id <= 0 || !book.emplace(*id, words_of(*id, unanswered_add)).second))
    fail("a new timer was answered with " + std::to_string(*id));
  if (id)
    unanswered_add = {};
  return id.has_value();
}

// False when it was not answered.
static bool change() {
  const bool cancels = book.size() >= kFullBook || (!book.empty() && below(5) < 2);
  return cancels ? cancel_one() : add_one();
}

static void make_changes(int count) {
  for (; count > 0; --count)
    change();
}

// --- the checks ---

// Of whole images, one after the other.
static timer_map timers_in(std::span<const int> images) {
  timer_map timers;
  for (; images.size() >= TIMER_WORDS; images = images.subspan(TIMER_WORDS)) {
    timer_words &timer = timers[images[TIMER_WORD_ID]];
    std::copy_n(images.begin(), timer.size(), timer.begin());
  }
  return timers;
}

static timer_map listed_timers() {
  const words list = bus->list(kDaemon);
  timer_map timers = timers_in(std::span(list).subspan(1));
  if (timers.size() * TIMER_WORDS + 1 != list.size() || static_cast<int>(timers.size()) != list[0])
    fail("the list is not made of so many whole images as it says, each of another timer");
  return timers;
}

// Up to the first row that holds anything but whole numbers.
static timer_map stored_timers() {
  std::string text =
      rows("SELECT timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon, "
           "tm_year, tm_wday, tm_yday, tm_isdst, 0, 0, delay, week_flag, disable_period_effect, "
           "time_type FROM dravel");
  std::ranges::replace(text, '|', ' ');
  std::istringstream in(text);
  return timers_in(words{std::istream_iterator<int>(in), {}});
}

// The change that was not answered may have been made or not.
static void settle_unanswered(const timer_map &listed) {
  if (!listed.contains(unanswered_cancel))
    book.erase(unanswered_cancel);
  for (const auto &[id, timer] : listed)
    if (!book.contains(id) && timer == words_of(id, unanswered_add))
      book.emplace(id, timer);
  unanswered_cancel = 0;
  unanswered_add = {};
}

// The list, the rows and the acknowledged changes are the same; the store is sound.
static void check_all() {
  const timer_map listed = listed_timers();
  settle_unanswered(listed);
  if (listed != book)
    fail("not those timers are listed that were acknowledged");
  if (stored_timers() != listed)
    fail("the list and the store differ");
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    if (const std::string found = rows("PRAGMA integrity_check", path); found != "ok")
      fail(std::string(path) + ": " + found);
}

// --- SIGKILL for the daemon, or for the bus, while changes are made ---

static void change_until_killed(pid_t victim, unsigned longest_us) {
  auto killed = std::async(std::launch::async, [victim, wait = below(longest_us)] {
    usleep(wait);
    return kill(victim, SIGKILL);
  });
  while (change())
    continue;
  if (killed.get() != 0)
    fail("a process ended before it was killed");
}

static void kill_daemon() {
  process daemon = begin();
  check_all();
  change_until_killed(daemon.pid(), 30000);
  check_end(daemon.wait(), -SIGKILL);
}

// dbus-daemon takes connections once --fork returns.
static void kill_bus() {
  static constexpr const char *kAddress = "unix:path=/run/bench/short-lived";
  process({"/usr/bin/dbus-daemon", "--fork", "--nosyslog",
           std::string("--config-file=").append(BUS_CONFIGURATION),
           std::string("--address=").append(kAddress)})
      .wait();
  process daemon = begin(kAddress);
  check_all();
  change_until_killed(bus->pid_of(DBUS_SERVICE_DBUS), 50000);
  check_end(daemon.wait());
}

// --- a disk that is full, read-only or failing ---

static constexpr const char *kDisk = "/opt/dbspace";
static constexpr const char *kFiller = "/opt/dbspace/filler";
static constexpr const char *kBackup = "/opt/dbspace/backup";
static constexpr const char *kAllRows = "SELECT * FROM dravel";

enum hindrance { FULL, READ_ONLY, FAILING, kHindrances };

static void mount_disk(const char *source, unsigned long flags) {
  if (mount(source, kDisk, "tmpfs", flags, "size=160k") != 0)
    fail("no small disk");
}

// An ordinary user makes itself the owner of its own mounts first.
static void use_small_disk() {
  if (geteuid() != 0) {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
      fail("no mounts of its own for this user");
    std::ofstream("/proc/self/uid_map") << user + ' ' + user + " 1";
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/gid_map") << group + ' ' + group + " 1";
  }
  mount_disk("small", 0);
  std::signal(SIGXFSZ, SIG_IGN); // the daemon inherits it: a failing write is then an error alone
}

static void fill_disk() { std::ofstream(kFiller) << std::string(1 << 20, 'x'); }

static void limit_writes(const process &daemon, rlim_t bytes) {
  const rlimit limit{bytes, RLIM_INFINITY};
  if (prlimit(daemon.pid(), RLIMIT_FSIZE, &limit, nullptr) != 0)
    fail("no limit");
}

static bool copies(const char *direction) {
  return bus->is_answered(kDaemon, "request_copy_db",
                          std::string("(") + direction + ", '" + kBackup + "')");
}

// While nothing can be written, new timers and periods are refused, and a cancelled timer whose row
// cannot be deleted is gone until the next start. No copy has room, and none damages what is there.
static void check_refusing(hindrance by) {
  timer_map listed = listed_timers();
  const std::string stored = rows(kAllRows);
  const auto period = period_arguments("24 00:00", "26 00:00");
  if (bus->call_int(kDaemon, "schedule_timer", any_timer()) != -1 ||
      bus->call_int(kDaemon, "request_set_disable_period", period) != -1)
    fail("what cannot be stored was not refused");
  if (by == FULL && (copies("0") || copies("1")))
    fail("a copy without room was answered");
  if (!listed.empty()) {
    bus->cancel(kDaemon, listed.begin()->first);
    listed.erase(listed.begin());
  }
  if (listed_timers() != listed || rows(kAllRows) != stored)
    fail("refused changes were made");
}

static void check_hindered(const process &daemon, hindrance by) {
  fs::remove(kFiller);
  make_changes(1 + below(20));
  fs::create_directory(kBackup);
  if (!copies("0"))
    fail("no backup");
  const std::string backup = rows(kAllRows);
  if (by == FULL)
    fill_disk();
  else
    limit_writes(daemon, 0);
  check_refusing(by);
  if (rows(kAllRows, "/opt/dbspace/backup/.dravel.db") != backup)
    fail("a copy without room damaged the backup");
  for (const auto &entry : fs::recursive_directory_iterator(kDisk))
    if (entry.path().filename().string().starts_with(".dravel.db."))
      fail("a copy without room left " + entry.path().string());
  fs::remove(kFiller);
  limit_writes(daemon, RLIM_INFINITY);
  bus->cancel(kDaemon, bus->schedule(kDaemon, any_timer()));
}

static void hinder_disk() {
  const auto by = static_cast<hindrance>(current_round % kHindrances);
  if (current_round == 0)
    use_small_disk();
  else if (by == READ_ONLY)
    mount_disk(nullptr, MS_REMOUNT | MS_RDONLY);
  else if (below(2) == 0)
    fill_disk(); // a start without room
  process daemon = begin();
  check_all();
  if (by == READ_ONLY)
    check_refusing(by);
  else
    check_hindered(daemon, by); // with room again while the daemon runs
  check_end(daemon.stop());
  mount_disk(nullptr, MS_REMOUNT);
}

// --- the run ---

static constexpr struct {
  std::string_view name;
  int rounds; // of the full run
  int least;  // of any
  void (*round)();
} kFaults[] = {
    {"kills", 1000, 3, kill_daemon},
    {"lost-bus", 100, 1, kill_bus},
    {"disk", 120, 3, hinder_disk},
};

static void run(void (*round)(), int rounds) {
  empty_store();
  for (; current_round < rounds; ++current_round)
    round();
  if (acknowledged == 0)
    fail("no change was acknowledged");
  process daemon = begin();
  check_all();
  check_end(daemon.stop());
}

int main(int argc, char **argv) {
  const std::string_view wanted = argc == 5 ? argv[4] : "";
  const auto *fault = std::ranges::find(kFaults, wanted, [](const auto &row) { return row.name; });
  if (fault == std::end(kFaults)) {
    std::fprintf(stderr, "usage: soak DAEMON SEED ROUNDS-PERCENT FAULT, see CONTRIBUTING.md\n");
    return 64;
  }
  program = argv[1];
  generator.seed(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
  const int rounds =
      std::max(fault->least, static_cast<int>(fault->rounds * std::strtod(argv[3], nullptr) / 100));
  std::printf("%-9s seed %s: ", argv[4], argv[2]);
  std::fflush(stdout);
  const auto begun = std::chrono::steady_clock::now();
  try {
    run(fault->round, rounds);
  } catch (const std::exception &failure) {
    std::printf("round %d: %s\n%s", current_round, failure.what(), daemon_log().c_str());
    return 1;
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  std::printf("%d rounds, %d changes acknowledged, none lost, %.0f s\n", rounds, acknowledged,
              took.count());
}
