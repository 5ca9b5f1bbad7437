// The power service's numbers that the daemon compares and asks for.
#pragma once

enum power_state { POWER_STATE_ON = 0, POWER_STATE_SLEEPING = 2, POWER_STATE_AMBIENT = 4 };

enum ambient_mode { AMBIENT_MODE_CLOSED = 0, AMBIENT_MODE_LOW_POWER = 2 };

// True for the two power-off options that forget every timer.
constexpr bool is_resetting_poweroff(int option) { return option == 13 || option == 14; }

enum poweroff_option : unsigned {
  POWEROFF_BY_OFF_TIMER = 1,
  POWEROFF_BY_TRANSIENT_TIMER = 2,
  POWEROFF_AMBIENT_TO_SUSPEND = 0x4000001A,
};

// The screen shows its ambient mode, the set sleeps.
constexpr bool is_ambient_low_power(int state, int mode) {
  return state == POWER_STATE_AMBIENT && mode == AMBIENT_MODE_LOW_POWER;
}
