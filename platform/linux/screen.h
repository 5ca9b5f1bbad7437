// The screen behind the CEC adapter: turns it on and off and knows which it is.
#pragma once

#include "cec.h"

void start_screen(cec_adapter &adapter);

// Turns the screen on or off, with checks and repeats. `settled` is called once: when the
// television says so, or refuses, or after kGiveUpSeconds; at once where there is no adapter.
// Another order before that takes the place of this one, which is then never settled.
void turn_screen(bool on, void (*settled)());

// Forgets an order that is pending.
void leave_screen();

// Asks the television whether it is on; what it says arrives at screen_is (power.h).
void ask_screen();

// What was received, from the logical address `sender`.
void screen_received(std::uint8_t sender, std::span<const std::uint8_t> message);
