#include "dravel-db.h"

#include "dravel-log.h"
#include "dravel-util.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glob.h>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

static constexpr mode_t kDbFileMode = 0664;
static constexpr int kUnmarked = 0;

static constexpr const char *kCreateDravelTable =
    "CREATE TABLE IF NOT EXISTS dravel \t(timer_id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "\ttype INTEGER,\tpriority INTEGER,\tdate_type INTEGER,\ttm_sec INTEGER,\ttm_min INTEGER,"
    "\ttm_hour INTEGER,\ttm_mday INTEGER,\ttm_mon INTEGER,\ttm_year INTEGER,\ttm_wday INTEGER,"
    "\ttm_yday INTEGER,\ttm_isdst INTEGER,\tdelay INTEGER,\tweek_flag INTEGER,"
    "\tdisable_period_effect INTEGER,\ttime_type INTEGER,\tmicom_flag INTEGER\t)";

static constexpr const char *kCreateWakeupDravelTable =
    "CREATE TABLE IF NOT EXISTS dravel \t(timer_id INTEGER,\ttype INTEGER,\tpriority INTEGER,"
    "\tdate_type INTEGER,\ttm_sec INTEGER,\ttm_min INTEGER,\ttm_hour INTEGER,\ttm_mday INTEGER,"
    "\ttm_mon INTEGER,\ttm_year INTEGER,\ttm_wday INTEGER,\ttm_yday INTEGER,\ttm_isdst INTEGER,"
    "\tdelay INTEGER,\tweek_flag INTEGER,\tdisable_period_effect INTEGER,\ttime_type INTEGER\t)";

static constexpr const char *kCreateDisabledPeriodTable =
    "CREATE TABLE IF NOT EXISTS disabled_period \t(period_id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "\tstart_tm_sec INTEGER,\tstart_tm_min INTEGER,\tstart_tm_hour INTEGER,"
    "\tstart_tm_mday INTEGER,\tstart_tm_mon INTEGER,\tstart_tm_year INTEGER,"
    "\tstart_tm_wday INTEGER,\tstart_tm_yday INTEGER,\tstart_tm_isdst INTEGER,"
    "\tend_tm_sec INTEGER,\tend_tm_min INTEGER,\tend_tm_hour INTEGER,\tend_tm_mday INTEGER,"
    "\tend_tm_mon INTEGER,\tend_tm_year INTEGER,\tend_tm_wday INTEGER,\tend_tm_yday INTEGER,"
    "\tend_tm_isdst INTEGER,\tstart_date_leap_year_f INTEGER,\tend_date_leap_year_f INTEGER\t)";

static constexpr const char *kInsertDravel =
    "INSERT INTO dravel \t(type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, tm_mon,"
    "\ttm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag,\tdisable_period_effect, time_type, "
    "micom_flag) \tVALUES (%d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d)";

static constexpr const char *kUpdateDravel =
    "UPDATE dravel SET \ttype=%d, priority=%d, date_type=%d, tm_sec=%d, tm_min=%d, tm_hour=%d,"
    "\ttm_mday=%d, tm_mon=%d, tm_year=%d, tm_wday=%d, tm_yday=%d, tm_isdst=%d,"
    "\tdelay=%d, week_flag=%d, disable_period_effect=%d, time_type=%d WHERE timer_id = %d";

static constexpr const char *kInsertWakeupDravel =
    "INSERT INTO dravel \t(timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, tm_mday, "
    "tm_mon,\ttm_year, tm_wday, tm_yday, tm_isdst, delay, week_flag, disable_period_effect, "
    "time_type) \tVALUES (%d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d)";

static constexpr const char *kInsertDisabledPeriod =
    "INSERT INTO disabled_period \t(start_tm_sec, start_tm_min, start_tm_hour, start_tm_mday, "
    "start_tm_mon,\t start_tm_year, start_tm_wday, start_tm_yday, start_tm_isdst,"
    "\t end_tm_sec, end_tm_min, end_tm_hour, end_tm_mday, end_tm_mon,"
    "\t end_tm_year, end_tm_wday, end_tm_yday, end_tm_isdst, start_date_leap_year_f, "
    "end_date_leap_year_f) VALUES (%d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d, %d,"
    "\t\t%d, %d, %d, %d)";

