// backup, restore: a copy is checked before it replaces another.
#include "commands.h"
#include "on_demand.h"

#include <glib.h>

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr const char *kDbName = ".dravel.db";
static constexpr const char *kOlderSuffix = ".1";
static constexpr const char *kFreshName = ".dravel.db.new"; // a directory
static constexpr char kSqliteHeader[] = "SQLite format 3";  // with the terminating zero: 16 bytes
static constexpr std::size_t kWriteVersion = 18;            // of the header
static constexpr std::size_t kReadVersion = 19;
static constexpr std::size_t kHeaderSize = 20;
static constexpr char kWithLog = 2;

// What every version of the layout has.
static constexpr const char *kReadings[] = {
    "SELECT timer_id, type, priority, tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year, week_flag "
    "FROM dravel LIMIT 0",
    "SELECT period_id, start_tm_mday, start_tm_mon, end_tm_mday, end_tm_mon FROM disabled_period "
    "LIMIT 0"};

// What the daemon's statements would run unseen, maybe without end.
static constexpr const char *kForeign = "SELECT type || ' ' || name FROM sqlite_master WHERE "
                                        "type IN ('view', 'trigger') OR sql LIKE 'CREATE VIRTUAL%'";

// --- the check ---

namespace {

struct sqlite_functions {
  on_demand library{"libsqlite3.so.0", "libsqlite3-0"};
  decltype(&sqlite3_open_v2) open = library.function<decltype(sqlite3_open_v2)>("sqlite3_open_v2");
  decltype(&sqlite3_exec) exec = library.function<decltype(sqlite3_exec)>("sqlite3_exec");
  decltype(&sqlite3_errmsg) errmsg = library.function<decltype(sqlite3_errmsg)>("sqlite3_errmsg");
  decltype(&sqlite3_close) close = library.function<decltype(sqlite3_close)>("sqlite3_close");
};

} // namespace

static int take_value(void *value, int, char **columns, char **) {
  *static_cast<std::string *>(value) = columns[0];
  return 0;
}

static std::string value_of(const sqlite_functions &sqlite, sqlite3 *db, const char *query) {
  std::string value;
  return sqlite.exec(db, query, take_value, &value, nullptr) == SQLITE_OK ? value
                                                                          : sqlite.errmsg(db);
}

static std::string fault_within(const sqlite_functions &sqlite, sqlite3 *db) {
  const std::string check = value_of(sqlite, db, "PRAGMA quick_check(1)");
  if (check != "ok")
    return "is damaged: " + check;
  if (const std::string name = value_of(sqlite, db, kForeign); !name.empty())
    return "has " + name + ", which is none of the daemon's tables";
  for (const char *query : kReadings)
    if (sqlite.exec(db, query, nullptr, nullptr, nullptr) != SQLITE_OK)
      return std::string("holds no timers: ") + sqlite.errmsg(db);
  const std::string version = value_of(sqlite, db, "PRAGMA user_version");
  if (std::atoi(version.c_str()) > kDravelDbVersion)
    return "is of the newer version " + version;
  return "";
}

// What makes `file` no store of timers; empty for a good one. Nothing is written.
static std::string fault_of(const fs::path &file) {
  std::error_code error;
  const fs::file_status status = fs::status(file, error);
  if (fs::exists(status) && !fs::is_regular_file(status)) // opening a FIFO would wait for a writer
    return "is no regular file";
  char header[sizeof kSqliteHeader] = {};
  std::ifstream stream(file, std::ios::binary);
  if (!stream.is_open())
    return std::string("cannot be read: ") + std::strerror(errno);
  stream.read(header, sizeof header);
  if (std::memcmp(header, kSqliteHeader, sizeof header) != 0)
    return "is no SQLite database";
  const sqlite_functions sqlite;
  sqlite3 *opened = nullptr;
  const int result = sqlite.open(file.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite.close);
  return result == SQLITE_OK ? fault_within(sqlite, db.get())
                             : std::string("cannot be opened: ") + sqlite.errmsg(db.get());
}

static bool has_log(const fs::path &file) {
  char header[kHeaderSize] = {};
  std::ifstream(file, std::ios::binary).read(header, sizeof header);
  return header[kWriteVersion] == kWithLog || header[kReadVersion] == kWithLog;
}

// --- the commands ---

// The daemon has its own working directory, so that it gets an absolute path.
static fs::path directory_of(const std::string &word) {
  if (word.empty())
    throw usage("the name of the directory is empty", "give one that exists");
  g_autofree char *path = g_canonicalize_filename(word.c_str(), nullptr);
  if (g_utf8_validate(path, -1, nullptr) == FALSE)
    throw usage("the bus can carry no path that is not UTF-8", "give another directory");
  std::error_code error;
  if (!fs::is_directory(path, error))
    throw failure{std::string(path) + " is no directory" + (error ? ": " + error.message() : ""),
                  "give one that exists"};
  return path;
}

