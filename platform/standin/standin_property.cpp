#include "standin_private.h"

#include <glib.h>
#include <system_log.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>

static constexpr const char *kTag = "STANDIN";
static constexpr const char *kGroup = "set";

namespace {

struct FreeKeyFile {
  void operator()(GKeyFile *file) const { g_key_file_unref(file); }
};
struct FreeText {
  void operator()(char *text) const { g_free(text); }
};

} // namespace

template <auto Field> static standin_value get_field() { return {standin().*Field, {}}; }

template <auto Field> static bool set_field(const standin_value &value) {
  auto &field = standin().*Field;
  field = static_cast<std::remove_reference_t<decltype(field)>>(value.number);
  return true;
}

static standin_value get_tv_clock() { return {standin_tv_clock(), {}}; }

static bool set_tv_clock(const standin_value &value) {
  standin_set_tv_clock(static_cast<std::uint32_t>(value.number));
  return true;
}

static standin_value get_rtc() { return {standin_rtc(), {}}; }

static bool set_rtc(const standin_value &value) {
  standin_set_rtc(static_cast<std::uint32_t>(value.number));
  return true;
}

static standin_value get_clocks_running() { return {standin_clocks_running() ? 1 : 0, {}}; }

static bool set_clocks_running(const standin_value &value) {
  standin_run_clocks(value.number != 0);
  return true;
}

static standin_value get_time_zone() { return {0, standin_time_zone()}; }

static bool set_time_zone(const standin_value &value) {
  return standin_set_time_zone(value.text.c_str());
}

static bool set_clock_mode(const standin_value &value) {
  standin_change_clock_mode(static_cast<int>(value.number));
  return true;
}

static bool set_sync_db(const standin_value &value) {
  return value.number >= -1 && value.number <= 1 && set_field<&standin_set::sync_db>(value);
}

static standin_value get_refused() { return {0, standin_refused_list()}; }

static bool set_refused(const standin_value &value) { return standin_set_refused_list(value.text); }

// The key file's values are taken in this order: the clock that is to stand
// still must have its zone by then.
static constexpr standin_property kProperties[] = {
    {"TimeZone", 's', true, get_time_zone, set_time_zone},
    {"TvClock", 'u', true, get_tv_clock, set_tv_clock},
    {"Rtc", 'u', true, get_rtc, set_rtc},
    {"ClocksRunning", 'b', true, get_clocks_running, set_clocks_running},
    {"ClockMode", 'i', true, get_field<&standin_set::clock_mode>, set_clock_mode},
    {"PowerState", 'i', true, get_field<&standin_set::power_state>,
     set_field<&standin_set::power_state>},
    {"AmbientMode", 'i', true, get_field<&standin_set::ambient_mode>,
     set_field<&standin_set::ambient_mode>},
    {"WakeupReason", 'i', true, get_field<&standin_set::wakeup_reason>,
     set_field<&standin_set::wakeup_reason>},
    {"SyncDb", 'i', true, get_field<&standin_set::sync_db>, set_sync_db},
    {"WakeupTime", 'u', false, get_field<&standin_set::wakeup_time>,
     set_field<&standin_set::wakeup_time>},
    {"WakeupType", 'u', false, get_field<&standin_set::wakeup_type>,
     set_field<&standin_set::wakeup_type>},
    {"Refuse", 's', true, get_refused, set_refused},
};

static std::optional<std::int64_t> parse_number(const char *text, std::int64_t least,
                                                std::int64_t most) {
  gint64 number = 0;
  if (!g_ascii_string_to_signed(text, 10, least, most, &number, nullptr))
    return std::nullopt;
  return number;
}

static std::optional<standin_value> parse_value(char type, const char *text) {
  std::optional<std::int64_t> number;
  switch (type) {
  case 's':
    return standin_value{0, text};
  case 'b':
    if (g_str_equal(text, "true") || g_str_equal(text, "false"))
      number = g_str_equal(text, "true");
    break;
  case 'u':
    number = parse_number(text, 0, std::numeric_limits<std::uint32_t>::max());
    break;
  default:
    number = parse_number(text, std::numeric_limits<std::int32_t>::min(),
                          std::numeric_limits<std::int32_t>::max());
  }
  if (!number)
    return std::nullopt;
  return standin_value{*number, {}};
}

std::span<const standin_property> standin_properties() { return kProperties; }

bool standin_read_key_file(const char *path) {
  const std::unique_ptr<GKeyFile, FreeKeyFile> file{g_key_file_new()};
  if (!g_key_file_load_from_file(file.get(), path, G_KEY_FILE_NONE, nullptr)) {
    system_log_print(SYSTEM_LOG_ERROR, kTag, "cannot read %s", path);
    return false;
  }
  for (const standin_property &property : kProperties) {
    if (!g_key_file_has_key(file.get(), kGroup, property.name, nullptr))
      continue;
    // The raw value: invalid UTF-8 must be reported as well.
    const std::unique_ptr<char, FreeText> text{
        g_key_file_get_value(file.get(), kGroup, property.name, nullptr)};
    const auto value = parse_value(property.type, g_strstrip(text.get()));
    if (!value || !property.set(*value))
      system_log_print(SYSTEM_LOG_ERROR, kTag, "%s: %s cannot be \"%s\"", path, property.name,
                       text.get());
  }
  return true;
}
