#include "scenario.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;
using testing::HasSubstr;

static int slept;                    // microseconds, for locks of another process
static std::function<void()> asleep; // what happens meanwhile

class Store : public CleanSet {
protected:
  Store() : vfs_(*sqlite3_vfs_find(nullptr)) {
    vfs_.zName = "no sleep";
    vfs_.xSleep = [](sqlite3_vfs *, int microseconds) {
      slept += microseconds;
      asleep();
      return microseconds;
    };
    sqlite3_vfs_register(&vfs_, 1);
    asleep = [] {};
  }
  ~Store() override { sqlite3_vfs_unregister(&vfs_); }

private:
  sqlite3_vfs vfs_;
};

// Columns: the damage, the line that tells of it, whether the check leaves the file, the file.
SCENARIOS(Store, AUselessFile_IsReplacedByAnEmptySoundStore,
          "close_store; $1; shell 'rm -f /tmp/.*db; cp $4 /tmp'; forget; check /tmp/$4 => is -1 "
          "log '~$2';"
          "shell 'ls -A /tmp | grep db' => is '$3'; open_store => is 0;"
          "sql 'PRAGMA user_version; PRAGMA integrity_check; SELECT count(*) FROM dravel' $4"
          " => is '1 ok 0'; shell 'stat -c %a $4' => is 664; check $4 => is 0",
          R"(
  shell 'truncate -s 0 .dravel.db' | file size = 0, remove | | .dravel.db
  shell 'truncate -s 0 .wakeup_dravel.db' | file size = 0, remove | | .wakeup_dravel.db
  sql 'PRAGMA writable_schema = ON; UPDATE sqlite_schema SET rootpage = 99' |
    SQLITE_CORRUPT = 11 | .dravel.db | .dravel.db
  sql 'PRAGMA writable_schema = ON; UPDATE sqlite_schema SET rootpage = 99' .wakeup_dravel.db |
    SQLITE_CORRUPT = 11 | .wakeup_dravel.db | .wakeup_dravel.db
  sql 'INSERT INTO dravel(type) VALUES(1); PRAGMA writable_schema = ON; UPDATE sqlite_schema
    SET sql = replace(sql, "delay INTEGER", "delay INTEGER NOT NULL")' |
    NULL value in dravel.delay | | .dravel.db
)")

SCENARIOS(Store, WhatIsNoDatabase_LeavesOneRunWithoutAStore, R"(
  close_store; shell 'yes |head -c 4096 >.dravel.db'; forget; open_store => is 26
    log '~initialize_dravel_db > failed to create table for dravel: file is not a database';
    take 1 '16 07:00' => is -1; close_store; open_store => is 0; take 1 '16 07:00' => is 1
  close_store; shell 'yes |head -c 4096 >.wakeup_dravel.db'; open_store => is 0;
    take 1 '16 07:00' => is 1; shell 'ls -A' => is .dravel.db; close_store; open_store => is 0;
    sql 'SELECT count(*) FROM dravel' .wakeup_dravel.db => is 0
  # A directory loses nothing that may lie in it.
  close_store; shell 'rm .dravel.db; mkdir .dravel.db'; open_store => is 14;
    check .dravel.db => is -1; make .dravel.db => is -1;
    shell 'ls -Ad .dravel.db/' => is .dravel.db/
  check /no/where => is -1
  add 1 '16 07:00'; close_store; forget; cancel 1 =>
    log '~delete_dravel_item_db > failed to delete dravel item: the database is not open'
)")

class other_process {
public:
  explicit other_process(const char *path) { sqlite3_open(path, &db_); }
  ~other_process() { sqlite3_close(db_); }
  other_process(const other_process &) = delete;
  other_process &operator=(const other_process &) = delete;