static constexpr const char *kUpdateDisabledPeriod =
    "UPDATE disabled_period SET \tstart_tm_sec=%d, start_tm_min=%d, start_tm_hour=%d,"
    "\tstart_tm_mday=%d, start_tm_mon=%d, start_tm_year=%d,"
    "\tstart_tm_wday=%d, start_tm_yday=%d, start_tm_isdst=%d,"
    "\tend_tm_sec=%d, end_tm_min=%d, end_tm_hour=%d,"
    "\tend_tm_mday=%d, end_tm_mon=%d, end_tm_year=%d,"
    "\tend_tm_wday=%d, end_tm_yday=%d, end_tm_isdst=%d WHERE rowid=%d";

// How long a start waits for other processes that hold the locks of one file.
static constexpr std::chrono::milliseconds kLongestWait{2000};
static constexpr int kSynchronousExtra = 3;

namespace {

// One of the two files and its connection.
struct database {
  const char *path;
  sqlite3 *handle = nullptr;
  std::chrono::milliseconds wait_left{}; // of kLongestWait; 0 unless a start is under way
  bool is_older = false;                 // this start found the file and has not given it up
};

// The outcome of one statement.
struct sql_result {
  sqlite3 *db;
  int code;
  std::unique_ptr<char, void (*)(void *)> error;

  bool ok() const { return code == SQLITE_OK; }
  // A connection that could not be opened, or is closed, refuses statements without a text.
  const char *text() const {
    return error ? error.get() : db != nullptr ? sqlite3_errmsg(db) : "the database is not open";
  }
};

// A statement's text. sql_format proves that every one fits.
struct statement {
  char text[1024] = "";
  static constexpr std::size_t kLimit = sizeof text - 1;
};

// The text of a statement with %d for each of `Values` numbers. Does not compile when that is not
// so, or when the longest numbers do not fit.
template <std::size_t Values> struct sql_format {
  consteval sql_format(const char *format) : text(format) {
    std::size_t values = 0;
    std::size_t length = 0;
    for (; *format != '\0'; ++format, ++length)
      if (*format == '%') {
        ++values;
        length += std::numeric_limits<int>::digits10 + 1; // the loop counts the sign
        if (*++format != 'd')
          throw "not a conversion of a number";
      }
    if (values != Values || length >= statement::kLimit)
      throw "another count of values, or too long";
  }

  const char *text;
};

using connection = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;
using row_callback = int (*)(void *out, int columns, char **values, char **names);
using old_rows = std::vector<dravel_item>;
// The numbers of a record's fields, without `LeftOut` of them.
template <typename Record, std::size_t LeftOut>
using fields_of = std::make_index_sequence<kRecordFields<Record>.size() - LeftOut>;
using timer_format = sql_format<kRecordFields<dravel_item>.size()>;

} // namespace

static database dravel_db = {kDravelDbPath};
static database wakeup_dravel_db = {kWakeupDbPath};

static sql_result execute(sqlite3 *handle, const char *sql, row_callback callback, void *out) {
  char *error = nullptr;
  const int code = sqlite3_exec(handle, sql, callback, out, &error);
  return {handle, code, {error, sqlite3_free}};
}

static void set_wait(database &db, std::chrono::milliseconds wait) {
  db.wait_left = wait;
  if (db.handle != nullptr)
    sqlite3_busy_timeout(db.handle, static_cast<int>(wait.count()));
}

// All that a start does with a file waits no longer in all than one statement may. To be called
// after something that began at `begun` and ended with `code`.
static void charge_wait(database &db, std::chrono::steady_clock::time_point begun, int code) {
  using std::chrono::milliseconds;
  if (db.wait_left.count() == 0)
    return;
  const auto took = std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now() - begun);
  set_wait(db, code == SQLITE_BUSY ? milliseconds{} : db.wait_left - std::min(took, db.wait_left));
}

static sql_result execute(database &db, const char *sql, row_callback callback = nullptr,
                          void *out = nullptr) {
  const auto begun = std::chrono::steady_clock::now();
  sql_result result = execute(db.handle, sql, callback, out);
  charge_wait(db, begun, result.code);
  return result;
}

template <typename... Values>
static sql_result execute_with(database &db, sql_format<sizeof...(Values)> format,
                               Values... values) {
  statement sql;
  std::snprintf(sql.text, statement::kLimit, format.text, values...);
  return execute(db, sql.text);
}

// Fills `format` with the fields from column `First` on, then `last`.
template <std::size_t First, typename Record, std::size_t... I, typename... Last>
static void format_fields(char *buf, sql_format<sizeof...(I) + sizeof...(Last)> format,
                          const Record &record, std::index_sequence<I...>, Last... last) {
  std::snprintf(buf, statement::kLimit, format.text,
                field_of(record, kRecordFields<Record>[First + I])..., last...);
}

