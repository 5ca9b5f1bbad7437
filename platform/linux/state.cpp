#include "state.h"

#include "journal.h"

#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <string>
#include <sys/file.h>
#include <unistd.h>

static constexpr const char *kGroup = "wake-up";
static constexpr int kDirectoryMode = 0755;
static constexpr int kFileMode = 0644;

static const std::string &state_directory() {
  static const std::string directory = [] {
    const char *given = std::getenv("STATE_DIRECTORY");
    return std::string(given == nullptr ? "/var/lib/dravel-manager" : given);
  }();
  return directory;
}

static std::string wake_up_file() { return state_directory() + "/wake-up"; }

bool lock_state() {
  g_mkdir_with_parents(state_directory().c_str(), kDirectoryMode);
  const std::string path = state_directory() + "/lock";
  const int lock = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, kFileMode);
  if (lock < 0) {
    report("%s: %s; a second daemon is not noticed", path.c_str(), g_strerror(errno));
    return true;
  }
  if (flock(lock, LOCK_EX | LOCK_NB) == 0)
    return true;
  report("another dravel-manager runs on this machine, this one ends");
  close(lock);
  return false;
}

void keep_wake_up(const wake_up &wake) {
  static std::optional<wake_up> kept;
  if (kept == wake)
    return;
  kept = wake;
  g_autoptr(GKeyFile) file = g_key_file_new();
  g_key_file_set_uint64(file, kGroup, "type", wake.type);
  g_key_file_set_uint64(file, kGroup, "on-time", wake.on_time);
  g_key_file_set_uint64(file, kGroup, "alarm", wake.alarm);
  g_autofree char *text = g_key_file_to_data(file, nullptr, nullptr);
  // Without fsync: it would block the main loop for as long as the disk takes.
  const std::string path = wake_up_file();
  const std::string fresh = path + ".new";
  const bool written = static_cast<bool>((std::ofstream(fresh) << text).flush());
  if (!written || rename(fresh.c_str(), path.c_str()) != 0)
    report("%s: %s; a boot by the alarm is not credited", path.c_str(), g_strerror(errno));
}

wake_up kept_wake_up() {
  g_autoptr(GKeyFile) file = g_key_file_new();
  if (g_key_file_load_from_file(file, wake_up_file().c_str(), G_KEY_FILE_NONE, nullptr) == 0)
    return {};
  const auto value = [&](const char *key) {
    return static_cast<std::uint32_t>(g_key_file_get_uint64(file, kGroup, key, nullptr));
  };
  return {value("type"), value("on-time"), value("alarm")};
}
