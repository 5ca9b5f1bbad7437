// The key file of the platform, /etc/dravel-manager.conf, group [linux].
#pragma once

#include "machine.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct linux_configuration {
  settings decisions;
  std::string rtc = "auto"; // auto, or a device
  std::string cec = "auto"; // auto, off, or a device
  bool cec_standby_all = false;
  std::optional<std::uint16_t> cec_physical_address; // nothing: the output's EDID has it
  bool keep_timers = true;
};

// The values in force; before the first reading, the defaults.
const linux_configuration &configuration();

// What is bad is one line in the journal each, and one of configuration_faults(). At the first
// reading the default takes its place, later the value in force stays. A key that is absent has its
// default, as has every key of a file that does not exist.
void read_configuration();

// What the last reading found: "/etc/dravel-manager.conf: there is no key ...".
const std::vector<std::string> &configuration_faults();
