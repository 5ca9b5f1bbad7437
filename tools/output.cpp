#include "output.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

constexpr const char *bold = "1";
constexpr const char *bold_red = "1;31";

bool in_colour(std::FILE *out) {
  const char *no_color = std::getenv("NO_COLOR");
  const char *term = std::getenv("TERM");
  return isatty(fileno(out)) != 0 && (no_color == nullptr || *no_color == '\0') &&
         term != nullptr && std::strcmp(term, "dumb") != 0;
}

std::string painted(std::FILE *out, const char *colour, const std::string &text) {
  return in_colour(out) ? std::string("\033[") + colour + "m" + text + "\033[0m" : text;
}

std::string quoted(const std::string &text) { return '"' + text + '"'; } // nothing to escape

std::string next_text(const timer_record &timer, const clocks &now,
                      const std::vector<holiday> &holidays) {
  const auto next = next_firing(timer, now, holidays);
  return next ? firing_text(*next, now) : "never";
}

std::string json_date(const holiday_end &end) {
  char text[80];
  std::snprintf(text, sizeof text, R"({"month": %u, "day": %u, "end_of_february": %s})", end.month,
                end.day, end.end_of_february ? "true" : "false");
  return text;
}

} // namespace

void print_table(const std::vector<std::string> &titles,
                 const std::vector<std::vector<std::string>> &rows) {
  std::vector<std::size_t> widths(titles.size());
  const auto line_of = [&](const std::vector<std::string> &cells) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i)
      line += cells[i] + std::string(widths[i] - cells[i].size() + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
  };
  for (std::size_t i = 0; i < titles.size(); ++i) {
    widths[i] = titles[i].size();
    for (const auto &row : rows)
      widths[i] = std::max(widths[i], row[i].size());
  }
  std::printf("%s\n", painted(stdout, bold, line_of(titles)).c_str());
  for (const auto &row : rows)
    std::printf("%s\n", line_of(row).c_str());
}

void print_timers(const std::vector<timer_record> &timers, const clocks &now,
                  const std::vector<holiday> &holidays) {
  if (timers.empty()) {
    std::puts("No timers.");
    return;
  }
  std::vector<std::vector<std::string>> rows;
  rows.reserve(timers.size());
  for (const timer_record &timer : timers)
    rows.push_back({std::to_string(timer.id), type_name(timer.type),
                    next_text(timer, now, holidays), days_text(timer.week_flag),
                    std::to_string(timer.priority), timer.holiday_effect != 0 ? "skip" : "ignore",
                    clock_name(timer.clock)});
  print_table({"ID", "TYPE", "NEXT FIRING", "DAYS", "PRIORITY", "HOLIDAYS", "CLOCK"}, rows);
}

void print_timer(const timer_record &timer, const clocks &now,
                 const std::vector<holiday> &holidays) {
  const bool skips = timer.holiday_effect != 0;
  const std::string set_for = time_text(timer.at); // ends with the time of day
  const struct {
    const char *title;
    std::string text;
  } lines[] = {
      {"Timer", std::to_string(timer.id)},
      {"Type", type_name(timer.type) + " (" + std::to_string(timer.type) +
                   "): " + type_meaning(timer.type)},
      {"Next firing", next_text(timer, now, holidays)},
      {"Days", days_text(timer.week_flag)},
      {"Set for", timer.week_flag == 0 ? set_for : set_for.substr(set_for.size() - 8)},
      {"Clock", clock_name(timer.clock)},
      {"Priority", std::to_string(timer.priority)},
      {"Holidays", skips ? "skip: does not fire on them" : "ignore: fires on them too"},
  };
  for (const auto &line : lines)
    std::printf("%12s: %s\n", line.title, line.text.c_str());
}

void print_holidays(const std::vector<holiday> &holidays) {
  if (holidays.empty()) {
    std::puts("No holidays.");
    return;
  }
  std::vector<std::vector<std::string>> rows;
  rows.reserve(holidays.size());
  for (const holiday &holiday : holidays)
    rows.push_back({std::to_string(holiday.id), date_text(holiday.first), date_text(holiday.last)});
  print_table({"ID", "FIRST DAY", "LAST DAY"}, rows);
}

void print_failure(const failure &failure) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s%s\n", painted(stderr, bold_red, "dravelctl: ").c_str(),
               failure.what.c_str());
  if (!failure.advice.empty())
    std::fprintf(stderr, "%s\n", failure.advice.c_str());
}

std::string json_list(const std::vector<std::string> &elements) {
  std::string text = "[";
  for (const auto &element : elements)
    text += (&element == &elements.front() ? "" : ", ") + element;
  return text + "]";
}

std::string json_of(const timer_record &timer, const clocks &now,
                    const std::vector<holiday> &holidays) {
  const auto next = next_firing(timer, now, holidays);
  std::vector<std::string> days = day_names(timer.week_flag);
  std::ranges::transform(days, days.begin(), quoted);
  return "{\"id\": " + std::to_string(timer.id) + ", \"type\": " + std::to_string(timer.type) +
         ", \"type_name\": " + quoted(type_name(timer.type)) +
         ", \"next\": " + (next ? quoted(iso_text(*next)) : "null") +
         ", \"at\": " + quoted(iso_text(timer.at)) + ", \"days\": " + json_list(days) +
         ", \"priority\": " + std::to_string(timer.priority) +
         ", \"holidays\": " + quoted(timer.holiday_effect != 0 ? "skip" : "ignore") +
         ", \"clock\": " + quoted(clock_name(timer.clock)) + "}";
}

std::string json_of(const holiday &holiday) {
  return "{\"id\": " + std::to_string(holiday.id) + ", \"first\": " + json_date(holiday.first) +
         ", \"last\": " + json_date(holiday.last) + "}";
}
