// What outlives the process. The state directory, STATE_DIRECTORY or /var/lib/dravel-manager, is
// for the next boot. The runtime directory, RUNTIME_DIRECTORY or /run/dravel-manager, is for the
// next run: a boot empties it.
#pragma once

#include <cstdint>
#include <optional>

// A wake-up that was asked for. All times are UTC; an on-time of 0 means none.
struct wake_up {
  std::uint32_t type = 0;
  std::uint32_t on_time = 0;
  std::uint32_t alarm = 0; // when the real-time clock goes off; 0: the device has no alarm for it

  bool operator==(const wake_up &) const = default;
};

// The power state and who woke the machine.
struct power_record {
  int state;
  int wakeup_reason;
  bool was_booted;
  bool returns; // to sleep, when nothing turns the screen on

  bool operator==(const power_record &) const = default;
};

// False when another daemon of this machine holds the state directory, or this user has no access
// to it. The lock ends with the process.
bool lock_state();

// The wake-up that is programmed, for the next boot. One that cannot be kept is reported; one that
// cannot be read counts as none.
void keep_wake_up(const wake_up &wake);
wake_up kept_wake_up();

// The power state, for the next run. Nothing is kept before the first run since the boot.
void keep_power(const power_record &power);
std::optional<power_record> kept_power();
