// The command line: every command with its options, its help and an example. Help, completions and
// the tables of the manual page all come from what is defined here.
#pragma once

#include "commands.h"

#include <CLI/CLI.hpp>

using command_function = void (*)(client &, const options &);

class command_line {
public:
  command_line();
  command_line(const command_line &) = delete;
  command_line &operator=(const command_line &) = delete;

  // Throws a failure for a line that is not understood. Returns null when the line asked for help
  // or the version, which is then printed.
  command_function parse(int argc, char **argv);

  const options &given() const { return given_; }
  const CLI::App &app() const { return app_; }

private:
  CLI::App *command(CLI::App *above, const char *name, const char *summary, const char *example,
                    command_function run);
  void define_timer_options(CLI::App *command);
  void define_timer_commands();
  void define_set_commands();
  void define_holiday_commands();
  void define_store_commands();
  void print_help_of_command();
  failure fault_of_line(const CLI::ParseError &error) const;

  CLI::App app_;
  options given_;
  command_function chosen_ = show_status;
  bool helped_ = false;
};
