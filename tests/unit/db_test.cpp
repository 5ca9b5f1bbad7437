#include "fixture.h"

#include <climits>
#include <filesystem>
#include <fstream>
#include <vector>

namespace fs = std::filesystem;

class Store : public CleanSet {};

static std::vector<dravel_item> read_timers;

static int keep_row(const dravel_item *row) {
  read_timers.push_back(*row);
  return 1; // does not end the reading
}

static dravel_item counted_item() {
  return {0, 2, 3, 4, {5, 6, 7, 8, 9, 10, 11, 12, 13, 0, nullptr}, 14, 15, 16, 17};
}

static disabled_period_item counted_period() {
  return {{1, 2, 3, 4, 5, 6, 7, 8, 9, 0, nullptr},
          {10, 11, 12, 13, 14, 15, 16, 17, 18, 0, nullptr},
          19,
          20,
          0};
}

static void fill(const char *path, const std::string &content) {
  fs::remove_all(path);
  std::ofstream(path) << content;
}

static void overwrite_pages(const char *path, std::streamoff from) {
  rows("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i < 2000)"
       "INSERT INTO dravel(type) SELECT i FROM n",
       path);
  std::fstream file(path, std::ios::in | std::ios::out);
  file.seekp(from) << std::string(20000, 'x');
}

TEST_F(Store, AUselessFile_IsReplacedByAnEmptySoundStore) {
  using spoiler = void (*)(const char *);
  const std::pair<const char *, spoiler> cases[] = {
      {"missing", [](const char *path) { fs::remove(path); }},
      {"empty", [](const char *path) { fill(path, ""); }},
      {"damaged first page", [](const char *path) { overwrite_pages(path, 100); }},
      {"damaged rows", [](const char *path) { overwrite_pages(path, 8192); }},
      {"reported faults", [](const char *path) {
         rows("INSERT INTO dravel(type) VALUES(NULL); PRAGMA writable_schema = ON; UPDATE "
              "sqlite_schema SET sql = replace(sql, 'type INTEGER,', 'type INTEGER NOT NULL,')",
              path);
       }}};
  for (const char *path : {kMainDb, kWakeupDb})
    for (const auto &[name, spoil] : cases) {
      restart(name);
      close_dravel_db();
      spoil(path);
      EXPECT_EQ(initialize_dravel_db(), 0);
      EXPECT_EQ(rows("PRAGMA user_version; PRAGMA integrity_check", path), "1 ok");
      EXPECT_EQ(rows("SELECT count(*) FROM dravel", path), "0");
      EXPECT_EQ(fs::status(path).permissions(), fs::perms(0664));
    }
}

TEST_F(Store, WhatStandsInTheWay_LeavesTheRunWithoutAStore_AndNoMore) {
  dravel_item item = counted_item();
  close_dravel_db();
  fill(kMainDb, std::string(4096, 'x'));
  EXPECT_EQ(initialize_dravel_db(), SQLITE_NOTADB);
  EXPECT_NE(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(item.timer_id, 0);
  close_dravel_db();
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(insert_dravel_item_db(&item), 0);

  for (const auto &[path, result] : {std::pair{kMainDb, SQLITE_CANTOPEN}, {kWakeupDb, SQLITE_OK}}) {
    restart(path);
    close_dravel_db();
    fs::remove(path);
    fs::create_directories(std::string(path) + "/full");
    EXPECT_EQ(make_db_file_manual(path), -1);
    EXPECT_EQ(initialize_dravel_db(), result);
    EXPECT_EQ(insert_dravel_item_db(&item) == 0, result == SQLITE_OK);
    EXPECT_EQ(insert_wakeup_dravel_item_db(&item) == 0, result != SQLITE_OK);
  }
}

// The layout of version 0: the mark stood before `disable_period_effect`, and there was no
// `time_type`.
static void start_with_version_0(const std::string &last_columns, const std::string &main_rows,
                                 const std::string &wakeup_rows) {
  const std::string table = "CREATE TABLE dravel(timer_id INTEGER, b, c, d, e, f, g, h, i, j, k, l,"
                            " m, n, o";
  close_dravel_db();
  fs::remove(kMainDb);
  fs::remove(kWakeupDb);
  rows(table + last_columns + ");" + main_rows);
  rows(table + ");" + wakeup_rows, kWakeupDb);
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows("PRAGMA user_version") + rows("PRAGMA user_version", kWakeupDb), "11");
}

TEST_F(Store, AVersion0Store_KeepsItsTimersUnderNewIds_AndAMissingValueCountsAs0) {
  start_with_version_0(", p, q",
                       "INSERT INTO dravel VALUES(9,2,3,4,5,6,7,8,9,10,11,12,13,14,15,1,16),"
                       "(4,1,0,0,0,0,7,1,0,120,0,0,0,0,127,0,NULL)",
                       "INSERT INTO dravel VALUES(2,1,0,0,0,0,7,1,0,120,0,0,0,0,127)");
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|0|0 "
                                          "2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0|1");
  EXPECT_EQ(rows("SELECT * FROM dravel", kWakeupDb), "2|1|0|0|0|0|7|1|0|120|0|0|0|0|127|0|0");
  start_with_version_0("", "INSERT INTO dravel VALUES(1,2,NULL,4,5,6,7,8,9,10,11,12,NULL,14,15)",
                       "");
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|0|4|5|6|7|8|9|10|11|12|0|14|15|0|0|0");
}

