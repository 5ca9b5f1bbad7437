// What dravelctl prints: text for people, JSON for programs. Colours go to a terminal only, and to
// none when NO_COLOR is set.
#pragma once

#include "client.h"
#include "words.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

using json = nlohmann::ordered_json; // keeps the order in which it was built

inline constexpr const char *kBold = "1";
inline constexpr const char *kBoldRed = "1;31";
inline constexpr const char *kGreen = "32";
inline constexpr const char *kYellow = "33";
inline constexpr const char *kReverse = "7";

std::string painted(std::FILE *out, const char *colour, const std::string &text);

// A line of column titles, then the rows; columns are as wide as their widest cell. At a
// terminal the last one is wrapped.
void print_table(const std::vector<std::string> &titles,
                 const std::vector<std::vector<std::string>> &rows);

// The text in lines of so many characters; those after the first begin with `indent` spaces.
inline constexpr std::size_t kTextWidth = 80;
std::string wrapped(const std::string &text, std::size_t width, std::size_t indent = 0);
// The characters of a line: those of the terminal, and any number where there is none.
std::size_t line_width();

// Lines of "title: text", the titles right-aligned.
using fields = std::vector<std::pair<std::string, std::string>>;
void print_fields(const fields &shown);

std::string text_of(const json &value); // what is not UTF-8 stands as U+FFFD
json json_of(const failure &failure);   // {"error": ...}

// One line of JSON or one of text.
void say(bool as_json, const json &value, const std::string &text);

// A word of somebody else's in one line that does not steer the terminal: `other` stands for what
// would.
std::string printable(const std::string &text, char other = '?');
void print_failure(bool as_json, const failure &failure);
void print_note(const std::string &text);
// What was done: with notes in JSON, in text with a line on standard error for each.
void say(bool as_json, json value, const std::string &text, const std::vector<std::string> &notes);

// 0 when all output has been written, otherwise errno: EPIPE when nobody reads it any more.
int flush_output();
failure unwritten(int error);

bool is_halted(int type, const snapshot &view);
std::string title_of(const timer_record &timer); // "timer 3 (off, daily)"
std::string next_text(const timer_record &timer, const snapshot &view);

// The moment at which the set's clock reads `at`, `system` being what the system clock may read
// then; without it the first one from now on.
zoned_time moment_of(civil_time at, civil_time system, const snapshot &view);
zoned_time moment_of(civil_time at, const snapshot &view);
std::string span_until(civil_time at, const snapshot &view);  // "16 hours"
std::string firing_text(civil_time at, const snapshot &view); // with how long it is until then

json json_of(const timer_record &timer, const snapshot &view);
json json_of(const holiday &holiday);
json exported(const timer_record &timer); // what import reads: nothing that is computed

// `name` and `name`_seconds, the latter since 1970; null for no time. A civil time is one of the
// set's clock, or in UTC.
void add_time(json &to, const std::string &name, const std::optional<zoned_time> &time);
void add_time(json &to, const std::string &name, std::optional<civil_time> time,
              const snapshot &view);
void add_utc(json &to, const std::string &name, std::optional<civil_time> time);
void add_wakeup_time(json &to, const wakeup_time &wakeup, const snapshot &view); // as "at"
