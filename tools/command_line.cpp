#include "command_line.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <memory>
#include <numeric>
#include <utility>

static constexpr const char *kJsonFile = "FILE";
static constexpr const char *kAllSkip = "Let every timer skip the holidays";
static constexpr std::string_view kExample = "Example: ";
static constexpr std::pair<std::string_view, std::string_view> kOtherWords[] = {{"edit", "change"},
                                                                                {"set", "change"}};
static constexpr std::size_t kBeginning = 3; // letters of a command, which tell it from others
static constexpr std::size_t kHelpColumn = 28;
static constexpr std::size_t kTypeColumn = 17;

namespace {

// Breaks the lines of the help.
class formatter : public CLI::Formatter {
  // An option that may be repeated takes one word each time.
  std::string make_option_opts(const CLI::Option *option) const override {
    return option->get_positional() || option->get_items_expected_max() == 0
               ? CLI::Formatter::make_option_opts(option)
               : " " + option->get_type_name();
  }
  std::string make_option_desc(const CLI::Option *option) const override {
    return wrapped(CLI::Formatter::make_option_desc(option), kTextWidth - kHelpColumn);
  }
  std::string make_subcommand(const CLI::App *command) const override {
    std::string name = "  " + command->get_display_name(true);
    if (name.size() >= kHelpColumn) // its aliases take the whole of it
      name += "\n" + std::string(kHelpColumn, ' ');
    else
      name.resize(kHelpColumn, ' ');
    return name + wrapped(command->get_description(), kTextWidth - kHelpColumn, kHelpColumn) + "\n";
  }
};

} // namespace

// The command that is typed: the first word that is no option and no option's value.
static std::string typed_command(const std::vector<std::string> &words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "-t" || words[i] == "--timeout" || words[i] == "-H")
      ++i;
    else if (words[i].empty() || words[i][0] != '-')
      return words[i];
  }
  return "";
}

CLI::App *command_line::command(CLI::App *above, const char *name, const char *summary,
                                const char *example, command_function run) {
  CLI::App *command = above->add_subcommand(name, summary);
  command->footer(std::string(kExample) + example);
  command->fallthrough(); // --json and --timeout may follow
  command->callback([this, command, run] {
    if (command->get_subcommands().empty()) // one of them has its own
      chosen_ = run;
  });
  return command;
}

// The names of values (TIME, DAYS, ...) tell the completions what fits.
void command_line::define_timer_options(CLI::App *command) {
  command
      ->add_option("--at", given_.at,
                   "7:00, 7pm, \"tomorrow 7:00\", \"fri 20:00\", +45m, \"2026-12-24 18:00\"; on "
                   "the set's clock")
      ->type_name("TIME");
  command
      ->add_option("--on", given_.days,
                   "Repeat on these days: mon,wed,fri or mon-fri, daily, weekdays, weekend; once")
      ->type_name("DAYS")
      ->allow_extra_args(false);
  command->add_option("--type", given_.type, "What it does: on (default), off, ... or a number")
      ->type_name("TYPE");
  command
      ->add_option("--priority", given_.priority,
                   "Of on-timers at one time the set is woken for the highest (default: 0)")
      ->type_name("N");
  command->add_option("--holidays", given_.holidays, "skip or ignore (default) the holidays")
      ->type_name("EFFECT");
  command
      ->add_option("--clock", given_.clock,
                   "The clock that TIME is on: broadcast (default), internet (UTC), rtc")
      ->type_name("CLOCK");
  command->add_flag("--check", given_.check, "Say what would happen; do nothing");
}

CLI::App *command_line::define_list(const command_row &row) {
  CLI::App *list = command(&app_, row);
  list->add_flag("--on-timers", given_.on_timers, "Only those that wake the set");
  list->add_flag("--off-timers", given_.off_timers, "Only those that power it off");
  list->add_option("--day", given_.days, "Only those of these days, as for --on of add")
      ->type_name("DAYS")
      ->allow_extra_args(false);
  return list;
}

CLI::App *command_line::define_with_ids(const command_row &row) {
  CLI::App *with_ids = command(&app_, row);
  with_ids->add_option("ID", given_.words, "The timer")->required()->expected(1);
  return with_ids;
}

CLI::App *command_line::define_add(const command_row &row) {
  CLI::App *add = command(&app_, row);
  define_timer_options(add);
  add->add_flag("--force", given_.force,
                "Let the timer with the smallest id go when there is no room");
  std::string types = "Types:";
  for (const timer_type &type : kTimerTypes) {
    std::string name = std::string("  ") + type.word;
    name.resize(kTypeColumn, ' ');
    types += "\n" + name + wrapped(type.meaning, kTextWidth - kTypeColumn, kTypeColumn);
  }
  add->footer(add->get_footer() + "\n" + types);
  return add;
}

