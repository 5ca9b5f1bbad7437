#include "state.h"

#include "journal.h"

#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <initializer_list>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

static constexpr int kDirectoryMode = 0755;
static constexpr int kFileMode = 0644;

static std::string directory_of(const char *variable, const char *otherwise) {
  const char *given = std::getenv(variable);
  return given == nullptr ? otherwise : given;
}

static const std::string &state_directory() {
  static const std::string directory = directory_of("STATE_DIRECTORY", "/var/lib/dravel-manager");
  return directory;
}

static const std::string &runtime_directory() {
  static const std::string directory = directory_of("RUNTIME_DIRECTORY", "/run/dravel-manager");
  return directory;
}

// --- the lock ---

static int open_lock(const std::string &path) {
  if (g_mkdir_with_parents(state_directory().c_str(), kDirectoryMode) != 0)
    return -1;
  return open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, kFileMode);
}

bool lock_state() {
  const std::string path = state_directory() + "/lock";
  const int lock = open_lock(path);
  if (lock < 0) {
    const bool is_denied = errno == EACCES;
    report("%s: %s; %s", path.c_str(), g_strerror(errno),
           is_denied ? "this daemon ends" : "a second daemon is not noticed");
    return !is_denied;
  }
  if (flock(lock, LOCK_EX | LOCK_NB) == 0)
    return true;
  report("another dravel-manager runs on this machine, this one ends");
  close(lock);
  return false;
}

// --- records ---

namespace {

// A file with one group of numbers.
struct record_file {
  std::string path;
  const char *group;
};

} // namespace

static record_file wake_up_file() { return {state_directory() + "/wake-up", "wake-up"}; }
static record_file power_file() { return {runtime_directory() + "/power", "power"}; }

// Without fsync: it would block the main loop for as long as the disk takes.
static bool write_file(const std::string &path, const std::string &text) {
  const std::string fresh = path + ".new";
  return (std::ofstream(fresh) << text).flush() && rename(fresh.c_str(), path.c_str()) == 0;
}

using numbers = std::initializer_list<std::pair<const char *, std::int64_t>>;

// False, and one line with the consequence, when it is not written.
static bool write_numbers(const record_file &record, numbers values, const char *consequence) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  for (const auto &[key, value] : values)
    g_key_file_set_int64(file, record.group, key, value);
  g_autofree char *text = g_key_file_to_data(file, nullptr, nullptr);
  g_autofree char *directory = g_path_get_dirname(record.path.c_str());
  g_mkdir_with_parents(directory, kDirectoryMode);
  const bool written = write_file(record.path, text);
  if (!written)
    report("%s: %s; %s", record.path.c_str(), g_strerror(errno), consequence);
  return written;
}

// Null when there is no such file.
static GKeyFile *read_numbers(const record_file &record) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  if (g_key_file_load_from_file(file, record.path.c_str(), G_KEY_FILE_NONE, nullptr) == 0)
    return nullptr;
  return g_steal_pointer(&file);
}

static std::uint32_t number(GKeyFile *file, const record_file &record, const char *key) {
  return static_cast<std::uint32_t>(g_key_file_get_uint64(file, record.group, key, nullptr));
}

void keep_wake_up(const wake_up &wake) {
  static std::optional<wake_up> kept;
  if (kept != wake &&
      write_numbers(wake_up_file(),
                    {{"type", wake.type}, {"on-time", wake.on_time}, {"alarm", wake.alarm}},
                    "a boot by the alarm counts as one by the user"))
    kept = wake;
}

wake_up kept_wake_up() {
  const record_file record = wake_up_file();
  g_autoptr(GKeyFile) file = read_numbers(record);
  if (file == nullptr)
    return {};
  return {number(file, record, "type"), number(file, record, "on-time"),
          number(file, record, "alarm")};
}

void keep_power(const power_record &power) {
  static std::optional<power_record> kept;
  if (kept != power && write_numbers(power_file(),
                                     {{"state", power.state},
                                      {"wakeup-reason", power.wakeup_reason},
                                      {"was-booted", power.was_booted},
                                      {"returns", power.returns}},
                                     "the next daemon assumes that the screen is on"))
    kept = power;
}

std::optional<power_record> kept_power() {
  const record_file record = power_file();
  g_autoptr(GKeyFile) file = read_numbers(record);
  if (file == nullptr)
    return std::nullopt;
  const auto value = [&](const char *key) { return static_cast<int>(number(file, record, key)); };
  return power_record{value("state"), value("wakeup-reason"), value("was-booted") != 0,
                      value("returns") != 0};
}
