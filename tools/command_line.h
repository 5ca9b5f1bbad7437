// The command line: every command with its options, its help and an example. Help, completions and
// the tables of the manual page all come from what is defined here.
#pragma once

#include "commands.h"

#include <CLI/CLI.hpp>

#include <array>
#include <string>
#include <vector>

using command_function = void (*)(client &, const options &);

class command_line;

struct command_row {
  const char *name;
  const char *summary;
  const char *example;
  command_function run;
  CLI::App *(command_line::*define)(const command_row &row);
  std::array<const char *, 3> aliases{};
};

class command_line {
public:
  // Knows what is needed to read `words`; all commands when these are {"help"}.
  explicit command_line(const std::vector<std::string> &words);
  command_line(const command_line &) = delete;
  command_line &operator=(const command_line &) = delete;

  // Throws a failure for a line that is not understood. Returns null when the line asked for help
  // or the version, which is then printed.
  command_function parse(int argc, char **argv);

  const options &given() const { return given_; }
  const CLI::App &app() const { return app_; }

private:
  static const command_row kCommands[];

  CLI::App *command(CLI::App *above, const char *name, const char *summary, const char *example,
                    command_function run);
  CLI::App *command(CLI::App *above, const command_row &row);
  void define_commands(const std::vector<std::string> &words);
  void define_timer_options(CLI::App *command);
  CLI::App *define_plain(const command_row &row);
  CLI::App *define_list(const command_row &row);
  CLI::App *define_with_ids(const command_row &row);
  CLI::App *define_add(const command_row &row);
  CLI::App *define_change(const command_row &row);
  CLI::App *define_cancel(const command_row &row);
  CLI::App *define_explain(const command_row &row);
  CLI::App *define_halt(const command_row &row);
  CLI::App *define_screen(const command_row &row);
  CLI::App *define_test(const command_row &row);
  CLI::App *define_history(const command_row &row);
  CLI::App *define_monitor(const command_row &row);
  CLI::App *define_holidays(const command_row &row);
  CLI::App *define_directory(const command_row &row);
  CLI::App *define_import(const command_row &row);
  CLI::App *define_help(const command_row &row);
  void print_help_of_command();
  failure fault_of_line(const CLI::ParseError &error, const std::vector<std::string> &words) const;

  CLI::App app_;
  options given_;
  command_function chosen_ = show_status;
  bool helped_ = false;
};
