// Sends a machine that its alarm has woken to sleep again when nothing turns the screen on.
#pragma once

#include "configuration.h"

#include <cstdint>

// `action` is done return-to-sleep seconds after `from`, UTC; never when the configuration says 0.
// A user who is active meanwhile, or a program that blocks sleep, starts the count again.
void start_return(off_action action, std::uint32_t from);
void stop_return();

// Starts the count again, if there is one.
void restart_return();

bool is_return_due();