  void run(const char *sql) {
    EXPECT_EQ(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  }

private:
  sqlite3 *db_ = nullptr;
};

// Refuses one of the daemon's own statements: the `nth` that does `action` to a table, or a pragma.
static struct {
  std::string path;
  int action, nth;
} refused;
static int synchronised; // connections that synchronise directories, too

static int authorize(void *path, int action, const char *name, const char *value, const char *,
                     const char *) {
  if (action == SQLITE_PRAGMA && name == std::string_view("synchronous") && value != nullptr)
    ++synchronised;
  const bool is_it =
      refused.path == static_cast<char *>(path) && action == refused.action &&
      (name == std::string_view("dravel") || name == std::string_view("user_version"));
  return is_it && --refused.nth == 0 ? SQLITE_DENY : SQLITE_OK;
}

static int watch_connection(sqlite3 *db, const char **, const sqlite3_api_routines *) {
  return sqlite3_set_authorizer(db, authorize, const_cast<char *>(sqlite3_db_filename(db, "main")));
}

static int start_refused(std::string path = "", int action = 0, int nth = 0) {
  refused = {std::move(path), action, nth};
  synchronised = 0;
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch_connection));
  const int result = initialize_dravel_db();
  sqlite3_reset_auto_extension();
  return result;
}

TEST_F(Store, AStart_WaitsForALock_TwoSecondsInAll_AndAChangeDoesNot) {
  constexpr int kLongest = 2000000;
  dravel_item item{};
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    for (const int released_after : {kLongest / 2, kLongest * 2}) {
      restart(path);
      EXPECT_EQ(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
      close_dravel_db();
      other_process other(path);
      other.run("BEGIN EXCLUSIVE");
      asleep = [&, is_held = true]() mutable {
        if (slept > released_after && std::exchange(is_held, false))
          other.run("COMMIT");
      };
      slept = 0;
      start_refused();
      EXPECT_LE(slept, kLongest);
      EXPECT_GT(slept, std::min(released_after, kLongest * 9 / 10));
      if (released_after > kLongest)
        continue;
      EXPECT_EQ(synchronised, 2);
      EXPECT_THAT(logged(), Not(HasSubstr("failed to set synchronous")));
      EXPECT_EQ(rows("SELECT count(*) FROM dravel", path), "1");
      other.run("BEGIN EXCLUSIVE");
      slept = 0;
      EXPECT_NE(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
      EXPECT_EQ(slept, 0);
    }
}

// --- migrations ---

// In version 0 the mark stood before `disable_period_effect`, and there was no `time_type`. A table
// may have fewer columns than that.
SCENARIOS(
    Store, AVersion0Store_KeepsItsTimersUnderNewIds_AndAMissingValueCountsAs0,
    "close_store; sql 'DROP TABLE dravel; PRAGMA user_version = 0;"
    " CREATE TABLE dravel(timer_id INTEGER, b, c, d, e, f, g, h, i, j, k, l, m, n, o$1';"
    "sql 'INSERT INTO dravel(timer_id, tm_hour) VALUES(1, 7), (2, 7); PRAGMA user_version = 0'"
    " .wakeup_dravel.db; forget; open_store => is 0 log '!failed';"
    "sql 'PRAGMA user_version; SELECT * FROM dravel' => is '1 $2';"
    "sql 'PRAGMA user_version; SELECT timer_id, tm_hour FROM dravel' .wakeup_dravel.db"
    " => is '1 2|7'",
    R"(
  , p, q); INSERT INTO dravel VALUES(9,2,3,4,5,6,7,8,9,10,11,12,13,14,15,1,16),
    (4,1,0,0,0,0,7,1,0,120,0,0,0,0,127,0,NULL) |
    1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|0|0 2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0|1
  ); INSERT INTO dravel VALUES(1,2,NULL,4,5,6,7,8,9,10,11,12,NULL,14,15) |
    1|2|0|4|5|6|7|8|9|10|11|12|0|14|15|0|0|0
)")

SCENARIOS(Store, AStoreOfAnotherVersion_IsTakenAsItIs,
          "sql 'INSERT INTO dravel(timer_id, micom_flag) VALUES(9, 1); PRAGMA user_version = $1';"
          "close_store; open_store => is 0;"
          "sql 'PRAGMA user_version; SELECT timer_id, micom_flag FROM dravel' => is '1 9|1'",
          R"(
  1
  7
  -1
)")

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

