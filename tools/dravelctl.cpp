// dravelctl: the command line of dravel-manager.
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include "client.h"
#include "output.h"
#include "records.h"

namespace {

constexpr double default_timeout = 3; // seconds; the daemon answers in milliseconds or never
constexpr const char *db_name = ".dravel.db";

using words = std::vector<std::string>;

// --- options ---

struct {
  gboolean version = FALSE;
  gboolean json = FALSE;
  gboolean end_of_february = FALSE;
  double timeout = default_timeout;
  int priority = 0;
  int count = 0;
  char *at = nullptr;
  char *days = nullptr;
  char *type = nullptr;
  char *holidays = nullptr;
  char *clock = nullptr;
} options;

const GOptionEntry main_options[] = {
    {"version", 0, 0, G_OPTION_ARG_NONE, &options.version, "Print the version", nullptr},
    {"timeout", 't', 0, G_OPTION_ARG_DOUBLE, &options.timeout,
     "How long to wait for an answer (default: 3)", "SECONDS"},
    {}};
const GOptionEntry no_options[] = {{}};
const GOptionEntry json_options[] = {
    {"json", 'j', 0, G_OPTION_ARG_NONE, &options.json, "Print JSON", nullptr}, {}};
const GOptionEntry add_options[] = {
    {"at", 0, 0, G_OPTION_ARG_STRING, &options.at,
     "\"2026-12-24 07:00\"; or 07:00: the next time the clock reads that", "TIME"},
    {"on", 0, 0, G_OPTION_ARG_STRING, &options.days,
     "Repeat on these days: mon,wed,fri or daily, weekdays, weekend", "DAYS"},
    {"type", 0, 0, G_OPTION_ARG_STRING, &options.type,
     "What it does: on (default), off, standby, ... or a number", "TYPE"},
    {"priority", 0, 0, G_OPTION_ARG_INT, &options.priority,
     "Of timers at the same second the highest comes first (default: 0)", "N"},
    {"holidays", 0, 0, G_OPTION_ARG_STRING, &options.holidays,
     "skip or ignore (default) the holidays", "skip|ignore"},
    {"clock", 0, 0, G_OPTION_ARG_STRING, &options.clock,
     "The clock that TIME is on: broadcast (default), internet (UTC), rtc", "CLOCK"},
    {"json", 'j', 0, G_OPTION_ARG_NONE, &options.json, "Print the timer as JSON", nullptr},
    {}};
const GOptionEntry holiday_options[] = {
    {"end-of-february", 0, 0, G_OPTION_ARG_NONE, &options.end_of_february,
     "02-28 or 02-29 means the last day of February in every year", nullptr},
    {}};
const GOptionEntry monitor_options[] = {
    {"count", 'n', 0, G_OPTION_ARG_INT, &options.count, "End after N timers have expired", "N"},
    {}};

failure usage(const std::string &what, const std::string &advice = "") {
  return {what, advice.empty() ? "See dravelctl --help." : advice, EXIT_USAGE};
}

// The number that `parse` makes of an option, or `otherwise` when it was not given.
template <typename Parse>
int option_value(const char *name, const char *text, int otherwise, Parse parse,
                 const char *advice) {
  if (text == nullptr)
    return otherwise;
  const std::optional<int> value = parse(text);
  if (!value)
    throw usage(std::string(name) + "=" + text + " is not understood", advice);
  return *value;
}

std::optional<int> parse_effect(const std::string &text) {
  if (text == "skip")
    return 1;
  return text == "ignore" ? std::optional(0) : std::nullopt;
}

int id_of(const std::string &text) {
  const auto id = parse_int(text);
  if (!id)
    throw usage(text + " is no id", "dravelctl list shows the ids.");
  return *id;
}

failure no_such_timer(int id) {
  return {"There is no timer " + std::to_string(id), "dravelctl list shows the timers there are."};
}

// --- timers ---

void list_timers(client &client, const words &) {
  const auto timers = client.timers();
  const auto holidays = client.holidays();
  const clocks now = read_clocks();
  if (!options.json)
    return print_timers(timers, now, holidays);
  words elements;
  for (const auto &timer : timers)
    elements.push_back(json_of(timer, now, holidays));
  std::puts(json_list(elements).c_str());
}

void show(client &client, const timer_record &timer) {
  const auto holidays = client.holidays();
  const clocks now = read_clocks();
  if (options.json)
    std::puts(json_of(timer, now, holidays).c_str());
  else
    print_timer(timer, now, holidays);
}

void show_timer(client &client, const words &arguments) {
  const int id = id_of(arguments[0]);
  const auto timer = client.timer(id);
  if (!timer)
    throw no_such_timer(id);
  show(client, *timer);
}

void show_wakeup(client &client, const words &) {
  if (const auto timer = client.wakeup_timer())
    return show(client, *timer);
  std::puts(options.json ? "null" : "No timer woke the set.");
}

void cancel_timer(client &client, const words &arguments) {
  const int id = id_of(arguments[0]);
  if (client.call_int("cancel_timer", g_variant_new("(i)", id)) != 0)
    throw no_such_timer(id);
  std::printf("Timer %d is cancelled.\n", id);
}

// The time that --at and --on ask for. A repeating timer needs no date; it gets that of its next
// day, as does a time of day alone.
civil_time requested_time(int type, int week_flag, civil_time now) {
  if (options.at == nullptr)
    throw usage("add needs to know when", "Give --at \"2026-12-24 07:00\", or --at 07:00.");
  const auto time = parse_time(options.at);
  if (!time)
    throw usage("--at=" + std::string(options.at) + " is no time",
                "Write \"2026-12-24 07:00\" or 07:00; seconds may follow.");
  if (time->day && week_flag != 0)
    throw usage("A timer for a date does not repeat",
                "Give --at a time of day alone, or leave --on out.");
  if (time->day)
    return *time->day + time->time_of_day;
  const timer_record next{.type = type,
                          .at = civil_time(time->time_of_day),
                          .week_flag = week_flag != 0 ? week_flag : 0x7f};
  const civil_time firing = next_firing(next, {now, now}, {}).value();
  return std::chrono::floor<std::chrono::days>(firing) + time->time_of_day;
}

void append_date(GVariantBuilder *out, std::chrono::year_month_day date, std::chrono::seconds time,
                 std::chrono::sys_days real_day) {
  const std::chrono::hh_mm_ss clock(time);
  const std::chrono::sys_days new_year(date.year() / std::chrono::January / 1);
  const int fields[] = {int(date.year()) - 1900,
                        static_cast<int>(unsigned(date.month())) - 1,
                        static_cast<int>(unsigned(date.day())),
                        static_cast<int>(clock.hours().count()),
                        static_cast<int>(clock.minutes().count()),
                        static_cast<int>(clock.seconds().count()),
                        static_cast<int>(std::chrono::weekday(real_day).c_encoding()),
                        static_cast<int>((real_day - new_year).count()),
                        0}; // no daylight saving: the fields stand as they are typed
  for (const int field : fields)
    g_variant_builder_add(out, "i", field);
}

void add_timer(client &client, const words &) {
  const int type = option_value("--type", options.type, 0, parse_type,
                                "dravelctl(1) lists the types; a number will do.");
  const int week_flag = option_value("--on", options.days, 0, parse_days,
                                     "Write mon,wed,fri or daily, weekdays, weekend.");
  const int effect =
      option_value("--holidays", options.holidays, 0, parse_effect, "It takes skip or ignore.");
  const int clock = option_value("--clock", options.clock, CLOCK_BROADCAST, parse_clock,
                                 "It takes broadcast, internet or rtc.");
  const civil_time at = requested_time(type, week_flag, read_clocks().of(clock));

  const auto day = std::chrono::floor<std::chrono::days>(at);
  GVariantBuilder arguments;
  g_variant_builder_init(&arguments, G_VARIANT_TYPE_TUPLE);
  for (const int value : {type, week_flag, options.priority, /* delay: */ 0})
    g_variant_builder_add(&arguments, "i", value);
  append_date(&arguments, day, at - day, day);
  for (const int value : {effect, clock})
    g_variant_builder_add(&arguments, "i", value);

  const int id = client.call_int("schedule_timer", g_variant_builder_end(&arguments));
  if (id == -1)
    throw failure{"dravel-manager refused the timer for " + time_text(at),
                  "By the set's clock that has passed or is more than 365 days away, or the timer "
                  "could not be stored: see journalctl -t DRAVEL_MANAGER."};
  if (!options.json)
    std::printf("Timer %d is added.\n", id);
  if (const auto timer = client.timer(id)) // a holiday may have moved it
    show(client, *timer);
}

// --- halt ---

void halt(client &client, const words &arguments) {
  struct {
    const char *word;
    const char *method;
    int value;
  } const orders[] = {{"on", "request_halt_ontimers", 1},
                      {"off", "request_halt_offtimers", 1},
                      {"none", "request_halt_ontimers", 0},
                      {"none", "request_halt_offtimers", 0}};
  for (const auto &word : arguments)
    if (std::ranges::none_of(orders, [&](const auto &order) { return word == order.word; }))
      throw usage("halt takes on, off or none, not " + word);
  if (arguments.size() > 1 && std::ranges::find(arguments, "none") != arguments.end())
    throw usage("none stands alone");
  for (const auto &word : arguments)
    for (const auto &order : orders)
      if (word == order.word)
        client.call_int(order.method, g_variant_new("(i)", order.value));

  g_autoptr(GVariant) reply =
      client.call("request_get_timers_halt_effect", g_variant_new("(i)", 0), "(ii)");
  std::array<int, 2> halted{};
  g_variant_get(reply, "(ii)", &halted[0], &halted[1]);
  const auto state = [](int value) { return value != 0 ? "halted" : "active"; };
  std::printf(" On-timers: %s\nOff-timers: %s\n", state(halted[0]), state(halted[1]));
}

// --- holidays ---

void list_holidays(client &client, const words &) {
  const auto holidays = client.holidays();
  if (!options.json)
    return print_holidays(holidays);
  words elements;
  for (const auto &holiday : holidays)
    elements.push_back(json_of(holiday));
  std::puts(json_list(elements).c_str());
}

holiday_end holiday_end_of(const std::string &text) {
  auto end = parse_date(text);
  if (!end)
    throw usage(text + " is no date of the year", "Write month and day, as in 12-24.");
  end->end_of_february = options.end_of_february && end->month == 2 && end->day >= 28;
  return *end;
}

void add_holiday(client &client, const words &arguments) {
  using namespace std::chrono;
  const holiday_end first = holiday_end_of(arguments[0]);
  const holiday_end last = arguments.size() > 1 ? holiday_end_of(arguments[1]) : first;
  if (std::pair(last.month, last.day) < std::pair(first.month, first.day))
    throw usage("Holidays that run over the new year match no day",
                "Add two: one up to 12-31, one from 01-01.");
  if (options.end_of_february && !first.end_of_february && !last.end_of_february)
    throw usage("--end-of-february needs 02-28 or 02-29 as one of the days");

  // They recur every year; the year that goes with them is this one.
  const year this_year = year_month_day(floor<days>(read_clocks().set)).year();
  GVariantBuilder period;
  g_variant_builder_init(&period, G_VARIANT_TYPE_TUPLE);
  const auto append = [&](const holiday_end &end, seconds time) {
    const year_month_day date = this_year / month(end.month) / day(end.day);
    append_date(&period, date, time, sys_days(date));
  };
  append(first, 0s);
  append(last, 24h - 1s);
  for (const bool flag : {first.end_of_february, last.end_of_february})
    g_variant_builder_add(&period, "i", int{flag});

  const int id = client.call_int("request_set_disable_period", g_variant_builder_end(&period));
  if (id == -1)
    throw failure{"dravel-manager could not store the holidays", log_hint};
  std::printf("Holidays %d are added: %s to %s.\n", id, date_text(first).c_str(),
              date_text(last).c_str());
}

void remove_holiday(client &client, const words &arguments) {
  const int id = id_of(arguments[0]);
  if (client.call_int("request_remove_disabled_period", g_variant_new("(i)", id)) != 0)
    throw failure{"There are no holidays " + arguments[0],
                  "dravelctl holidays list shows those there are."};
  std::printf("Holidays %d are removed.\n", id);
}

void set_effect(client &client, const std::string &id_text, int effect) {
  const int id = id_of(id_text);
  if (client.call_int("request_set_disable_period_effect", g_variant_new("(ii)", id, effect)) != 0)
    throw no_such_timer(id);
  std::printf("Timer %d %s holidays.\n", id, effect != 0 ? "skips" : "ignores");
}

void skip_holidays(client &client, const words &arguments) { set_effect(client, arguments[0], 1); }

void ignore_holidays(client &client, const words &arguments) {
  set_effect(client, arguments[0], 0);
}

// --- database ---

// The daemon has its own working directory, so that it gets an absolute path.
std::string absolute(const std::string &directory) {
  if (directory.empty())
    throw usage("The name of the directory is empty");
  g_autofree char *path = g_canonicalize_filename(directory.c_str(), nullptr);
  if (!g_utf8_validate(path, -1, nullptr))
    throw usage("The bus can carry no path that is not UTF-8");
  if (!g_file_test(path, G_FILE_TEST_IS_DIR))
    throw failure{std::string(path) + " is no directory", "Give one that exists."};
  return path;
}

void copy_db(client &client, int into_the_set, const std::string &directory,
             const std::string &doing) {
  const int result =
      client.call_int("request_copy_db", g_variant_new("(is)", into_the_set, directory.c_str()),
                      "it could not " + doing + " " + directory);
  if (result != 0)
    throw failure{"dravel-manager could not " + doing + " " + directory, log_hint};
}

void backup(client &client, const words &arguments) {
  const std::string directory = absolute(arguments[0]);
  copy_db(client, 0, directory, "back its database up to");
  std::printf("The timers are in %s.\n", (directory + "/" + db_name).c_str());
}

void restore(client &client, const words &arguments) {
  const std::string directory = absolute(arguments[0]);
  const std::string file = directory + "/" + db_name;
  if (!g_file_test(file.c_str(), G_FILE_TEST_EXISTS))
    throw failure{"There is no backup " + file, "dravelctl backup makes one."};
  copy_db(client, 1, directory, "restore its database from");
  std::puts(
      "Restored. The timers take effect when the daemon starts next; until then it can store no\n"
      "change. Restart it now: systemctl restart dravel-manager.service");
}

// --- monitor ---

// A failure without a text when all output has been written.
failure flush_output() {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
    return {};
  return {"Cannot write the output: " + std::string(g_strerror(errno != 0 ? errno : EIO)), ""};
}

void monitor(client &client, const words &) {
  if (options.count < 0)
    throw usage("--count takes a number above 0");
  client.monitor(options.count, [](const client::expiry &expiry) {
    std::printf("%s  timer %d expired: %s, %s\n", time_text(read_clocks().set).c_str(), expiry.id,
                type_name(expiry.type).c_str(), days_text(expiry.week_flag).c_str());
    if (const failure unwritten = flush_output(); !unwritten.what.empty()) {
      print_failure(unwritten); // no exception passes the main loop
      std::exit(unwritten.status);
    }
  });
}

// --- commands ---

const struct command {
  const char *name;
  const char *arguments;
  std::size_t least, most; // arguments
  const char *summary;
  const GOptionEntry *options;
  void (*run)(client &, const words &arguments);
} commands[] = {
    {"list", "", 0, 0, "List the timers, the next to fire first", json_options, list_timers},
    {"show", "ID", 1, 1, "Show one timer", json_options, show_timer},
    {"add", "--at TIME", 0, 0, "Add a timer", add_options, add_timer},
    {"cancel", "ID", 1, 1, "Cancel a timer", no_options, cancel_timer},
    {"halt", "[on] [off] | none", 0, 2,
     "Keep on- or off-timers from acting, or none; show what is halted", no_options, halt},
    {"holidays list", "", 0, 0, "List the holidays", json_options, list_holidays},
    {"holidays add", "FIRST-DAY [LAST-DAY]", 1, 2, "Add holidays of every year: 12-24 12-26",
     holiday_options, add_holiday},
    {"holidays remove", "ID", 1, 1, "Remove holidays", no_options, remove_holiday},
    {"holidays skip", "TIMER", 1, 1, "Let a timer skip the holidays", no_options, skip_holidays},
    {"holidays ignore", "TIMER", 1, 1, "Let a timer fire on holidays too", no_options,
     ignore_holidays},
    {"wakeup", "", 0, 0, "Show the timer that woke the set", json_options, show_wakeup},
    {"backup", "DIRECTORY", 1, 1, "Copy the timers to a directory", no_options, backup},
    {"restore", "DIRECTORY", 1, 1, "Copy them back", no_options, restore},
    {"monitor", "", 0, 0, "Tell each timer that expires", monitor_options, monitor},
};

std::string summary_of_commands() {
  std::string text = "Commands:";
  for (const command &command : commands) {
    std::string usage = std::string(command.name) + " " + command.arguments;
    usage.resize(std::max<std::size_t>(usage.size(), 38), ' ');
    text += "\n  " + usage + command.summary;
  }
  return text + "\n\ndravelctl COMMAND --help shows the options of a command.";
}

// The command that the first words name, which are then taken away.
const command &take_command(words &arguments) {
  for (const command &command : commands) {
    const std::string name = command.name;
    const std::size_t size = name.find(' ') == std::string::npos ? 1 : 2;
    if (arguments.size() < size || name != arguments[0] + (size == 2 ? " " + arguments[1] : ""))
      continue;
    arguments.erase(arguments.begin(), arguments.begin() + static_cast<std::ptrdiff_t>(size));
    return command;
  }
  if (arguments.empty())
    throw usage("There is a command missing");
  std::string choice;
  for (const command &command : commands)
    if (const std::string name = command.name; name.starts_with(arguments[0] + " "))
      choice += (choice.empty() ? "" : ", ") + name.substr(arguments[0].size() + 1);
  throw choice.empty() ? usage("There is no command " + arguments[0])
                       : usage(arguments[0] + " takes one of: " + choice);
}

// Parses `arguments` and leaves what is no option in them. A negative id would be taken for an
// option: where a command has arguments, a number is one of them.
void parse(words &arguments, GOptionContext *context, const GOptionEntry *entries,
           bool numbers_are_arguments) {
  if (numbers_are_arguments) {
    const auto numbers = std::stable_partition(arguments.begin(), arguments.end(),
                                               [](auto &word) { return !parse_int(word); });
    arguments.insert(numbers, "--");
  }
  std::vector<char *> left = {const_cast<char *>("dravelctl")};
  for (auto &word : arguments)
    left.push_back(word.data());
  auto count = static_cast<int>(left.size());
  left.push_back(nullptr);

  char **argv = left.data();
  g_autoptr(GError) error = nullptr;
  g_option_context_add_main_entries(context, entries, nullptr);
  if (!g_option_context_parse(context, &count, &argv, &error))
    throw usage(error->message);
  words rest;
  for (int i = 1; i < count; ++i)
    if (std::strcmp(argv[i], "--") != 0)
      rest.emplace_back(argv[i]);
  arguments = rest;
}

void run(words arguments) {
  g_autoptr(GOptionContext) context = g_option_context_new("COMMAND");
  g_option_context_set_strict_posix(context, TRUE);
  g_option_context_set_summary(context, summary_of_commands().c_str());
  parse(arguments, context, main_options, false);
  if (options.version) {
    std::puts("dravelctl " DRAVEL_VERSION);
    return;
  }
  const command &command = take_command(arguments);
  const std::string synopsis =
      command.name + std::string(*command.arguments != '\0' ? " " : "") + command.arguments;
  g_autoptr(GOptionContext) own = g_option_context_new(synopsis.c_str());
  g_option_context_set_summary(own, command.summary);
  parse(arguments, own, command.options, command.most > 0);
  if (arguments.size() < command.least || arguments.size() > command.most)
    throw usage("Wrong number of arguments: dravelctl " + synopsis);
  if (!(options.timeout >= 0.001 && options.timeout <= 3600))
    throw usage("--timeout takes seconds, from 0.001 to 3600");

  client client(options.timeout);
  std::signal(SIGPIPE, SIG_DFL); // GIO ignores it, but our reader may go, as with head(1)
  command.run(client, arguments);
}

} // namespace

int main(int argc, char **argv) {
  try {
    run(words(argv + 1, argv + argc));
    if (const failure unwritten = flush_output(); !unwritten.what.empty())
      throw unwritten;
  } catch (const failure &failure) {
    print_failure(failure);
    return failure.status;
  }
  return 0;
}
