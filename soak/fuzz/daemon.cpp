// One run of the daemon in the fuzzer's process: an input is what the daemon finds at its start,
// then calls, events of the set and expiries. After each step the state is checked.
#include "dravel-list.h"
#include "dravel-manager.h"
#include "fixture.h"
#include "input.h"

#include <KintoAPI.h>
#include <system_log.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sanitizer/lsan_interface.h>
#include <sqlite3.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr unsigned kInputsPerLeakCheck = 500;
static constexpr int kMaxSteps = 100;
static constexpr std::size_t kMaxStoredTimers = 80;
static constexpr int kMostRows = 100;
static constexpr std::size_t kMarkColumn = 17;

// How many stored timers may be listed. A full list loses the timer with the lowest id, a transient
// one where there is one: each that was accepted makes room for one stored timer more.
static std::size_t most_stored;
static int last_transient = kUnstoredTimerId;

// Of each listed timer, in seconds: its date moves, this never does.
static std::map<int, std::int64_t> times_of_day;

// --- what must hold ---

static std::int64_t time_of_day(const std::tm &time) {
  constexpr int kDay = 86400;
  const auto seconds = (time.tm_hour * std::int64_t{60} + time.tm_min) * 60 + time.tm_sec;
  return (seconds % kDay + kDay) % kDay; // some clients give hours that no day has
}

// Returns how many stored timers are listed.
static std::size_t check_state() {
  const auto before = std::exchange(times_of_day, {});
  std::size_t stored = 0;
  unsigned armed = 0;
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    const void *key = GINT_TO_POINTER(item->timer_id);
    const auto *record = static_cast<const cb_data *>(g_hash_table_lookup(cb_data_table, key));
    const std::int64_t shown = time_of_day(item->tm);
    EXPECT_TRUE(times_of_day.emplace(item->timer_id, shown).second);
    if (before.contains(item->timer_id) && item->tm.tm_year > 70) // not counted past 2106
      EXPECT_EQ(before.at(item->timer_id), shown);
    EXPECT_TRUE(record == nullptr || record->timer_item == item);
    EXPECT_EQ(g_hash_table_contains(scheduled_timer_table, key) != 0, record != nullptr);
    armed += record != nullptr ? 1 : 0;
    stored += has_type(item, TIMER_TYPE_TRANSIENT) ? 0 : 1;
  }
  for (Eina_List *derived : {get_ontimer_list(), get_offtimer_list()})
    for (const dravel_item *item : items_of<dravel_item>(derived))
      EXPECT_EQ(find_dravel_item(item->timer_id), item);
  EXPECT_EQ(g_hash_table_size(scheduled_timer_table), armed);
  EXPECT_EQ(g_hash_table_size(cb_data_table), armed);
  EXPECT_EQ(pending(ecore_timer_cb), static_cast<int>(armed));
  return stored;
}

// Whatever has happened: once the operations of the set work and its clock is told, the next
// on-time is programmed. A damaged store may refuse the timer.
static void check_recovery() {
  standin().refused.clear();
  set_now(kNoon);
  standin_change_clock_mode(1); // local time
  standin_middleware_signal(108);
  standin_announce_time_set();
  const auto next = call("schedule_timer", arguments_of({2, "15 12:30"}));
  EXPECT_TRUE(next == words{-1} || standin().wakeup_time == time_of("15 12:30"));
}

// Too slow for every input. libFuzzer itself looks for leaks only until it has seen a thousand
// inputs that leave more allocated than before, as a timer whose row cannot be deleted does.
static void check_leaks() {
  static unsigned inputs = 0;
  if (++inputs % kInputsPerLeakCheck == 0)
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "by this input or one before it";
}

// --- numbers, timers, periods ---

static int draw_number(input &in) {
  if (in.seldom(160))
    return static_cast<int>(in.word());
  return in.PickValueInArray({0, -1, 1, 2, 6, 7, 13, 31, 60, 127, 254, 255, 366, 65535, INT_MAX,
                              -10, 206, -1900, INT_MIN});
}

static std::string joined(const std::vector<std::string> &values) {
  std::string text;
  for (const std::string &value : values)
    text += (text.empty() ? "" : ",") + value;
  return text;
}

// Mostly near the clock, so that times coincide often.
static time_value near(time_value anchor, input &in) {
  const int steps = in.seldom(32) ? in.below(256) : in.below(24) - 4;
  return anchor + static_cast<time_value>(steps) *
                      in.PickValueInArray<time_value>({60, 60, 3600, 86400, 1, 86400 * 30});
}

static time_value draw_clock(input &in) {
  if (in.seldom(10))
    return in.word();
  if (!in.seldom(80))
    return near(standin_tv_clock(), in);
  return near(time_of(in.PickValueInArray({"", kNoon, "1970-01-01 00:00:01", "2028-02-29 00:00",
                                           "2038-01-19 03:14:07", "2099-12-31 23:59:59",
                                           "2100-03-01 00:00", "2106-02-07 06:28:15"})),
              in);
}

