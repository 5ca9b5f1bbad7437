// screen, and what status and overview show of the machine.
#include "commands.h"

#include <string_view>

// --- what is shown ---

static std::optional<civil_time> known(civil_time utc) {
  return utc != civil_time{} ? std::optional(utc) : std::nullopt;
}

json json_of(const std::optional<machine_state> &machine) {
  if (!machine)
    return nullptr;
  json object{{"screen", machine->screen}, {"screen_by", machine->screen_by}};
  add_utc(object, "alarm", known(machine->alarm));
  object["alarm_for"] = machine->alarm_for;
  object["alarm_problem"] = machine->alarm_problem;
  add_utc(object, "last_wake", known(machine->last_wake));
  object["last_wake_cause"] = machine->last_cause;
  add_utc(object, "sleeps_at", known(machine->sleeps_at));
  object["postponed"] = machine->postponed;
  object["problems"] = machine->problems;
  return object;
}

std::vector<std::string> problems_of(const snapshot &view,
                                     const std::optional<machine_state> &machine) {
  std::vector<std::string> sentences;
  if (!view.clock_known)
    sentences.emplace_back("The set's clock is unknown: no timer is armed.");
  else if (!view.clock_confirmed)
    sentences.emplace_back("The set's clock is not confirmed since the set woke up.");
  if (machine)
    for (const std::string &problem : machine->problems)
      sentences.push_back(sentence(problem));
  return sentences;
}

// What an alarm is for, and what woke the machine.
std::string cause_text(const std::string &cause) {
  static constexpr std::pair<std::string_view, const char *> kCauses[] = {
      {"timer", "for a timer"},
      {"hop", "on the way to a later on-time"},
      {"test", "for a test"},
      {"foreign", "for another program"},
      {"user", "by its user"}};
  for (const auto &[word, text] : kCauses)
    if (word == cause)
      return text;
  return "by " + cause;
}

std::string alarm_text(const machine_state &machine, civil_time now) {
  const std::string alarm = known(machine.alarm) ? firing_text(civil_of(machine.alarm), now) +
                                                       ", " + cause_text(machine.alarm_for)
                                                 : "none";
  return alarm + (machine.alarm_problem.empty() ? "" : "; " + machine.alarm_problem);
}

std::string screen_text(const machine_state &machine) {
  return machine.screen + ", by " +
         (machine.screen_by == "targets" ? "dravel-on.target and dravel-off.target"
                                         : machine.screen_by);
}

static std::string sleep_text(const machine_state &machine, civil_time now) {
  const std::string when =
      known(machine.sleeps_at) ? firing_text(civil_of(machine.sleeps_at), now) : "not planned";
  return when + (machine.postponed.empty() ? "" : "; postponed: " + machine.postponed);
}

fields fields_of(const machine_state &machine, civil_time now) {
  return {{"Screen", screen_text(machine)},
          {"Alarm", alarm_text(machine, now)},
          {"Last wake-up", known(machine.last_wake) ? time_text(civil_of(machine.last_wake)) +
                                                          ", " + cause_text(machine.last_cause)
                                                    : "unknown"},
          {"Sleeps", sleep_text(machine, now)}};
}

// --- screen ---

failure no_machine() {
  return {"the platform of this dravel-manager shows no machine",
          "only the platform linux has a screen to turn and a sleep to try"};
}

void order_screen(client &client, const options &given) {
  const std::string order = given.words.empty() ? "" : given.words[0];
  if (!order.empty() && order != "on" && order != "off")
    throw usage("screen takes no " + order, "give on or off, or nothing to see what it is");
  if (!order.empty())
    client.turn_screen(order == "on");
  const auto machine = client.machine();
  if (!machine)
    throw no_machine();
  const std::string is = "Screen: " + screen_text(*machine);
  say(given.json,
      {{"ordered", order.empty() ? json(nullptr) : json(order)},
       {"screen", machine->screen},
       {"screen_by", machine->screen_by}},
      order.empty() ? is : "The screen is told to turn " + order + ".\n" + is);
}