CLI::App *command_line::define_change(const command_row &row) {
  CLI::App *change = define_with_ids(row);
  define_timer_options(change);
  for (CLI::Option *option : change->get_options({})) { // what is not given stays as it is
    std::string text = option->get_description();
    for (const char *otherwise : {" (default: 0)", " (default)"})
      if (const auto at = text.find(otherwise); at != std::string::npos)
        text.erase(at, std::strlen(otherwise));
    option->description(text);
  }
  return change;
}

CLI::App *command_line::define_cancel(const command_row &row) {
  CLI::App *cancel = command(&app_, row);
  cancel->add_option("ID", given_.words, "The timers");
  cancel->add_flag("--all", given_.all, "All timers; asks before, at a terminal");
  return cancel;
}

CLI::App *command_line::define_explain(const command_row &row) {
  CLI::App *explain = command(&app_, row);
  explain->add_option("ID", given_.words, "The timer; all unless it is given")->expected(0, 1);
  return explain;
}

CLI::App *command_line::define_halt(const command_row &row) {
  CLI::App *halt = command(&app_, row);
  halt->add_option("WHAT", given_.words, "on, off, both or none; none off: only off-timers");
  return halt;
}

CLI::App *command_line::define_screen(const command_row &row) {
  CLI::App *screen = command(&app_, row);
  screen->add_option("ORDER", given_.words, "on or off")->expected(0, 1);
  return screen;
}

CLI::App *command_line::define_test(const command_row &row) {
  CLI::App *test = command(&app_, row);
  command(test, "screen", "Turn the screen off, and on again after 5 seconds",
          "dravelctl test screen", test_screen)
      ->add_option("--seconds", given_.seconds, "How long it is off, up to 60 (default: 5)")
      ->type_name("N");
  command(test, "wake", "Send the machine to sleep; its alarm wakes it after 60 seconds",
          "dravelctl test wake", test_wake)
      ->add_option("--seconds", given_.seconds, "How long it sleeps, from 20 to 3600 (default: 60)")
      ->type_name("N");
  return test;
}

CLI::App *command_line::define_history(const command_row &row) {
  CLI::App *history = command(&app_, row);
  history->add_option("ID", given_.words, "The timer; all unless it is given")->expected(0, 1);
  history
      ->add_option("--since", given_.since,
                   "yesterday, \"fri 20:00\", 7:00, 3h, 2026-12-24 (default: two days ago)")
      ->type_name("TIME");
  history
      ->add_option("--journal", given_.journal,
                   "Read the journal files there in place of this machine's")
      ->type_name("DIRECTORY");
  return history;
}

CLI::App *command_line::define_monitor(const command_row &row) {
  CLI::App *monitor = command(&app_, row);
  monitor->add_option("-n,--count", given_.count, "End after so many expiries")->type_name("N");
  return monitor;
}

CLI::App *command_line::define_holidays(const command_row &row) {
  CLI::App *holidays = command(&app_, row);
  command(holidays, "list", "List the holidays", "dravelctl holidays list", list_holidays);
  CLI::App *add = command(holidays, "add", "Add holidays of every year, over the new year too",
                          "dravelctl holidays add 12-24 12-26", add_holidays);
  add->add_option("FIRST-DAY", given_.first_day, "As month-day")->required();
  add->add_option("LAST-DAY", given_.last_day, "The same day unless it is given");
  add->add_flag("--end-of-february", given_.end_of_february,
                "02-28 or 02-29 means the last day of February in every year");
  add->add_flag("--all", given_.all, kAllSkip);
  CLI::App *import =
      command(holidays, "import", "Add the holidays of the coming year from a calendar",
              "dravelctl holidays import holidays.ics", import_holidays);
  import->add_option(kJsonFile, given_.words, "In the format iCalendar; - for standard input")
      ->required()
      ->expected(1);
  import->add_flag("--all", given_.all, kAllSkip);
  import->add_flag("--check", given_.check, "Say what would be added; do nothing");
  command(holidays, "remove", "Remove holidays", "dravelctl holidays remove 1", remove_holidays)
      ->alias("rm")
      ->alias("delete")
      ->add_option("HOLIDAYS", given_.words, "The ids of holidays")
      ->required();
  for (CLI::App *effect : {command(holidays, "skip", "Let timers skip the holidays",
                                   "dravelctl holidays skip 3", skip_holidays),
                           command(holidays, "ignore", "Let timers fire on holidays too",
                                   "dravelctl holidays ignore 3", ignore_holidays)}) {
    effect->add_option("ID", given_.words, "The timers");
    effect->add_flag("--all", given_.all, "All timers");
  }
  return holidays;
}

