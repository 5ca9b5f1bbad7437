#include "fixture.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using testing::HasSubstr;

class Store : public CleanSet {};

static std::vector<dravel_item> read_timers;

static int keep_row(const dravel_item *row) {
  read_timers.push_back(*row);
  return 1; // does not end the reading
}

static int load_period(const disabled_period_item *) { return 0; }

static dravel_item counted_item() {
  return {0, 2, 3, 4, {5, 6, 7, 8, 9, 10, 11, 12, 13, 0, nullptr}, 14, 15, 16, 17};
}

static void overwrite_pages(const char *path, std::streamoff from) {
  rows("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i < 2000)"
       "INSERT INTO dravel(type) SELECT i FROM n",
       path);
  std::fstream file(path, std::ios::in | std::ios::out);
  file.seekp(from) << std::string(20000, 'x');
}

TEST_F(Store, AUselessFile_IsReplacedByAnEmptySoundStore) {
  const struct {
    const char *line;
    bool left;
    void (*spoil)(const char *path);
  } cases[] = {
      {"file size = 0, remove\n", false, [](const char *path) { fs::resize_file(path, 0); }},
      {"SQLITE_CORRUPT = 11\n", true, [](const char *path) { overwrite_pages(path, 100); }},
      {"SQLITE_CORRUPT = 11\n", true, [](const char *path) { overwrite_pages(path, 8192); }},
      {"NULL value in dravel.date_type\n", false, [](const char *path) {
         rows("INSERT INTO dravel(type) VALUES(NULL); PRAGMA writable_schema = ON; UPDATE "
              "sqlite_schema SET sql = replace(sql, 'type INTEGER,', 'type INTEGER NOT NULL,')",
              path);
       }}};
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    for (const auto &[line, left, spoil] : cases) {
      restart(line);
      close_dravel_db();
      spoil(path);
      fs::copy_file(path, "/tmp/useless", fs::copy_options::overwrite_existing);
      logged();
      EXPECT_EQ(integrity_check("/tmp/useless"), -1);
      EXPECT_NE(logged().find(line), std::string::npos);
      EXPECT_EQ(fs::exists("/tmp/useless"), left);
      EXPECT_EQ(initialize_dravel_db(), 0);
      EXPECT_EQ(rows("PRAGMA user_version; PRAGMA integrity_check", path), "1 ok");
      EXPECT_EQ(rows("SELECT count(*) FROM dravel", path), "0");
      EXPECT_EQ(fs::status(path).permissions(), fs::perms(0664));
      EXPECT_EQ(make_db_file_manual(path) + integrity_check(path), 0);
    }
}

TEST_F(Store, WhatIsNoDatabase_LeavesOneRunWithoutAStore) {
  dravel_item item = counted_item();
  close_dravel_db();
  std::ofstream(kDravelDbPath) << std::string(4096, 'x');
  logged();
  EXPECT_EQ(initialize_dravel_db(), SQLITE_NOTADB);
  EXPECT_TRUE(
      logged().ends_with("initialize_dravel_db > failed to create table for dravel: file is "
                         "not a database\n"));
  EXPECT_NE(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_wakeup_dravel_item_db(&item), 0);
  close_dravel_db();
  std::ofstream(kWakeupDbPath) << std::string(4096, 'x');
  for (const bool is_stored : {false, true}) { // the next start makes a new one
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(insert_wakeup_dravel_item_db(&item) == 0, is_stored);
    close_dravel_db();
  }
  fs::remove(kDravelDbPath);
  fs::create_directory(kDravelDbPath); // loses nothing that may lie in it
  EXPECT_EQ(initialize_dravel_db(), SQLITE_CANTOPEN);
  EXPECT_EQ(make_db_file_manual(kDravelDbPath) + integrity_check(kDravelDbPath), -2);
  EXPECT_EQ(integrity_check("/no/where"), -1);
  EXPECT_TRUE(fs::is_directory(kDravelDbPath));
  EXPECT_EQ(close_dravel_db(), 0);
  logged();
  EXPECT_EQ(delete_dravel_item_db(1), SQLITE_MISUSE);
  EXPECT_EQ(logged(),
            "delete_dravel_item_db > failed to delete dravel item: the database is not open\n");
  EXPECT_EQ(insert_wakeup_dravel_item_db(&item), SQLITE_MISUSE);
  fs::remove(kDravelDbPath);
}

