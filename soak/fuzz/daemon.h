// One run of the daemon in the fuzzer's process: an input is what the daemon finds at its start,
// then calls, events of the set and expiries. After each step the state is checked.
#pragma once

#include "fixture.h"
#include "input.h"

// What the start finds in the store: nothing, or what the target `rows` writes.
void prepare_store(input &in);

extern int last_transient; // the id of the last transient timer

// Any number, with those first at which something changes.
int draw_number(input &in);
// The arguments of a timer, and of a disabled period, that somebody could want. Times coincide
// often.
std::vector<int> draw_timer(input &in);
std::vector<int> draw_period(input &in);

std::string joined(const std::vector<std::string> &values); // by commas
