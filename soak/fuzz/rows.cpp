// A start of the daemon on whatever is found in the store: an input says which tables there are, of
// which columns and rows, and what has damaged the files since.
#include "life.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

static constexpr std::size_t kMostRows = 100;
static constexpr std::size_t kMarkColumn = 17;

namespace {

// As the daemon makes the tables.
struct table {
  const char *name;
  std::size_t columns;
  std::span<const record_field> fields;
};

} // namespace

static constexpr table kTimers = {"dravel", 18, kRecordFields<dravel_item>};
static constexpr table kPeriods = {"disabled_period", 21, kRecordFields<disabled_period_item>};

static void run(sqlite3 *db, const std::string &sql) {
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// --- rows ---

// Whatever a column may hold.
static std::string draw_value(input &in) {
  static constexpr const char *kValues[] = {
      "NULL",    "''",         "' 7 x'", "'-3'",       "hex(1 << 62)",    "hex(zeroblob(30000))",
      "x''",     "x'3078'",    "1e300",  "-1.5",       "5 + (1 << 32)",   "2147483647.5",
      "1 << 63", "~(1 << 63)", "0.5",    "~(1 << 31)", "zeroblob(60000)", "'99999999999999999999'"};
  return in.seldom(200) ? in.one_of(kValues) : std::to_string(draw_number(in));
}

// Mostly one that could have been stored. Without a value the row id is the next one; some are
// those of the next transient timers.
static std::string draw_row(const table &of, std::size_t columns, input &in) {
  const bool is_timer = &of == &kTimers;
  const std::vector<int> arguments = is_timer ? draw_timer(in) : draw_period(in);
  std::vector<std::string> values(columns, "NULL");
  for (std::size_t i = 1; i < std::min(columns, of.fields.size()); ++i)
    if (const int argument = of.fields[i].argument; argument != kNoArgument)
      values[i] = std::to_string(arguments[static_cast<std::size_t>(argument)]);
  if (is_timer && columns > kMarkColumn)
    values[kMarkColumn] = in.seldom(32) ? "1" : "0";
  if (in.seldom(16))
    values[0] = std::to_string(last_transient - 1 - static_cast<int>(in.below(2)));
  for (std::size_t odd = in.seldom(80) ? in.below(4) + 1 : 0; odd > 0; --odd)
    values[in.below(columns)] = draw_value(in);
  return joined(values);
}

// --- tables and files ---

// Mostly as the daemon has made it; now and then of other columns.
static void write_table(sqlite3 *db, const table &made, input &in) {
  static const char *const types[] = {"INTEGER", "",       "TEXT",
                                      "REAL",    "UNIQUE", "NOT NULL DEFAULT 7"};
  static const char *const row_ids[] = {"timer_id INTEGER PRIMARY KEY", "timer_id PRIMARY KEY",
                                        "timer_id INTEGER", "period_id TEXT PRIMARY KEY"};
  const std::string name = made.name;
  std::size_t columns = made.columns;
  if (in.seldom(64)) {
    std::string sql = "CREATE TABLE " + name + " (" + in.one_of(row_ids);
    columns = 1 + in.below(25);
    for (std::size_t i = 1; i < columns; ++i)
      sql += (i == kMarkColumn ? ", micom_flag " : ", column" + std::to_string(i) + " ") +
             std::string(in.one_of(types));
    run(db, "DROP TABLE " + name);
    run(db, sql + (in.seldom(16) ? ") WITHOUT ROWID" : ")"));
  }
  for (std::size_t left = in.seldom(8) ? in.below(kMostRows) + 1 : in.below(8); left > 0; --left)
    run(db, "INSERT INTO " + name + " VALUES (" + draw_row(made, columns, in) + ")");
}

static void write_file(const char *path, input &in) {
  static const char *const last_ids[] = {"2147483646", "4294967298", "9223372036854775807", "-5",
                                         "'x'"};
  sqlite3 *db = nullptr;
  sqlite3_open(path, &db);
  run(db, "BEGIN");
  if (in.seldom(96))
    run(db, "PRAGMA user_version = " + std::to_string(in.byte() % 4 == 0 ? draw_number(in) : 0));
  write_table(db, kTimers, in);
  write_table(db, kPeriods, in);
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