static sqlite3 *other_process;

static void other(const char *sql) {
  EXPECT_EQ(sqlite3_exec(other_process, sql, nullptr, nullptr, nullptr), SQLITE_OK);
}

// While it lives, SQLite calls `instead` where it would sleep to wait for a lock of the other
// process.
class no_sleep {
public:
  explicit no_sleep(const char *path, void (*instead)()) {
    asleep = instead;
    slept = 0;
    vfs = *sqlite3_vfs_find(nullptr);
    sqlite3_open(path, &other_process);
    vfs.zName = "no sleep";
    vfs.xSleep = [](sqlite3_vfs *, int microseconds) {
      slept += microseconds;
      asleep();
      return microseconds;
    };
    sqlite3_vfs_register(&vfs, 1);
  }
  ~no_sleep() {
    sqlite3_vfs_unregister(&vfs);
    sqlite3_close(other_process);
  }
  no_sleep(const no_sleep &) = delete;
  no_sleep &operator=(const no_sleep &) = delete;

  static inline int slept; // microseconds
private:
  static inline sqlite3_vfs vfs;
  static inline void (*asleep)();
};

// Refuses one of the daemon's own statements: the `nth` that does `action` to a table, or a pragma.
static struct {
  std::string path;
  int action, nth;
} refused;

static int authorize(void *, int action, const char *name, const char *, const char *,
                     const char *) {
  const bool is_it = action == refused.action && (name == std::string_view("dravel") ||
                                                  name == std::string_view("user_version"));
  return is_it && --refused.nth == 0 ? SQLITE_DENY : SQLITE_OK;
}

static std::map<std::string, sqlite3 *> connections; // the last ones to each file

static int watch_connection(sqlite3 *db, const char **, const sqlite3_api_routines *) {
  const std::string path = sqlite3_db_filename(db, "main");
  connections[path] = db;
  return path == refused.path ? sqlite3_set_authorizer(db, authorize, nullptr) : SQLITE_OK;
}

static int start_refused(std::string path = "", int action = 0, int nth = 0) {
  refused = {std::move(path), action, nth};
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch_connection));
  const int result = initialize_dravel_db();
  sqlite3_reset_auto_extension();
  return result;
}

static int synchronous(const char *path) {
  int level = 0;
  const auto take = [](void *out, int, char **values, char **) {
    return *static_cast<int *>(out) = std::atoi(values[0]), 0;
  };
  sqlite3_exec(connections.at(path), "PRAGMA synchronous", take, &level, nullptr);
  return level;
}

TEST_F(Store, AStart_WaitsForALock_TwoSecondsInAll_AndAChangeDoesNot) {
  static constexpr int kLongest = 2000000, kExtra = 3; // which synchronises directories
  static int released_after;
  dravel_item item = counted_item();
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    for (const int after : {kLongest / 2, kLongest * 2}) {
      restart(path);
      EXPECT_EQ(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
      close_dravel_db();
      released_after = after;
      const no_sleep locked(path, [] {
        if (no_sleep::slept > released_after)
          other(std::exchange(released_after, INT_MAX) == INT_MAX ? "" : "COMMIT");
      });
      other("BEGIN EXCLUSIVE");
      start_refused();
      EXPECT_LE(no_sleep::slept, kLongest);
      EXPECT_GT(no_sleep::slept, std::min(after, kLongest * 9 / 10));
      if (after > kLongest)
        continue;
      EXPECT_EQ(synchronous(kDravelDbPath) + synchronous(kWakeupDbPath), 2 * kExtra);
      EXPECT_EQ(rows("SELECT count(*) FROM dravel", path), "1");
      other("BEGIN EXCLUSIVE");
      no_sleep::slept = 0;
      EXPECT_NE(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
      EXPECT_EQ(no_sleep::slept, 0);
      other("COMMIT");
    }
}

// The layout of version 0: the mark stood before `disable_period_effect`, and there was no
// `time_type`.
TEST_F(Store, AVersion0Store_KeepsItsTimersUnderNewIds_AndAMissingValueCountsAs0) {
  const std::string table =
      "CREATE TABLE dravel(timer_id INTEGER, b, c, d, e, f, g, h, i, j, k, l, m, n, o";
  const struct {
    std::string main;
    const char *expected;
  } cases[] = {
      {", p, q); INSERT INTO dravel VALUES(9,2,3,4,5,6,7,8,9,10,11,12,13,14,15,1,16),"
       "(4,1,0,0,0,0,7,1,0,120,0,0,0,0,127,0,NULL)",
       "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|0|0 2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0|1"},
      {"); INSERT INTO dravel VALUES(1,2,NULL,4,5,6,7,8,9,10,11,12,NULL,14,15)",
       "1|2|0|4|5|6|7|8|9|10|11|12|0|14|15|0|0|0"}};
  for (const auto &[main, expected] : cases) {
    restart(expected);
    close_dravel_db();
    fs::remove(kDravelDbPath);
    fs::remove(kWakeupDbPath);
    rows(table + main);
    rows(table + ", p); INSERT INTO dravel VALUES(1,1,0,0,0,0,7,1,0,120,0,0,0,0,127,9),"
                 "(2,1,0,0,0,0,7,1,0,120,0,0,0,0,127,9)",
         kWakeupDbPath);
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT * FROM dravel"), std::string("1 ") + expected);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT * FROM dravel", kWakeupDbPath),
              "1 2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0");
    EXPECT_EQ(logged().find("failed"), std::string::npos);
  }
}

