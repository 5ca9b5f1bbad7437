#include "standin.h"

#include "standin_private.h"

#include <daemon_callbacks.h>

#include <algorithm>
#include <cstdlib>

// Only the latest requests are kept, so that memory stays bounded.
static constexpr std::size_t kKeptRequests = 1024;

static standin_set the_set;
static bool switched_on = false;

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
  daemon_callbacks().clear();
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

int standin_subscribers(const char *subscription) { return daemon_callbacks().count(subscription); }

void standin_change_clock_mode(int mode) {
  standin().clock_mode = mode;
  deliver_setting(kSettingsClockMode);
}

void standin_announce_time_set() { deliver_setting(kSettingsTimeSet); }

void standin_power_off(int option) { deliver_poweroff(option); }

void standin_standby(int option) { deliver_standby(option); }

void standin_wakeup(int reason) { deliver_wakeup(reason); }

void standin_ambient_power_off() { deliver_ambient_poweroff(); }

void standin_state_changed(int state, int ambient_mode) {
  deliver_state_changed(state, ambient_mode);
}

void standin_middleware_signal(int type) { deliver_signal(type); }
