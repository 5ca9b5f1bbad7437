// A disk that is full, read-only or failing under the database: a clear answer, nothing half done,
// and everything as before once there is room.

#include "soak.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr const char *kStoreDirectory = "/opt/dbspace";
static constexpr const char *kFiller = "/opt/dbspace/filler";
static constexpr const char *kBackup = "/opt/dbspace/backup";

static void write_file(const char *path, const std::string &line) { std::ofstream(path) << line; }

// A small disk in place of the store's directory. As an ordinary user the run makes itself the
// owner of its own mounts first.
static void mount_small_disk() {
  if (geteuid() != 0) {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
      fail("no mounts of its own for this user");
    write_file("/proc/self/uid_map", user + ' ' + user + " 1");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/gid_map", group + ' ' + group + " 1");
  }
  if (mount("small", kStoreDirectory, "tmpfs", 0, "size=160k") != 0)
    fail(std::string("no small disk: ") + std::strerror(errno));
}

static void remount(unsigned long flags) {
  if (mount(nullptr, kStoreDirectory, nullptr, MS_REMOUNT | flags, "size=160k") != 0)
    fail(std::string("no remount: ") + std::strerror(errno));
}

// Leaves no byte, as a recording would.
static void fill_disk() {
  const int file = open(kFiller, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const std::string block(512, 'x');
  while (write(file, block.data(), block.size()) > 0)
    continue;
  close(file);
}

static int add(soak_run &run, bus_client &bus) {
  return bus.call_int(daemon_service, "schedule_timer", lasting_timer(run));
}

// Only a copy that was made is answered.
static bool copy_database(bus_client &bus, dbus_int32_t copy_in, const char *directory) {
  message request(dbus_message_new_method_call(daemon_service.name, daemon_service.path,
                                               daemon_service.interface, "request_copy_db"),
                  dbus_message_unref);
  dbus_message_append_args(request.get(), DBUS_TYPE_INT32, &copy_in, DBUS_TYPE_STRING, &directory,
                           DBUS_TYPE_INVALID);
  return bus.is_answered(std::move(request));
}

static std::string stored() { return read_store(daemon_store, "SELECT * FROM dravel"); }

// While nothing can be written: new timers are refused, the others stay, in the list and on the
// disk.
static void check_refusing(soak_run &run, bus_client &bus, const char *when) {
  const timer_map before = listed_timers(bus);
  const std::string rows = stored();
  for (int tries = 0; tries < 3; ++tries)
    if (const int id = add(run, bus); id != -1)
      fail(text("%s: a timer was answered with %d", when, id));
  const dbus_int32_t period[20] = {126, 11, 24, 0, 0, 0, 0, 0, 0, 126, 11, 26};
  if (bus.call_int(daemon_service, "request_set_disable_period", period) != -1)
    fail(text("%s: a period was taken", when));
  if (listed_timers(bus) != before || stored() != rows)
    fail(text("%s: refused timers changed the list or the store", when));
}

static void check_working(soak_run &run, bus_client &bus, const char *when) {
  const int id = add(run, bus);
  if (id <= 0 || !listed_timers(bus).contains(id))
    fail(text("%s: a timer was answered with %d", when, id));
  if (read_store(daemon_store, "SELECT max(timer_id) FROM dravel") != std::to_string(id) + '\n')
    fail(text("%s: timer %d is not stored", when, id));
}

// A cancelled timer whose row cannot be deleted is gone for this run, and back at the next start.
static int cancel_undeletable(soak_run &run, bus_client &bus) {
  const timer_map listed = listed_timers(bus);
  const int id = std::next(listed.begin(), run.below(static_cast<unsigned>(listed.size())))->first;
  bus.cancel(daemon_service, id);
  if (listed_timers(bus).contains(id))
    fail("a cancelled timer is still listed");
  return id;
}

static void full_disk(soak_run &run, bus_client &bus) {
  timer_map before;
  {
    const auto daemon = start_daemon(run, bus);
    while (add(run, bus) != -1 && listed_timers(bus).size() < 70)
      if (run.below(20) == 0)
        break;
    check_sound(daemon_store);
    before = listed_timers(bus);
    if (!copy_database(bus, 0, kBackup))
      fail("no backup");
    const std::string backup = read_store("/opt/dbspace/backup/.dravel.db", "SELECT * FROM dravel");
    fill_disk();
    check_refusing(run, bus, "disk full");
    cancel_undeletable(run, bus);
    // Copies have no room either. The backup stays whole, and so does the store.
    const std::string rows = stored();
    if (copy_database(bus, 0, kBackup))
      fail("a copy out without room was answered");
    if (copy_database(bus, 1, kBackup))
      fail("a copy in without room was answered");
    if (read_store("/opt/dbspace/backup/.dravel.db", "SELECT * FROM dravel") != backup ||
        stored() != rows)
      fail("a copy without room damaged what was there");
  }
  {
    const auto daemon = start_daemon(run, bus); // still full
    if (listed_timers(bus) != before)
      fail("timers got lost at a start on a full disk");
    check_refusing(run, bus, "started on a full disk");
    fs::remove(kFiller);
    check_working(run, bus, "room again");
  }
  check_sound(daemon_store);
}

static void read_only_disk(soak_run &run, bus_client &bus) {
  const std::string rows = stored();
  remount(MS_RDONLY);
  {
    const auto daemon = start_daemon(run, bus);
    if (stored() != rows)
      fail("a read-only disk changed");
    check_refusing(run, bus, "read-only");
    remount(0);
  }
  const auto daemon = start_daemon(run, bus);
  check_working(run, bus, "writable again");
}

// From now on the daemon's writes to files fail, as on a worn flash memory.
static void limit_writes(pid_t pid, rlim_t bytes) {
  const rlimit limit{bytes, RLIM_INFINITY};
  if (prlimit(pid, RLIMIT_FSIZE, &limit, nullptr) != 0)
    fail("no limit");
}

static void failing_disk(soak_run &run, bus_client &bus) {
  timer_map before;
  {
    auto daemon = start_daemon(run, bus);
    check_working(run, bus, "before writes fail");
    limit_writes(daemon->pid(), 0);
    check_refusing(run, bus, "writes fail");
    limit_writes(daemon->pid(), RLIM_INFINITY);
    check_working(run, bus, "writes succeed again");
    before = listed_timers(bus);
  }
  const auto daemon = start_daemon(run, bus);
  if (listed_timers(bus) != before)
    fail("timers got lost after writes that failed");
}

std::string run_disk(soak_run &run) {
  std::signal(SIGXFSZ, SIG_IGN); // the daemon inherits it: a failing write is then an error alone
  mount_small_disk();
  bus_client bus;
  for (int round = 0; round < run.rounds; ++round) {
    fs::remove_all(kBackup);
    empty_store();
    fs::create_directory(kBackup);
    full_disk(run, bus);
    read_only_disk(run, bus);
    failing_disk(run, bus);
  }
  umount2(kStoreDirectory, MNT_DETACH);
  return text("%d times full, read-only and failing: refused clearly, nothing lost", run.rounds);
}
