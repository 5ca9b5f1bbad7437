// The machine on the bus, beside the state object: what is believed about it, the screen, and a
// test of the wake-up.
#pragma once

#include "sink.h"

#include <string>

// Where it gets what it shows: the record, and what the television is reached by, "" when by the
// targets only.
struct machine_view {
  const machine &(*record)();
  std::string (*adapter)();
};
void start_machine_object(const machine_view &view);

// Sends what has changed since the last time.
void announce_machine();

// Ends the call of TestWake.
void answer_test_wake(const order::answer &answered);
