// logind: sends the machine to sleep, and passes sleep, wake-up and shutdown to power.h.
#pragma once

#include "configuration.h"

#include <cstdint>
#include <limits>

void start_sleep();

// No user's activity postpones a sleep.
inline constexpr std::uint32_t kNoUser = std::numeric_limits<std::uint32_t>::max();

// Sends the machine to sleep or off. When another program blocks that, or a user was active later
// than `since`, UTC, `postponed` is called instead. A refusal is reported.
void send_to_sleep(off_action action, std::uint32_t since, void (*postponed)());