TEST_F(Store, AMigrationThatCannotReplaceTheTable_GivesTheFileUp) {
  close_dravel_db();
  fs::remove(kMainDb);
  rows("CREATE TABLE t(a); CREATE VIEW dravel AS SELECT a FROM t; INSERT INTO t VALUES(1)");
  EXPECT_EQ(initialize_dravel_db(), 0);
  EXPECT_FALSE(fs::exists(kMainDb));
}

TEST_F(Store, ARow_HoldsItsFieldsInColumnOrder_AndReadsBackAtTheNextStart) {
  dravel_item item = counted_item();
  disabled_period_item period = counted_period();
  EXPECT_EQ(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_wakeup_dravel_item_db(&item), 0);
  EXPECT_EQ(insert_disabled_period_item_db(&period), 0);
  EXPECT_EQ(item.timer_id + period.period_id, 2);
  close_dravel_db();
  ASSERT_EQ(initialize_dravel_db(), 0);
  EXPECT_EQ(rows("SELECT * FROM dravel"), "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|0");
  EXPECT_EQ(rows("SELECT * FROM dravel", kWakeupDb), "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17");
  EXPECT_EQ(rows("SELECT * FROM disabled_period"),
            "1|1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|18|19|20");

  period.end_tm.tm_mon = 44;
  period.start_date_leap_year_f = period.end_date_leap_year_f = 0;
  EXPECT_EQ(update_disable_period_db(&period), 0);
  EXPECT_EQ(rows("SELECT * FROM disabled_period"),
            "1|1|2|3|4|5|6|7|8|9|10|11|12|13|44|15|16|17|18|19|20");
  rows("UPDATE dravel SET type = -2147483648, priority = 99999999999, delay = NULL");
  read_timers.clear();
  EXPECT_EQ(load_dravel_db(keep_row), 0);
  ASSERT_EQ(read_timers.size(), 1U);
  EXPECT_EQ(read_timers[0].type, INT_MIN);
  EXPECT_EQ(read_timers[0].priority, INT_MAX);
  EXPECT_EQ(read_timers[0].tm.tm_isdst, 13);
  EXPECT_EQ(read_timers[0].delay, 0);
  EXPECT_EQ(read_timers[0].time_type, 17);
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
  read_timers.clear();
  load_wakeup_timer_db(keep_row);
  EXPECT_EQ(read_timers.size(), 1U);
  item.type = 99;
  EXPECT_EQ(update_dravel_item_db(&item), 0);
  EXPECT_EQ(update_disable_period_effect_db(2, 88), 0);
  EXPECT_EQ(rows("SELECT timer_id, type, disable_period_effect, micom_flag FROM dravel"),
            "2|2|88|0 3|99|16|1");
  insert_wakeup_dravel_item_db(&item);
  insert_wakeup_dravel_item_db(&read_timers[0]);
  EXPECT_EQ(rows("SELECT timer_id, type FROM dravel", kWakeupDb), "3|2");
}

TEST_F(Store, ARefusedWrite_IsReportedAndChangesNothing) {
  dravel_item item = counted_item();
  disabled_period_item period = counted_period();
  insert_dravel_item_db(&item);
  insert_disabled_period_item_db(&period);
  insert_wakeup_dravel_item_db(&item);
  item.type = period.end_tm.tm_mon = 42;
  const store_locked main_lock, wakeup_lock(kWakeupDb);
  for (const int result :
       {insert_dravel_item_db(&item), insert_disabled_period_item_db(&period),
        update_dravel_item_db(&item), update_disable_period_effect_db(1, 42),
        update_disable_period_db(&period), set_micom_flag(1), delete_dravel_item_db(1),
        delete_disabled_period_item_db(1), insert_wakeup_dravel_item_db(&item)})
    EXPECT_EQ(result, SQLITE_BUSY);
  EXPECT_EQ(item.timer_id + period.period_id, 2);
  EXPECT_EQ(rows("SELECT timer_id, type, disable_period_effect, micom_flag FROM dravel"),
            "1|2|16|0");
  EXPECT_EQ(rows("SELECT period_id, end_tm_mon FROM disabled_period"), "1|14");
  EXPECT_EQ(rows("SELECT timer_id, type FROM dravel", kWakeupDb), "1|2");
}

TEST_F(Store, AMissingTable_IsAFailedRead) {
  rows("DROP TABLE dravel; DROP TABLE disabled_period");
  EXPECT_NE(load_dravel_db(keep_row), 0);
  EXPECT_NE(load_wakeup_timer_db(keep_row), 0);
  EXPECT_NE(load_disabled_period_db([](const disabled_period_item *) { return 0; }), 0);
}

TEST_F(Store, AReset_DeletesBothFiles_AndLeavesReadsToTheRunningDaemon) {
  dravel_item item = counted_item();
  insert_dravel_item_db(&item);
  reset_dravel_db();
  EXPECT_FALSE(fs::exists(kMainDb) || fs::exists(kWakeupDb));
  read_timers.clear();
  EXPECT_EQ(load_dravel_db(keep_row), 0);
  EXPECT_EQ(read_timers.size(), 1U);
  EXPECT_NE(insert_dravel_item_db(&item), 0);
  EXPECT_EQ(item.timer_id, 1);
}
