#include "output.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr std::size_t kLongestText = 300;
static constexpr std::size_t kTitleWidth = 12; // of a field

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
    for (std::size_t i = 0; i + 1 < cells.size(); ++i)
      line += cells[i] + std::string(widths[i] - cells[i].size() + 2, ' ');
    line += wrapped(cells.back(), line_width() - line.size(), line.size());
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

std::string wrapped(const std::string &text, std::size_t width, std::size_t indent) {
  std::string lines;
  std::size_t column = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    const std::size_t length = end - at;
    if (column != 0) {
      const bool fits = column + 1 + length <= width;
      lines += fits ? " " : "\n" + std::string(indent, ' ');
      column = fits ? column + 1 : 0;
    }
    lines.append(text, at, length);
    column += length;
    at = end + 1;
  }
  return lines;
}

std::size_t line_width() {
  if (isatty(STDOUT_FILENO) == 0)
    return std::string::npos;
  winsize size{};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  return size.ws_col > 2 * kTitleWidth ? size.ws_col : kTextWidth;
}

void print_fields(const fields &shown) {
  constexpr std::size_t kIndent = kTitleWidth + 2;
  for (const auto &[title, text] : shown)
    std::printf("%*s: %s\n", static_cast<int>(kTitleWidth), title.c_str(),
                wrapped(text, line_width() - kIndent, kIndent).c_str());
}

std::string text_of(const json &value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void say(bool as_json, const json &value, const std::string &text) {
  std::puts(as_json ? text_of(value).c_str() : text.c_str());
}

void say(bool as_json, json value, const std::string &text, const std::vector<std::string> &notes) {
  if (as_json)
    value["notes"] = notes;
  say(as_json, value, text);
  if (!as_json)
    std::ranges::for_each(notes, print_note);
}

// A word of the user's may be of any length.
static std::string cut(const std::string &text) {
  if (text.size() <= kLongestText)
    return text;
  const auto bound = [&](std::size_t at) { // not inside a character
    while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80)
      ++at;
    return at;
  };
  return text.substr(0, bound(kLongestText / 2)) + "..." +
         text.substr(bound(text.size() - kLongestText / 3));
}

static const char *kind_name(fault kind) {
  switch (kind) {
  case fault::kUsage:
    return "usage";
  case fault::kNotRunning:
    return "not-running";
  case fault::kNotAllowed:
    return "not-allowed";
  case fault::kTimeout:
    return "timeout";
  default:
    return "refused";
  }
}

json json_of(const failure &failure) {
  json error{{"kind", kind_name(failure.kind)},
             {"what", cut(failure.what)},
             {"advice", cut(failure.advice)}};
  if (!failure.option.empty())
    error["option"] = failure.option;
  return {{"error", error}};
}

std::string printable(const std::string &text, char other) {
  g_autofree char *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string line;
  for (const char *at = valid, *next = nullptr; *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    if (g_unichar_isprint(g_utf8_get_char(at)) != FALSE)
      line.append(at, next);
    else
      line += other;
  }
  return line;
}

void print_failure(bool as_json, const failure &failure) {
  if (failure.what.empty()) // the result says it
    return;
  if (as_json && flush_output() == 0) {
    std::puts(text_of(json_of(failure)).c_str());
    std::fflush(stdout);
    return;
  }
  const std::string line =
      printable(cut(failure.what) + (failure.advice.empty() ? "" : "; ") + cut(failure.advice));
  flush_output();
  std::fprintf(stderr, "%s%s\n", painted(stderr, kBoldRed, "dravelctl: ").c_str(), line.c_str());
}

void print_note(const std::string &text) {
  flush_output();
  std::fprintf(stderr, "%s%s\n", painted(stderr, kYellow, "Note: ").c_str(), text.c_str());
}

// What failed once tells its reason no second time.
int flush_output() {
  static int first_error = 0;
  errno = 0;
  const bool is_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  if (!is_written && first_error == 0)
    first_error = errno != 0 ? errno : EIO;
  return first_error;
}

failure unwritten(int error) {
  return {"cannot write the output: " + std::string(std::strerror(error)), ""};
}

// --- timers and holidays ---

