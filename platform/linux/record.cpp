#include "record.h"

#include "journal.h"

#include <glib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

static constexpr int kDirectoryMode = 0755;
static constexpr int kLockMode = 0600; // whoever may read it can hold it

// --- directories ---

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

static int open_lock(const std::string &path) {
  if (g_mkdir_with_parents(state_directory().c_str(), kDirectoryMode) != 0)
    return -1;
  const int lock = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, kLockMode);
  if (lock >= 0)
    fchmod(lock, kLockMode); // one of version 1.1 could be read by everybody
  return lock;
}

bool lock_state() {
  const std::string path = state_directory() + "/lock";
  const int lock = open_lock(path);
  if (lock < 0) {
    const bool is_denied = errno == EACCES;
    report("%s: %s; %s", path.c_str(), std::strerror(errno),
           is_denied ? "this daemon ends" : "a second daemon is not noticed");
    return !is_denied;
  }
  if (flock(lock, LOCK_EX | LOCK_NB) == 0)
    return true;
  if (errno != EWOULDBLOCK) {
    report("%s: %s; a second daemon is not noticed", path.c_str(), std::strerror(errno));
    return true;
  }
  report("another dravel-manager runs on this machine, this one ends");
  close(lock);
  return false;
}

// --- files ---

// Without fsync: it would block the main loop for as long as the disk takes. An errno.
static int write_file(const std::string &path, const std::string &content) {
  g_autofree char *directory = g_path_get_dirname(path.c_str());
  g_mkdir_with_parents(directory, kDirectoryMode);
  const std::string fresh = path + ".new";
  errno = EIO;
  const bool written = (std::ofstream(fresh, std::ios::binary) << content).flush() &&
                       rename(fresh.c_str(), path.c_str()) == 0;
  return written ? 0 : errno;
}

static std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// --- the alarm, for another boot and another version ---

// The keys are read by other versions, and by the script that removes the package.
static constexpr const char *kAlarmGroup = "alarm";

template <class Number>
static void exchange_number(GKeyFile *file, const std::string &key, Number &number, bool read) {
  if (read)
    number = static_cast<Number>(g_key_file_get_int64(file, kAlarmGroup, key.c_str(), nullptr));
  else
    g_key_file_set_int64(file, kAlarmGroup, key.c_str(), static_cast<gint64>(number));
}

static void exchange(GKeyFile *file, const std::string &key, device_alarm &alarm, bool read) {
  exchange_number(file, key + "-owner", alarm.owner, read);
  exchange_number(file, key + "-count", alarm.count, read);
  exchange_number(file, key + "-utc", alarm.utc, read);
  if (alarm.owner > alarm_owner::kForeign) // a damaged file
    alarm = {};
}

static void exchange(GKeyFile *file, const std::string &key, wanted_alarm &wanted, bool read) {
  exchange_number(file, key + "-type", wanted.type, read);
  exchange_number(file, key + "-on-time", wanted.on_time, read);
}

static void exchange(GKeyFile *file, decltype(machine::woken) &woken, bool read) {
  exchange_number(file, "woken-by", woken.by, read);
  exchange_number(file, "woken-utc", woken.utc, read);
  exchange_number(file, "woken-at", woken.at, read);
  exchange_number(file, "booted", woken.booted, read);
  if (woken.by > cause::kTest)
    woken.by = cause::kUser;
}

// What keeps another build from sending the machine to sleep before who watches, what it is to turn
// on again for its user, and what an off-timer has wished.
static void exchange_use(GKeyFile *file, machine &record, bool read) {
  auto &sleep = record.sleep;
  record.screen.ordered_on |= record.use.input_at != 0;
  if (sleep.stage == wish_stage::kAsked) // it is over when another run reads it
    sleep.wish = sleep_wish::kNone;
  exchange_number(file, "must-say-off", record.screen.ordered_on, read);
  exchange_number(file, "screen-ordered", record.screen.ordered, read);
  exchange_number(file, "stays", record.woken.stays, read);
  exchange_number(file, "wish", sleep.wish, read);
  exchange_number(file, "wish-method", sleep.method, read);
  exchange_number(file, "last-method", sleep.last_method, read);
  if (sleep.wish > sleep_wish::kTest || sleep.method > off_action::kNone)
    sleep.wish = sleep_wish::kNone;
  if (sleep.last_method > off_action::kNone)
    sleep.last_method = off_action::kSuspend;
  if (record.screen.ordered > screen_order::kOff)
    record.screen.ordered = screen_order::kNone;
}