CLI::App *command_line::define_directory(const command_row &row) {
  CLI::App *copy = command(&app_, row);
  const bool is_restore = row.run == ::restore;
  copy->add_option("DIRECTORY", given_.words,
                   is_restore ? "Holds .dravel.db, which is checked first"
                              : "Gets .dravel.db; the copy before becomes .dravel.db.1")
      ->required()
      ->expected(1);
  if (is_restore)
    copy->add_flag("--restart", given_.restart, "Restart dravel-manager, so that it takes effect");
  return copy;
}

CLI::App *command_line::define_import(const command_row &row) {
  CLI::App *import = command(&app_, row);
  import->add_option(kJsonFile, given_.words, "The JSON; - for standard input")
      ->required()
      ->expected(1);
  if (row.run == ::apply)
    import->add_flag("--check", given_.check, "Say what would change; do nothing");
  else
    import->add_flag("--force", given_.force,
                     "Let timers with the smallest ids go when there is no room");
  return import;
}

CLI::App *command_line::define_help(const command_row &row) {
  CLI::App *help = command(&app_, row);
  help->add_option("COMMAND", given_.words, "The command");
  help->callback([this] { helped_ = true; });
  return help;
}

CLI::App *command_line::define_plain(const command_row &row) { return command(&app_, row); }

CLI::App *command_line::command(CLI::App *above, const command_row &row) {
  CLI::App *made = command(above, row.name, row.summary, row.example, row.run);
  for (const char *alias : row.aliases)
    if (alias != nullptr)
      made->alias(alias);
  return made;
}

const command_row command_line::kCommands[] = {
    {"status", "Show the clock, the halts and what comes next", "dravelctl status", show_status,
     &command_line::define_plain},
    {"explain", "Say when timers fire, what they do, and why", "dravelctl explain 3", ::explain,
     &command_line::define_explain},
    {"week", "Show the coming seven days as a chart", "dravelctl week", show_week,
     &command_line::define_plain},
    {"halt", "Keep on- or off-timers from acting; show what is halted", "dravelctl halt off",
     ::halt, &command_line::define_halt},
    {"screen", "Turn the screen on or off; show what it is", "dravelctl screen on", order_screen,
     &command_line::define_screen},
    {"check", "Say for each thing that must be right whether it is, and what to do",
     "dravelctl check", check_set, &command_line::define_plain},
    {"test", "Try the screen, or a sleep with a wake-up", "dravelctl test wake", test_machine,
     &command_line::define_test},
    {"history", "Tell what has happened, from the journal", "dravelctl history --since yesterday",
     show_history, &command_line::define_history},
    {"wakeup", "Show the timer that woke the set", "dravelctl wakeup", show_wakeup,
     &command_line::define_plain},
    {"monitor", "Tell each expiry and each change as it comes", "dravelctl monitor --count 1",
     ::monitor, &command_line::define_monitor},
    {"overview", "Print all that a program needs at once, as JSON", "dravelctl overview",
     show_overview, &command_line::define_plain},
    {"list",
     "List the timers, the next to fire first",
     "dravelctl list --on-timers --day fri",
     list_timers,
     &command_line::define_list,
     {"ls"}},
    {"show", "Show one timer", "dravelctl show 3", show_timer, &command_line::define_with_ids},
    {"add", "Add a timer", "dravelctl add --at 6:55 --on mon-fri --holidays skip", add_timer,
     &command_line::define_add},
    {"change", "Replace a timer by one with other options", "dravelctl change 3 --at 7:15",
     change_timer, &command_line::define_change},
    {"cancel",
     "Cancel timers",
     "dravelctl cancel 3 5",
     cancel_timers,
     &command_line::define_cancel,
     {"rm", "delete", "remove"}},
    {"types", "List what a timer can do", "dravelctl types", show_types,
     &command_line::define_plain},
    {"holidays", "The days on which timers rest", "dravelctl holidays", list_holidays,
     &command_line::define_holidays},
    {"backup", "Copy the database of the timers to a directory", "dravelctl backup /var/backups",
     ::backup, &command_line::define_directory},
    {"restore", "Copy the database back", "dravelctl restore /var/backups --restart", ::restore,
     &command_line::define_directory},
    {"export", "Print timers and holidays as JSON", "dravelctl export >timers.json", export_timers,
     &command_line::define_plain},
    {"import", "Add timers and holidays from what export printed", "dravelctl import timers.json",
     import_timers, &command_line::define_import},
    {"apply", "Make timers and holidays equal to a file", "dravelctl apply timers.json", ::apply,
     &command_line::define_import},
    {"help", "Print the help of a command", "dravelctl help add", show_status,
     &command_line::define_help},
};

