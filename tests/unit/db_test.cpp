#include "fixture.h"

#include <sqlite3.h>

#include <array>
#include <climits>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>

namespace fs = std::filesystem;

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
  EXPECT_EQ(initialize_dravel_db(), 0);
  close_dravel_db();
  fs::remove(kDravelDbPath);
  fs::create_directory(kDravelDbPath); // loses nothing that may lie in it
  EXPECT_EQ(initialize_dravel_db(), SQLITE_CANTOPEN);
  EXPECT_EQ(make_db_file_manual(kDravelDbPath) + integrity_check(kDravelDbPath), -2);
  EXPECT_EQ(integrity_check("/no/where"), -1);
  EXPECT_TRUE(fs::is_directory(kDravelDbPath));
  EXPECT_EQ(close_dravel_db(), 0);
  logged();
  EXPECT_EQ(delete_dravel_item_db(1), SQLITE_MISUSE);
  EXPECT_EQ(logged(), "delete_dravel_item_db > failed to delete dravel item: out of memory\n");
  EXPECT_EQ(insert_wakeup_dravel_item_db(&item), SQLITE_MISUSE);
  fs::remove(kDravelDbPath);
}

// How often the file was written; SQLite counts it in the header.
static int commits(const char *path) {
  std::array<unsigned char, 28> header{};
  std::ifstream(path).read(reinterpret_cast<char *>(header.data()), header.size());
  return header[26] << 8 | header[27];
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

TEST_F(Store, ALockedFile_IsWaitedForAtTheStart_AndRefusesARowLater) {
  for (const char *path : {kDravelDbPath, kWakeupDbPath}) {
    restart(path);
    dravel_item item = counted_item();
    EXPECT_EQ(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
    close_dravel_db();
    const no_sleep released(path, [] { other("COMMIT"); });
    other("BEGIN EXCLUSIVE");
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM dravel", path), "1");
    other("BEGIN EXCLUSIVE");
    EXPECT_NE(insert_dravel_item_db(&item) + insert_wakeup_dravel_item_db(&item), 0);
    other("COMMIT"); // nothing has slept
  }
}

static std::map<std::string, sqlite3 *> connections; // the last ones to each file

static int note_connection(sqlite3 *db, const char **, const sqlite3_api_routines *) {
  connections[sqlite3_db_filename(db, "main")] = db;
  return SQLITE_OK;
}

static int levels(const char *path) {
  int level = 0;
  const auto take = [](void *out, int, char **values, char **) {
    return *static_cast<int *>(out) = std::atoi(values[0]), 0;
  };
  sqlite3_exec(connections.at(path), "PRAGMA synchronous", take, &level, nullptr);
  return level;
}

TEST_F(Store, AStart_WaitsForALock_TwoSecondsInAll_AndSynchronisesDirectories) {
  static constexpr int kLongest = 2000000;
  static int released_after;
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    for (const int after : {kLongest / 2, kLongest * 2}) {
      restart(path);
      close_dravel_db();
      released_after = after;
      const no_sleep locked(path, [] {
        if (no_sleep::slept > released_after)
          other(std::exchange(released_after, INT_MAX) == INT_MAX ? "" : "COMMIT");
      });
      other("BEGIN EXCLUSIVE");
      sqlite3_auto_extension(reinterpret_cast<void (*)()>(note_connection));
      initialize_dravel_db();
      sqlite3_reset_auto_extension();
      EXPECT_LE(no_sleep::slept, kLongest);
      EXPECT_GT(no_sleep::slept, std::min(after, kLongest * 9 / 10));
      EXPECT_TRUE(after > kLongest || levels(kDravelDbPath) + levels(kWakeupDbPath) == 6); // extra
    }
}

// A foreign file in which no table can be dropped.
TEST_F(Store, AStoreThatCannotBeMigrated_IsDeleted) {
  for (const char *path : {kDravelDbPath, kWakeupDbPath}) {
    restart(path);
    close_dravel_db();
    fs::remove(path);
    rows("CREATE VIEW dravel AS SELECT 1", path);
    rows("PRAGMA user_version = 0");
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_FALSE(fs::exists(path));
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
    const int before = commits(kDravelDbPath);
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(commits(kDravelDbPath), before + 2); // the table of periods; all of the migration
    EXPECT_EQ(rows("PRAGMA user_version; SELECT * FROM dravel"), std::string("1 ") + expected);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT * FROM dravel", kWakeupDbPath),
              "1 2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0");
    EXPECT_EQ(logged().find("failed"), std::string::npos);
  }
}

// Calls a function with the daemon's own connection to the main database, once that is open.
static void (*when_opened)(sqlite3 *db);

static int opened(sqlite3 *db, const char **, const sqlite3_api_routines *) {
  if (sqlite3_db_filename(db, "main") == std::string_view(kDravelDbPath))
    when_opened(db);
  return SQLITE_OK;
}

static int refuse_commit(void *) { return 1; }

// A column that was added is in none of the old rows, so that the new rows need more space.
TEST_F(Store, AMigrationThatFails_IsTriedAgain_AndLosesNothing) {
  const auto entry = reinterpret_cast<void (*)()>(opened);
  const struct {
    const char *name;
    void (*fail)(sqlite3 *db);
  } faults[] = {
      {"the file cannot grow",
       [](sqlite3 *db) {
         sqlite3_exec(db, "PRAGMA max_page_count = 1", nullptr, nullptr, nullptr);
       }},
      {"refused commit", [](sqlite3 *db) { sqlite3_commit_hook(db, refuse_commit, nullptr); }},
      {"a reader's lock", [](sqlite3 *) { other("COMMIT; BEGIN; SELECT * FROM dravel"); }}};
  for (const auto &[name, fail] : faults) {
    restart(name);
    rows("DROP TABLE dravel; CREATE TABLE dravel(timer_id INTEGER PRIMARY KEY, type, priority, "
         "date_type, tm_sec,"
         "tm_min, tm_hour, tm_mday, tm_mon, tm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag);"
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
         "INSERT INTO dravel SELECT i, i, i, i, i, i, i, i, i, i, i, i, i, i, i FROM n;"
         "ALTER TABLE dravel ADD COLUMN micom_flag; ALTER TABLE dravel ADD COLUMN "
         "disable_period_effect;"
         "ALTER TABLE dravel ADD COLUMN time_type; PRAGMA user_version = 0");
    close_dravel_db();
    const no_sleep locked(kDravelDbPath, [] {});
    other("BEGIN");
    when_opened = fail;
    sqlite3_auto_extension(entry);
    initialize_dravel_db();
    sqlite3_cancel_auto_extension(entry);
    other("COMMIT");
    disabled_period_item period{};
    const std::string periods = insert_disabled_period_item_db(&period) == 0 ? "1" : "0";
    EXPECT_EQ(rows("SELECT count(*) FROM disabled_period"), periods); // no transaction is left open
    close_dravel_db();
    EXPECT_EQ(rows("PRAGMA user_version; SELECT count(*), sum(timer_id) FROM dravel"),
              "0 2000|2001000");
    EXPECT_EQ(initialize_dravel_db(), 0);
    EXPECT_EQ(rows("PRAGMA user_version; SELECT count(*), sum(type) FROM dravel"),
              "1 2000|2001000");
  }
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
  for (const int type : {98, 99}) { // the wake-up database keeps the last one
    item.type = type;
    EXPECT_EQ(insert_wakeup_dravel_item_db(&item), 0);
  }
  EXPECT_EQ(rows("SELECT timer_id, type FROM dravel", kWakeupDbPath), "3|99");
  rows("UPDATE sqlite_sequence SET seq = 2147483646");
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
