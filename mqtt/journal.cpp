#include "journal.h"

#include <glib.h>

#include <cstdio>
#include <cstdlib>

static constexpr std::size_t kLongest = 200;

std::string printable(const std::string &text) {
  g_autofree char *valid = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  std::string line;
  std::size_t length = 0;
  for (const char *at = valid; *at != '\0'; at = g_utf8_next_char(at)) {
    if (++length > kLongest)
      return line + "...";
    if (g_unichar_isprint(g_utf8_get_char(at)) != FALSE)
      line.append(at, static_cast<std::size_t>(g_utf8_next_char(at) - at));
    else
      line += '?';
  }
  return line;
}

// The prefix is the priority, as the journal reads it.
static void log_line(const char *priority, const std::string &text) {
  static const bool in_journal = std::getenv("JOURNAL_STREAM") != nullptr;
  std::fprintf(stderr, "%s%s\n", in_journal ? priority : "", printable(text).c_str());
}

void log_notice(const std::string &text) { log_line("<5>", text); }
void log_problem(const std::string &text) { log_line("<3>", text); }