static bool is_named(const command_row &row, std::string_view word) {
  return word == row.name || std::ranges::any_of(row.aliases, [&](const char *alias) {
           return alias != nullptr && word == alias;
         });
}

static bool asks_for_help(const std::string &word) { return word == "-h" || word == "--help"; }

// Only what is typed is set up: all commands take longer than a call of the daemon. Help, and what
// names no command, need them all.
void command_line::define_commands(const std::vector<std::string> &words) {
  const std::string typed = typed_command(words);
  const auto *row = std::ranges::find_if(
      kCommands, [&](const command_row &known) { return is_named(known, typed); });
  const bool is_known = row != std::end(kCommands) && std::string_view(row->name) != "help";
  if (is_known)
    (this->*row->define)(*row);
  else if (!typed.empty() || std::ranges::any_of(words, asks_for_help))
    for (const command_row &each : kCommands)
      (this->*each.define)(each);
}

// --- what is wrong with a line ---

static const CLI::App *parsed_command(const CLI::App &app) {
  const CLI::App *command = &app;
  while (!command->get_subcommands().empty())
    command = command->get_subcommands().back();
  return command;
}

static const CLI::App *subcommand(const CLI::App *above, const std::string &name) {
  const auto found =
      above->get_subcommands([&](const CLI::App *command) { return command->check_name(name); });
  return found.empty() ? nullptr : found.front();
}

// "holidays add"; empty for the program itself.
static std::string path_of(const CLI::App *command) {
  if (command->get_parent() == nullptr)
    return "";
  const std::string above = path_of(command->get_parent());
  return above + (above.empty() ? "" : " ") + command->get_name();
}

static std::string example_of(const CLI::App *command) {
  const std::string footer = command->get_footer();
  return "write it as in " + footer.substr(kExample.size(), footer.find('\n') - kExample.size());
}

// How many letters must be changed, added or left out.
static std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t before = std::exchange(row[0], i);
    for (std::size_t k = 1; k <= b.size(); ++k) {
      const std::size_t same = before + (a[i - 1] == b[k - 1] ? 0 : 1);
      before = std::exchange(row[k], std::min({same, row[k] + 1, row[k - 1] + 1}));
    }
  }
  return row.back();
}

static std::vector<std::string> names_of(const CLI::App *above) {
  std::vector<std::string> names;
  for (const CLI::App *command : above->get_subcommands({})) {
    names.push_back(command->get_name());
    std::ranges::copy(command->get_aliases(), std::back_inserter(names));
  }
  return names;
}

// The command that is meant, by its beginning or a slip of the keys, which leaves half of it;
// empty when none is near.
static std::string nearest(const CLI::App *above, const std::string &word) {
  std::string found;
  std::size_t least = 3;
  for (const std::string &name : names_of(above)) {
    if (std::ranges::find(kOtherWords, std::pair<std::string_view, std::string_view>(word, name)) !=
        std::end(kOtherWords))
      return name;
    const bool begins_so = word.size() >= kBeginning && name.starts_with(word);
    const std::size_t far = begins_so ? 0 : distance(word, name);
    if (far < least && 2 * far <= std::max(word.size(), name.size())) {
      least = far;
      found = name;
    }
  }
  return found;
}

static bool is_id(const CLI::App *command, const std::string &word) {
  return parse_int(word) &&
         !command->get_options([](const CLI::Option *option) { return option->get_positional(); })
              .empty();
}

static bool is_time(const CLI::Option *option) { return option->get_type_name() == "TIME"; }

// 'put the time in quotes: --at "fri 20:00"'
static failure wants_quotes(const std::string &refused, const CLI::Option *option,
                            const std::string &value) {
  const std::string name = option->get_name();
  const char *what = is_time(option) ? "time" : "days";
  return usage(refused,
               std::string("put the ") + what + " in quotes: " + name + " \"" + value + "\"", name);
}

