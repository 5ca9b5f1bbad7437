#include "command_line.h"

static constexpr const char *kJsonFile = "FILE";
static constexpr std::string_view kExample = "Example: ";

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
                   "7:00, \"tomorrow 7:00\", \"fri 20:00\", +45m, \"2026-12-24 18:00\"; on "
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
                   "Of timers at the same second the highest comes first (default: 0)")
      ->type_name("N");
  command->add_option("--holidays", given_.holidays, "skip or ignore (default) the holidays")
      ->type_name("EFFECT");
  command
      ->add_option("--clock", given_.clock,
                   "The clock that TIME is on: broadcast (default), internet (UTC), rtc")
      ->type_name("CLOCK");
}

void command_line::define_timer_commands() {
  command(&app_, "list", "List the timers, the next to fire first", "dravelctl list --json",
          list_timers);
  command(&app_, "show", "Show one timer", "dravelctl show 3", show_timer)
      ->add_option("ID", given_.words, "The timer")
      ->required()
      ->expected(1);
  CLI::App *add = command(&app_, "add", "Add a timer",
                          "dravelctl add --at 6:55 --on mon-fri --holidays skip", add_timer);
  define_timer_options(add);
  add->add_flag("--force", given_.force,
                "Let the timer with the smallest id go when there is no room");
  std::string types = "Types:";
  for (const timer_type &type : kTimerTypes) {
    std::string name = type.word;
    name.resize(15, ' ');
    types += "\n  " + name + type.meaning;
  }
  add->footer(add->get_footer() + "\n" + types);
  CLI::App *change = command(&app_, "change", "Replace a timer by one with other options",
                             "dravelctl change 3 --at 7:15", change_timer);
  change->add_option("ID", given_.words, "The timer")->required()->expected(1);
  define_timer_options(change);
  command(&app_, "cancel", "Cancel timers", "dravelctl cancel 3 5", cancel_timers)
      ->add_option("ID", given_.words, "The timers")
      ->required();
}

void command_line::define_set_commands() {
  command(&app_, "status", "Show the clock, the halts and what comes next", "dravelctl status",
          show_status);
  command(&app_, "explain", "Say when timers fire, what they do, and why", "dravelctl explain 3",
          ::explain)
      ->add_option("ID", given_.words, "The timer; all unless it is given")
      ->expected(0, 1);
  command(&app_, "week", "Show the coming seven days as a chart", "dravelctl week", show_week);
  command(&app_, "halt", "Keep on- or off-timers from acting; show what is halted",
          "dravelctl halt off", ::halt)
      ->add_option("WHAT", given_.words, "on, off, both or none");
  command(&app_, "wakeup", "Show the timer that woke the set", "dravelctl wakeup", show_wakeup);
  command(&app_, "monitor", "Tell each expiry and each change as it comes",
          "dravelctl monitor --count 1", ::monitor)
      ->add_option("-n,--count", given_.count, "End after so many expiries")
      ->type_name("N");
}

void command_line::define_holiday_commands() {
  CLI::App *holidays = command(&app_, "holidays", "The days on which timers rest",
                               "dravelctl holidays", list_holidays);
  command(holidays, "list", "List the holidays", "dravelctl holidays list", list_holidays);
  CLI::App *add = command(holidays, "add", "Add holidays of every year",
                          "dravelctl holidays add 12-24 12-26", add_holidays);
  add->add_option("FIRST-DAY", given_.first_day, "As month-day")->required();
  add->add_option("LAST-DAY", given_.last_day, "The same day unless it is given");
  add->add_flag("--end-of-february", given_.end_of_february,
                "02-28 or 02-29 means the last day of February in every year");
  command(holidays, "remove", "Remove holidays", "dravelctl holidays remove 1", remove_holidays)
      ->add_option("HOLIDAYS", given_.words, "The ids of holidays")
      ->required();
  command(holidays, "skip", "Let timers skip the holidays", "dravelctl holidays skip 3",
          skip_holidays)
      ->add_option("ID", given_.words, "The timers")
      ->required();
  command(holidays, "ignore", "Let timers fire on holidays too", "dravelctl holidays ignore 3",
          ignore_holidays)
      ->add_option("ID", given_.words, "The timers")
      ->required();
}

void command_line::define_store_commands() {
  const auto one = [this](CLI::App *command, const char *name, const char *help) {
    command->add_option(name, given_.words, help)->required()->expected(1);
    return command;
  };
  one(command(&app_, "backup", "Copy the database of the timers to a directory",
              "dravelctl backup /var/backups", ::backup),
      "DIRECTORY", "Gets .dravel.db; the copy before becomes .dravel.db.1");
  one(command(&app_, "restore", "Copy the database back",
              "dravelctl restore /var/backups --restart", ::restore),
      "DIRECTORY", "Holds .dravel.db, which is checked first")
      ->add_flag("--restart", given_.restart, "Restart dravel-manager, so that it takes effect");
  command(&app_, "export", "Print timers and holidays as JSON", "dravelctl export >timers.json",
          export_timers);
  one(command(&app_, "import", "Add timers and holidays from what export printed",
              "dravelctl import timers.json", import_timers),
      kJsonFile, "The JSON; - for standard input")
      ->add_flag("--force", given_.force,
                 "Let timers with the smallest ids go when there is no room");
}

