// week: the coming seven days as a chart, one line a day, a character a half hour.
#include "commands.h"

#include <algorithm>
#include <clocale>
#include <langinfo.h>

using namespace std::chrono;

static constexpr int kDays = 7;
static constexpr std::size_t kCells = 48;
static constexpr seconds kCell = 30min;

namespace {

enum cell { kEmpty, kHoliday, kNow, kHalted, kOther, kOff, kOn, kBoth, kCellKinds };

using day_cells = std::array<cell, kCells>;

} // namespace

static constexpr const char *kUtf8Signs[kCellKinds] = {"·", "░", "│", "○", "●", "▼", "▲", "◆"};
static constexpr const char *kAsciiSigns[kCellKinds] = {".", "#", "|", "x", "o", "-", "+", "*"};
static constexpr const char *kColours[kCellKinds] = {"2", "33", "7", "2", "36", "31", "32", "35"};

static bool in_utf8() {
  std::setlocale(LC_CTYPE, "");
  return std::string(nl_langinfo(CODESET)) == "UTF-8";
}

static bool rests(sys_days day, const snapshot &view) {
  timer_record any{.at = day + 24h - 1s, .week_flag = kEveryDay, .holiday_effect = 1};
  any.type = TIMER_TYPE_OFF; // keeps its seconds
  clocks midnight = clocks_at(view.now, day);
  const auto next = next_firing(any, midnight, view.holidays);
  return !next || floor<days>(*next) != day;
}

static cell cell_of(const timer_record &timer, const snapshot &view) {
  if (is_halted(timer.type, view))
    return kHalted;
  switch (type_action(timer.type)) {
  case action::kTurnOn:
    return kOn;
  case action::kPowerOff:
    return kOff;
  default:
    return kOther;
  }
}

static void mark(cell &cell, enum cell with) {
  const bool is_action = cell == kOn || cell == kOff || cell == kBoth;
  if (cell < kOther || (cell == kOther && with > kOther))
    cell = with;
  else if (is_action && with > kOther && cell != with)
    cell = kBoth;
}

static std::vector<day_cells> chart_of(const std::vector<firing> &firings, const snapshot &view) {
  const sys_days today = floor<days>(view.now.set);
  std::vector<day_cells> chart(kDays);
  for (int k = 0; k < kDays; ++k)
    chart[static_cast<std::size_t>(k)].fill(rests(today + days(k), view) ? kHoliday : kEmpty);
  const auto cell_at = [&](civil_time at) -> cell & {
    const auto index = static_cast<std::size_t>((at - today) / kCell);
    return chart[index / kCells][index % kCells];
  };
  for (const firing &firing : firings)
    if (const timer_record *timer = find_timer(view.timers, firing.id))
      mark(cell_at(firing.at), cell_of(*timer, view));
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
  std::printf("%15s%s on  %s off  %s on and off  %s other  %s halted  %s holidays  %s now\n", "",
              sign(kOn).c_str(), sign(kOff).c_str(), sign(kBoth).c_str(), sign(kOther).c_str(),
              sign(kHalted).c_str(), sign(kHoliday).c_str(), sign(kNow).c_str());
}

static json json_of(const std::vector<firing> &firings, const snapshot &view) {
  json list = json::array();
  for (const firing &firing : firings) {
    const timer_record *timer = find_timer(view.timers, firing.id);
    json object = {{"id", firing.id}};
    if (timer != nullptr)
      object["type_name"] = type_name(timer->type);
    add_time(object, "at", firing.at);
    object["halted"] = timer != nullptr && is_halted(timer->type, view);
    list.push_back(object);
  }
  return list;
}

void show_week(client &client, const options &given) {
  const snapshot view = client.look_at_state();
  if (!view.clock_known)
    throw failure{"the set's clock is unknown, so that no week can be shown", ""};
  const sys_days today = floor<days>(view.now.set);
  const auto firings = forecast(view, today + days(kDays) - 1s);
  if (given.json)
    return say(true, json_of(firings, view), "");
  print_chart(chart_of(firings, view), view);
}
