// What the machine object of the daemon shows, on a platform that is a machine: the screen, the
// alarm that wakes it, its sleep and its problems.
#pragma once

#include <machine_bus.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <string>
#include <vector>

struct machine_state {     // times are UTC; 1970: none
  std::string screen{};    // "on", "off", "unknown"
  std::string screen_by{}; // the CEC adapter and its address, or "targets"
  std::chrono::sys_seconds alarm{};
  std::string alarm_for{}; // "timer", "hop", "test", "foreign", "none"
  std::string alarm_problem{};
  std::chrono::sys_seconds last_wake{};
  std::string last_cause{};
  std::chrono::sys_seconds sleeps_at{};
  std::string postponed{}; // why not
  std::vector<std::string> problems{};
};

machine_state machine_state_of(sd_bus_message *properties);
