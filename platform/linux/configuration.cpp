#include "configuration.h"

#include "journal.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>

static constexpr const char *kGroup = "linux";
static constexpr unsigned kLongestSeconds = 86400;

static linux_configuration current;
static bool is_in_force; // the first reading is over
static std::vector<std::string> faults;

static bool take_rtc(linux_configuration &into, const char *text) {
  into.rtc = text;
  return into.rtc == "auto" || *text == '/';
}

static bool take_cec(linux_configuration &into, const char *text) {
  into.cec = text;
  return into.cec == "auto" || into.cec == "off" || *text == '/';
}

static bool take_cec_standby(linux_configuration &into, const char *text) {
  into.cec_standby_all = g_str_equal(text, "all");
  return into.cec_standby_all || g_str_equal(text, "tv");
}

// Four hexadecimal digits, as 1.0.0.0.
static bool take_physical_address(linux_configuration &into, const char *text) {
  into.cec_physical_address.reset();
  if (g_str_equal(text, "auto"))
    return true;
  std::uint16_t address = 0;
  const std::string_view digits = text;
  for (std::size_t i = 0; i < 4 && digits.size() == 7; ++i) {
    const int digit = g_ascii_xdigit_value(digits[i * 2]);
    if (digit < 0 || (i < 3 && digits[i * 2 + 1] != '.'))
      return false;
    address = static_cast<std::uint16_t>(address << 4 | digit);
  }
  into.cec_physical_address = address;
  return address != 0; // 0.0.0.0 is the television's
}

static bool take_off_action(linux_configuration &into, const char *text) {
  static constexpr std::string_view kActions[] = {"suspend", "poweroff", "hibernate", "none"};
  const auto found = std::ranges::find(kActions, text);
  into.decisions.off = static_cast<off_action>(found - std::begin(kActions));
  return found != std::end(kActions);
}

static bool take_switch(bool &into, const char *text) {
  into = g_str_equal(text, "yes") || g_str_equal(text, "true");
  return into || g_str_equal(text, "no") || g_str_equal(text, "false");
}

static bool take_keep_timers(linux_configuration &into, const char *text) {
  return take_switch(into.keep_timers, text);
}

static bool take_hop_boots(linux_configuration &into, const char *text) {
  return take_switch(into.decisions.hop_boots, text);
}

static bool take_follow_screen(linux_configuration &into, const char *text) {
  bool is_yes = false;
  into.decisions.follow_screen = g_str_equal(text, "sleep");
  return into.decisions.follow_screen || (take_switch(is_yes, text) && !is_yes);
}

static bool take_screen_follows(linux_configuration &into, const char *text) {
  return take_switch(into.decisions.screen_follows, text);
}

template <auto Field> static bool take_seconds(linux_configuration &into, const char *text) {
  guint64 seconds = 0;
  const bool good =
      g_ascii_string_to_unsigned(text, 10, 0, kLongestSeconds, &seconds, nullptr) != FALSE;
  into.decisions.*Field = static_cast<std::int64_t>(seconds);
  return good;
}

namespace {

struct configuration_key {
  const char *name;
  bool (*take)(linux_configuration &into, const char *text); // false: not a value of this key
  const char *otherwise;                                     // when the file has no such key
  const char *values;
};

} // namespace

static constexpr configuration_key kKeys[] = {
    {"rtc", take_rtc, "auto", "auto or a device such as /dev/rtc0"},
    {"cec", take_cec, "auto", "auto, off or a device such as /dev/cec0"},
    {"cec-standby", take_cec_standby, "tv", "tv or all"},
    {"cec-physical-address", take_physical_address, "auto", "auto or an address such as 1.0.0.0"},
    {"off-action", take_off_action, "suspend", "suspend, poweroff, hibernate or none"},
    {"lead-suspend", take_seconds<&settings::lead_suspend>, "15", "0 to 86400 seconds"},
    {"lead-poweroff", take_seconds<&settings::lead_poweroff>, "90", "0 to 86400 seconds"},
    {"return-to-sleep", take_seconds<&settings::return_to_sleep>, "120", "0 to 86400 seconds"},
    {"hop-boots", take_hop_boots, "yes", "yes or no"},
    {"follow-screen", take_follow_screen, "no", "sleep or no"},
    {"screen-follows", take_screen_follows, "no", "yes or no"},
    {"keep-timers", take_keep_timers, "true", "true or false"},
};

static void tell(const std::string &fault) {
  report("%s", fault.c_str());
  faults.push_back(fault);
}

static const char *what_holds() {
  return is_in_force ? "what is in force stays" : "the default is used";
}

static void take_value(const configuration_key &key, const char *text, const char *path) {
  linux_configuration changed = current;
  if (key.take(changed, text))
    current = changed;
  else
    tell(std::string(path) + ": " + key.name + " cannot be \"" + text + "\", only " + key.values +
         "; " + what_holds());
}

static void report_unknown_keys(GKeyFile *file, const char *path) {
  g_auto(GStrv) names = g_key_file_get_keys(file, kGroup, nullptr, nullptr);
  for (char **name = names; name != nullptr && *name != nullptr; ++name)
    if (std::ranges::none_of(kKeys, [=](const auto &key) { return g_str_equal(key.name, *name); }))
      tell(std::string(path) + ": there is no key \"" + *name + "\"");
}

// False, and one line, when the file is there and cannot be used.
static bool load(GKeyFile *file, const char *path) {
  g_autoptr(GError) error = nullptr;
  if (!g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, &error)) {
    if (g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
      return true;
    tell(std::string(path) + ": " + error->message + "; " + what_holds());
    return false;
  }
  if (g_key_file_has_group(file, kGroup))
    return true;
  tell(std::string(path) + ": there is no group [" + kGroup + "]; " + what_holds());
  return false;
}

const linux_configuration &configuration() { return current; }

const std::vector<std::string> &configuration_faults() { return faults; }

void read_configuration() {
  const char *given = std::getenv("DRAVEL_CONFIGURATION");
  const char *path = given == nullptr ? "/etc/dravel-manager.conf" : given;
  g_autoptr(GKeyFile) file = g_key_file_new();
  faults.clear();
  if (load(file, path)) {
    report_unknown_keys(file, path);
    for (const configuration_key &key : kKeys) {
      g_autofree char *text = g_key_file_get_value(file, kGroup, key.name, nullptr);
      take_value(key, text == nullptr ? key.otherwise : g_strstrip(text), path);
    }
  }
  is_in_force = true;
}
