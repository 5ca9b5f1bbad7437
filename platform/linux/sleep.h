// logind: sends the machine to sleep, and passes sleep, wake-up and shutdown to power.h.
#pragma once

#include "configuration.h"

#include <cstdint>
#include <limits>

void start_sleep();

// No user's activity postpones a sleep.
inline constexpr std::uint32_t kNoUser = std::numeric_limits<std::uint32_t>::max();

// Sends the machine to sleep or off. When another program blocks that, or a user was active later
// than `since`, UTC, `postponed` is called instead. A refusal is reported. A new request replaces
// one that logind has not answered yet.
void send_to_sleep(off_action action, std::uint32_t since, void (*postponed)());

// Takes back the request with this `postponed`, unless logind has already got it.
void cancel_sleep(void (*postponed)());
