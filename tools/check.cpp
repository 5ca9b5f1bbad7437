// check: one line for each thing that must be right before timers work, and what to do.
#include "commands.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

enum class state { kGood, kNote, kProblem };

struct finding {
  const char *about;
  state is;
  std::string text;
  std::string advice{};
};

// What is asked, and what the answers so far are.
struct examination {
  client &bus;
  std::optional<snapshot> view{};         // nothing: the daemon does not answer
  std::optional<machine_state> machine{}; // nothing: the platform is none, or not known
  bool is_machine = false;
  std::vector<finding> findings{};
};

struct service {
  const char *name;
  const char *path;
  const char *interface;
};

} // namespace

static constexpr const char *kConfiguration = "/etc/dravel-manager.conf";
static constexpr const char *kAlarmFile = "/var/lib/dravel-manager/alarm";
static constexpr const char *kStores[] = {"/opt/dbspace", "/var/lib/dravel-manager"};
static constexpr std::uintmax_t kLeastSpace = 1 << 20; // for a few rollback journals
static constexpr std::uint64_t kSystemTimeoutUs = 3000000;

static constexpr service kTimedated{"org.freedesktop.timedate1", "/org/freedesktop/timedate1",
                                    "org.freedesktop.timedate1"};
static constexpr service kLogind{"org.freedesktop.login1", "/org/freedesktop/login1",
                                 "org.freedesktop.login1.Manager"};
