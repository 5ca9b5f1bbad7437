// The machine on the bus, beside the state object: what is believed about it, the screen, and a
// test of the wake-up.
#pragma once

#include "sink.h"

#include <string>

void start_machine_object(event_sink sink);

// Sends what has changed. `adapter` is what the television is reached by, "" when by the targets
// only.
void show_machine(const machine &record, const std::string &adapter);

// Ends the call of TestWake.
void answer_test_wake(const order::answer &answered);
