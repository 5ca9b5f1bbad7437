// Database files as a worn flash memory, another program or another version may leave them. The
// daemon starts on each, answers, and lists every row that can be read as it was.

#include "soak.h"

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <sqlite3.h>

namespace fs = std::filesystem;

static constexpr const char *kWakeupStore = "/opt/dbspace/.wakeup_dravel.db";
static constexpr const char *kProbe = "/tmp/probe.db";
static constexpr int kTimers = 12;

static constexpr const char *kValues[] = {"NULL",
                                          "'text'",
                                          "'12 o clock'",
                                          "''",
                                          "x'00ff00'",
                                          "3.7",
                                          "1e300",
                                          "-1",
                                          "99999999999999",
                                          "-99999999999999",
                                          "9223372036854775807",
                                          "2147483648",
                                          "-2147483649",
                                          "zeroblob(100000)"};

// Things that other versions and other hands do to the tables.
static constexpr const char *kStatements[] = {
    "ALTER TABLE dravel ADD COLUMN extra TEXT DEFAULT 'more'",
    "ALTER TABLE dravel DROP COLUMN micom_flag",
    "ALTER TABLE dravel RENAME COLUMN delay TO delayed",
    "ALTER TABLE dravel RENAME TO dravel_of_old",
    "DROP TABLE dravel",
    "DROP TABLE disabled_period",
    "DROP TABLE dravel; CREATE TABLE dravel(timer_id, type); INSERT INTO dravel VALUES(7, 2)",
    "DROP TABLE dravel; CREATE VIEW dravel AS SELECT 1 AS timer_id, 2 AS type",
    "DROP TABLE dravel; CREATE TABLE dravel(a); INSERT INTO dravel VALUES('x'); pragma "
    "user_version = 0",
    "CREATE TABLE keep AS SELECT timer_id, type, priority, date_type, tm_sec, tm_min, tm_hour, "
    "tm_mday,"
    " tm_mon, tm_year FROM dravel; DROP TABLE dravel; ALTER TABLE keep RENAME TO dravel;"
    " pragma user_version = 0",
    "CREATE TRIGGER no BEFORE INSERT ON dravel BEGIN SELECT raise(ABORT, 'no'); END",
    "CREATE TRIGGER no BEFORE DELETE ON dravel BEGIN SELECT raise(ABORT, 'no'); END",
    "CREATE TABLE other(x); INSERT INTO other VALUES(randomblob(50000))",
    "DELETE FROM dravel WHERE timer_id % 2 = 0",
    "pragma user_version = 0",
    "pragma user_version = 2",
    "pragma user_version = -1",
    "pragma journal_mode = wal",
    "pragma application_id = 1234; VACUUM",
    "DELETE FROM sqlite_sequence",
};

static const std::string kForeignFiles[] = {
    "", // makes room for a new one
    std::string(1, '\0'),
    "SQLite format 3",
    std::string("SQLite format 3\0", 16),
    std::string("SQLite format 3\0", 16) + std::string(4080, '\0'),
    "\x7f"
    "ELF\x02\x01\x01" +
        std::string(2000, '\0'),
    "[set]\nTimeZone=UTC\n",
    std::string(8192, 'U'),
};