// The daemon gives no answer when it fails. A late one into the set counts; one out of it finds its
// directory gone.
static void copy_db(client &client, int into_the_set, const fs::path &directory,
                    const std::string &what) {
  if (client.copy_db(into_the_set != 0, directory.c_str(),
                     what + (into_the_set != 0 ? ", or may still do so" : "")) != 0)
    throw failure{"dravel-manager: " + what, kLogHint};
}

static void move_file(const fs::path &from, const fs::path &to) {
  if (std::rename(from.c_str(), to.c_str()) != 0)
    throw failure{
        "cannot rename " + from.string() + " to " + to.string() + ": " + std::strerror(errno), ""};
}

// Renames count once the directory is on the disk.
static void sync_directory(const fs::path &directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor >= 0) {
    fsync(descriptor);
    close(descriptor);
  }
}

// The daemon copies into a directory of its own, so that the copy is checked before it takes its
// place.
static void backup_through(client &client, const fs::path &fresh, const fs::path &file) {
  std::error_code error;
  copy_db(client, 0, fresh,
          "it could not back its database up to " + file.parent_path().string() + ", where " +
              std::to_string(fs::space(fresh, error).available / 1024) + " kB are free");
  if (const std::string fault = fault_of(fresh / kDbName); !fault.empty())
    throw failure{"the set's database " + fault + "; no backup is made", ""};
  if (fault_of(file).empty())
    move_file(file, file.string() + kOlderSuffix);
  move_file(fresh / kDbName, file);
  sync_directory(file.parent_path());
}

void backup(client &client, const options &given) {
  const fs::path directory = directory_of(given.words.at(0));
  const fs::path fresh = directory / kFreshName;
  const auto remove = [](const fs::path *path) {
    std::error_code ignored;
    fs::remove_all(*path, ignored);
  };
  remove(&fresh); // an interrupted backup left it
  if (mkdir(fresh.c_str(), S_IRWXU) != 0)
    throw failure{"cannot write to " + directory.string() + ": " + std::strerror(errno), "",
                  errno == EACCES || errno == EPERM ? fault::kNotAllowed : fault::kRefused};
  const std::unique_ptr<const fs::path, decltype(remove)> temporary(&fresh, remove);
  const fs::path file = directory / kDbName;
  backup_through(client, fresh, file);
  const fs::path older = file.string() + kOlderSuffix;
  say(given.json,
      {{"file", file.string()}, {"before", fs::exists(older) ? json(older.string()) : json()}},
      "The timers are in " + file.string() + "." +
          (fs::exists(older) ? "\nThe backup before is in " + older.string() + "." : ""));
}

static void restart_daemon() {
  g_autoptr(GError) error = nullptr;
  int status = 0;
  g_autofree char *said = nullptr;
  const char *const arguments[] = {"systemctl", "restart", "dravel-manager.service", nullptr};
  const bool ran =
      g_spawn_sync(nullptr, const_cast<char **>(arguments), nullptr, G_SPAWN_SEARCH_PATH, nullptr,
                   nullptr, nullptr, &said, &status, &error) != FALSE &&
      g_spawn_check_wait_status(status, &error) != FALSE;
  if (ran)
    return;
  std::string reason = said != nullptr && *said != '\0' ? said : error->message;
  reason = reason.substr(0, reason.find('\n'));
  throw failure{"restored, but dravel-manager is not restarted: " + reason,
                "the timers take effect when it starts next"};
}

void restore(client &client, const options &given) {
  const fs::path directory = directory_of(given.words.at(0));
  const fs::path file = directory / kDbName;
  if (const std::string fault = fault_of(file); !fault.empty())
    throw failure{file.string() + " " + fault + "; nothing is restored",
                  "dravelctl backup makes a good one"};
  if (has_log(file)) // only that file is copied
    throw failure{file.string() + " has a write-ahead log, without which it may lack its last "
                                  "changes; nothing is restored",
                  "sqlite3 " + file.string() + " 'PRAGMA journal_mode = delete'"};
  copy_db(client, 1, directory, "it could not restore its database from " + directory.string());
  if (given.restart)
    restart_daemon();
  say(given.json, {{"restored", file.string()}, {"restarted", given.restart}},
      given.restart ? "Restored, and dravel-manager is restarted."
                    : "Restored. The timers take effect when the daemon starts next; until then it "
                      "can store no\nchange. Restart it now: systemctl restart "
                      "dravel-manager.service");
}
