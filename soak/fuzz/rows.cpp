// A start of the daemon on whatever is found in the store: an input says which tables there are, of
// which columns and rows, and how the files are damaged.
#include "daemon.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

static constexpr int kMostRows = 100;
static constexpr std::size_t kMarkColumn = 17;

namespace {

struct table {
  std::string name;
  std::size_t columns; // as the daemon makes it
  std::span<const record_field> fields;
  std::vector<int> (*draw)(input &in); // the arguments of a record
};

} // namespace

static const table kTables[] = {
    {"dravel", 18, kRecordFields<dravel_item>, draw_timer},
    {"disabled_period", 21, kRecordFields<disabled_period_item>, draw_period},
};

// Whatever a column may hold.
static std::string draw_value(input &in) {
  if (!in.seldom(200))
    return std::to_string(draw_number(in));
  return in.PickValueInArray({"NULL", "''", "' 7 x'", "'-3'", "hex(1 << 62)",
                              "hex(zeroblob(30000))", "x''", "x'3078'", "1e300", "-1.5",
                              "5 + (1 << 32)", "2147483647.5", "1 << 63", "~(1 << 63)", "0.5",
                              "~(1 << 31)", "zeroblob(60000)", "'99999999999999999999'"});
}

// Mostly one that could have been stored. Without a value the row id is the next one; some are
// those of the next transient timers.
static std::string draw_row(const table &of, std::size_t columns, input &in) {
  const std::vector<int> arguments = of.draw(in);
  std::vector<std::string> values(columns, "NULL");
  for (std::size_t i = 1; i < std::min(columns, of.fields.size()); ++i)
    if (const int argument = of.fields[i].argument; argument != kNoArgument)
      values[i] = std::to_string(arguments[static_cast<std::size_t>(argument)]);
  if (columns > kMarkColumn && in.seldom(64))
    values[kMarkColumn] = "1";
  if (in.seldom(16))
    values[0] = std::to_string(last_transient - 1 - in.below(2));
  for (int odd = in.seldom(80) ? in.below(4) + 1 : 0; odd > 0; --odd)
    values[in.below(columns)] = draw_value(in);
  return joined(values);
}

// A statement that SQLite refuses leaves the file as it is.
static void run(sqlite3 *db, const std::string &sql) {
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// Mostly as the daemon has made it; now and then of other columns.
static void write_table(sqlite3 *db, const table &made, input &in) {
  const std::string name = made.name;
  std::size_t columns = made.columns;
  if (in.seldom(64)) {
    columns = 1 + in.below(std::size_t{25});
    std::string sql = "CREATE TABLE " + name + " (";
    sql += in.PickValueInArray({"timer_id INTEGER PRIMARY KEY", "timer_id PRIMARY KEY",
                                "timer_id INTEGER", "period_id TEXT PRIMARY KEY"});
    for (std::size_t i = 1; i < columns; ++i)
      sql += (i == kMarkColumn ? ", micom_flag " : ", column" + std::to_string(i) + " ") +
             in.PickValueInArray({"INTEGER", "", "TEXT", "REAL", "UNIQUE", "NOT NULL DEFAULT 7"});
    run(db, "DROP TABLE " + name);
    run(db, sql + (in.seldom(16) ? ") WITHOUT ROWID" : ")"));
  }
  for (int left = in.seldom(8) ? in.below(kMostRows) + 1 : in.below(8); left > 0; --left)
    run(db, "INSERT INTO " + name + " VALUES (" + draw_row(made, columns, in) + ")");
}

static void write_file(const char *path, input &in) {
  sqlite3 *db = nullptr;
  sqlite3_open(path, &db);
  run(db, "BEGIN");
  if (in.seldom(96))
    run(db, "PRAGMA user_version = " + std::to_string(in.seldom(64) ? draw_number(in) : 0));
  for (const table &made : kTables)
    write_table(db, made, in);
  if (in.seldom(24))
    run(db, std::string("INSERT INTO sqlite_sequence VALUES ('dravel', ") +
                in.PickValueInArray({"2147483646", "4294967298", "1 << 63", "-5", "'x'"}) + ")");
  run(db, "COMMIT");
  sqlite3_close(db);
}

// As a worn memory leaves it: with other bytes, or cut off.
static void damage(const char *path, input &in) {
  const auto size = std::filesystem::file_size(path);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  for (int left = in.below(9); left > 0; --left) {
    file.seekp(static_cast<std::streamoff>(in.below(in.ConsumeBool() ? size : 120)));
    file.put(static_cast<char>(in.below(256)));
  }
  if (in.seldom(64))
    std::filesystem::resize_file(path, in.below(size));
}

void prepare_store(input &in) {
  initialize_dravel_db();
  close_dravel_db();
  write_file(kDravelDbPath, in);
  if (in.seldom(80))
    write_file(kWakeupDbPath, in);
  for (const char *path : {kDravelDbPath, kWakeupDbPath})
    if (in.seldom(32))
      damage(path, in);
  if (in.ConsumeBool())
    std::ofstream{kInitMarkerPath};
}