// Column values are decimal text. A NULL counts as 0, and a number beyond 32
// bits as the nearest one, so that every word size reads a row alike.
static int column_value(const char *text) {
  if (text == nullptr)
    return 0;
  return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

// Fills the first `fields` fields; those that the row does not have stay.
template <typename Record>
static void parse_row(Record &record, std::size_t fields, int columns, char **values) {
  const std::size_t count = std::min(fields, static_cast<std::size_t>(columns));
  for (const record_field &field : std::span(kRecordFields<Record>).first(count))
    field_of(record, field) = column_value(*values++);
}

template <typename Record> static void deliver_row(void *fn, int columns, char **values) {
  Record row{};
  parse_row(row, kRecordFields<Record>.size(), columns, values);
  (*static_cast<int (**)(const Record *)>(fn))(&row);
}

// A table of version 0, whose migration failed, has no more columns than the record has fields, and
// others in their places: its timers would go by a wrong clock.
static int dravel_row_cb(void *fn, int columns, char **values, char **) {
  if (static_cast<std::size_t>(columns) > kRecordFields<dravel_item>.size())
    deliver_row<dravel_item>(fn, columns, values);
  return 0;
}

static int disabled_period_row_cb(void *fn, int columns, char **values, char **) {
  deliver_row<disabled_period_item>(fn, columns, values);
  return 0;
}

// One builder for the insert, which ends with the mark of a new row, and the
// update, which ends with the row's id.
static void query_dravel_db_str(char *buf, const dravel_item *item, timer_format format, int last) {
  if (buf == nullptr || item == nullptr)
    return;
  format_fields<1>(buf, format, *item, fields_of<dravel_item, 1>{}, last);
}

static void query_wakeup_dravel_db_str(char *buf, const dravel_item *item, timer_format format) {
  if (buf == nullptr || item == nullptr)
    return;
  format_fields<0>(buf, format, *item, fields_of<dravel_item, 0>{});
}

int load_dravel_db(dravel_row_fn fn) {
  const sql_result result = execute(dravel_db, "SELECT * FROM dravel", dravel_row_cb, &fn);
  if (!result.ok())
    LOGE("failed to load table for dravel: %s\n", result.text());
  return result.code;
}

int load_wakeup_timer_db(dravel_row_fn fn) {
  const sql_result result =
      execute(dravel_db, "SELECT * FROM dravel WHERE micom_flag = 1", dravel_row_cb, &fn);
  if (!result.ok())
    LOGE("failed to load table for wakeup timer: %s\n", result.text());
  return result.code;
}

// Deletes the row that was inserted last.
static int undo_insert(const char *table) {
  const std::string sql =
      std::string("DELETE FROM ") + table + " WHERE rowid = last_insert_rowid()";
  const sql_result result = execute(dravel_db, sql.c_str());
  if (!result.ok())
    LOGE("failed to undo an insert: %s\n", result.text());
  return result.code;
}

// Runs an insert and takes the new row's id. In a foreign file a trigger may
// prevent the row, or the id may be outside 1 to 2,147,483,647: such a row could
// not be found again.
static sql_result insert_row(const char *table, const char *sql, int *id) {
  const auto refuse = [](int code, const char *reason) -> sql_result {
    return {dravel_db.handle, code, {sqlite3_mprintf("%s", reason), sqlite3_free}};
  };
  sql_result result = execute(dravel_db, sql);
  if (!result.ok())
    return result;
  if (sqlite3_changes(dravel_db.handle) != 1)
    return refuse(SQLITE_ERROR, "no row added");
  const sqlite3_int64 row = sqlite3_last_insert_rowid(dravel_db.handle);
  if (row < 1 || row > INT_MAX) {
    undo_insert(table);
    return refuse(SQLITE_FULL, "no id left");
  }
  *id = static_cast<int>(row);
  return result;
}

int insert_dravel_item_db(dravel_item *item) {
  statement sql;
  query_dravel_db_str(sql.text, item, kInsertDravel, kUnmarked);
  const sql_result result = insert_row("dravel", sql.text, &item->timer_id);
  if (!result.ok())
    LOGE("failed to insert dravel item: %s\n", result.text());
  return result.code;
}

int undo_insert_dravel_item_db(void) { return undo_insert("dravel"); }

int update_dravel_item_db(const dravel_item *item) {
  statement sql;
  query_dravel_db_str(sql.text, item, kUpdateDravel, item->timer_id);
  const sql_result result = execute(dravel_db, sql.text);
  if (!result.ok())
    LOGE("failed to update dravel item[id:%d]: %s\n", item->timer_id, result.text());
  return result.code;
}

int delete_dravel_item_db(int timer_id) {
  const sql_result result =
      execute_with(dravel_db, "DELETE FROM dravel WHERE timer_id = %d", timer_id);
  if (!result.ok())
    LOGE("failed to delete dravel item: %s\n", result.text());
  return result.code;
}

int update_disable_period_effect_db(int timer_id, int effect) {
  const sql_result result = execute_with(
      dravel_db, "UPDATE dravel SET disable_period_effect = %d \t\t\tWHERE timer_id = %d", effect,
      timer_id);
  if (!result.ok())
    LOGE("failed to update disable period effect[id : %d]: %s\n", timer_id, result.text());
  return result.code;
}

int set_micom_flag(int timer_id) {
  const sql_result cleared =
      execute(dravel_db, "UPDATE dravel SET micom_flag = 0 \t\t\tWHERE micom_flag = 1");
  if (!cleared.ok())
    LOGE("failed to update wakeup item: %s\n", cleared.text());

  const sql_result marked =
      execute_with(dravel_db, "UPDATE dravel SET micom_flag = 1 WHERE timer_id = %d", timer_id);
  if (!marked.ok())
    LOGE("failed to update wakeup item: %s\n", marked.text());
  return marked.code;
}

int insert_wakeup_dravel_item_db(const dravel_item *item) {
  const sql_result emptied = execute(wakeup_dravel_db, "DELETE FROM dravel");
  if (!emptied.ok()) {
    LOGE("failed to delete all wakeup timer: %s\n", emptied.text());
    return emptied.code;
  }

  statement sql;
  query_wakeup_dravel_db_str(sql.text, item, kInsertWakeupDravel);
  const sql_result inserted = execute(wakeup_dravel_db, sql.text);
  if (!inserted.ok())
    LOGE("failed to insert wakeup dravel item: %s\n", inserted.text());
  return inserted.code;
}

int load_disabled_period_db(disabled_period_row_fn fn) {
  const sql_result result =
      execute(dravel_db, "SELECT * FROM disabled_period", disabled_period_row_cb, &fn);
  if (!result.ok())
    LOGE("failed to load table for disabled_period: %s\n", result.text());
  return result.code;
}

int insert_disabled_period_item_db(disabled_period_item *period) {
  statement sql;
  format_fields<1>(sql.text, kInsertDisabledPeriod, *period, fields_of<disabled_period_item, 1>{});
  const sql_result result = insert_row("disabled_period", sql.text, &period->period_id);
  if (!result.ok())
    LOGE("failed to insert disabled period item: %s\n", result.text());
  return result.code;
}

int update_disable_period_db(const disabled_period_item *period) {
  statement sql;
  // All but the row id and the two leap-year flags.
  format_fields<1>(sql.text, kUpdateDisabledPeriod, *period, fields_of<disabled_period_item, 3>{},
                   period->period_id);
  const sql_result result = execute(dravel_db, sql.text);
  if (!result.ok())
    LOGE("failed to update disable period item[period_id : %d]: %s\n", period->period_id,
         result.text());
  return result.code;
}

int delete_disabled_period_item_db(int period_id) {
  const sql_result result =
      execute_with(dravel_db, "DELETE FROM disabled_period WHERE period_id = %d", period_id);
  if (!result.ok())
    LOGE("failed to delete disabled period item: %s\n", result.text());
  return result.code;
}

static int check_callback(void *failed, int columns, char **values, char **) {
  LOGI("check_callback begin");
  const char *report = values[0];
  if (std::strcmp(report, "ok") == 0) {
    LOGD("db integrity check done - no error");
  } else {
    *static_cast<bool *>(failed) = true;
    LOGE("db integrity check failed : %d , %s", columns, report);
  }
  return 0;
}

static bool is_empty(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 && status.st_size == 0;
}

int integrity_check(const char *path) {
  LOGP("integrity_check [%s] begin", path);
  if (access(path, R_OK) != 0) {
    LOGP("DBFILE [%s] is not exist, it will be created", path);
    return -1;
  }

  sqlite3 *handle = nullptr;
  const int opened = sqlite3_open(path, &handle);
  const connection db(handle, sqlite3_close);
  if (opened != SQLITE_OK) {
    LOGE("DB open fail: [%s], remove", sqlite3_errmsg(handle));
    unlink(path);
    return -1;
  }
  if (is_empty(path)) {
    LOGP("integrity_check file size = 0, remove");
    unlink(path);
    return -1;
  }

  bool failed = false;
  const int checked = execute(handle, "pragma integrity_check", check_callback, &failed).code;
  if (checked == SQLITE_CORRUPT) {
    LOGE("integrity_check [%s] SQLITE_CORRUPT, r = %d , SQLITE_CORRUPT = %d", path, checked,
         SQLITE_CORRUPT);
    return -1;
  }
  if (failed) {
    unlink(path);
    LOGE("db [%s] deleted", path);
    return -1;
  }
  LOGP("DBFILE [%s] pragma intergrity check OK", path);
  return 0;
}

int make_db_file_manual(const char *path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, kDbFileMode);
  if (fd == -1) {
    LOGE("open(%s) Failed", path);
    return -1;
  }

  const int owned = fchown(fd, getuid(), getgid());
  if (owned != 0)
    LOGE("fchown(%s) Failed(%d)", path, owned);
  const int opened_up = fchmod(fd, kDbFileMode);
  if (opened_up != 0)
    LOGE("fchmod(%s) Failed(%d)", path, opened_up);

  close(fd);
  LOGP("make_db_file_manual [%s] ", path);
  return opened_up;
}