static bool is_alone() { // nothing lies beside the two files
  return std::distance(fs::directory_iterator(fs::path(kDravelDbPath).parent_path()), {}) == 2;
}

static constexpr const char *kCopy = "/opt/dbspace/.dravel.db.0";
static constexpr const char *kContents =
    "PRAGMA user_version; SELECT type, micom_flag, disable_period_effect FROM dravel; "
    "SELECT end_tm_mon FROM disabled_period";
static constexpr const char *kMigrated = "1 4|0|1 5|1|0 6|0|1 7";

// Three timers, of which the second is programmed, and a period.
static void use_version_0() {
  close_and_empty_store();
  initialize_dravel_db();
  close_dravel_db();
  rows("DROP TABLE dravel; CREATE TABLE dravel(timer_id, type, c, d, e, f, g, h, i, j, k, l, m, n, "
       "o,"
       " micom_flag, disable_period_effect); INSERT INTO dravel(timer_id, type,"
       " disable_period_effect) VALUES(1, 4, 1), (2, 5, 0), (3, 6, 1); "
       "INSERT INTO disabled_period(end_tm_mon) VALUES(7); PRAGMA user_version = 0");
  rows("INSERT INTO dravel(timer_id) VALUES(2); PRAGMA user_version = 0", kWakeupDbPath);
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
    EXPECT_TRUE(is_alone());
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

TEST_F(Store, AStoreThatCannotBeCopied_WaitsForTheNextStart) {
  use_version_0();
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit small{4096, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small); // a disk that becomes full
  logged();
  EXPECT_NE(initialize_dravel_db(), 0);
  EXPECT_EQ(call("schedule_timer", arguments_of({1, "16 07:00"})), words{-1});
  EXPECT_THAT(logged(), HasSubstr("failed to copy [/opt/dbspace/.wakeup_dravel.db], its migration "
                                  "waits for the next"));
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_TRUE(is_alone());
  close_dravel_db();
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows(kContents), kMigrated);
}

// A copy of version 0 beside the file means that a migration was interrupted.
SCENARIOS(Store, ACopy_IsPutBack_OrGoesWithAReset, R"(
  add 1 '16 07:00'; sql 'PRAGMA user_version = 0'; close_store;
    shell 'mv .dravel.db .dravel.db.0; mkdir -p .dravel.db/x'; forget;
    open_store => is 14
    log '~the version of [/opt/dbspace/.dravel.db] is not known, its copy waits for the next start';
    shell 'rm -r .dravel.db; yes |head -c 4096 >.dravel.db.0.new'; open_store => is 0;
    shell 'ls -A' => is '.dravel.db .wakeup_dravel.db'; sql 'SELECT timer_id FROM dravel' => is 1
  shell 'touch .dravel.db.0 .dravel.db.0.new .dravel.db.0.failed.2 .dravel.db.failed'; read_only;
    shell 'ls -A' => is ''
)")

TEST_F(Store, ALockedMainFile_IsNotReplacedByAnOldCopy) {
  use_version_0();
  fs::copy(kDravelDbPath, kCopy);
  rows("UPDATE dravel SET type = 8; PRAGMA user_version = 1");
  {
    other_process other(kDravelDbPath);
    other.run("BEGIN EXCLUSIVE");
    slept = 0;
    EXPECT_EQ(initialize_dravel_db(), SQLITE_CANTOPEN);
    EXPECT_GT(slept, 1000000);
  }
  EXPECT_EQ(rows("SELECT type FROM dravel"), "8 8 8");
  EXPECT_TRUE(fs::exists(kCopy));
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
    other_process other(path);
    if (fault == READERS_LOCK || fault == WRITERS_LOCK)
      other.run(fault == READERS_LOCK ? "BEGIN; SELECT * FROM dravel"
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
      other.run("ROLLBACK");
    }
    EXPECT_EQ(rows("PRAGMA user_version; SELECT type FROM dravel", (failed + ".2").c_str()),
              "0 4 5 6");
    close_dravel_db();
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows(kContents), left);
  }
  close_and_empty_store();
  EXPECT_EQ(start_refused(kWakeup, SQLITE_DROP_TABLE, 1), 0);
  EXPECT_FALSE(is_alone() || fs::exists(kCopy + std::string(".failed"))); // a new file
}

