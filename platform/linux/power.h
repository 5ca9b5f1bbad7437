// The power state of the set. It changes by the daemon's requests and by events of the machine, its
// alarm, its user and the television.
#pragma once

#include "state.h"

// `left` is the wake-up that the last run left programmed: it may have booted the machine.
void start_power(const wake_up &left);

// From logind, in the order in which they happen.
void machine_goes_to_sleep();
void machine_woke_up();
void machine_shuts_down();
void machine_stays_up(); // the shutdown was called off
void user_is_active();

// From the television.
void screen_is(bool on);