static int __check_db_version_to_migration_cb(void *old_version, int, char **values, char **) {
  LOGI("db version[%s]", values[0]);
  const int version = column_value(values[0]);
  if (version >= 0 && version < kDravelDbVersion) {
    LOGI("need db migration. %d -> %d", version, kDravelDbVersion);
    *static_cast<int *>(old_version) = version;
  }
  return 0;
}

// Gives the version to migrate from, or the present one.
static int __check_need_db_migration(void) {
  int old_version = kDravelDbVersion;
  const sql_result result =
      execute(dravel_db, "pragma user_version", __check_db_version_to_migration_cb, &old_version);
  if (!result.ok())
    LOGE("failed to get db version. ret[%d], error[%s]", result.code, "");
  return result.ok() ? old_version : kDravelDbVersion;
}

// Whether the main database, whose version decides about the migration, has it.
static bool __set_db_version(void) {
  LOGI("new db version[%d]", kDravelDbVersion);
  bool is_set = true;
  for (database *db : {&dravel_db, &wakeup_dravel_db}) {
    const sql_result result = execute_with(*db, "pragma user_version = %d", kDravelDbVersion);
    if (result.ok())
      continue;
    LOGE("failed to set db version. ret[%d], error[%s]", result.code, result.text());
    is_set &= db == &wakeup_dravel_db;
  }
  return is_set;
}

