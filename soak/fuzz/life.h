// One run of the daemon in the fuzzer's process: an input is what the daemon finds at its start,
// then calls, events of the set and expiries. After each step the state is checked.
#pragma once

#include "fixture.h"
#include "input.h"

// The target's part: what the start finds in the store.
void prepare_store(input &in);

// A call of one of the daemon's methods, mostly with arguments of its signature, sometimes with
// more, fewer or other ones. The reply is checked.
void call_any(input &in);
void call_schedule(input &in); // once, or more often

// How many stored timers may be listed. A full list loses the timer with the lowest id, a transient
// one where there is one: each that was accepted makes room for one stored timer more. And the id
// of the last transient timer.
extern std::size_t most_stored;
extern int last_transient;

// Any number, with those first at which something changes.
int draw_number(input &in);
std::string joined(const std::vector<std::string> &values); // by commas
// The arguments of a timer, and of a disabled period, that somebody could want. Times coincide
// often.
std::vector<int> draw_timer(input &in);
std::vector<int> draw_period(input &in);
