// The screen behind the CEC adapter: turns it on and off and asks for its state.
#pragma once

#include "cec.h"

void start_screen(cec_adapter &used);

// Turns the screen on or off, with checks and repeats. `settled` is called once: when the
// television reports the new state or does not know the message, after 15 seconds without that, or
// before this function returns when the television cannot be reached. When a new order replaces a
// pending one, the pending one's `settled` is not called.
void turn_screen(bool on, void (*settled)());

// Drops a pending order; its `settled` is not called.
void leave_screen();

// The adapter has got its address: a pending order is sent now, otherwise the television is asked.
void screen_is_reachable();

// Asks the television whether it is on. Its answer is passed to screen_is (power.h).
void ask_screen();

// Takes a message that was received from the logical address `sender`.
void screen_received(std::uint8_t sender, std::span<const std::uint8_t> message);