// Version 0 had the columns up to `week_flag` as they are now, and the rest of
// them in another order.
static void __load_data_from_db(dravel_item *item, int columns, char **values) {
  constexpr std::size_t kFieldsOfVersion0 = 15;
  parse_row(*item, kFieldsOfVersion0, columns, values);
  item->time_type = TIME_TYPE_BROADCAST;

  const std::tm &tm = item->tm;
  LOGD("timer_id[%d], type[%d], priority[%d], date_type[%d]", item->timer_id, item->type,
       item->priority, item->date_type);
  LOGD("date[%d/%d/%d-%d:%d:%d], wday[%d], yday[%d], isdst[%d]", add_wrapping(tm.tm_year, 1900),
       add_wrapping(tm.tm_mon, 1), tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday,
       tm.tm_yday, tm.tm_isdst);
  LOGD("delay[%d], week_flag[%d], time_type[%d]", item->delay, item->week_flag, item->time_type);
}

static int __add_old_dravel_to_migration_cb(void *rows, int columns, char **values, char **) {
  dravel_item item{};
  __load_data_from_db(&item, columns, values);

  item.disable_period_effect = columns > 16 ? column_value(values[16]) : 0;
  LOGD("disable_period_effect[%d], micom_flag[%d]", item.disable_period_effect,
       columns > 15 ? column_value(values[15]) : 0);
  static_cast<old_rows *>(rows)->push_back(item);
  return 0;
}

static int __add_old_wakeup_dravel_to_migration_cb(void *rows, int columns, char **values,
                                                   char **) {
  dravel_item item{};
  __load_data_from_db(&item, columns, values);
  LOGD("disable_period_effect[%d]", item.disable_period_effect);
  static_cast<old_rows *>(rows)->push_back(item);
  return 0;
}

static bool __get_old_dravel_list(old_rows &timers, old_rows &wakeup) {
  const sql_result read =
      execute(dravel_db, "SELECT * FROM dravel", __add_old_dravel_to_migration_cb, &timers);
  if (!read.ok())
    LOGE("failed to load table for dravel: %s", read.text());

  const sql_result read_wakeup = execute(wakeup_dravel_db, "SELECT * FROM dravel",
                                         __add_old_wakeup_dravel_to_migration_cb, &wakeup);
  if (!read_wakeup.ok())
    LOGE("failed to load table for wakeup dravel: %s", read_wakeup.text());
  return read.ok() && read_wakeup.ok();
}

