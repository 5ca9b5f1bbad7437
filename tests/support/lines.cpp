#include "lines.h"

#include <algorithm>
#include <regex>
#include <sstream>

std::string joined(const text_list &texts, const char *separator) {
  std::string all;
  for (const std::string &text : texts)
    all += (all.empty() ? "" : separator) + text;
  return all;
}

static void expect(const std::string &name, const std::string &expected, const std::string &after) {
  const std::string is = seen(name);
  const bool is_part = expected.starts_with('~') || expected.starts_with('!');
  const bool has_part = is_part && is.find(expected.substr(1)) != std::string::npos;
  if (is_part ? has_part != expected.starts_with('~') : is != expected)
    ADD_FAILURE() << "after \"" << after << "\" \"" << name << "\" should be \"" << expected
                  << "\" and is \"" << is << "\"";
}

static void step(arguments words) {
  if (words[0] != "times")
    return do_step(words);
  for (int left = std::stoi(words[1]); left > 0; --left)
    do_step(words.subspan(2));
}

static std::string with_last_id(const std::string &word) {
  return std::regex_replace(word, std::regex("@"), last_id);
}

static void run_clause(const text_list &clause) {
  const auto arrow = std::ranges::find(clause, "=>");
  text_list done(clause.begin(), arrow);
  std::ranges::transform(done, done.begin(), with_last_id);
  if (!done.empty())
    step(done);
  const arguments expected(arrow, clause.end());
  if (!expected.empty() && expected.size() % 2 == 0)
    throw std::runtime_error("nothing is expected of " + clause.back());
  for (std::size_t i = 1; i < expected.size(); i += 2)
    expect(expected[i], with_last_id(expected[i + 1]), joined(done, " "));
}

static std::vector<text_list> clauses_of(const std::string &scenario) {
  static const std::regex word_or_end("'([^']*)'|;|[^ ;']+");
  std::vector<text_list> clauses(1);
  for (std::sregex_iterator word(scenario.begin(), scenario.end(), word_or_end), end; word != end;
       ++word)
    if (word->str() == ";")
      clauses.emplace_back();
    else
      clauses.back().push_back((*word)[(*word)[1].matched ? 1 : 0]);
  return clauses;
}

// Without comments. A line that is indented further, other than by an empty column, goes on.
static text_list lines_of(std::string text) {
  text = std::regex_replace(text, std::regex("\n *#[^\n]*"), "");
  text = std::regex_replace(text, std::regex("\n {3,}([^ |])"), " $1");
  text_list lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in >> std::ws, line);)
    lines.push_back(line);
  return lines;
}

void run_scenarios(const std::string &lines) {
  for (const std::string &scenario : lines_of(lines)) {
    begin_scenario();
    const testing::ScopedTrace trace(__FILE__, __LINE__, scenario);
    EXPECT_NE(scenario.find("=>"), std::string::npos) << "nothing is expected";
    try {
      std::ranges::for_each(clauses_of(scenario), run_clause);
    } catch (const std::exception &error) {
      ADD_FAILURE() << error.what();
    }
  }
}

void run_scenarios(const std::string &pattern, const std::string &rows) {
  static const std::regex bar(" *\\|( +|$)");
  for (const std::string &row : lines_of(rows)) {
    std::sregex_token_iterator column(row.begin(), row.end(), bar, -1), end;
    std::string scenario = pattern;
    for (int number = 1; number < 10; ++number)
      scenario = std::regex_replace(scenario, std::regex("\\$" + std::to_string(number)),
                                    column == end ? "" : (column++)->str());
    run_scenarios(scenario);
  }
}
