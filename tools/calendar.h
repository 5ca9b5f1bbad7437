// Calendars as other programs write them: files in the format iCalendar.
#pragma once

#include <chrono>
#include <string>
#include <vector>

struct calendar_entry {
  std::chrono::sys_days first;
  std::chrono::sys_days last;
  std::string name;
};

// The entries of whole days with a day from `from` on and before `until`, also those that recur, by
// their first days. Throws a failure when `text`, the file `file`, is no calendar or has none.
std::vector<calendar_entry> read_calendar(const std::string &text, const std::string &file,
                                          std::chrono::sys_days from, std::chrono::sys_days until);
