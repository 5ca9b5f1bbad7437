// A life of the daemon in the fuzzer's process: from a clean set, through its own start, to a clean
// set again, and what must hold in between.
#pragma once

#include <string>

#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-timer.h"
#include "input.h"
#include "loop.h"

// Noon of Tuesday, 15 December 2026: where the clocks stand at first.
constexpr time_value kNoon = 1797336000;

constexpr std::size_t kMaxStoredTimers = 80;

// The clocks stand still at noon, the set refuses nothing.
void reset_set();

// Closes the store and removes its files, or puts new ones in their place and opens them.
void remove_store();
void open_new_store();

// Starts the daemon as its main does, up to the main loop; it finds a new store that is open, or
// else opens what there is. False when it would have given up.
bool start_daemon();

// What it does in its first idle moment.
void load_and_schedule();

// Cancels and removes everything by the daemon's own operations and lets it end, up to its store,
// which is then new. Aborts when something of it remains.
void stop_daemon();

// Aborts when something does not hold that always must. More than `most` stored timers may not be
// listed.
void check_state(std::size_t most = kMaxStoredTimers);

// Looks for memory that nobody holds any more, now and then: too slow for every input. libFuzzer
// itself would do so only until it has seen a thousand inputs that leave more allocated than
// before, which a timer whose row cannot be deleted rightly does.
void check_leaks();

// A reading that a clock may have: mostly around noon, sometimes 0 or at the end of what it shows.
time_value draw_clock(input &in);

// Any number, with those first at which something changes.
int draw_number(input &in);

// A timer that somebody could want, as the bus takes it: 15 numbers, near the TV clock. Times
// coincide often.
struct wanted_timer {
  int values[15];
};
wanted_timer draw_timer(input &in);

// A disabled period likewise: 20 numbers.
struct wanted_period {
  int values[20];
};
wanted_period draw_period(input &in);

// The id of a listed timer or period, or -1 with none listed.
int draw_timer_id(input &in);
int draw_period_id(input &in);

// Lets one thing happen on the set.
void draw_event(input &in);

// Lets one main-loop timer fire, with the clock moved to its time or not.
void draw_expiry(input &in);