// A time, or days, of several words that are not quoted.
static std::optional<failure> unquoted(const CLI::App *command,
                                       const std::vector<std::string> &words) {
  for (const CLI::Option *option : command->get_options({})) {
    if (!is_time(option) && option->get_type_name() != "DAYS")
      continue;
    const std::string name = option->get_name();
    const auto begin = std::ranges::find_if(
        words, [&](const std::string &word) { return command->check_name(word); });
    const auto given = std::find_if(begin, words.end(), [&](const std::string &word) {
      return word == name || word.starts_with(name + "=");
    });
    if (given == words.end())
      continue;
    const auto second = given + (*given == name && given + 1 != words.end() ? 2 : 1);
    const auto end = std::find_if(second, words.end(), [&](const std::string &word) {
      return word.starts_with('-') || is_id(command, word);
    });
    if (second == end)
      continue;
    std::string value = *given == name ? *(second - 1) : given->substr(name.size() + 1);
    for (auto word = second; word != end; ++word)
      value.append(" ").append(*word);
    return wants_quotes(path_of(command) + " does not take " + *second, option, value);
  }
  return std::nullopt;
}

static failure unexpected(const CLI::App *command, const std::string &word) {
  const std::string path = path_of(command);
  const std::string help = "dravelctl help" + (path.empty() ? "" : " " + path);
  const std::string name = word.empty() ? "''" : word.substr(0, word.find('='));
  if (word.starts_with('-') && command->get_option_no_throw(name) != nullptr)
    return usage(name + " stands before " + path, "write it behind " + path);
  if (word.starts_with('-'))
    return usage("there is no option " + name + (path.empty() ? "" : " of " + path),
                 help + " lists those there are", name);
  if (!path.empty() && command->get_subcommands({}).empty()) {
    const bool is_count = parse_int(word) && command->get_option_no_throw("--seconds") != nullptr;
    return usage(path + " does not take " + (word.empty() ? name : word),
                 is_count ? "write --seconds " + word : example_of(command));
  }
  const std::string meant = nearest(command, name);
  return usage("there is no command " + (path.empty() ? "" : path + " ") + name +
                   (meant.empty() ? "" : ", did you mean " + meant + "?"),
               help + " lists those there are");
}

static bool takes_value(const CLI::Option &option) { return option.get_items_expected_max() > 0; }

static bool names(const CLI::Option &option, std::string_view word) {
  return std::ranges::any_of(option.get_lnames(),
                             [&](const auto &name) { return word == "--" + name; }) ||
         std::ranges::any_of(option.get_snames(),
                             [&](const auto &name) { return word == "-" + name; });
}

// The options of the command and of those above it.
static std::vector<const CLI::Option *> options_of(const CLI::App *command) {
  std::vector<const CLI::Option *> all;
  for (; command != nullptr; command = command->get_parent())
    std::ranges::copy(command->get_options([](const CLI::Option *) { return true; }),
                      std::back_inserter(all));
  return all;
}

static failure too_many(const CLI::App *command, const CLI::Option &option) {
  const std::string word = option.results().back();
  const std::string name = option.get_name();
  return option.get_positional()
             ? unexpected(command, word)
             : usage(name + "=" + word + " is one too many", "give one " + name, name);
}

// Of the options that have too many values, or one though they take none, or none though they need
// one.
static failure mismatch(const CLI::App *command, const std::vector<std::string> &words) {
  const auto options = options_of(command);
  for (const CLI::Option *option : options)
    if (takes_value(*option) &&
        option->get_items_expected_max() < static_cast<int>(option->results().size()))
      return too_many(command, *option);
  for (std::size_t i = 0; i < words.size(); ++i)
    for (const CLI::Option *option : options) {
      const std::string name = words[i].substr(0, words[i].find('='));
      if (!names(*option, name))
        continue;
      if (!takes_value(*option) && name != words[i])
        return usage(name + " takes no value", "write " + name + " alone", name);
      const bool is_alone =
          i + 1 == words.size() || std::ranges::any_of(options, [&](const CLI::Option *other) {
            return names(*other, words[i + 1].substr(0, words[i + 1].find('=')));
          });
      std::string forms = option->get_description();
      forms[0] = static_cast<char>(std::tolower(forms[0]));
      if (takes_value(*option) && name == words[i] && is_alone)
        return usage(name + " needs " + option->get_type_name(), forms, name);
    }
  return usage(path_of(command) + " is not written so", example_of(command));
}

