// overview: one document with all that a program needs at once; types.
#include "commands.h"
#include "judgement.h"

using namespace std::chrono;

static json types() {
  json list = json::array();
  for (const timer_type &type : kTimerTypes)
    list.push_back({{"number", type.number},
                    {"word", type.word},
                    {"meaning", type.meaning},
                    {"mark", mark_word(type.action)}});
  return list;
}

void show_types(client &, const options &given) {
  if (given.json)
    return say(true, types(), "");
  std::vector<std::vector<std::string>> rows;
  for (const timer_type &type : kTimerTypes)
    rows.push_back({std::to_string(type.number), type.word, type.meaning});
  print_table({"NUMBER", "TYPE", "MEANING"}, rows);
}

static json timers_of(const snapshot &view) {
  json list = json::array();
  const auto firings = forecast(view).firings;
  for (const timer_record &timer : view.timers) {
    json object = json_of(timer, view);
    object["notes"] = json::array();
    if (!view.armed.contains(timer.id))
      object["notes"].push_back(sentence("it is not armed: " + reason_unarmed(timer, view)));
    for (const clash &clash : clashes_of(timer.id, firings))
      object["notes"].push_back(sentence(clash.text(view)));
    list.push_back(object);
  }
  return list;
}

// Its dates in this year and the next.
static json dates_of(const holiday &period, const snapshot &view) {
  json list = json::array();
  const year this_year = year_month_day(floor<days>(view.now.set)).year();
  for (const year year : {this_year, this_year + years(1)})
    list.push_back({{"first", date_in(period.first, year)}, {"last", date_in(period.last, year)}});
  return list;
}

static json holidays_of(const snapshot &view) {
  json list = json::array();
  for (const holiday &period : view.holidays) {
    json object = json_of(period);
    object["text"] = date_text(period);
    object["dates"] = dates_of(period, view);
    object["skipped_by"] = json::array();
    for (const timer_record &timer : view.timers)
      if (timer.holiday_effect != 0 && timer.type != TIMER_TYPE_ALWAYS)
        object["skipped_by"].push_back(timer.id);
    list.push_back(object);
  }
  return list;
}

// true, or why the user may not.
static json may(const std::string &reason) { return reason.empty() ? json(true) : json(reason); }

static json rights(client &client, bool has_machine) {
  const json order = may(has_machine ? client.reason_not_to_order() : no_machine().what);
  return {{"change", may(client.reason_not_to_change())},
          {"screen", order},
          {"test", order},
          {"history", may(reason_not_to_read_history())}};
}

void show_overview(client &client, const options &) {
  const snapshot view = client.look_at_state();
  const auto machine = client.machine();
  json all{{"status", json_of_status(view, client.wakeup_timer(), machine)}};
  all["may"] = rights(client, machine.has_value());
  all["timers"] = timers_of(view);
  all["week"] = json_of_week(view);
  all["holidays"] = holidays_of(view);
  all["types"] = types();
  all["machine"] = json_of(machine);
  all["problems"] = problems_of(view, machine);
  say(true, all, "");
}