static constexpr int kNoLimit = INT_MAX;
static int changes_left = kNoLimit; // of names in a directory, until the process ends

static void count_change() {
  if (--changes_left == 0)
    _exit(0);
}

extern "C" {
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
DRAVEL_API int unlink(const char *path) noexcept {
  count_change();
  return unlinkat(AT_FDCWD, path, 0);
}
DRAVEL_API int rename(const char *from, const char *to) noexcept {
  count_change();
  return renameat(AT_FDCWD, from, AT_FDCWD, to);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}

// True when `what` ended before the power was cut.
template <typename What> static bool ends_before(int change, What what) {
  const pid_t child = fork();
  if (child == 0) {
    changes_left = change;
    what();
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status) == 1;
}

static std::string files() {
  std::set<std::string> names;
  for (const auto &entry : fs::directory_iterator(fs::path(kDravelDbPath).parent_path()))
    names.insert(entry.path().filename());
  return testing::PrintToString(names);
}

static constexpr const char *kBothFiles = "{ \".dravel.db\", \".wakeup_dravel.db\" }";
static constexpr const char *kCopy = "/opt/dbspace/.dravel.db.0";
static constexpr const char *kContents =
    "PRAGMA user_version; SELECT type, micom_flag, disable_period_effect FROM dravel; "
    "SELECT end_tm_mon FROM disabled_period";
static constexpr const char *kMigrated = "1 4|0|1 5|1|0 6|0|1 7";

// Three timers, of which the second is programmed, and a period.
static void use_version_0() {
  close_and_empty_store();
  initialize_dravel_db();
  disabled_period_item period{};
  period.end_tm.tm_mon = 7;
  insert_disabled_period_item_db(&period);
  close_dravel_db();
  rows(
      "DROP TABLE dravel; CREATE TABLE dravel(timer_id, type, priority, date_type, tm_sec, tm_min, "
      "tm_hour, tm_mday, tm_mon, tm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag, "
      "micom_flag, disable_period_effect); INSERT INTO dravel(timer_id, type, "
      "disable_period_effect) VALUES(1, 4, 1), (2, 5, 0), (3, 6, 1); "
      "PRAGMA user_version = 0");
  rows("INSERT INTO dravel(timer_id) VALUES(2); PRAGMA user_version = 0", kWakeupDbPath);
}

TEST_F(Store, AStoreOfAnotherVersion_IsTakenAsItIs) {
  for (const char *version : {"1", "7", "-1"}) {
    close_and_empty_store();
    initialize_dravel_db();
    rows(std::string("INSERT INTO dravel(timer_id, type, micom_flag) VALUES(9, 5, 1); "
                     "PRAGMA user_version = ") +
         version);
    close_dravel_db();
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT timer_id, type, micom_flag FROM dravel"),
              "1 9|5|1");
  }
}

