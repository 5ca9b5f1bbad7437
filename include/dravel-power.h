// The power service's numbers that the daemon compares and asks for.
#pragma once

#include <device_power.h>

enum ambient_mode { AMBIENT_MODE_CLOSED = 0, AMBIENT_MODE_LOW_POWER = 2 };

// Wake-up reasons 0 and 1 stand for no reason and for the user.
constexpr bool is_woken_by_timer(int reason) { return reason < 0 || reason > 1; }

// Power-off events with the options 13 and 14 delete the store.
constexpr bool is_resetting_poweroff(int option) { return option == 13 || option == 14; }

// The screen shows its ambient mode, the set sleeps.
constexpr bool is_ambient_low_power(int state, int mode) {
  return state == DEVICE_POWER_STATE_AMBIENT && mode == AMBIENT_MODE_LOW_POWER;
}
