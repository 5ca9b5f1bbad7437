// A start of the daemon on whatever is found in the store: an input says which tables there are, of
// which columns and rows, and what has damaged the files since. Then clients come, the clock
// changes, timers fire, and everything is removed.

#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-list.h"
#include "run.h"
#include "standin.h"

#include <sqlite3.h>
#include <system_log.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

namespace fs = std::filesystem;

namespace {

struct finalize {
  void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// A table as the daemon makes it; its first column is the row id.
struct table_form {
  const char *name;
  std::size_t columns;
  std::string (*column)(std::size_t index);
};

} // namespace

static constexpr std::size_t kMostColumns = 25;
static constexpr std::size_t kMostRows = 100;
static constexpr std::size_t kMostSteps = 24;

static const char *const kDravelColumns[] = {
    "timer_id",  "type",      "priority",  "date_type",
    "tm_sec",    "tm_min",    "tm_hour",   "tm_mday",
    "tm_mon",    "tm_year",   "tm_wday",   "tm_yday",
    "tm_isdst",  "delay",     "week_flag", "disable_period_effect",
    "time_type", "micom_flag"};
static const char *const kDateColumns[] = {"tm_sec",  "tm_min",  "tm_hour", "tm_mday", "tm_mon",
                                           "tm_year", "tm_wday", "tm_yday", "tm_isdst"};

static std::string dravel_column(std::size_t index) {
  return index < std::size(kDravelColumns) ? kDravelColumns[index] : "more" + std::to_string(index);
}

static std::string period_column(std::size_t index) {
  if (index == 0)
    return "period_id";
  if (index <= 9)
    return std::string("start_") + kDateColumns[index - 1];
  if (index <= 18)
    return std::string("end_") + kDateColumns[index - 10];
  if (index <= 20)
    return index == 19 ? "start_date_leap_year_f" : "end_date_leap_year_f";
  return "more" + std::to_string(index);
}

static constexpr table_form kDravelForm = {"dravel", 18, dravel_column};
static constexpr table_form kPeriodForm = {"disabled_period", 21, period_column};

// --- rows ----------------------------------------------------------------------------------------

static void run(sqlite3 *db, const std::string &sql) {
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// Whatever a column may hold.
static void bind_anything(sqlite3_stmt *row, int column, input &in) {
  static constexpr sqlite3_int64 kHuge[] = {INT64_MAX,  INT64_MIN,   4294967296, 4294967301,
                                            2147483648, -2147483649, 1LL << 53};
  static constexpr double kReals[] = {0.5, -1.5, 1e300, -1e300, 2147483647.5, 1e-300};
  static const char *const kTexts[] = {
      "",     "12",  "-3", "0x10", "99999999999999999999", "garbage",
      " 7 x", "1e9", "+5", "\n1",  "-99999999999999999999"};
  switch (in.byte() % 9) {
  case 0:
    sqlite3_bind_null(row, column);
    break;
  case 1:
    sqlite3_bind_int64(row, column, in.one_of(kHuge));
    break;
  case 2:
    sqlite3_bind_double(row, column, in.one_of(kReals));
    break;
  case 3:
    sqlite3_bind_text(row, column, in.one_of(kTexts), -1, SQLITE_STATIC);
    break;
  case 4: {
    const std::string text(in.below(4) * 20000, static_cast<char>('0' + in.below(10)));
    sqlite3_bind_text(row, column, text.c_str(), -1, SQLITE_TRANSIENT);
    break;
  }
  case 5: {
    const std::string bytes = in.bytes(16);
    sqlite3_bind_blob(row, column, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    break;
  }
  case 6: {
    const std::string bytes = in.bytes(16);
    sqlite3_bind_text(row, column, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    break;
  }
  default:
    sqlite3_bind_int64(row, column, draw_number(in));
  }
}

// A column of a timer that could have been stored: the arguments of the bus come in another order.
static int stored_timer_value(const wanted_timer &timer, std::size_t column) {
  static constexpr int kArguments[] = {-1, 0, 2, -1, 9, 8, 7, 6, 5, 4, 10, 11, 12, 3, 1, 13, 14};
  const int argument = column < std::size(kArguments) ? kArguments[column] : -1;
  return argument < 0 ? 0 : timer.values[argument];
}

static int stored_period_value(const wanted_period &period, std::size_t column) {
  static constexpr int kDateArguments[] = {5, 4, 3, 2, 1, 0, 6, 7, 8};
  if (column == 0 || column > 20)
    return 0;
  if (column > 18)
    return period.values[column - 1];
  const std::size_t date = column > 9 ? 9 : 0;
  return period.values[date + static_cast<std::size_t>(kDateArguments[(column - 1) % 9])];
}

// The id that the next transient timer gets, as the daemon counts.
static int next_transient_id() {
  dravel_item *item =
      create_dravel_item(TIMER_TYPE_TRANSIENT, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  add_dravel_item(item);
  const int id = item->timer_id - 1;
  remove_dravel_item(item);
  return id;
}

static void bind_row(sqlite3_stmt *row, const table_form &form, std::size_t columns, int transient,
                     input &in) {
  const bool is_period = form.columns == kPeriodForm.columns;
  const wanted_timer timer = is_period ? wanted_timer{} : draw_timer(in);
  const wanted_period period = is_period ? draw_period(in) : wanted_period{};
  for (std::size_t i = 1; i < columns; ++i)
    sqlite3_bind_int(row, static_cast<int>(i + 1),
                     is_period ? stored_period_value(period, i) : stored_timer_value(timer, i));
  if (!is_period && columns > 17)
    sqlite3_bind_int(row, 18, in.seldom(32) ? 1 : 0);
  // Without a value the row id is the next one.
  if (in.seldom(16))
    sqlite3_bind_int(row, 1, transient - static_cast<int>(in.below(2)));
  for (std::size_t odd = in.seldom(80) ? in.below(4) + 1 : 0; odd > 0; --odd)
    bind_anything(row, static_cast<int>(in.below(columns)) + 1, in);
}

static void write_rows(sqlite3 *db, const table_form &form, std::size_t columns, int transient,
                       input &in) {
  std::string sql = std::string("INSERT INTO ") + form.name + " VALUES (?";
  for (std::size_t i = 1; i < columns; ++i)
    sql += ",?";
  sqlite3_stmt *prepared = nullptr;
  if (sqlite3_prepare_v2(db, (sql + ")").c_str(), -1, &prepared, nullptr) != SQLITE_OK)
    return;
  const std::unique_ptr<sqlite3_stmt, finalize> row(prepared);
  const std::size_t count = in.seldom(8) ? in.below(kMostRows) + 1 : in.below(8);
  for (std::size_t i = 0; i < count; ++i) {
    sqlite3_clear_bindings(row.get());
    bind_row(row.get(), form, columns, transient, in);
    sqlite3_step(row.get());
    sqlite3_reset(row.get());
  }
}

// --- tables --------------------------------------------------------------------------------------

static std::string column_type(std::size_t index, bool odd, input &in) {
  static const char *const kTypes[] = {"",       "INTEGER",          "TEXT",   "REAL",
                                       "BLOB",   "NUMERIC",          "UNIQUE", "NOT NULL DEFAULT 7",
                                       "STRING", "INTEGER CHECK (1)"};
  static const char *const kIdTypes[] = {"INTEGER PRIMARY KEY AUTOINCREMENT",
                                         "INTEGER PRIMARY KEY",
                                         "PRIMARY KEY",
                                         "INTEGER",
                                         "TEXT PRIMARY KEY",
                                         "INT PRIMARY KEY DESC",
                                         ""};
  if (!odd)
    return index == 0 ? kIdTypes[0] : kTypes[1];
  return index == 0 ? in.one_of(kIdTypes) : in.one_of(kTypes);
}

static void write_table(sqlite3 *db, const table_form &form, int transient, input &in) {
  const bool odd = in.seldom(64);
  const std::size_t columns = odd ? in.below(kMostColumns + 1) : form.columns;
  const std::size_t shift = odd && in.seldom(32) ? in.below(columns) : 0;
  if (columns == 0)
    return;
  std::string sql = std::string("CREATE TABLE ") + form.name + " (";
  for (std::size_t i = 0; i < columns; ++i)
    sql +=
        (i == 0 ? "" : ", ") + form.column((i + shift) % columns) + " " + column_type(i, odd, in);
  run(db, sql + (odd && in.seldom(16) ? ") WITHOUT ROWID" : ")"));
  write_rows(db, form, columns, transient, in);
}

// Where the next row ids come from, and what they are cut off to.
static void shift_ids(sqlite3 *db, input &in) {
  static const char *const kLastIds[] = {"2147483646", "2147483647",          "4294967295",
                                         "4294967298", "9223372036854775807", "-5",
                                         "'x'",        "8589934590"};
  run(db, std::string("UPDATE sqlite_sequence SET seq = ") + in.one_of(kLastIds));
  run(db,
      std::string("INSERT INTO sqlite_sequence VALUES ('dravel', ") + in.one_of(kLastIds) + ")");
}

static void write_file(const char *path, int transient, input &in) {
  sqlite3 *db = nullptr;
  sqlite3_open(path, &db);
  run(db, "BEGIN");
  if (in.seldom(96))
    run(db, "PRAGMA user_version = " + std::to_string(draw_number(in)));
  else
    run(db, in.byte() % 4 == 3 ? "PRAGMA user_version = 0" : "PRAGMA user_version = 1");
  write_table(db, kDravelForm, transient, in);
  write_table(db, kPeriodForm, transient, in);
  if (in.seldom(24))
    shift_ids(db, in);
  run(db, "COMMIT");
  if (in.seldom(8))
    run(db, "PRAGMA journal_mode = WAL");
  sqlite3_close(db);
}

// --- damage --------------------------------------------------------------------------------------

static void damage(const std::string &path, input &in) {
  std::error_code failure;
  const std::uintmax_t size = fs::file_size(path, failure);
  if (failure || size == 0)
    return;
  if (in.seldom(64))
    fs::resize_file(path, in.word() % (size + 1), failure);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  for (std::size_t flips = in.below(16); flips > 0; --flips) {
    // What describes the file and its tables stands in front.
    const std::uint32_t at = in.word();
    file.seekp(static_cast<std::streamoff>((at & 1) != 0 ? at % 2048 % size : at % size));
    file.put(static_cast<char>(in.byte()));
  }
}

static void replace(const std::string &path, input &in) {
  fs::remove_all(path);
  switch (in.byte() % 4) {
  case 0:
    break;
  case 1:
    fs::create_directory(path);
    break;
  case 2:
    std::ofstream{path};
    break;
  default:
    std::ofstream(path) << "SQLite format 3" << '\0' << in.bytes(200);
  }
}

static void prepare_store(input &in) {
  const int transient = next_transient_id();
  remove_store();
  write_file(kDravelDbPath, transient, in);
  if (in.seldom(80))
    write_file(kWakeupDbPath, transient, in);
  for (const char *path : {kDravelDbPath, kWakeupDbPath}) {
    if (in.seldom(40))
      damage(path, in);
    if (in.seldom(8))
      replace(path, in);
    if (in.seldom(4))
      std::ofstream(std::string(path) + "-journal") << in.bytes(200);
  }
}

// --- the set and the daemon ----------------------------------------------------------------------

static void prepare_set(input &in) {
  static constexpr int kReasons[] = {0, 20, 1, 2, -1};
  standin().wakeup_reason = in.one_of(kReasons);
  standin().sync_db = in.byte() % 3 == 0 ? 1 : in.byte() % 2 - 1;
  if (in.byte() % 2 == 0)
    std::ofstream{"/tmp/dravel_init"};
  if (in.seldom(48))
    standin_set_tv_clock(draw_clock(in));
  if (in.seldom(16))
    standin_set_time_zone("Europe/Berlin");
}

// How many stored timers may be listed: what is stored is loaded, however much it is, and what is
// added makes it no more, but for the room that a transient timer leaves when a full list loses it.
static std::size_t most_stored;

static std::size_t count_stored() {
  std::size_t stored = 0;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list()))
    stored += has_type(item, TIMER_TYPE_TRANSIENT) ? 0U : 1U;
  return stored;
}

static void find_and_compare() {
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    if (find_dravel_item(item->timer_id) != item)
      breach("another timer is found by a listed one's id");
    compare_dravel_cb(item, eina_list_data_get(get_dravel_list()));
    compare_dravel_cb(eina_list_last_data_get(get_dravel_list()), item);
  }
  for (const disabled_period_item *period :
       items_of<disabled_period_item>(get_disabled_period_list()))
    find_disabled_period_item(period->period_id);
}

static void add_timer(input &in) {
  const auto [values] = draw_timer(in);
  dravel_item *item = create_dravel_item(values[0], values[2], 0, values[4], values[5], values[6],
                                         values[7], values[8], values[9], values[10], values[11],
                                         values[12], values[3], values[1], values[13], values[14]);
  most_stored += has_type(item, TIMER_TYPE_TRANSIENT) ? 1U : 0U;
  if (add_dravel_item(item) == nullptr)
    std::free(item);
  else if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == SCHEDULE_NEVER_FIRES)
    remove_dravel_item(item);
}

static void add_period(input &in) {
  const wanted_period wanted = draw_period(in);
  auto *period = static_cast<disabled_period_item *>(std::calloc(1, sizeof(disabled_period_item)));
  for (std::size_t column = 1; column <= 20; ++column)
    field_of(*period, kRecordFields<disabled_period_item>[column]) =
        stored_period_value(wanted, column);
  if (add_disabled_period_item(period) == nullptr)
    std::free(period);
}

static void cancel_timer(input &in) {
  if (dravel_item *item = find_dravel_item(draw_timer_id(in)))
    cancel_dravel_item(item);
}

static void move_period(input &in) {
  if (disabled_period_item *period = find_disabled_period_item(draw_period_id(in)))
    next_disabled_period(period);
}

static void remove_period(input &in) {
  if (disabled_period_item *period = find_disabled_period_item(draw_period_id(in)))
    remove_disabled_period_item(period);
}

static void change_clock(input &in) {
  standin_set_tv_clock(draw_clock(in));
  adjust_dravel_all_items(nullptr, nullptr);
}

static constexpr void (*kSteps[])(input &) = {change_clock, add_timer,  draw_expiry, draw_event,
                                              cancel_timer, add_period, move_period, remove_period};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  system_log_threshold = in.seldom(32) ? SYSTEM_LOG_DEBUG : SYSTEM_LOG_ERROR;
  prepare_set(in);
  prepare_store(in);
  if (!start_daemon())
    breach("the daemon gave up");
  load_and_schedule();
  most_stored = std::max(kMaxStoredTimers, count_stored());
  check_state(most_stored);
  find_and_compare();
  change_clock(in);
  for (std::size_t step = 0; step < kMostSteps && !in.empty(); ++step) {
    in.one_of(kSteps)(in);
    check_state(most_stored);
  }
  while (get_dravel_list() != nullptr)
    cancel_dravel_item(static_cast<dravel_item *>(eina_list_data_get(get_dravel_list())));
  check_state(most_stored);
  stop_daemon();
  check_leaks();
  return 0;
}