// The lines of both name the caller.
static int create_table(database &db, const char *table, const char *sql,
                        const char *caller = __builtin_FUNCTION()) {
  const sql_result created = execute(db, sql);
  if (!created.ok())
    LOG_FROM(caller, SYSTEM_LOG_ERROR, "failed to create table for %s: %s", table, created.text());
  return created.code;
}

// Deletes the file when that fails.
static int recreate_table(database &db, const char *table, const char *sql,
                          const char *caller = __builtin_FUNCTION()) {
  const sql_result dropped = execute(db, "DROP TABLE dravel");
  if (!dropped.ok())
    LOG_FROM(caller, SYSTEM_LOG_ERROR, "failed to drop table for %s: %s", table, dropped.text());
  const int code = dropped.ok() ? create_table(db, table, sql, caller) : dropped.code;
  if (code != SQLITE_OK)
    unlink(db.path);
  return code;
}

static int take_number(void *number, int, char **values, char **) {
  *static_cast<int *>(number) = column_value(values[0]);
  return 0;
}

// Whether the main table has timers of version 1: only the version could not be written then.
static bool has_migrated_timers(void) {
  int count = 0;
  execute(dravel_db, "SELECT count(time_type) FROM dravel", take_number, &count);
  return count > 0;
}

// Rows get new ids. The mark goes to the row whose new id is the id of the old wake-up copy: that
// is the same timer only when no earlier row was ever deleted.
static bool __migration_0_to_1(void) {
  LOGP("__migration_0_to_1");
  if (has_migrated_timers())
    return true;
  old_rows timers;
  old_rows wakeup;
  bool complete = __get_old_dravel_list(timers, wakeup);

  if (recreate_table(dravel_db, "dravel", kCreateDravelTable) != SQLITE_OK ||
      recreate_table(wakeup_dravel_db, "wakeup dravel", kCreateWakeupDravelTable) != SQLITE_OK)
    return false;
  for (dravel_item &item : timers)
    complete &= insert_dravel_item_db(&item) == SQLITE_OK;
  for (const dravel_item &item : wakeup) {
    complete &= set_micom_flag(item.timer_id) == SQLITE_OK;
    complete &= insert_wakeup_dravel_item_db(&item) == SQLITE_OK;
  }
  return complete;
}

// The one at its index carries a store of that version over to the next.
static constexpr bool (*kMigrations[])(void) = {__migration_0_to_1};
static_assert(std::size(kMigrations) == kDravelDbVersion, "a migration to each version");

// A missing or damaged file is replaced by an empty one; what is no database stays.
static void prepare_db_file(database &db) {
  db.is_older = integrity_check(db.path) == 0;
  if (!db.is_older) {
    LOGP_OF(initialize_dravel_db, "initialize_dravel_db integrity_check[%s] fail, it will recreate",
            db.path);
    unlink(db.path);
  }
  make_db_file_manual(db.path);
}

// A commit ends with the removal of its journal. Unless the directory is synchronised as well, a
// power cut within the next seconds can bring the journal back, which undoes the commit. Called
// once the schema is read: no lock of another process can refuse the setting then.
static void synchronise_directory_too(database &db) {
  int level = -1;
  const sql_result result =
      execute(db, "pragma synchronous = extra; pragma synchronous", take_number, &level);
  if (level != kSynchronousExtra)
    LOGE_OF(initialize_dravel_db, "failed to set synchronous of [%s]. level[%d], error[%s]",
            db.path, level, result.text());
}

static int open_db(database &db, const char *name) {
  prepare_db_file(db);
  const int opened = sqlite3_open(db.path, &db.handle);
  if (opened == SQLITE_OK)
    set_wait(db, db.wait_left);
  else
    LOGE_OF(initialize_dravel_db, "failed to open the %s database: %s", name,
            sqlite3_errmsg(db.handle));
  return opened;
}

// --- copies of an older version, beside the files while these are migrated ---
//
// A copy of the main file beside one that is missing, damaged or of the copy's version means that
// the start before was interrupted; beside one of the new version, that only the removal of the
// copies was. The copy of the wake-up file alone means nothing: it is put back first.

static std::string copy_of(const database &db, int version) {
  return db.path + std::string(".") + std::to_string(version);
}

static bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

static void remove_with_journals(const std::string &path) {
  for (const char *ending : {"-journal", "-wal", "-shm", ""})
    unlink((path + ending).c_str());
}