static constexpr service kSystemd{"org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                  "org.freedesktop.systemd1.Manager"};

// --- services of the system ---

// The text, or object path, that is the reply; empty when there is none.
static std::string ask(client &client, const service &asked, const char *method, const char *types,
                       const char *argument) {
  sd_bus_message *reply = nullptr;
  sd_bus_call_method(client.bus(), asked.name, asked.path, asked.interface, method, nullptr, &reply,
                     argument != nullptr ? "s" : "", argument);
  const bus_message answer(reply);
  const char *text = "";
  if (reply != nullptr)
    sd_bus_message_read(reply, types, &text);
  return text;
}

static std::optional<bool> is_set(client &client, const char *name) {
  int value = 0;
  if (sd_bus_get_property_trivial(client.bus(), kTimedated.name, kTimedated.path,
                                  kTimedated.interface, name, nullptr, 'b', &value) < 0)
    return std::nullopt;
  return value != 0;
}

static bus_message unit_property(client &client, const std::string &unit, const char *name,
                                 const char *type) {
  const std::string path = ask(client, kSystemd, "LoadUnit", "o", unit.c_str());
  sd_bus_message *reply = nullptr;
  if (!path.empty())
    sd_bus_get_property(client.bus(), kSystemd.name, path.c_str(), "org.freedesktop.systemd1.Unit",
                        name, nullptr, &reply, type);
  return bus_message(reply);
}

static std::vector<std::string> units_of(client &client, const char *target) {
  const bus_message wanted = unit_property(client, target, "Wants", "as");
  return wanted != nullptr ? read_texts(wanted.get()) : std::vector<std::string>{};
}

static std::string value_of(const char *file, const char *group, const char *key) {
  g_autoptr(GKeyFile) keys = g_key_file_new();
  g_key_file_load_from_file(keys, file, G_KEY_FILE_NONE, nullptr);
  g_autofree char *value = g_key_file_get_string(keys, group, key, nullptr);
  return value != nullptr ? value : "";
}

// --- the daemon ---

static finding daemon_found(examination &e) {
  try {
    e.view = e.bus.look_at_state();
    e.machine = e.bus.machine();
  } catch (const failure &failure) {
    return {"Daemon", state::kProblem, failure.what, failure.advice};
  }
  return {"Daemon", state::kGood,
          "dravel-manager " + e.view->version + ", platform " + e.view->platform};
}

static finding group_found(examination &e) {
  const std::string reason = e.bus.reason_not_to_change();
  if (reason.empty())
    return {"Group", state::kGood, "you may change the timers"};
  return {"Group", state::kProblem, "you may not change the timers", reason};
}

static finding halts_found(examination &e) {
  if (e.view->halt_on == 0 && e.view->halt_off == 0)
    return {"Halts", state::kGood, "nothing is halted"};
  return {"Halts", state::kNote,
          std::string("timers are announced and do not act: ") +
              (e.view->halt_on != 0 ? "on-timers" : "") +
              (e.view->halt_on != 0 && e.view->halt_off != 0 ? " and " : "") +
              (e.view->halt_off != 0 ? "off-timers" : ""),
          "dravelctl halt none"};
}

static finding clock_found(examination &e) {
  const std::string reads = time_text(e.view->now.set);
  if (!e.view->clock_known)
    return {"Clock", state::kProblem, "it is unknown: no timer is armed",
            "set it: timedatectl set-time, or connect the machine to a network"};
  if (!e.view->clock_confirmed)
    return {"Clock", state::kNote, reads + ", not confirmed since the set woke up",
            "wait a minute"};
  return {"Clock", state::kGood, reads};
}

static finding zone_found(examination &e) {
  const std::string zone = moment_of(e.view->now.set, *e.view).zone;
  if (!e.is_machine || !zone.starts_with("UTC,"))
    return {"Zone", state::kGood, zone};
  return {"Zone", state::kNote, zone + ": timers are on this time",
          "if that is not the clock on your wall: timedatectl set-timezone Europe/Berlin"};
}

static finding space_found() {
  for (const char *directory : kStores) {
    struct statvfs found {};
    if (statvfs(directory, &found) != 0)
      continue; // made when the daemon starts
    if ((found.f_flag & ST_RDONLY) != 0)
      return {"Space", state::kProblem,
              std::string(directory) + " is read-only: timers cannot be stored",
              "journalctl -k may say why; mount it read-write"};
    const std::uintmax_t free = std::uintmax_t{found.f_bfree} * found.f_frsize;
    if (free < kLeastSpace)
      return {"Space", state::kProblem,
              std::string(directory) + " has " + std::to_string(free / 1024) +
                  " KiB left: timers cannot be stored",
              "make room there"};
  }
  return {"Space", state::kGood, "there is room for the timers"};
}

// --- the machine ---

static finding ntp_found(examination &e) {
  const auto wanted = is_set(e.bus, "NTP");
  const auto reached = is_set(e.bus, "NTPSynchronized");
  if (!wanted || !reached)
    return {"NTP", state::kNote, "timedated does not answer", "systemctl status systemd-timedated"};
  if (*reached)
    return {"NTP", state::kGood, "the clock is set from the network"};
  return {"NTP", state::kNote,
          *wanted ? "the clock is not yet set from the network"
                  : "the clock is not set from the network: timers drift with it",
          *wanted ? "timedatectl status says more" : "timedatectl set-ntp true"};
}

// The first device that can wake the machine, unless the daemon says what is wrong.
static finding alarm_found(examination &e) {
  if (e.machine && !e.machine->alarm_problem.empty())
    return {"Alarm", state::kProblem, e.machine->alarm_problem,
            "let the clock wake the machine in its firmware, or choose another with the key rtc"};
  std::error_code absent;
  const bool has_alarm = std::ranges::any_of(
      std::filesystem::directory_iterator("/sys/class/rtc", absent), [](const auto &device) {
        std::error_code error;
        return std::filesystem::exists(device.path() / "wakealarm", error);
      });
  if (!e.machine && !has_alarm)
    return {"Alarm", state::kProblem, "there is no real-time clock with an alarm",
            "let the clock wake the machine in its firmware"};
  return {"Alarm", state::kGood,
          e.machine ? alarm_text(*e.machine, e.view->now.set) : "there is a clock with an alarm"};
}

static finding range_found() {
  const auto range = parse_int(value_of(kAlarmFile, "alarm", "range"));
  if (range.value_or(0) == 0)
    return {"Range", state::kGood, "no alarm was too far ahead for the clock yet"};
  return {"Range", state::kNote,
          "the clock takes alarms up to " + span_text(std::chrono::seconds(*range)) +
              " ahead: for a later on-time the machine wakes on the way, and sleeps again"};
}

static finding foreign_found(examination &e) {
  if (e.machine->alarm_for != "foreign")
    return {"Other alarm", state::kGood, "no other program's alarm stands"};
  return {"Other alarm", state::kNote,
          alarm_text(*e.machine, e.view->now.set) + "; the machine's own follows it"};
}

// What the daemon says of the file, with key and value; its lines begin with the name.
static bool is_about_configuration(const std::string &problem) {
  return problem.starts_with(std::string(kConfiguration) + ":");
}

static finding sleep_found(examination &e) {
  static constexpr std::array<const char *, 3> kActions[] = {
      {"suspend", "CanSuspend", "suspends"},
      {"poweroff", "CanPowerOff", "powers off"},
      {"hibernate", "CanHibernate", "hibernates"}};
  const std::string configured = value_of(kConfiguration, "linux", "off-action");
  const auto *action =
      std::ranges::find_if(kActions, [&](const auto &known) { return known[0] == configured; });
  if (configured == "none")
    return {"Sleep", state::kGood, "the machine stays awake (off-action = none)"};
  if (action == std::end(kActions) && !configured.empty())
    return {"Sleep", state::kProblem, "off-action cannot be \"" + configured + "\"",
            "correct it in " + std::string(kConfiguration)};
  if (action == std::end(kActions))
    action = std::begin(kActions);
  const std::string can = ask(e.bus, kLogind, (*action)[1], "s", nullptr);
  if (geteuid() != 0 && (can.empty() || can == "no")) // about the user, not the machine
    return {"Sleep", state::kNote,
            std::string("only root learns whether this machine can ") + (*action)[0],
            "as root: dravelctl check"};
  if (can.empty())
    return {"Sleep", state::kProblem, "logind does not answer", "systemctl status systemd-logind"};
  if (can == "na" || can == "no")
    return {"Sleep", state::kProblem,
            std::string("this machine cannot ") + (*action)[0] +
                ", it stays awake after an off-timer",
            "allow it in the firmware, or set off-action in " + std::string(kConfiguration)};
  return {"Sleep", state::kGood,
          std::string("the machine ") + (*action)[2] + " after an off-timer"};
}

static std::string list_of(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

static finding screen_found(examination &e) {
  const machine_state &machine = *e.machine;
  const bool has_adapter = machine.screen_by != "targets";
  if (has_adapter && machine.screen != "unknown")
    return {"Screen", state::kGood,
            "the television answers to " + machine.screen_by + ": " + machine.screen};
  const auto units = units_of(e.bus, "dravel-on.target");
  if (units.empty() && has_adapter) // it may be off, and silent then
    return {"Screen", state::kNote,
            "the television does not answer to " + machine.screen_by + " now",
            "if it is on, switch on HDMI-CEC in its menu; dravelctl test screen tries it"};
  if (units.empty())
    return {"Screen", state::kProblem, "there is no HDMI-CEC adapter, and no unit turns the screen",
            "apt install ddcutil && systemctl enable dravel-screen-ddc; dravel-manager.conf(5) has "
            "others"};
  return {"Screen", state::kGood, "turned by " + list_of(units)};
}

static bool has_failed(client &client, const std::string &unit) {
  const bus_message state = unit_property(client, unit, "ActiveState", "s");
  const char *text = "";
  return state != nullptr && sd_bus_message_read(state.get(), "s", &text) > 0 &&
         std::string_view(text) == "failed";
}

static finding hooks_found(examination &e) {
  std::vector<std::string> failed;
  for (const char *target : {"dravel-on.target", "dravel-off.target", "dravel-ambient.target"})
    for (const std::string &unit : units_of(e.bus, target))
      if (has_failed(e.bus, unit) && std::ranges::find(failed, unit) == failed.end())
        failed.push_back(unit);
  if (failed.empty())
    return {"Hooks", state::kGood, "no unit of a target has failed"};
  return {"Hooks", state::kProblem, "failed: " + list_of(failed),
          "systemctl status " + failed.front()};
}

// What the daemon says beside.
static void add_problems(examination &e) {
  if (std::ranges::none_of(e.machine->problems, is_about_configuration))
    e.findings.push_back(
        {"Configuration", state::kGood, std::string(kConfiguration) + " has no fault"});
  for (const std::string &problem : e.machine->problems)
    if (is_about_configuration(problem))
      e.findings.push_back({"Configuration", state::kProblem, problem,
                            "correct it, then: systemctl reload dravel-manager"});
    else if (std::ranges::find(e.findings, problem, &finding::text) == e.findings.end())
      e.findings.push_back({"Machine", state::kProblem, problem, "journalctl -t DRAVEL_LINUX"});
}

static void examine(examination &e) {
  auto &all = e.findings;
  all.push_back({"Bus", state::kGood, "the system bus answers"});
  all.push_back(daemon_found(e));
  e.is_machine = e.machine || (!e.view && access(kConfiguration, F_OK) == 0);
  if (e.view)
    for (const auto found : {group_found, halts_found, clock_found, zone_found})
      all.push_back(found(e));
  all.push_back(space_found());
  if (!e.is_machine)
    return;
  for (const auto found : {ntp_found, alarm_found, sleep_found, hooks_found})
    all.push_back(found(e));
  all.push_back(range_found());
  if (!e.machine)
    return;
  for (const auto found : {foreign_found, screen_found})
    all.push_back(found(e));
  add_problems(e);
}

// --- what is printed ---

static constexpr struct {
  const char *word;
  const char *colour;
} kStates[] = {{"ok", kGreen}, {"note", kYellow}, {"problem", kBoldRed}};

static json json_of(const finding &found) {
  return {{"about", found.about},
          {"state", kStates[static_cast<int>(found.is)].word},
          {"text", found.text},
          {"advice", found.advice}};
}

static void print(const finding &found) {
  const auto &[word, colour] = kStates[static_cast<int>(found.is)];
  const std::string state = std::string(word) + std::string(8 - std::string_view(word).size(), ' ');
  std::printf("%s%s: %s%s\n", painted(stdout, colour, state).c_str(), found.about,
              found.text.c_str(), found.advice.empty() ? "" : ("; " + found.advice).c_str());
}

void check_set(client &client, const options &given) {
  sd_bus_set_method_call_timeout(client.bus(), kSystemTimeoutUs);
  examination e{client};
  examine(e);
  const auto problems = std::ranges::count(e.findings, state::kProblem, &finding::is);
  json list = json::array();
  for (const finding &found : e.findings)
    list.push_back(json_of(found));
  if (given.json)
    say(true, {{"problems", problems}, {"checks", list}}, "");
  else
    std::ranges::for_each(e.findings, print);
  if (problems > 0)
    throw failure{"", ""}; // the lines say it
}
