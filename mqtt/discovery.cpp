#include "discovery.h"

#include "output.h"

// A value that is not known reads "None".
static constexpr const char *kScreen =
    "{{ value_json.machine.screen if value_json.machine and value_json.machine.screen != 'unknown' "
    "else 'None' }}";
static constexpr const char *kLastWake =
    "{{ value_json.machine.last_wake if value_json.machine and value_json.machine.last_wake "
    "else 'None' }}";
static constexpr const char *kProblem = "{{ 'ON' if value_json.problems else 'OFF' }}";
static constexpr const char *kProblems = "{{ {'problems': value_json.problems} | tojson }}";
// Events need their kind under this name.
static constexpr const char *kEvent =
    "{{ dict(value_json, event_type=value_json.event) | tojson }}";
static constexpr const char *kEvents[] = {"fired",   "halted",  "skipped", "added",
                                          "changed", "removed", "woken"};
static constexpr const char *kReachable = "{{ 'online' if value == 'online' else 'offline' }}";
static constexpr const char *kReadable = // asleep as well
    "{{ 'offline' if value == 'offline' else 'online' }}";

namespace {

struct maker {
  const configuration &settings;
  json components = json::object();

  // Null where the machine would not carry it out: Home Assistant then removes what it had.
  json *add(const char *name, const char *platform, const char *text, bool is_there = true) {
    json &made = components[name] = {{"platform", platform}};
    if (!is_there)
      return nullptr;
    made["unique_id"] = "dravel_" + settings.machine_id + "_" + name;
    made["name"] = text;
    return &made;
  }

  void add_switch(const char *name, const char *text, const char *member, const char *on_command,
                  const char *off_command, const std::string &value, bool is_there) {
    json *made = add(name, "switch", text, is_there);
    if (made == nullptr)
      return;
    (*made)["command_topic"] = settings.own(std::string("set/") + member);
    (*made)["payload_on"] = on_command;
    (*made)["payload_off"] = off_command;
    (*made)["state_on"] = "on";
    (*made)["state_off"] = "off";
    (*made)["value_template"] = value;
  }

  json availability(const char *value) const {
    return json::array({json{{"topic", settings.own("availability")}, {"value_template", value}}});
  }

  void add_moment(const char *name, const char *text, const std::string &value,
                  bool is_there = true) {
    json *made = add(name, "sensor", text, is_there);
    if (made == nullptr)
      return;
    (*made)["device_class"] = "timestamp";
    (*made)["value_template"] = value;
    (*made)["availability"] = availability(kReadable);
  }

  void add_button(const char *name, const char *text, const char *command, bool is_there) {
    json *made = add(name, "button", text, is_there);
    if (made == nullptr)
      return;
    (*made)["command_topic"] = settings.own("set/test");
    (*made)["payload_press"] = command;
    (*made)["entity_category"] = "diagnostic";
  }
};

} // namespace

static std::string halt_template(const char *kind) {
  return "{{ 'None' if not value_json.halted else 'on' if value_json.halted." + std::string(kind) +
         " else 'off' }}";
}

static std::string next_template(const char *kind) {
  const std::string timer = "value_json." + std::string(kind);
  return "{{ " + timer + ".next if " + timer + " else 'None' }}";
}

static void add_problem(maker &maker) {
  json &problem = *maker.add("problem", "binary_sensor", "Problem");
  problem["device_class"] = "problem";
  problem["value_template"] = kProblem;
  problem["json_attributes_topic"] = maker.settings.own("state");
  problem["json_attributes_template"] = kProblems;
}

static void add_event(maker &maker) {
  json &event = *maker.add("event", "event", "Timer");
  event["state_topic"] = maker.settings.own("event");
  event["event_types"] = kEvents;
  event["value_template"] = kEvent;
}

std::string discovery_of(const configuration &configuration, bool has_machine) {
  maker maker{configuration};
  maker.add_switch("screen", "Screen", "screen", R"({"on":true})", R"({"on":false})", kScreen,
                   has_machine && configuration.may("screen"));
  maker.add_switch("halt_on", "On-timers halted", "halt", R"({"on":true})", R"({"on":false})",
                   halt_template("on"), configuration.may("halt"));
  maker.add_switch("halt_off", "Off-timers halted", "halt", R"({"off":true})", R"({"off":false})",
                   halt_template("off"), configuration.may("halt"));
  maker.add_moment("next_on", "Next on", next_template("next_on"));
  maker.add_moment("next_off", "Next off", next_template("next_off"));
  maker.add_moment("last_wake", "Last wake-up", kLastWake, has_machine);
  add_problem(maker);
  add_event(maker);
  const bool may_test = has_machine && configuration.may("test");
  maker.add_button("test_screen", "Test the screen", R"({"test":"screen"})", may_test);
  maker.add_button("test_wake", "Test the wake-up", R"({"test":"wake"})", may_test);
  return text_of({{"device",
                   {{"identifiers", json::array({"dravel_" + configuration.machine_id})},
                    {"name", configuration.name},
                    {"model", "TV timers"},
                    {"sw_version", DRAVEL_VERSION}}},
                  {"origin", {{"name", "dravel-mqtt"}, {"sw_version", DRAVEL_VERSION}}},
                  {"availability", maker.availability(kReachable)},
                  {"state_topic", configuration.own("state")},
                  {"qos", 1},
                  {"components", maker.components}});
}
