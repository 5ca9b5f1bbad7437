// A start of the daemon on whatever is found in the store: an input says which tables there are, of
// which columns and rows, and what has damaged the files since.
#include "life.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace fs = std::filesystem;

static constexpr std::size_t kMostRows = 100;

// A table as the daemon makes it, and the values of a row that could have been stored.
template <typename Record> struct table_form;

template <> struct table_form<dravel_item> {
  static constexpr const char *kName = "dravel";
  static constexpr std::size_t kColumns = 18;
  static auto draw(input &in) { return draw_timer(in); }
};

template <> struct table_form<disabled_period_item> {
  static constexpr const char *kName = "disabled_period";
  static constexpr std::size_t kColumns = 21;
  static auto draw(input &in) { return draw_period(in); }
};

static void run(sqlite3 *db, const std::string &sql) {
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// --- rows ---

// Whatever a column may hold.
static void bind_anything(sqlite3_stmt *row, int column, input &in) {
  static constexpr sqlite3_int64 kHuge[] = {INT64_MAX, INT64_MIN, 4294967301, -2147483649};
  static constexpr double kReals[] = {0.5, -1.5, 1e300, 2147483647.5};
  static const std::string texts[] = {"",     "-3",     "99999999999999999999",
                                      " 7 x", "0x10\n", std::string(60000, '7')};
  const std::string &text = in.one_of(texts);
  const unsigned choice = in.byte() % 6;
  if (choice == 0)
    sqlite3_bind_null(row, column);
  else if (choice == 1)
    sqlite3_bind_int64(row, column, in.one_of(kHuge));
  else if (choice == 2)
    sqlite3_bind_double(row, column, in.one_of(kReals));
  else if (choice == 3)
    sqlite3_bind_text(row, column, text.c_str(), -1, SQLITE_STATIC);
  else if (choice == 4)
    sqlite3_bind_blob(row, column, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  else
    sqlite3_bind_int64(row, column, draw_number(in));
}

// Without a value the row id is the next one; some are those of the next transient timers.
template <typename Record> static void bind_row(sqlite3_stmt *row, std::size_t columns, input &in) {
  const auto values = table_form<Record>::draw(in);
  for (std::size_t i = 1; i < std::min(columns, std::size(kRecordFields<Record>)); ++i)
    if (const int argument = kRecordFields<Record>[i].argument; argument != kNoArgument)
      sqlite3_bind_int(row, static_cast<int>(i + 1), values[static_cast<std::size_t>(argument)]);
  if (table_form<Record>::kColumns == 18 && columns > 17)
    sqlite3_bind_int(row, 18, in.seldom(32) ? 1 : 0); // the mark
  if (in.seldom(16))
    sqlite3_bind_int(row, 1, last_transient - 1 - static_cast<int>(in.below(2)));
  for (std::size_t odd = in.seldom(80) ? in.below(4) + 1 : 0; odd > 0; --odd)
    bind_anything(row, static_cast<int>(in.below(columns)) + 1, in);
}

template <typename Record> static void write_rows(sqlite3 *db, std::size_t columns, input &in) {
  std::string sql = std::string("INSERT INTO ") + table_form<Record>::kName + " VALUES (?";
  for (std::size_t i = 1; i < columns; ++i)
    sql += ",?";
  sqlite3_stmt *prepared = nullptr;
  if (sqlite3_prepare_v2(db, (sql + ")").c_str(), -1, &prepared, nullptr) != SQLITE_OK)
    return;
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> row(prepared, sqlite3_finalize);
  for (std::size_t left = in.seldom(8) ? in.below(kMostRows) + 1 : in.below(8); left > 0; --left) {
    sqlite3_clear_bindings(prepared);
    bind_row<Record>(prepared, columns, in);
    sqlite3_step(prepared);
    sqlite3_reset(prepared);
  }
}

// --- tables and files ---

// Mostly as the daemon has made it; now and then of other columns.
template <typename Record> static void write_table(sqlite3 *db, input &in) {
  static const char *const types[] = {"INTEGER", "",       "TEXT",
                                      "REAL",    "UNIQUE", "NOT NULL DEFAULT 7"};
  static const char *const row_ids[] = {"timer_id INTEGER PRIMARY KEY", "timer_id PRIMARY KEY",
                                        "timer_id INTEGER", "period_id TEXT PRIMARY KEY"};
  const std::string name = table_form<Record>::kName;
  std::size_t columns = table_form<Record>::kColumns;
  if (in.seldom(64)) {
    std::string sql = "CREATE TABLE " + name + " (" + in.one_of(row_ids);
    columns = 1 + in.below(25);
    for (std::size_t i = 1; i < columns; ++i)
      sql += (i == 17 ? ", micom_flag " : ", column" + std::to_string(i) + " ") +
             std::string(in.one_of(types));
    run(db, "DROP TABLE " + name);
    run(db, sql + (in.seldom(16) ? ") WITHOUT ROWID" : ")"));
  }
  write_rows<Record>(db, columns, in);
}

static void write_file(const char *path, input &in) {
  static const char *const last_ids[] = {"2147483646", "4294967298", "9223372036854775807", "-5",
                                         "'x'"};
  sqlite3 *db = nullptr;
  sqlite3_open(path, &db);
  run(db, "BEGIN");
  if (in.seldom(96))
    run(db, "PRAGMA user_version = " + std::to_string(in.byte() % 4 == 0 ? draw_number(in) : 0));
  write_table<dravel_item>(db, in);
  write_table<disabled_period_item>(db, in);
  if (in.seldom(24))
    run(db,
        std::string("INSERT INTO sqlite_sequence VALUES ('dravel', ") + in.one_of(last_ids) + ")");
  run(db, "COMMIT");
  sqlite3_close(db);
}

// What describes the file and its tables stands in front.
static void damage(const std::string &path, input &in) {
  const std::uintmax_t size = fs::file_size(path);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  for (std::size_t flips = in.below(16); flips > 0; --flips) {
    const std::uint32_t at = in.word();
    file.seekp(static_cast<std::streamoff>((at & 1) != 0 ? at % 2048 % size : at % size));
    file.put(static_cast<char>(in.byte()));
  }
  if (in.seldom(64))
    fs::resize_file(path, in.word() % (size + 1));
}

void prepare_store(input &in) {
  initialize_dravel_db();
  close_dravel_db();
  for (const char *path : {kDravelDbPath, kWakeupDbPath}) {
    if (path == kDravelDbPath || in.seldom(80))
      write_file(path, in);
    if (in.seldom(40))
      damage(path, in);
    if (in.seldom(4))
      fs::remove(path);
    if (in.seldom(4))
      std::ofstream(std::string(path) + "-journal") << in.bytes(200);
  }
  if (in.byte() % 2 == 0)
    std::ofstream{kInitMarkerPath};
}