static void remove_copies(int version) {
  for (const database *db : {&dravel_db, &wakeup_dravel_db})
    unlink(copy_of(*db, version).c_str());
}

static int sync_file(const std::string &path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd == -1)
    return -1;
  const int synced = fsync(fd);
  close(fd);
  return synced;
}

int replace_file(const std::string &from, const std::string &to) {
  if (sync_file(from, O_RDONLY) != 0 || std::rename(from.c_str(), to.c_str()) != 0)
    return -1;
  // Some file systems cannot synchronise a directory; the file is replaced on them, too.
  (void)sync_file(to.substr(0, to.rfind('/') + 1), O_RDONLY | O_DIRECTORY);
  return 0;
}

// Through the connection, so that what a journal undoes is undone in the copy.
static int backup_into(const std::string &path, database &from) {
  sqlite3 *handle = nullptr;
  const int opened = sqlite3_open(path.c_str(), &handle);
  const connection db(handle, sqlite3_close);
  if (opened != SQLITE_OK)
    return opened;
  sqlite3_backup *backup = sqlite3_backup_init(handle, "main", from.handle, "main");
  if (backup == nullptr)
    return sqlite3_errcode(handle);
  const auto begun = std::chrono::steady_clock::now();
  const int copied = sqlite3_backup_step(backup, -1);
  charge_wait(from, begun, copied);
  sqlite3_backup_finish(backup);
  return copied == SQLITE_DONE ? SQLITE_OK : copied;
}

static int copy_database(database &from, const std::string &copy) {
  const std::string unfinished = copy + ".new";
  remove_with_journals(unfinished);
  int copied = backup_into(unfinished, from);
  if (copied == SQLITE_OK && replace_file(unfinished, copy) != 0)
    copied = SQLITE_IOERR;
  if (copied != SQLITE_OK)
    remove_with_journals(unfinished);
  return copied;
}

// A file that is new has nothing to lose.
static int make_copies(int version) {
  for (database *db : {&wakeup_dravel_db, &dravel_db}) {
    const int copied = db->is_older ? copy_database(*db, copy_of(*db, version)) : SQLITE_OK;
    if (copied != SQLITE_OK) {
      LOGE("failed to copy [%s], its migration waits for the next start: %s", db->path,
           sqlite3_errstr(copied));
      return copied;
    }
  }
  return SQLITE_OK;
}

// Renames a database's file or copy that is of no use now, with its journal; an older one of that
// name stays.
static bool set_aside(const database &db, const std::string &path) {
  const std::string failed = path + ".failed";
  std::string unused = failed;
  for (int number = 2; exists(unused); ++number)
    unused = failed + "." + std::to_string(number);
  std::rename((path + "-journal").c_str(), (unused + "-journal").c_str());
  if (replace_file(path, unused) != 0)
    return false;
  if (&db == &dravel_db)
    LOGE("the old timers are in [%s]", unused.c_str());
  return true;
}

// After a migration that failed. False when a copy is still where the next start puts it back.
static bool keep_copies(int version) {
  return std::ranges::all_of(std::array{&wakeup_dravel_db, &dravel_db}, [=](const database *db) {
    const std::string copy = copy_of(*db, version);
    return !exists(copy) || set_aside(*db, copy);
  });
}

// -1 when the file is missing or damaged; none when that is not known, because of a lock for
// example.
static std::optional<int> stored_version(database &db) {
  if (!exists(db.path))
    return -1;
  int version = -1;
  int read = sqlite3_open_v2(db.path, &db.handle, SQLITE_OPEN_READWRITE, nullptr);
  if (read == SQLITE_OK) {
    set_wait(db, db.wait_left);
    read = execute(db, "pragma user_version", take_number, &version).code;
  }
  sqlite3_close(std::exchange(db.handle, nullptr));
  if (read == SQLITE_OK || read == SQLITE_NOTADB || read == SQLITE_CORRUPT)
    return version;
  LOGE("the version of [%s] is not known, its copy waits for the next start: %s", db.path,
       sqlite3_errstr(read));
  return std::nullopt;
}

// The journals belong to the files that are replaced.
static bool put_back_copies(int version) {
  const bool is_copied = exists(copy_of(dravel_db, version));
  const std::optional<int> stored = is_copied ? stored_version(dravel_db) : version + 1;
  if (!stored)
    return false;
  if (*stored > version) {
    remove_copies(version);
    return true;
  }
  LOGE("the migration was interrupted, the old databases are put back");
  for (const database *db : {&wakeup_dravel_db, &dravel_db}) {
    const std::string copy = copy_of(*db, version);
    if (!exists(copy))
      continue;
    remove_with_journals(db->path);
    if (replace_file(copy, db->path) != 0) {
      LOGE("failed to put [%s] back", copy.c_str());
      return false;
    }
  }
  return true;
}