// --- rows ---

// The daemon's records and the rows hold the same values in the same order.
TEST_F(Store, ARow_HoldsItsFieldsInColumnOrder_AndReadsBack) {
  dravel_item item = {0, 2, 3, 4, {5, 6, 7, 8, 9, 10, 11, 12, 13, 0, nullptr}, 14, 15, 16, 17};
  const std::tm end = {10, 11, 12, 13, 14, 15, 16, 17, 18, 0, nullptr};
  disabled_period_item period = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 0, nullptr}, end, 19, 20, 0};
  EXPECT_EQ(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_disabled_period_item_db(&period), 0);
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|0");
  EXPECT_EQ(rows("SELECT * FROM dravel", kWakeupDbPath),
            "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17");
  period.end_tm.tm_mon = 44;
  period.start_date_leap_year_f = period.end_date_leap_year_f = 0;
  EXPECT_EQ(update_disable_period_db(&period), 0);
  EXPECT_EQ(rows("SELECT * FROM disabled_period"),
            "1|1|2|3|4|5|6|7|8|9|10|11|12|13|44|15|16|17|18|19|20");
}

SCENARIOS(Store, ARow_IsReadBack_AsTheNearestNumbers, R"(
  sql 'INSERT INTO dravel
    VALUES(1,-2147483648,99999999999,NULL,5,6,7,8,9,10,11,12,13,14,15,16,17,0)';
    load => is 1; call dravel_get_timer_by_id 1 =>
    is '0 1 -2147483648 2147483647 0 5 6 7 8 9 10 11 12 13 0 0 14 15 16 17'
)")

SCENARIOS(Store, IdsAreNeverGivenTwice_AndTheMarkStandsOnOneRowAtMost, R"(
  take 1 '16 07:00'; cancel 1; times 2 take 1 '16 07:00' => stored '2 3'; mark 2 => marked 2;
    mark 77 => marked ''; mark 3 => marked 3
  period '16 00:00' '17 00:00'; call request_remove_disabled_period 1; period '16 00:00' '17 00:00';
    sql 'SELECT period_id FROM disabled_period' => is 2
  add 1 '16 07:00'; sql 'UPDATE sqlite_sequence SET seq = 2147483646'; take 1 '16 07:00' =>
    is 2147483647
  # the wake-up database keeps the last one
  arm 0 '16 07:00'; standby; arm 2 '16 06:00'; standby;
    sql 'SELECT timer_id, type FROM dravel' .wakeup_dravel.db => is '2|2'
)")

SCENARIOS(
    Store, AMarkThatCannotBeSet_OrTakenAway_IsLogged,
    "times 2 add 1 '16 07:00'; mark 2; sql 'CREATE TRIGGER refuse BEFORE UPDATE ON dravel"
    " WHEN NEW.micom_flag = $1 BEGIN SELECT RAISE(ABORT, \"refused\"); END'; forget; mark 1 =>"
    " log '~set_micom_flag > failed to update wakeup item: refused' marked '$2'",
    R"(
  1 |
  0 | 1 2
)")

SCENARIOS(Store, AStatement_TouchesItsOwnRowAlone, R"(
  times 3 add 1 '16 07:00'; mark 2; call request_set_disable_period_effect 2 88;
    sql 'SELECT timer_id, disable_period_effect, micom_flag FROM dravel' =>
    is '1|0|0 2|88|1 3|0|0'; cancel 2 => stored '1 3'
  add 9 '16 07:00'; arm 1 '18 14:00'; add 9 '17 07:00'; mark 2; adjust => row '16 15 17' marked 2
  times 3 period '24 00:00' '26 00:00'; call request_remove_disabled_period 2;
    sql 'SELECT period_id FROM disabled_period' => is '1 3'
)")