TEST_F(Store, AnInterruptedMigration_IsPutBackAndStartedAgain) {
  int change = 0;
  for (bool ended = false; !ended; ++change) {
    SCOPED_TRACE(change);
    use_version_0();
    ended = ends_before(change + 1, initialize_dravel_db);
    ends_before(change % 7 + 1, initialize_dravel_db);
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows(kContents), kMigrated);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT timer_id FROM dravel", kWakeupDbPath), "1 2");
    EXPECT_EQ(files(), kBothFiles);
    close_dravel_db();
  }
  EXPECT_GT(change, 20);
  EXPECT_EQ(logged().find("failed"), std::string::npos);
  initialize_dravel_db();
}

TEST_F(Store, AMigrationThatFailsAndIsInterrupted_LosesNothing) {
  int change = 0;
  for (bool ended = false; !ended; ++change) {
    use_version_0();
    ended = ends_before(change + 1, [] { start_refused(kWakeupDbPath, SQLITE_DROP_TABLE, 1); });
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_NE(fs::exists(std::string(kCopy).append(".failed")),
              rows("SELECT type FROM dravel") == "4 5 6")
        << change;
  }
  EXPECT_GT(change, 10);
}

TEST_F(Store, AJournalBesideVersion0_IsUndoneInTheMigration) {
  use_version_0();
  EXPECT_FALSE(ends_before(1, [] { rows("UPDATE dravel SET type = 99"); }));
  EXPECT_TRUE(fs::exists("/opt/dbspace/.dravel.db-journal"));
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows(kContents), kMigrated);
}

TEST_F(Store, AStoreThatCannotBeCopiedOrPutBack_WaitsForTheNextStart) {
  use_version_0();
  dravel_item item = counted_item();
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const auto start_in_vain = [&item](const char *line) {
    logged();
    EXPECT_EQ(initialize_dravel_db() == 0 || insert_dravel_item_db(&item) == 0, false);
    EXPECT_THAT(logged(), HasSubstr(line));
    close_dravel_db();
  };
  const rlimit small{4096, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small); // a disk that becomes full
  start_in_vain(
      "failed to copy [/opt/dbspace/.wakeup_dravel.db], its migration waits for the next");
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(files(), kBothFiles);

  fs::rename(kDravelDbPath, kCopy);
  fs::create_directories(std::string(kDravelDbPath) + "/x");
  start_in_vain("the version of [/opt/dbspace/.dravel.db] is not known, its copy waits");
  fs::remove_all(kDravelDbPath);
  std::ofstream(std::string(kCopy) + ".new") << std::string(4096, 'x'); // a power cut left it
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows(kContents) + files(), std::string(kMigrated) + kBothFiles);
  for (const char *left : {"", ".new", ".failed.2"})
    std::ofstream(std::string(kCopy) + left) << "x";
  std::ofstream("/opt/dbspace/.dravel.db.failed") << "x";
  reset_dravel_db(); // nothing is put back after it, nor to be found
  EXPECT_EQ(files(), "{}");
}

TEST_F(Store, ALockedMainFile_IsNotReplacedByAnOldCopy) {
  use_version_0();
  fs::copy(kDravelDbPath, kCopy);
  rows("UPDATE dravel SET type = 8; PRAGMA user_version = 1");
  {
    const no_sleep locked(kDravelDbPath, [] {});
    other("BEGIN EXCLUSIVE");
    EXPECT_EQ(initialize_dravel_db(), SQLITE_CANTOPEN);
    EXPECT_GT(no_sleep::slept, 1000000);
    other("COMMIT");
  }
  EXPECT_EQ(rows("SELECT type FROM dravel"), "8 8 8");
  EXPECT_EQ(fs::exists(kCopy), true);
  std::ofstream(kDravelDbPath) << std::string(4096, 'x');
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows("SELECT type FROM dravel"), "4 5 6");
}

