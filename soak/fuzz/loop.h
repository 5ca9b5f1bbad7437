// The main loop's timers and the system clock, under the fuzzer's hand: a timer fires when an input
// says so. Each timer is an allocation of its own, so that the sanitizers see what becomes of it.
#pragma once

#include <cstddef>
#include <ctime>

#include <Ecore.h>

struct loop_timer {
  double seconds;
  Ecore_Task_Cb callback;
  void *data;
  bool running = false;
  bool deleted = false; // by its own callback
};

std::size_t live_timer_count();
const loop_timer &live_timer(std::size_t index);

// Lets one fire; it ends unless its callback asks for more.
void fire_timer(std::size_t index);

// Runs what the daemon does at the end of each pass of the loop.
void end_pass();

void set_system_clock(std::time_t now);

// Ends the run with a report: the daemon is not in a state that it may be in.
[[noreturn]] void breach(const char *what);
