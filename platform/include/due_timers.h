// What the daemon offers to the set it runs on: which timers became due while the set slept and no
// main loop ran. The daemon defines the operation; a platform calls it.
#pragma once

#include <cstddef>
#include <cstdint>

struct due_timer {
  int timer_id;
  int type;
  std::uint32_t time; // of the TV clock
};

extern "C" {

// Finds the timers that became due after `from` and up to `until`, times of the TV clock, and would
// have fired: armed timers without their occurrences in disabled periods, those that were armed
// until the clock became unknown, or that an unknown clock has kept from being armed at the start,
// and none of the on- or off-timers while these are halted. What is added while the clock is
// unknown may have been past then, and does not count. A repeating timer's past occurrences count
// also when the daemon has armed it for a later one; one-shot timers that were past when the daemon
// started with a known clock are found by the first question alone. Writes the last `room` of them
// into `out`, by time, and returns how many. It changes nothing else. At the wake-up event, and
// when it hears of a clock that is known now, the daemon arms all timers again: ask before.
std::size_t dravel_due_timers(std::uint32_t from, std::uint32_t until, struct due_timer *out,
                              std::size_t room);
}
