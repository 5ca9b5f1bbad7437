// week: the coming seven days as a chart, one line a day, a character a half hour.
#include "commands.h"
#include "judgement.h"

#include <algorithm>
#include <clocale>
#include <langinfo.h>

using namespace std::chrono;

static constexpr int kDays = 7;
static constexpr std::size_t kCells = 48;
static constexpr seconds kCell = 30min;

namespace {

enum cell { kEmpty, kHoliday, kNow, kHalted, kOther, kWake, kOff, kOn, kSeveral, kCellKinds };

using day_cells = std::array<cell, kCells>;

} // namespace

static constexpr const char *kUtf8Signs[kCellKinds] = {"·", "░", "│", "○", "●", "△", "▼", "▲", "◆"};
static constexpr const char *kAsciiSigns[kCellKinds] = {".", "#", "|", "x", "o",
                                                        "^", "-", "+", "*"};
static constexpr const char *kColours[kCellKinds] = {"2",  "33", "7",  "2", "36",
                                                     "34", "31", "32", "35"};

static bool in_utf8() {
  std::setlocale(LC_CTYPE, "");
  return std::string(nl_langinfo(CODESET)) == "UTF-8";
}

static bool is_due_in(const timer_record &timer, const firing &firing) {
  return timer.id == firing.id || std::ranges::find(firing.passed, timer.id) != firing.passed.end();
}

static cell cell_of(const timer_record &timer, const snapshot &view) {
  if (is_halted(timer.type, view))
    return kHalted;
  switch (timer_type_of(timer.type).action) {
  case timer_action::kTurnOn:
    return kOn;
  case timer_action::kWake:
    return kWake;
  case timer_action::kTurnOff:
    return kOff;
  default:
    return kOther;
  }
}

// What acts stands before what does not.
static void mark(cell &cell, enum cell with) {
  if (cell < kOther || (cell == kOther && with > kOther))
    cell = with;
  else if (with > kOther && cell != with)
    cell = kSeveral;
}

static std::vector<day_cells> chart_of(const std::vector<firing> &firings, const snapshot &view) {
  const sys_days today = floor<days>(view.now.set);
  std::vector<day_cells> chart(kDays);
  for (int k = 0; k < kDays; ++k)
    chart[static_cast<std::size_t>(k)].fill(holidays_on(today + days(k), view).empty() ? kEmpty
                                                                                       : kHoliday);
  const auto cell_at = [&](civil_time at) -> cell & {
    const auto index = static_cast<std::size_t>((at - today) / kCell);
    return chart[index / kCells][index % kCells];
  };
  for (const firing &firing : firings)
    for (const timer_record &timer : view.timers)
      if (is_due_in(timer, firing))
        mark(cell_at(firing.at), cell_of(timer, view));
  return chart;
}

static void print_chart(const std::vector<day_cells> &chart, const snapshot &view) {
  const auto &signs = in_utf8() ? kUtf8Signs : kAsciiSigns;
  const auto sign = [&](cell cell) { return painted(stdout, kColours[cell], signs[cell]); };
  std::string hours(15, ' ');
  for (int hour = 0; hour < 24; hour += 3)
    hours += (hour < 10 ? "0" : "") + std::to_string(hour) + "    ";
  hours.erase(hours.find_last_not_of(' ') + 1);
  std::puts(hours.c_str());
  const sys_days today = floor<days>(view.now.set);
  // The mark stands before the half hour that now is in, where no firing can be.
  const auto now = static_cast<std::size_t>((view.now.set - today) / kCell);
  for (std::size_t k = 0; k < chart.size(); ++k) {
    std::string line = day_text(today + days(k)) + (k == 0 && now == 0 ? sign(kNow) : " ");
    for (std::size_t i = 0; i < kCells; ++i)
      line += sign(k == 0 && i + 1 == now ? kNow : chart[k][i]);
    std::puts(line.c_str());
  }
  std::printf("%11s%s on  %s off  %s wake  %s several  %s other  %s halted  %s holidays  %s now\n",
              "", sign(kOn).c_str(), sign(kOff).c_str(), sign(kWake).c_str(),
              sign(kSeveral).c_str(), sign(kOther).c_str(), sign(kHalted).c_str(),
              sign(kHoliday).c_str(), sign(kNow).c_str());
}

const char *mark_word(timer_action action) {
  switch (action) {
  case timer_action::kTurnOn:
    return "on";
  case timer_action::kTurnOff:
    return "off";
  case timer_action::kWake:
    return "wake";
  default:
    return "other";
  }
}

// "both" where an on-timer and an off-timer are due at once.
static const char *mark_of(const firing &firing, const snapshot &view) {
  const auto any = [&](timer_action action) {
    return std::ranges::any_of(view.timers, [&](const timer_record &timer) {
      return is_due_in(timer, firing) && timer_type_of(timer.type).action == action;
    });
  };
  if (any(timer_action::kTurnOn) && any(timer_action::kTurnOff))
    return "both";
  for (const timer_action action :
       {timer_action::kTurnOn, timer_action::kTurnOff, timer_action::kWake})
    if (any(action))
      return mark_word(action);
  return mark_word(timer_action::kNone);
}

static json json_of(const std::vector<firing> &firings, const snapshot &view) {
  json list = json::array();
  for (const firing &firing : firings) {
    const timer_record *timer = find_timer(view.timers, firing.id);
    json object = {{"id", firing.id}, {"type_name", type_name(timer->type)}};
    add_time(object, "at", moment_of(firing.at, firing.system, view));
    object["mark"] = mark_of(firing, view);
    object["halted"] = is_halted(timer->type, view);
    object["passed"] = firing.passed;
    list.push_back(object);
  }
  return list;
}

static std::vector<firing> firings_of(const snapshot &view) {
  return forecast(view, floor<days>(view.now.set) + days(kDays) - 1s).firings;
}

json json_of_week(const snapshot &view) {
  if (!view.clock_known)
    return nullptr;
  json week;
  add_time(week, "now", view.now.set, view);
  week["days"] = json::array();
  for (int k = 0; k < kDays; ++k) {
    const sys_days day = floor<days>(view.now.set) + days(k);
    week["days"].push_back(
        {{"date", iso_text(day).substr(0, 10)}, {"holidays", holidays_on(day, view)}});
  }
  week["firings"] = json_of(firings_of(view), view);
  return week;
}

void show_week(client &client, const options &given) {
  const snapshot view = client.look_at_state();
  if (!view.clock_known)
    throw failure{"the set's clock is unknown, so that no week can be shown", ""};
  const auto firings = firings_of(view);
  if (given.json)
    return say(true, json_of(firings, view), "");
  print_chart(chart_of(firings, view), view);
  for (const clash &clash : clashes_of(0, firings))
    print_note(sentence(clash.text(view)));
}
