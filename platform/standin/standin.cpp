#include "standin.h"

#include "standin_private.h"

#include <KintoAPI.h>
#include <device_power.h>
#include <settings.h>
#include <system_log.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

struct settings_key {
  const char *name;
};

namespace {

// A set that runs for weeks keeps what it was asked lately.
constexpr std::size_t kKeptRequests = 1024;

// What can be refused: every operation that has a way to say so.
constexpr std::string_view kRefusable[] = {
    "device_power_get_state",
    "device_power_get_ambient_mode",
    "device_power_get_wakeup_reason",
    "device_power_set_wakeup_reason",
    "device_power_set_state",
    "device_power_request_poweroff",
    "device_power_subscribe_poweroff",
    "device_power_subscribe_standby",
    "device_power_subscribe_wakeup",
    "device_power_subscribe_ambient_poweroff",
    "device_power_subscribe_state_changed_event",
    "device_power_unsubscribe_poweroff",
    "device_power_unsubscribe_standby",
    "device_power_unsubscribe_wakeup",
    "device_power_unsubscribe_ambient_poweroff",
    "device_power_unsubscribe_state_changed_event",
    "read_rtc",
    "set_wakeup_time",
    "clear_wakeup_time",
    "GetCurrentTime",
    "GetClockMode",
    "Unsigned_timegm",
    "settings_get_int",
    "settings_notify_key_changed",
    "system_info_get_custom_bool",
    "screen_manager_set_ambient_mode",
    "CreateSignalSubscriber",
    "DestroySignalSubscriber",
    "Subscribe",
    "Unsubscribe",
};

struct held_callback {
  std::string_view subscription;
  standin_callback callback;
  void *user_data;
};

standin_set the_set;
bool switched_on = false;
std::vector<held_callback> held_callbacks;

template <class Callback, class... Arguments>
void deliver(std::string_view subscription, Arguments... arguments) {
  const auto callbacks = held_callbacks; // one of them may end its subscription
  for (const held_callback &held : callbacks)
    if (held.subscription == subscription)
      reinterpret_cast<Callback>(held.callback)(arguments..., held.user_data);
}

} // namespace

standin_set &standin() {
  if (!switched_on) {
    switched_on = true;
    if (const char *path = std::getenv("DRAVEL_STANDIN"))
      standin_read_key_file(path);
  }
  return the_set;
}

void standin_reset() {
  switched_on = true;
  the_set = {};
  held_callbacks.clear();
  standin_reset_clocks();
}

bool standin_refuses(std::string_view operation) {
  const auto &refused = standin().refused;
  return !refused.empty() && refused.contains(operation);
}

std::string standin_refused_list() {
  std::string list;
  for (const std::string &operation : standin().refused)
    list += (list.empty() ? "" : ",") + operation;
  return list;
}

bool standin_set_refused_list(std::string_view list) {
  decltype(standin_set::refused) refused;
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    std::string operation{list.substr(0, comma)};
    list.remove_prefix(std::min(comma + 1, list.size()));
    std::erase(operation, ' ');
    if (operation.empty())
      continue;
    if (std::ranges::find(kRefusable, operation) == std::end(kRefusable))
      return false;
    refused.insert(operation);
  }
  standin().refused = std::move(refused);
  return true;
}

void standin_note(const char *operation, std::uint32_t first, std::uint32_t second) {
  auto &requests = standin().requests;
  if (requests.size() == kKeptRequests)
    requests.pop_front();
  standin_send_requested(requests.emplace_back(standin_request{operation, first, second}));
}

int standin_add_callback(const char *subscription, standin_callback callback, void *user_data) {
  if (!callback)
    return -1;
  held_callbacks.push_back({subscription, callback, user_data});
  return 0;
}

int standin_remove_callback(const char *subscription, standin_callback callback) {
  const auto held = std::ranges::find_if(held_callbacks, [&](const held_callback &candidate) {
    return candidate.subscription == subscription && candidate.callback == callback;
  });
  if (held == held_callbacks.end())
    return -1;
  held_callbacks.erase(held);
  return 0;
}

int standin_subscribers(const char *subscription) {
  return static_cast<int>(
      std::ranges::count(held_callbacks, subscription, &held_callback::subscription));
}

void standin_announce(const char *key) {
  settings_key changed{key};
  deliver<settings_changed_cb>(key, &changed);
}

void standin_change_clock_mode(int mode) {
  standin().clock_mode = mode;
  standin_announce(kSettingsClockMode);
}

void standin_announce_time_set() { standin_announce(kSettingsTimeSet); }

void standin_power_off(int option) { deliver<device_power_option_cb>("poweroff", option); }

void standin_standby(int option) { deliver<device_power_option_cb>("standby", option); }

void standin_wakeup(int reason) { deliver<device_power_option_cb>("wakeup", reason); }

void standin_ambient_power_off() { deliver<device_power_ambient_poweroff_cb>("ambient_poweroff"); }

void standin_state_changed(int state, int ambient_mode) {
  const device_power_event event = {{}, state, 0, ambient_mode};
  deliver<device_power_state_changed_cb>("state_changed_event", &event);
}

void standin_middleware_signal(int type) {
  deliver<SignalCallback>("signal", static_cast<ESignalType>(type), PROFILE_MAIN, std::uint16_t{0},
                          TSSignalData{});
}
