// The documents that stand at the broker, in the tool's own form. What counts down is left out: a
// document is as old as the last change.
#pragma once

#include "client.h"

#include <optional>
#include <string>

struct documents {
  std::string state;
  std::string compared; // `state` without the clock: a change of it alone is none
  std::string timers;
  std::string week;
  std::optional<bool> has_machine; // empty: only the daemon knows
};

documents documents_of(client &client, const snapshot &view, const std::string &machine_id);

// While the daemon is not there.
documents documents_without(const std::string &problem, const std::string &machine_id);