TEST_F(Store, AMigrationThatFails_SaysWhereTheOldTimersAre) {
  enum { READERS_LOCK = -3, WRITERS_LOCK, DIRECTORY };
  constexpr const char *kMain = kDravelDbPath, *kWakeup = kWakeupDbPath, *kEmpty = "1";
  constexpr const char *kPeriodLeft = "1 7", *kUnmarked = "1 4|0|1 5|0|0 6|0|1 7";
  const struct {
    const char *line, *left, *path;
    int fault, nth;
    const char *kept = kCopy;
  } faults[] = {
      {"load table for dravel: acc", kPeriodLeft, kMain, SQLITE_READ, 1},
      {"load table for wakeup dravel: acc", kUnmarked, kWakeup, SQLITE_READ, 1},
      {"drop table for dravel: not", kEmpty, kMain, SQLITE_DROP_TABLE, 1},
      {"drop table for dravel: database is locked", kEmpty, kMain, READERS_LOCK, 0},
      {"create table for dravel: not", kEmpty, kMain, SQLITE_CREATE_TABLE, 2},
      {"drop table for wakeup dravel: not", kPeriodLeft, kWakeup, SQLITE_DROP_TABLE, 1},
      {"drop table for wakeup dravel: database is", kPeriodLeft, kWakeup, READERS_LOCK, 0},
      {"drop table for wakeup dravel: database is", kPeriodLeft, kWakeup, WRITERS_LOCK, 0},
      {"open the wakeup_dravel database", kPeriodLeft, kWakeup, DIRECTORY, 0},
      {"create table for wakeup dravel: not", kPeriodLeft, kWakeup, SQLITE_CREATE_TABLE, 2},
      {"insert dravel item: not", "1 4|0|1 6|1|1 7", kMain, SQLITE_INSERT, 2},
      {"update wakeup item: not", kUnmarked, kMain, SQLITE_UPDATE, 2},
      {"insert wakeup dravel item: not", kMigrated, kWakeup, SQLITE_INSERT, 1},
      {"set db version. ret[23], error[not", kMigrated, kMain, SQLITE_PRAGMA, 2},
      {"create table for dravel: database is", kEmpty, kMain, WRITERS_LOCK, 0, kMain},
  };
  for (const auto &[line, left, path, fault, nth, kept] : faults) {
    SCOPED_TRACE(line);
    use_version_0();
    if (fault == DIRECTORY)
      fs::remove(path), fs::create_directories(path);
    const std::string failed = std::string(kept) + ".failed";
    std::ofstream(failed) << "of an earlier failure";
    const no_sleep waiting(path, [] {});
    if (fault == READERS_LOCK || fault == WRITERS_LOCK)
      other(fault == READERS_LOCK ? "BEGIN; SELECT * FROM dravel"
                                  : "BEGIN EXCLUSIVE; UPDATE dravel SET type = 99");
    logged();
    EXPECT_EQ(start_refused(path, fault, nth) == 0, kept == kCopy);
    static int listed;
    listed = 0;
    load_dravel_db([](const dravel_item *) { return ++listed; });
    EXPECT_EQ(listed != 0, std::string_view(left).find('|') != std::string_view::npos);
    const std::string log = logged();
    EXPECT_THAT(log, HasSubstr(std::string("failed to ") + line));
    EXPECT_THAT(log, HasSubstr("the old timers are in [" + failed + ".2]"));
    EXPECT_EQ(fs::file_size(failed), 21U);
    if (fault == WRITERS_LOCK) {
      EXPECT_EQ(fs::exists(failed + ".2-journal"), kept == kMain);
      other("ROLLBACK");
    }
    EXPECT_EQ(rows("PRAGMA user_version; SELECT type FROM dravel", (failed + ".2").c_str()),
              "0 4 5 6");
    close_dravel_db();
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows(kContents), left);
  }
  close_and_empty_store();
  EXPECT_EQ(start_refused(kWakeup, SQLITE_DROP_TABLE, 1), 0);
  EXPECT_EQ(files(), "{ \".dravel.db\" }"); // a new file has no old timers
}

TEST_F(Store, ARow_HoldsItsFieldsInColumnOrder_AndReadsBack) {
  dravel_item item = counted_item();
  const std::tm end = {10, 11, 12, 13, 14, 15, 16, 17, 18, 0, nullptr};
  disabled_period_item period = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 0, nullptr}, end, 19, 20, 0};
  EXPECT_EQ(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_wakeup_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_disabled_period_item_db(&period), 0);
  EXPECT_EQ(item.timer_id + period.period_id, 2);
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|0");
  EXPECT_EQ(rows("SELECT * FROM dravel", kWakeupDbPath),
            "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17");
  period.end_tm.tm_mon = 44;
  period.start_date_leap_year_f = period.end_date_leap_year_f = 0;
  EXPECT_EQ(update_disable_period_db(&period), 0);
  EXPECT_EQ(rows("SELECT * FROM disabled_period"),
            "1|1|2|3|4|5|6|7|8|9|10|11|12|13|44|15|16|17|18|19|20");

  rows("UPDATE dravel SET type = -2147483648, priority = 99999999999, delay = NULL");
  read_timers.clear();
  EXPECT_EQ(load_dravel_db(keep_row) + load_disabled_period_db(load_period), 0);
  const dravel_item &read = read_timers.at(0);
  EXPECT_EQ(std::tuple(read.type, read.priority, read.delay), std::tuple(INT_MIN, INT_MAX, 0));
  EXPECT_EQ(std::tuple(read.tm.tm_isdst, read.time_type), std::tuple(13, 17));
}

