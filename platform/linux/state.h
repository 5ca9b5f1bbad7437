// The state directory: the one given by systemd in STATE_DIRECTORY, else /var/lib/dravel-manager.
#pragma once

#include <cstdint>

// A wake-up that was asked for. All times are UTC; an on-time of 0 means none.
struct wake_up {
  std::uint32_t type = 0;
  std::uint32_t on_time = 0;
  std::uint32_t alarm = 0; // when the real-time clock goes off

  bool operator==(const wake_up &) const = default;
};

// False when another daemon of this machine holds the directory. The lock ends with the process.
bool lock_state();

// The wake-up that is programmed, for the next boot. One that cannot be kept is reported; one that
// cannot be read counts as none.
void keep_wake_up(const wake_up &wake);
wake_up kept_wake_up();
