#include "output.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

static bool in_colour(std::FILE *out) {
  const char *no_color = std::getenv("NO_COLOR");
  const char *term = std::getenv("TERM");
  return isatty(fileno(out)) != 0 && (no_color == nullptr || *no_color == '\0') &&
         term != nullptr && std::strcmp(term, "dumb") != 0;
}

std::string painted(std::FILE *out, const char *colour, const std::string &text) {
  return in_colour(out) ? std::string("\033[") + colour + "m" + text + "\033[0m" : text;
}

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
  std::printf("%s\n", painted(stdout, kBold, line_of(titles)).c_str());
  for (const auto &row : rows)
    std::printf("%s\n", line_of(row).c_str());
}

void print_fields(const std::vector<std::pair<std::string, std::string>> &fields) {
  for (const auto &[title, text] : fields)
    std::printf("%12s: %s\n", title.c_str(), text.c_str());
}

void say(bool as_json, const json &value, const std::string &text) {
  std::puts(as_json ? value.dump().c_str() : text.c_str());
}

void print_failure(const failure &failure) {
  std::string line = failure.what + (failure.advice.empty() ? "" : "; ") + failure.advice;
  // A word of the user's may hold what would end the line or steer the terminal.
  std::ranges::replace_if(
      line, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  std::fflush(stdout);
  std::fprintf(stderr, "%s%s\n", painted(stderr, kBoldRed, "dravelctl: ").c_str(), line.c_str());
}

void print_note(const std::string &text) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s%s\n", painted(stderr, kYellow, "Note: ").c_str(), text.c_str());
}

failure flush_output() {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
    return {};
  return {"cannot write the output: " + std::string(g_strerror(errno != 0 ? errno : EIO)), ""};
}

// --- timers and holidays ---

bool is_halted(int type, const snapshot &view) {
  const action acts = type_action(type);
  return (acts == action::kTurnOn && view.halt_on != 0) ||
         (acts == action::kPowerOff && view.halt_off != 0);
}

std::string title_of(const timer_record &timer) {
  return "timer " + std::to_string(timer.id) + " (" + type_name(timer.type) + ", " +
         days_text(timer.week_flag) + ")";
}

std::string next_text(const timer_record &timer, const snapshot &view) {
  const auto armed = view.armed.find(timer.id);
  if (armed == view.armed.end())
    return "not armed";
  return firing_text(armed->second, view.now.set) + (is_halted(timer.type, view) ? ", halted" : "");
}

void add_time(json &to, const std::string &name, std::optional<civil_time> time, bool is_utc) {
  if (time) {
    const zoned_time zoned = is_utc ? from_utc(*time) : in_zone(*time);
    to[name] = zoned.iso;
    to[name + "_seconds"] = zoned.since_1970;
  } else {
    to[name] = nullptr;
    to[name + "_seconds"] = nullptr;
  }
}

json json_of(const timer_record &timer, const snapshot &view) {
  const auto armed = view.armed.find(timer.id);
  const bool is_armed = armed != view.armed.end();
  json object = {{"id", timer.id}, {"type", timer.type}, {"type_name", type_name(timer.type)}};
  add_time(object, "next", is_armed ? std::optional(armed->second) : std::nullopt);
  object["armed"] = is_armed;
  object["halted"] = is_halted(timer.type, view);
  add_time(object, "at", timer.at, timer.clock == TIME_TYPE_INTERNET);
  object["days"] = day_names(timer.week_flag);
  object["priority"] = timer.priority;
  object["delay"] = timer.delay;
  object["holidays"] = timer.holiday_effect != 0 ? "skip" : "ignore";
  object["clock"] = clock_name(timer.clock);
  return object;
}

static json json_of(const holiday_end &end) {
  return {{"month", end.month}, {"day", end.day}, {"end_of_february", end.end_of_february}};
}

json json_of(const holiday &holiday) {
  return {{"id", holiday.id}, {"first", json_of(holiday.first)}, {"last", json_of(holiday.last)}};
}