// --- the start ---

static int close_db(database &db) {
  db.wait_left = {};
  return sqlite3_close(std::exchange(db.handle, nullptr));
}

// Without its wake-up database the daemon still keeps every timer.
static void open_wakeup_db(void) {
  open_db(wakeup_dravel_db, "wakeup_dravel");
  if (create_table(wakeup_dravel_db, "wakeup dravel", kCreateWakeupDravelTable,
                   "initialize_dravel_db") == SQLITE_OK) {
    synchronise_directory_too(wakeup_dravel_db);
    return;
  }
  wakeup_dravel_db.is_older = false;
  unlink(kWakeupDbPath);
}

// The next start makes a new main file. One with timers that a lock or the disk made useless is
// renamed: it may be put back by hand.
static void remove_main_file(int failure) {
  const bool is_file_at_fault =
      failure == SQLITE_ERROR || failure == SQLITE_CORRUPT || failure == SQLITE_NOTADB;
  if (!dravel_db.is_older || is_file_at_fault || !set_aside(dravel_db, kDravelDbPath))
    unlink(kDravelDbPath);
}

static int open_main_db(void) {
  if (const int opened = open_db(dravel_db, "dravel"); opened != SQLITE_OK)
    return opened;
  for (const auto &[table, sql] : {std::pair{"dravel", kCreateDravelTable},
                                   std::pair{"disabled_period", kCreateDisabledPeriodTable}})
    if (const int created = create_table(dravel_db, table, sql, "initialize_dravel_db");
        created != SQLITE_OK) {
      remove_main_file(created);
      return created;
    }
  synchronise_directory_too(dravel_db);
  return SQLITE_OK;
}

static bool run_migrations(int version) {
  return std::ranges::all_of(std::span(kMigrations).subspan(static_cast<std::size_t>(version)),
                             [](bool (*migration)(void)) { return migration(); });
}

// A failed migration ends by keeping the copies, and only then the version says that it is over:
// they are not put back. After a whole one the version is written first: a start between the two
// removes the copies.
static void migrate(int version) {
  if (!run_migrations(version) && !keep_copies(version))
    return;
  if (__set_db_version())
    remove_copies(version);
  else
    keep_copies(version);
}

static int open_and_migrate(void) {
  for (int version = 0; version < kDravelDbVersion; ++version)
    if (!put_back_copies(version))
      return SQLITE_CANTOPEN;
  open_wakeup_db();
  if (const int opened = open_main_db(); opened != SQLITE_OK)
    return opened;
  const int version = __check_need_db_migration();
  if (version == kDravelDbVersion) {
    __set_db_version();
    return SQLITE_OK;
  }
  if (const int copied = make_copies(version); copied != SQLITE_OK) {
    close_db(dravel_db);
    return copied;
  }
  migrate(version);
  return SQLITE_OK;
}

int initialize_dravel_db(void) {
  for (database *db : {&dravel_db, &wakeup_dravel_db})
    db->wait_left = kLongestWait;
  const int opened = open_and_migrate();
  // From now on a locked file refuses a statement at once: the main loop must not wait.
  for (database *db : {&dravel_db, &wakeup_dravel_db})
    set_wait(*db, {});
  return opened;
}

int close_dravel_db(void) {
  close_db(dravel_db);
  return close_db(wakeup_dravel_db);
}

static void delete_db_file(const char *path, const char *file) {
  if (access(path, F_OK) != 0)
    return;
  if (unlink(path) == 0)
    LOGI_OF(reset_dravel_db, "success delete %s file", file);
  else
    LOGE_OF(reset_dravel_db, "failed delete %s file", file);
}

// All that a migration, a failed start or an interrupted copy left beside the file.
static void remove_files_beside(const std::string &path) {
  std::vector<std::string> patterns = {path + ".failed*", path + ".copy-*"};
  for (int version = 0; version < kDravelDbVersion; ++version)
    patterns.push_back(path + "." + std::to_string(version) + "*");
  for (const std::string &pattern : patterns) {
    glob_t found{};
    if (glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0)
      std::for_each_n(found.gl_pathv, found.gl_pathc, unlink);
    globfree(&found);
  }
}

void reset_dravel_db(void) {
  delete_db_file(kDravelDbPath, "db");
  delete_db_file(kWakeupDbPath, "wakeup db");
  remove_files_beside(kDravelDbPath);
  remove_files_beside(kWakeupDbPath);
}
