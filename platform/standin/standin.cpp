#include "standin.h"

#include "standin_private.h"

#include <KintoAPI.h>
#include <device_power.h>
#include <settings.h>
#include <system_log.h>

#include <algorithm>
#include <cstdlib>

struct settings_key {
  const char *name;
};

// Only the latest requests are kept, so that memory stays bounded.
static constexpr std::size_t kKeptRequests = 1024;

static standin_set the_set;
static bool switched_on = false;
static callback_list held_callbacks;

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
    if (std::ranges::find(kStandinOperations, operation) == std::end(kStandinOperations))
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

callback_list &standin_callbacks() { return held_callbacks; }

int standin_subscribers(const char *subscription) { return held_callbacks.count(subscription); }

void standin_announce(const char *key) {
  settings_key changed{key};
  held_callbacks.deliver<settings_changed_cb>(key, &changed);
}

void standin_change_clock_mode(int mode) {
  standin().clock_mode = mode;
  standin_announce(kSettingsClockMode);
}

void standin_announce_time_set() { standin_announce(kSettingsTimeSet); }

void standin_power_off(int option) {
  held_callbacks.deliver<device_power_option_cb>("poweroff", option);
}

void standin_standby(int option) {
  held_callbacks.deliver<device_power_option_cb>("standby", option);
}

void standin_wakeup(int reason) {
  held_callbacks.deliver<device_power_option_cb>("wakeup", reason);
}

void standin_ambient_power_off() {
  held_callbacks.deliver<device_power_ambient_poweroff_cb>("ambient_poweroff");
}

void standin_state_changed(int state, int ambient_mode) {
  const device_power_event event = {{}, state, 0, ambient_mode};
  held_callbacks.deliver<device_power_state_changed_cb>("state_changed_event", &event);
}

void standin_middleware_signal(int type) {
  held_callbacks.deliver<SignalCallback>("signal", static_cast<ESignalType>(type), PROFILE_MAIN,
                                         std::uint16_t{0}, TSSignalData{});
}
