// Scenarios: what happens after a clean start, and what is seen of it afterwards. One a line, such
// as
//   arm 1 '18 14:00'; now '18 19:00'; adjust => armed '19 14:00' row 19
// A line that is indented further goes on with the one before. "times 3 adjust" is done three
// times. "@" is the last id; "~x" is seen in a text with x, "!x" in one without.
#pragma once

#include <gtest/gtest.h>

#include <span>
#include <stdexcept>
#include <string>
#include <vector>

using arguments = std::span<const std::string>;
using text_list = std::vector<std::string>;

// The words, of the program that is linked with it.
void begin_scenario();
void do_step(arguments step);
std::string seen(const std::string &name);

inline std::string last_id; // what "@" stands for

void run_scenarios(const std::string &lines);
// For each row the pattern, with the row's columns in place of $1, $2...; bars part the columns.
void run_scenarios(const std::string &pattern, const std::string &rows);

#define SCENARIOS(suite, name, ...)                                                                \
  TEST_F(suite, name) { run_scenarios(__VA_ARGS__); }

std::string joined(const text_list &texts, const char *separator);

template <typename Table> auto find_word(const Table &table, const std::string &word) {
  const auto found = table.find(word);
  return found != table.end() ? found->second : throw std::runtime_error("no such word: " + word);
}