static std::string draw_moment(input &in) {
  const time_value clock = standin_tv_clock();
  return time_text(near((clock == 0 ? time_of(kNoon) : clock) / 60 * 60, in));
}

static std::vector<int> draw_timer(input &in) {
  static constexpr int kTypes[] = {0, 1, 2, 6, 10, 9, 13, 15, 16, 3, 4, 5, 7, 8, 11, 12, 14, 254};
  static constexpr int kWeekdays[] = {0, 0, 0, kDaily, 62, 65, kTue, kWed, kMon, kSun};
  const int type = in.PickValueInArray(kTypes);
  const int week_flag = in.PickValueInArray(kWeekdays);
  const auto timer =
      arguments_of({type, draw_moment(in), week_flag, in.below(2), in.below(3), in.below(4)});
  return {timer.begin(), timer.end()};
}

static std::vector<int> draw_period(input &in) {
  const std::string start = draw_moment(in);
  const auto period = period_arguments(start, draw_moment(in), in.below(2));
  return {period.begin(), period.end()};
}

// --- what the start finds ---

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
  const auto size = fs::file_size(path);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  for (int left = in.below(9); left > 0; --left) {
    file.seekp(static_cast<std::streamoff>(in.below(in.ConsumeBool() ? size : 120)));
    file.put(static_cast<char>(in.below(256)));
  }
  if (in.seldom(64))
    fs::resize_file(path, in.below(size));
}