static std::string bytes_of(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

static void write_bytes(const char *path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

static void remove_store(const char *path) {
  for (const char *ending : {"", "-journal", "-wal", "-shm"})
    fs::remove_all(std::string(path) + ending);
}

static void run_sql(const char *path, const std::string &sql) {
  sqlite3 *handle = nullptr;
  sqlite3_open(path, &handle);
  sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr); // what fails leaves the file whole
  sqlite3_close(handle);
}

// --- the faults ---

static void damage_bytes(soak_run &run, std::string &bytes) {
  const auto size = static_cast<unsigned>(bytes.size());
  switch (run.below(5)) {
  case 0: // anywhere
    for (unsigned i = run.below(8) + 1; i > 0; --i)
      bytes[run.below(size)] ^= static_cast<char>(1U << run.below(8));
    break;
  case 1: // in the header and the schema
    for (unsigned i = run.below(3) + 1; i > 0; --i)
      bytes[run.below(120)] ^= static_cast<char>(1U << run.below(8));
    break;
  case 2:
    bytes.resize(run.below(size + 1));
    break;
  case 3: // a block of the flash memory
    bytes.replace(run.below(size), 512, 512, run.below(2) == 0 ? '\0' : '\xff');
    break;
  default:
    bytes.append(run.below(9000), static_cast<char>(run.random()));
  }
}

// Returns whether the change may leave no id for a new timer.
static bool change_value(soak_run &run, const char *path, const std::vector<std::string> &columns) {
  const std::string &column = run.pick(columns);
  run_sql(path, "UPDATE dravel SET " + column + " = " + run.pick(kValues) +
                    " WHERE timer_id = " + std::to_string(1 + run.below(kTimers)));
  return column == "timer_id";
}

// Returns whether the store may refuse new timers from now on.
static bool damage(soak_run &run, const char *path, std::string bytes,
                   const std::vector<std::string> &columns) {
  const unsigned kind = run.below(20);
  if (kind < 8)
    damage_bytes(run, bytes);
  remove_store(path);
  if (kind == 8) {
    const unsigned foreign = run.below(std::size(kForeignFiles) + 1);
    if (foreign > 0)
      write_bytes(path, kForeignFiles[foreign - 1]);
    else
      fs::create_directory(path);
    return foreign != 1; // what is no database is deleted at the start, but open for this run
  }
  write_bytes(path, bytes);
  bool may_refuse = kind < 8 || kind >= 15;
  if (kind > 8 && kind < 15)
    for (unsigned i = run.below(3) + 1; i > 0; --i)
      may_refuse |= change_value(run, path, columns);
  if (kind >= 15)
    run_sql(path, run.pick(kStatements));
  return may_refuse;
}

// --- what is to be listed ---

// The rows that SQLite reads from the damaged file, as images; nothing when it finds fault with the
// file, or when a file of the first version is to be carried over beside a damaged one: that may
// fail for both.
static std::vector<timer_words> readable_rows(const std::string &bytes, bool wakeup_damaged) {
  remove_store(kProbe);
  write_bytes(kProbe, bytes);
  sqlite3 *handle = nullptr;
  sqlite3_open(kProbe, &handle);
  const std::unique_ptr<sqlite3, int (*)(sqlite3 *)> store(handle, sqlite3_close);

  std::string verdict;
  const auto keep_text = [](void *out, int, char **values, char **) {
    static_cast<std::string *>(out)->append(values[0] != nullptr ? values[0] : "");
    return 0;
  };
  std::string version;
  if (sqlite3_exec(handle, "pragma integrity_check", keep_text, &verdict, nullptr) != SQLITE_OK ||
      verdict != "ok" ||
      sqlite3_exec(handle, "pragma user_version", keep_text, &version, nullptr) != SQLITE_OK)
    return {};

  struct reading {
    bool first_version;
    std::vector<timer_words> rows;
  } found{version == "0", {}};
  if (found.first_version && wakeup_damaged)
    return {};
  const auto keep_row = [](void *out, int columns, char **values, char **) {
    auto &[first_version, rows] = *static_cast<reading *>(out);
    const auto number = [&](int column) {
      const long long value = column < columns && values[column] != nullptr
                                  ? std::strtoll(values[column], nullptr, 10)
                                  : 0;
      return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
    };
    timer_words words{};
    for (int column = 0; column < 15; ++column) // words 13 and 14 have no column
      words[static_cast<std::size_t>(column < 13 ? column : column + 2)] = number(column);
    words[kWordEffect] = number(first_version ? 16 : 15);
    words[kWordClock] = first_version ? 0 : number(16);
    rows.push_back(words);
    if (first_version)
      rows.back()[kWordId] = static_cast<int>(rows.size());
    return 0;
  };
  sqlite3_exec(handle, "SELECT * FROM dravel", keep_row, &found, nullptr);
  return found.rows;
}

// A row that still says when its timer fires, as one of the undamaged rows does.
static bool fires_as_before(const timer_words &row, const timer_map &undamaged) {
  const auto times = [](timer_words words) {
    for (const unsigned word : {0U, 2U, 3U, 10U, 11U, 12U, 15U}) // what has no part in it
      words[word] = 0;
    return words;
  };
  for (const auto &[id, words] : undamaged)
    if (times(words) == times(row))
      return true;
  return false;
}

// Returns how many rows were found again.
static int check_kept(const std::vector<timer_words> &rows, const timer_map &listed,
                      const timer_map &undamaged) {
  int kept = 0;
  std::set<int> ids;
  for (const timer_words &row : rows) {
    if (!fires_as_before(row, undamaged) || !ids.insert(row[kWordId]).second)
      continue;
    const auto found = listed.find(row[kWordId]);
    if (found == listed.end() || found->second != row)
      fail(text("the readable timer %d is not listed as it was stored", row[kWordId]));
    ++kept;
  }
  return kept;
}

// Returns false when the store takes no new timer.
static bool try_new_timer(soak_run &run, bus_client &bus) {
  const int id = bus.call_int(daemon_service, "schedule_timer", lasting_timer(run));
  const timer_map listed = listed_timers(bus);
  if (id == -1)
    return false;
  if (!listed.contains(id))
    fail(text("the new timer %d is not listed", id));
  bus.cancel(daemon_service, id);
  if (listed_timers(bus).contains(id))
    fail(text("the cancelled timer %d is listed", id));
  return true;
}

std::string run_files(soak_run &run) {
  bus_client bus;
  timer_map undamaged;
  {
    const auto daemon = start_daemon(run, bus);
    for (int i = 0; i < kTimers; ++i)
      bus.schedule(daemon_service, lasting_timer(run));
    dbus_int32_t period[20] = {126, 0, 1, 0, 0, 0, 0, 0, 0, 126, 0, 2};
    bus.call_int(daemon_service, "request_set_disable_period", period);
    const dbus_int32_t option = 0;
    bus.call(daemon_set, "Standby", {&option, 1}); // fills the wake-up database
    undamaged = listed_timers(bus);
  }
  std::vector<std::string> columns;
  std::istringstream names(
      read_store(daemon_store, "SELECT name FROM pragma_table_info('dravel')"));
  for (std::string name; std::getline(names, name);)
    columns.push_back(name);
  const std::string main_bytes = bytes_of(daemon_store);
  const std::string wakeup_bytes = bytes_of(kWakeupStore);

  int kept = 0;
  int anew = 0;
  int refusing = 0;
  for (int round = 0; round < run.rounds; ++round) {
    const bool wakeup_too = run.below(8) == 0;
    const bool may_refuse = damage(run, daemon_store, main_bytes, columns);
    remove_store(kWakeupStore);
    if (wakeup_too)
      damage(run, kWakeupStore, wakeup_bytes, columns);
    else
      write_bytes(kWakeupStore, wakeup_bytes);
    const auto rows =
        fs::is_regular_file(daemon_store) && !fs::exists(std::string(daemon_store) + "-wal")
            ? readable_rows(bytes_of(daemon_store), wakeup_too)
            : std::vector<timer_words>{};
    const auto daemon = start_daemon(run, bus);
    const timer_map listed = listed_timers(bus);
    kept += check_kept(rows, listed, undamaged);
    anew += listed.empty();
    const bool takes_new = try_new_timer(run, bus);
    if (!takes_new && !may_refuse)
      fail("a sound store takes no new timer");
    refusing += !takes_new;
  }
  if (kept == 0)
    fail("no file had a readable timer");
  remove_store(daemon_store);
  remove_store(kWakeupStore);
  return text(
      "%d files, %d readable timers all kept, %d starts with none, %d stores that take none",
      run.rounds, kept, anew, refusing);
}
