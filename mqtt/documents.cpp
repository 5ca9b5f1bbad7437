#include "documents.h"

#include "commands.h"

static json timer_without_countdown(const timer_record &timer, const snapshot &view) {
  json object = json_of(timer, view);
  object.erase("next_text");
  return object;
}

static json timers_of(const snapshot &view) {
  json list = json::array();
  for (const timer_record &timer : view.timers)
    list.push_back(timer_without_countdown(timer, view));
  return list;
}

static json state_of(client &client, const snapshot &view, const std::string &machine_id,
                     const std::optional<machine_state> &machine) {
  json state = json_of_status(view, client.wakeup_timer(), machine);
  for (auto &[name, value] : state.items())
    if (value.is_object())
      value.erase("next_text");
  state["machine"] = json_of(machine);
  state["problems"] = problems_of(view, machine);
  state["machine_id"] = machine_id;
  return state;
}

static std::string without_clock(json state) {
  state.erase("clock");
  state.erase("clock_seconds");
  return text_of(state);
}

documents documents_of(client &client, const snapshot &view, const std::string &machine_id) {
  const auto machine = client.machine();
  const json state = state_of(client, view, machine_id, machine);
  const json week = json_of_week(view);
  return {.state = text_of(state),
          .compared = without_clock(state),
          .timers = text_of(timers_of(view)),
          .week = text_of(week.is_null() ? week : week["firings"]),
          .has_machine = machine.has_value()};
}

documents documents_without(const std::string &problem, const std::string &machine_id) {
  const std::string state = text_of({{"halted", nullptr},
                                     {"next_on", nullptr},
                                     {"next_off", nullptr},
                                     {"machine", nullptr},
                                     {"problems", json::array({problem})},
                                     {"machine_id", machine_id}});
  return {.state = state, .compared = state, .timers = "null", .week = "null", .has_machine = {}};
}