failure command_line::fault_of_line(const CLI::ParseError &error,
                                    const std::vector<std::string> &words) const {
  const CLI::App *command = parsed_command(app_);
  auto rest = app_.remaining(true);
  std::erase(rest, "--");
  const std::string typed = typed_command(words);
  if (!rest.empty() && rest.front() == typed && subcommand(&app_, typed) == nullptr)
    return unexpected(&app_, typed); // a command that is parsed stands behind it
  if (const auto fault = unquoted(command, words))
    return *fault;
  if (!rest.empty())
    return unexpected(command, rest.front());
  if (dynamic_cast<const CLI::RequiredError *>(&error) == nullptr)
    return mismatch(command, words);
  const auto missing = command->get_options(
      [](const CLI::Option *option) { return option->get_required() && option->count() == 0; });
  return usage(path_of(command) + " needs " + missing.front()->get_name(), example_of(command));
}

// --- help ---

static json help_of(const CLI::App &command) {
  json help{{"name", command.get_name()}, {"summary", command.get_description()}};
  help["options"] = json::array();
  for (const CLI::Option *option :
       command.get_options([](const CLI::Option *any) { return any->get_name() != "--help"; }))
    help["options"].push_back({{"name", option->get_name()}, {"help", option->get_description()}});
  help["commands"] = json::array();
  for (const CLI::App *below : command.get_subcommands({}))
    help["commands"].push_back(help_of(*below));
  return help;
}

void command_line::print_help_of_command() {
  const CLI::App *about = &app_;
  std::string prefix = "dravelctl";
  for (const auto &word : given_.words) {
    if (about != &app_)
      prefix += " " + about->get_name();
    const CLI::App *found = subcommand(about, word);
    if (found == nullptr && about->get_subcommands({}).empty())
      throw usage("there is no command " + path_of(about) + " " + word,
                  "dravelctl help lists those there are");
    if (found == nullptr)
      throw unexpected(about, word);
    about = found;
  }
  if (given_.json)
    return say(true, help_of(*about), "");
  // help() of the whole would give that of the command that was parsed.
  const std::string text =
      about == &app_ ? app_.get_formatter()->make_help(about, prefix, CLI::AppFormatMode::Normal)
                     : about->help(prefix);
  std::fputs(text.c_str(), stdout);
}

command_line::command_line(const std::vector<std::string> &words)
    : app_("Lists, sets and watches the timers of a television set.", "dravelctl") {
  app_.formatter(std::make_shared<formatter>());
  app_.set_version_flag("-V,--version", "dravelctl " DRAVEL_VERSION, "Print the version");
  app_.add_flag("-j,--json", given_.json, "Print JSON");
  app_.add_option("-t,--timeout", given_.timeout,
                  "How long to wait for the bus and an answer (default: 3)")
      ->type_name("SECONDS");
  app_.footer("Without a command it prints the status. dravelctl help COMMAND says more;\n"
              "--json and --timeout may stand anywhere.");
  app_.add_option("-H,--host", given_.host, "Run the command there, through ssh; comes first")
      ->type_name("USER@HOST");
  app_.require_subcommand(0, 1);
  app_.get_option("--json")->disable_flag_override();
  app_.option_defaults()->disable_flag_override();
  app_.get_formatter()->column_width(kHelpColumn);
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_.get_formatter()->label("Positionals", "Arguments");
  app_.get_formatter()->label("TEXT", ""); // the type of every argument
  app_.get_formatter()->label("REQUIRED", "");
  define_commands(words);
}

command_function command_line::parse(int argc, char **argv) {
  const auto as_json = [this] { return app_.count("--json") != 0; }; // `given_` may not have it yet
  try {
    app_.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    if (as_json())
      return say(true, help_of(*parsed_command(app_)), ""), nullptr;
    std::fputs(app_.help().c_str(), stdout);
    return nullptr;
  } catch (const CLI::CallForVersion &version) {
    return say(as_json(), {{"version", DRAVEL_VERSION}}, version.what()), nullptr;
  } catch (const CLI::ParseError &error) {
    throw fault_of_line(error, {argv + 1, argv + argc});
  }
  if (app_.get_subcommands().empty() && !app_.remaining().empty())
    throw usage("what follows -- is no command", "write the command before --");
  if (const auto fault = unquoted(parsed_command(app_), {argv + 1, argv + argc})) // taken for an id
    throw failure(*fault);
  if (!given_.host.empty())
    throw usage("-H stands behind another word", "write it first", "-H");
  if (!helped_)
    return chosen_;
  print_help_of_command();
  return nullptr;
}
