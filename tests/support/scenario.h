// Scenarios: what happens to a clean set, and what is seen of it afterwards. One a line, such as
//   arm 1 '18 14:00'; now '18 19:00'; adjust => armed '19 14:00' row 19
// The words are in the tables of scenario.cpp. A line that is indented further goes on with the one
// before. "@" is the id of the timer listed last; "~x" is seen in a text with x, "!x" in one
// without.
#pragma once

#include "fixture.h"

void run_scenarios(const std::string &lines);
// For each row the pattern, with the row's columns in place of $1, $2...; bars part the columns.
void run_scenarios(const std::string &pattern, const std::string &rows);

#define SCENARIOS(suite, name, ...)                                                                \
  TEST_F(suite, name) { run_scenarios(__VA_ARGS__); }
