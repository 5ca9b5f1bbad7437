#include "journal.h"

#include "output.h"

#include <glib.h>

#include <cstdio>
#include <cstdlib>

static constexpr glong kLongest = 200;

std::string shown(const std::string &text) {
  std::string line = printable(text);
  if (g_utf8_strlen(line.c_str(), -1) <= kLongest)
    return line;
  line.resize(
      static_cast<std::size_t>(g_utf8_offset_to_pointer(line.c_str(), kLongest) - line.c_str()));
  return line + "...";
}

// The prefix is the priority, as the journal reads it.
static void log_line(const char *priority, const std::string &text) {
  static const bool in_journal = std::getenv("JOURNAL_STREAM") != nullptr;
  std::fprintf(stderr, "%s%s\n", in_journal ? priority : "", shown(text).c_str());
}

void log_notice(const std::string &text) { log_line("<5>", text); }
void log_problem(const std::string &text) { log_line("<3>", text); }