TEST_F(Store, IdsAreNeverGivenTwice_AndTheMarkStandsOnOneRowAtMost) {
  dravel_item item = counted_item();
  insert_dravel_item_db(&item);
  EXPECT_EQ(delete_dravel_item_db(1), 0);
  insert_dravel_item_db(&item);
  insert_dravel_item_db(&item);
  for (const auto &[marked, flags] : {std::pair{2, "2|1 3|0"}, {77, "2|0 3|0"}, {3, "2|0 3|1"}}) {
    EXPECT_EQ(set_micom_flag(marked), 0);
    EXPECT_EQ(rows("SELECT timer_id, micom_flag FROM dravel"), flags);
  }
  const struct {
    const char *mark, *flags;
    int result;
  } faults[] = {{"1", "2|0 3|0", SQLITE_CONSTRAINT}, {"0", "2|1 3|1", 0}};
  for (const auto &[mark, flags, result] : faults) {
    rows(std::string(
             "UPDATE dravel SET micom_flag = timer_id = 3; CREATE TRIGGER refuse BEFORE UPDATE "
             "ON dravel WHEN NEW.micom_flag = ") +
         mark + " BEGIN SELECT RAISE(ABORT, 'refused'); END");
    logged();
    EXPECT_EQ(set_micom_flag(2), result);
    EXPECT_EQ(logged(), "set_micom_flag > failed to update wakeup item: refused\n");
    EXPECT_EQ(rows("DROP TRIGGER refuse; SELECT timer_id, micom_flag FROM dravel"), flags);
  }
  for (const int type : {98, 99}) { // the wake-up database keeps the last one
    item.type = type;
    EXPECT_EQ(insert_wakeup_dravel_item_db(&item), 0);
  }
  EXPECT_EQ(rows("SELECT timer_id, type FROM dravel", kWakeupDbPath), "3|99");
  disabled_period_item period{};
  for (const int id : {1, 2}) {
    insert_disabled_period_item_db(&period);
    EXPECT_EQ(period.period_id, id);
    delete_disabled_period_item_db(id);
  }
  rows("UPDATE sqlite_sequence SET seq = 2147483646 WHERE name = 'dravel'");
  EXPECT_EQ(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(item.timer_id, INT_MAX);
  EXPECT_EQ(undo_insert_dravel_item_db(), 0);
}

// The second of three rows.
TEST_F(Store, AStatement_TouchesItsOwnRowAlone) {
  dravel_item item = counted_item();
  disabled_period_item period{};
  for (int i = 0; i < 3; ++i) {
    insert_dravel_item_db(&item);
    insert_disabled_period_item_db(&period);
  }
  set_micom_flag(2);
  item.timer_id = period.period_id = 2;
  item.type = 99;
  period.end_tm.tm_mon = 44;
  EXPECT_EQ(update_dravel_item_db(&item), 0);
  EXPECT_EQ(update_disable_period_effect_db(2, 88), 0);
  EXPECT_EQ(update_disable_period_db(&period), 0);
  EXPECT_EQ(rows("SELECT timer_id, type, disable_period_effect, micom_flag FROM dravel"),
            "1|2|16|0 2|99|88|1 3|2|16|0");
  EXPECT_EQ(rows("SELECT period_id, end_tm_mon FROM disabled_period"), "1|0 2|44 3|0");
  EXPECT_EQ(delete_dravel_item_db(2), 0);
  EXPECT_EQ(delete_disabled_period_item_db(2), 0);
  EXPECT_EQ(rows("SELECT timer_id FROM dravel; SELECT period_id FROM disabled_period"), "1 3 1 3");
}
