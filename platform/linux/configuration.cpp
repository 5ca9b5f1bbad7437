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

static bool take_rtc(linux_configuration &into, const char *text) {
  into.rtc = text;
  return *text == '/';
}

static bool take_cec(linux_configuration &into, const char *text) {
  into.cec = text;
  return into.cec == "auto" || into.cec == "off" || *text == '/';
}

static bool take_cec_standby(linux_configuration &into, const char *text) {
  into.cec_standby_all = g_str_equal(text, "all");
  return into.cec_standby_all || g_str_equal(text, "tv");
}

static bool take_off_action(linux_configuration &into, const char *text) {
  static constexpr std::string_view kActions[] = {"suspend", "poweroff", "hibernate", "none"};
  const auto found = std::ranges::find(kActions, text);
  into.off = static_cast<off_action>(found - std::begin(kActions));
  return found != std::end(kActions);
}

static bool take_keep_timers(linux_configuration &into, const char *text) {
  into.keep_timers = g_str_equal(text, "true");
  return into.keep_timers || g_str_equal(text, "false");
}

template <auto Field> static bool take_seconds(linux_configuration &into, const char *text) {
  guint64 seconds = 0;
  const bool good =
      g_ascii_string_to_unsigned(text, 10, 0, kLongestSeconds, &seconds, nullptr) != FALSE;
  into.*Field = static_cast<unsigned>(seconds);
  return good;
}

static constexpr struct {
  std::string_view key;
  bool (*take)(linux_configuration &into, const char *text); // false: not a value of this key
  const char *values;
} kKeys[] = {
    {"rtc", take_rtc, "a device"},
    {"cec", take_cec, "auto, off or a device"},
    {"cec-standby", take_cec_standby, "tv or all"},
    {"off-action", take_off_action, "suspend, poweroff, hibernate or none"},
    {"lead-suspend", take_seconds<&linux_configuration::lead_suspend>, "0 to 86400 seconds"},
    {"lead-poweroff", take_seconds<&linux_configuration::lead_poweroff>, "0 to 86400 seconds"},
    {"return-to-sleep", take_seconds<&linux_configuration::return_to_sleep>, "0 to 86400 seconds"},
    {"keep-timers", take_keep_timers, "true or false"},
};

static void take_key(GKeyFile *file, const char *path, const char *key) {
  const auto known = std::ranges::find_if(kKeys, [=](const auto &row) { return row.key == key; });
  if (known == std::end(kKeys)) {
    report("%s: there is no key \"%s\"", path, key);
    return;
  }
  g_autofree char *text = g_strstrip(g_key_file_get_value(file, kGroup, key, nullptr));
  linux_configuration changed = current;
  if (known->take(changed, text))
    current = changed;
  else
    report("%s: %s cannot be \"%s\", only %s; the default is used", path, key, text, known->values);
}

const linux_configuration &configuration() { return current; }

void read_configuration() {
  const char *given = std::getenv("DRAVEL_CONFIGURATION");
  const char *path = given == nullptr ? "/etc/dravel-manager.conf" : given;
  current = {};
  g_autoptr(GKeyFile) file = g_key_file_new();
  g_autoptr(GError) error = nullptr;
  if (!g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, &error)) {
    if (!g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
      report("%s: %s; the defaults are used", path, error->message);
    return;
  }
  g_auto(GStrv) keys = g_key_file_get_keys(file, kGroup, nullptr, nullptr);
  if (keys == nullptr) {
    report("%s: there is no group [%s]; the defaults are used", path, kGroup);
    return;
  }
  for (char **key = keys; *key != nullptr; ++key)
    take_key(file, path, *key);
}