void command_line::print_help_of_command() {
  const CLI::App *about = &app_;
  std::string prefix = "dravelctl";
  for (const auto &word : given_.words) {
    if (about != &app_)
      prefix += " " + about->get_name();
    const auto found = about->get_subcommands(
        [&](const CLI::App *command) { return command->get_name() == word; });
    if (found.empty())
      throw usage("there is no command " + word, "dravelctl help lists them");
    about = found.front();
  }
  // help() of the whole would give that of the command that was parsed.
  const std::string text =
      about == &app_ ? app_.get_formatter()->make_help(about, prefix, CLI::AppFormatMode::Normal)
                     : about->help(prefix);
  std::fputs(text.c_str(), stdout);
}

// --- what is wrong with a line ---

static const CLI::App *parsed_command(const CLI::App &app) {
  const CLI::App *command = &app;
  while (!command->get_subcommands().empty())
    command = command->get_subcommands().back();
  return command;
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

static failure unexpected(const CLI::App *command, const std::string &word) {
  const std::string path = path_of(command);
  const std::string help = "dravelctl help" + (path.empty() ? "" : " " + path);
  const std::string name = word.empty() ? "''" : word.substr(0, word.find('='));
  if (word.starts_with('-') && command->get_option_no_throw(name) != nullptr)
    return usage(name + " stands before " + path, "write it behind " + path);
  if (word.starts_with('-'))
    return usage("there is no option " + name + (path.empty() ? "" : " of " + path),
                 help + " lists those there are");
  if (command->get_subcommands({}).empty())
    return usage(path + " does not take " + (word.empty() ? name : word), example_of(command));
  return usage("there is no command " + (path.empty() ? "" : path + " ") + name,
               help + " lists those there are");
}

// `text` begins with the name of the option that has too few values or too many.
static failure mismatch(const CLI::App *command, const std::string &text) {
  const bool is_flag = text.ends_with("override"); // which is named without its dashes
  const std::string name = (is_flag ? "--" : "") + text.substr(0, text.find_first_of(": "));
  const CLI::Option *option = nullptr;
  for (const CLI::App *app = command; option == nullptr && app != nullptr; app = app->get_parent())
    option = app->get_option_no_throw(name);
  if (option == nullptr)
    return usage(text);
  std::string forms = option->get_description();
  forms[0] = static_cast<char>(std::tolower(forms[0]));
  if (text.ends_with("missing"))
    return usage(name + " needs " + option->get_type_name(), forms);
  if (is_flag)
    return usage(name + " takes no value", "write " + name + " alone");
  const std::string word = option->results().back();
  return option->get_positional()
             ? unexpected(command, word)
             : usage(name + "=" + word + " is one too many", "give one " + name);
}

failure command_line::fault_of_line(const CLI::ParseError &error) const {
  const CLI::App *command = parsed_command(app_);
  auto rest = app_.remaining(true);
  std::erase(rest, "--");
  const std::string text = error.what();
  if (!rest.empty())
    return unexpected(command, rest.front());
  if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr)
    return usage(path_of(command) + " needs " + text.substr(0, text.find(' ')),
                 example_of(command));
  return mismatch(command, text);
}

command_line::command_line()
    : app_("Lists, sets and watches the timers of a television set.", "dravelctl") {
  app_.set_version_flag("--version", "dravelctl " DRAVEL_VERSION, "Print the version");
  app_.add_flag("-j,--json", given_.json, "Print JSON");
  app_.add_option("-t,--timeout", given_.timeout, "How long to wait for an answer (default: 3)")
      ->type_name("SECONDS");
  app_.footer("Without a command it prints the status. dravelctl help COMMAND says more;\n"
              "--json and --timeout may stand anywhere.");
  app_.require_subcommand(0, 1);
  app_.get_option("--json")->disable_flag_override();
  app_.option_defaults()->disable_flag_override();
  app_.get_formatter()->column_width(28);
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_.get_formatter()->label("Positionals", "Arguments");
  app_.get_formatter()->label("TEXT", ""); // the type of every argument
  app_.get_formatter()->label("REQUIRED", "");
  define_set_commands();
  define_timer_commands();
  define_holiday_commands();
  define_store_commands();
  CLI::App *help = app_.add_subcommand("help", "Print the help of a command");
  help->footer("Example: dravelctl help add");
  help->add_option("COMMAND", given_.words, "The command");
  help->callback([this] { helped_ = true; });
}

command_function command_line::parse(int argc, char **argv) {
  try {
    app_.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    std::fputs(app_.help().c_str(), stdout);
    return nullptr;
  } catch (const CLI::CallForVersion &version) {
    std::puts(version.what());
    return nullptr;
  } catch (const CLI::ParseError &error) {
    throw fault_of_line(error);
  }
  if (app_.get_subcommands().empty() && !app_.remaining().empty())
    throw usage("what follows -- is no command", "write the command before --");
  if (!helped_)
    return chosen_;
  print_help_of_command();
  return nullptr;
}