// Nothing is found in the store, or what others than the daemon have left in it.
static void prepare_store(input &in) {
  if (in.ConsumeBool())
    return;
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

// --- calls ---

// Places to copy to and from. Some hold something else at the name of the copy.
static const char *draw_directory(input &in) {
  for (const char *path : {"/tmp/copies", "/tmp/directory/.dravel.db", "/tmp/link"})
    fs::create_directories(path);
  std::error_code exists;
  fs::create_symlink("/tmp/copies/.dravel.db", "/tmp/link/.dravel.db", exists);
  return in.PickValueInArray({"/tmp/copies", "/tmp/directory", "/tmp/link", "/tmp/missing",
                              "/opt/dbspace", "", "/proc/self", "/dev/null"});
}

template <typename Record> static int draw_id(input &in, Eina_List *list, int Record::*id) {
  const auto *record =
      static_cast<const Record *>(eina_list_nth(list, in.below(eina_list_count(list))));
  return record == nullptr ? -1 : record->*id;
}

static std::vector<int> draw_numbers(const std::string &method, input &in) {
  if (method == "schedule_timer")
    return draw_timer(in);
  if (method == "request_set_disable_period")
    return draw_period(in);
  if (method == "request_remove_disabled_period")
    return {draw_id(in, get_disabled_period_list(), &disabled_period_item::period_id)};
  if (method == "request_copy_db" || method.starts_with("request_halt_"))
    return {in.below(2)};
  return {draw_id(in, get_dravel_list(), &dravel_item::timer_id), in.below(3)};
}

// In GVariant's text form; mostly of the method's signature, sometimes more, fewer or other ones.
static std::string draw_arguments(const bound_method &method, input &in) {
  std::vector<int> numbers = draw_numbers(method.name, in);
  for (int odd = in.seldom(64) ? in.below(4) + 1 : 0; odd > 0; --odd)
    numbers[in.below(numbers.size())] = draw_number(in);
  std::vector<std::string> values;
  for (const char type : method.signature)
    values.push_back(type == DBUS_TYPE_STRING
                         ? std::string("'") + draw_directory(in) + "'"
                         : std::to_string(numbers[values.size() % numbers.size()]));
  if (in.seldom(32)) {
    values.resize(in.below(values.size() + 1));
    if (in.ConsumeBool())
      values.emplace_back(in.PickValueInArray({"uint32 1", "'/other'", "byte 7", "1.5", "[1]"}));
  }
  return "(" + joined(values) + (values.size() == 1 ? ",)" : ")");
}

// A halt whose arguments cannot be read is released, with an empty answer. A copy that fails is not
// answered.
static void check_reply(const bound_method &method, bool readable, const message &reply) {
  static constexpr const char *kNone = "no answer";
  const bool is_halt = method.name.starts_with("request_halt_");
  const std::string wanted = readable ? method.reply_signature : is_halt ? "" : kNone;
  const std::string answer = reply == nullptr ? kNone : dbus_message_get_signature(reply.get());
  EXPECT_TRUE(answer == wanted || (answer == kNone && method.name == "request_copy_db"))
      << method.name << ": " << answer;
  const int id = answer == "i" ? int_of(reply) : -1;
  if (id == -1)
    return;
  if (method.name == "request_set_disable_period")
    EXPECT_NE(find_disabled_period_item(id), nullptr);
  if (method.name != "schedule_timer")
    return;
  EXPECT_NE(find_dravel_item(id), nullptr);
  if (id <= kUnstoredTimerId) {
    ++most_stored;
    last_transient = id;
  }
}

static void call(const bound_method &method, const std::string &arguments) {
  const message request = request_of(kDaemon, method.name.c_str(), arguments);
  dbus_message_set_serial(request.get(), 1);
  const std::string_view given = dbus_message_get_signature(request.get());
  const message reply(method.handler(nullptr, request.get()));
  check_reply(method, given.starts_with(method.signature), reply);
}

static void call_any(input &in) {
  const bound_method &method = bound_methods()[in.below(bound_methods().size())];
  call(method, draw_arguments(method, in));
}

// Some equal ones; seldom more than are kept, because they make all else slow.
static void call_schedule(input &in) {
  const auto method = std::ranges::find(bound_methods(), "schedule_timer", &bound_method::name);
  const std::string timer = draw_arguments(*method, in);
  for (int more = in.seldom(16) ? in.below(in.seldom(64) ? 90 : 4) : 0; more >= 0; --more)
    call(*method, timer);
}

// --- what happens on the set ---

static void change_clocks(input &in) {
  const time_value reading = draw_clock(in);
  if (in.ConsumeBool())
    standin_set_tv_clock(reading);
  if (in.ConsumeBool())
    standin_set_rtc(reading);
  if (in.ConsumeBool())
    set_system_clock(reading);
  if (in.ConsumeBool())
    standin_announce_time_set();
}

static void change_power_state(input &in) {
  standin().power_state = in.below(6) - 1;
  standin().ambient_mode = in.below(4);
  if (in.ConsumeBool())
    standin_state_changed(standin().power_state, standin().ambient_mode);
}

static void refuse(input &in) {
  if (in.seldom(32))
    standin().refused.clear();
  else
    standin().refused.emplace(in.PickValueInArray(kStandinOperations));
}

static void draw_event(input &in) {
  static constexpr const char *kZones[] = {"UTC", "Europe/Berlin", "Pacific/Apia", "Not/AZone"};
  static constexpr void (*kEvents[])(input &) = {
      change_clocks,
      change_clocks,
      change_power_state,
      refuse,
      [](input &from) { standin_wakeup(standin().wakeup_reason = from.below(32)); },
      [](input &from) { standin_power_off(from.below(16)); },
      [](input &from) { standin_standby(from.below(4)); },
      [](input &from) { standin_middleware_signal(from.seldom(32) ? 0 : 108); },
      [](input &from) { standin_change_clock_mode(from.below(4) - 1); },
      [](input &from) { standin_set_time_zone(from.PickValueInArray(kZones)); },
      [](input &from) { standin_run_clocks(from.ConsumeBool()); },
      [](input &) { standin_ambient_power_off(); }};
  in.PickValueInArray(kEvents)(in);
}

// With the clocks moved to the timer's time, or not.
static void draw_expiry(input &in) {
  run_idle_steps();
  if (live_timers().empty())
    return;
  const loop_timer &timer = *live_timers()[in.below(live_timers().size())];
  if (!in.seldom(64)) {
    const auto passed = static_cast<time_value>(timer.seconds);
    if (standin_tv_clock() != 0)
      standin_set_tv_clock(standin_tv_clock() + passed);
    set_system_clock(time(nullptr) + passed);
  }
  fire(timer);
}

// --- a life ---

static void prepare_set(input &in) {
  system_log_threshold = in.seldom(32) ? SYSTEM_LOG_DEBUG : SYSTEM_LOG_ERROR;
  clear_set();
  standin().wakeup_reason = in.PickValueInArray({0, 20, 1, 2, -1});
  standin().sync_db = in.below(3) - 1;
  if (in.seldom(48))
    standin_set_tv_clock(in.seldom(80) ? 0 : draw_clock(in));
}

static constexpr void (*kSteps[])(input &) = {call_schedule, call_schedule, call_any,  call_any,
                                              call_any,      draw_expiry,   draw_event};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  prepare_set(in);
  prepare_store(in);
  EXPECT_EQ(start_dravel(), 0);
  run_idle_steps();
  most_stored = std::max(kMaxStoredTimers, check_state());
  for (int step = 0; step < kMaxSteps && !in.empty(); ++step) {
    in.PickValueInArray(kSteps)(in);
    EXPECT_LE(check_state(), most_stored);
  }
  while (get_dravel_list() != nullptr)
    cancel_dravel_item(static_cast<dravel_item *>(eina_list_data_get(get_dravel_list())));
  check_recovery();
  check_state();
  times_of_day.clear();
  end_clean_set();
  check_leaks();
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  GTEST_FLAG_SET(throw_on_failure, true);
  // List nodes are allocations of their own, which the sanitizers watch, freed at once.
  setenv("EINA_MEMPOOL", "pass_through", 1);
  setenv("EINA_FREEQ_BYPASS", "1", 1);
  {
    const __lsan::ScopedDisabler made_once; // and hidden where the sanitizer does not look
    eina_init();
    ecore_init();
  }
  // libFuzzer leaves a signal alone that has a handler: without this an input that hangs is never
  // noticed.
  for (const int taken_by_the_loop : {SIGALRM, SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
    std::signal(taken_by_the_loop, SIG_DFL);
  require_sandbox();
  return chdir("/tmp"); // for a client's relative paths
}
