// The key file of the platform, /etc/dravel-manager.conf, group [linux]. A key that is absent or
// has a bad value keeps its default; a bad one is reported.
#pragma once

#include <string>

enum class off_action { kSuspend, kPoweroff, kHibernate, kNone };

struct linux_configuration {
  std::string rtc = "/dev/rtc0";
  std::string cec = "auto"; // auto, off, or a device
  bool cec_standby_all = false;
  off_action off = off_action::kSuspend;
  unsigned lead_suspend = 15;     // seconds
  unsigned lead_poweroff = 90;    // seconds
  unsigned return_to_sleep = 120; // seconds, 0: never
  bool keep_timers = true;
};

// The values read last; before the first reading, the defaults.
const linux_configuration &configuration();

// A file that does not exist means the defaults.
void read_configuration();