bool is_halted(int type, const snapshot &view) {
  switch (timer_type_of(type).action) {
  case timer_action::kTurnOn:
  case timer_action::kWake:
    return view.halt_on != 0;
  case timer_action::kTurnOff:
    return view.halt_off != 0;
  default:
    return false;
  }
}

std::string title_of(const timer_record &timer) {
  return (timer.id != 0 ? "timer " + std::to_string(timer.id) : "a new timer") + " (" +
         type_name(timer.type) + ", " + days_text(timer.week_flag) + ")";
}

zoned_time moment_of(civil_time at, civil_time system, const snapshot &view) {
  return view.follows_zone && civil_of(system) == at ? from_utc(system) : in_zone(at);
}

// Up to the next jump of the clock the offset stays as it is now.
zoned_time moment_of(civil_time at, const snapshot &view) {
  return moment_of(at, at - (view.now.set - view.now.system), view);
}

std::string span_until(civil_time at, const snapshot &view) {
  const auto since_1970 = [&](civil_time time) { return moment_of(time, view).since_1970; };
  return span_text(std::chrono::seconds(since_1970(at) - since_1970(view.now.set)));
}

std::string firing_text(civil_time at, const snapshot &view) {
  return time_text(at) + ", in " + span_until(at, view);
}

std::string next_text(const timer_record &timer, const snapshot &view) {
  const auto armed = armed_for(timer.id, view);
  if (!armed)
    return "not armed";
  return firing_text(*armed, view) + (is_halted(timer.type, view) ? ", halted" : "") +
         (view.has_state ? "" : ", guessed");
}

void add_time(json &to, const std::string &name, const std::optional<zoned_time> &time) {
  to[name] = time ? json(time->iso) : json(nullptr);
  to[name + "_seconds"] = time ? json(time->since_1970) : json(nullptr);
}

void add_time(json &to, const std::string &name, std::optional<civil_time> time,
              const snapshot &view) {
  add_time(to, name, time ? std::optional(moment_of(*time, view)) : std::nullopt);
}

void add_utc(json &to, const std::string &name, std::optional<civil_time> time) {
  add_time(to, name, time ? std::optional(from_utc(*time)) : std::nullopt);
}

void add_wakeup_time(json &to, const wakeup_time &wakeup, const snapshot &view) {
  const auto at = wakeup.id != 0 ? std::optional(wakeup.at) : std::nullopt;
  wakeup.is_utc ? add_utc(to, "at", at) : add_time(to, "at", at, view);
}

static void add_settings(json &to, const timer_record &timer) {
  to["days"] = day_names(timer.week_flag);
  to["priority"] = timer.priority;
  to["delay"] = timer.delay;
  to["holidays"] = timer.holiday_effect != 0 ? "skip" : "ignore";
  to["clock"] = clock_name(timer.clock);
}

json json_of(const timer_record &timer, const snapshot &view) {
  const auto armed = armed_for(timer.id, view);
  json object = {{"id", timer.id != 0 ? json(timer.id) : json()},
                 {"type", timer.type},
                 {"type_name", type_name(timer.type)},
                 {"title", title_of(timer)},
                 {"days_text", days_text(timer.week_flag)},
                 {"next_text", next_text(timer, view)}};
  add_time(object, "next", armed, view);
  object["armed"] = armed.has_value();
  if (!view.has_state)
    object["guessed"] = true;
  object["halted"] = is_halted(timer.type, view);
  add_time(object, "at",
           timer.clock == TIME_TYPE_INTERNET ? from_utc(timer.at) : moment_of(timer.at, view));
  add_settings(object, timer);
  object["set_for"] = iso_text(timer.at); // what its own clock then reads
  return object;
}

// A repeating timer has a time of day on its own clock: an offset would be that of one season.
json exported(const timer_record &timer) {
  json object = {{"type", timer.type}};
  if (timer.week_flag != 0)
    object["time"] = time_of_day_text(timer.at);
  else
    object["at"] = (timer.clock == TIME_TYPE_INTERNET ? from_utc(timer.at) : in_zone(timer.at)).iso;
  add_settings(object, timer);
  return object;
}

static json json_of(const holiday_end &end) {
  return {{"month", end.month}, {"day", end.day}, {"end_of_february", end.end_of_february}};
}

json json_of(const holiday &holiday) {
  return {{"id", holiday.id}, {"first", json_of(holiday.first)}, {"last", json_of(holiday.last)}};
}