static void exchange_alarm(GKeyFile *file, machine &record, bool read) {
  auto &alarm = record.alarm;
  exchange(file, "wanted", alarm.wanted, read);
  exchange(file, "stands", alarm.stands, read);
  exchange(file, "foreign", alarm.foreign, read);
  exchange(file, "before-sleep-wanted", alarm.before_sleep_wanted, read);
  exchange(file, "before-sleep", alarm.before_sleep, read);
  exchange_number(file, "range", alarm.range, read);
  exchange_number(file, "clock-was-set", record.clock.was_set, read);
  exchange(file, record.woken, read);
  exchange_use(file, record, read);
  exchange_number(file, "phase", record.power.now, read);
  exchange_number(file, "went-utc", record.power.went.utc, read);
  if (record.power.now > phase::kShuttingDown)
    record.power.now = phase::kAwake;
}

static std::string alarm_path() { return state_directory() + "/alarm"; }

static std::string alarm_text(machine record) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  exchange_alarm(file, record, false);
  g_autofree char *text = g_key_file_to_data(file, nullptr, nullptr);
  return text;
}

static bool read_alarm_file(machine &record) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  if (g_key_file_load_from_file(file, alarm_path().c_str(), G_KEY_FILE_NONE, nullptr) == FALSE)
    return false;
  exchange_alarm(file, record, true);
  return true;
}

static std::string older_path() { return state_directory() + "/wake-up"; }

// Version 1.1 kept the alarm by UTC. `device_alarm` is what the device has: it counted a second
// more or less.
static bool read_older_file(machine &record, std::int64_t device_alarm) {
  static constexpr const char *kGroup = "wake-up";
  const std::string path = older_path();
  g_autoptr(GKeyFile) file = g_key_file_new();
  if (g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr) == FALSE)
    return false;
  const auto number = [&](const char *key) {
    return g_key_file_get_int64(file, kGroup, key, nullptr);
  };
  const std::int64_t alarm = number("alarm");
  record.alarm.wanted = {static_cast<std::uint32_t>(number("type")), number("on-time")};
  if (alarm != 0)
    record.alarm.stands = {alarm_owner::kTimer,
                           std::abs(device_alarm - alarm) <= 1 ? device_alarm : alarm, alarm};
  return true;
}

// --- the whole record, for the next run of the same build ---

static_assert(std::is_trivially_copyable_v<machine>);
static constexpr std::string_view kLayout = DRAVEL_RECORD_LAYOUT;

static std::string record_path() { return runtime_directory() + "/machine"; }

// Padding would make two equal records differ, and shows what the memory held before.
static std::string record_image(machine record) {
#if __has_builtin(__builtin_clear_padding)
  __builtin_clear_padding(&record);
#endif
  std::string image(kLayout);
  image.append(reinterpret_cast<const char *>(&record), sizeof record);
  return image;
}

static bool read_record_file(const std::string &image, machine &record) {
  if (!image.starts_with(kLayout) || image.size() != kLayout.size() + sizeof record)
    return false;
  std::memcpy(static_cast<void *>(&record), image.data() + kLayout.size(), sizeof record);
  return true;
}

kept_record load_record(std::int64_t device_alarm) {
  kept_record kept;
  const std::string image = read_file(record_path());
  kept.same_boot = read_record_file(image, kept.record);
  kept.is_other_build = !kept.same_boot && !image.empty();
  kept.exists =
      kept.same_boot || read_alarm_file(kept.record) || read_older_file(kept.record, device_alarm);
  return kept;
}

// An errno, of the last attempt for a content that could not be written.
static int write_changed(const std::string &path, const std::string &content,
                         std::string &written) {
  if (content == written)
    return 0;
  const int error = write_file(path, content);
  if (error == 0)
    written = content;
  return error;
}

int store_record(const machine &record) {
  static std::string alarm, image;
  const std::string text = alarm_text(record);
  const bool is_new = text != alarm;
  const int alarm_error = write_changed(alarm_path(), text, alarm);
  if (is_new && alarm_error == 0)
    unlink(older_path().c_str()); // what it kept is here now
  const int error = write_changed(record_path(), record_image(record), image);
  return alarm_error != 0 ? alarm_error : error;
}
