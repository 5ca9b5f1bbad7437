// The clock of the Linux platform by its rules: what the TV clock reads, and when the daemon hears
// that it was set.
#pragma once

#include <cstdint>

void start_linux_clock(std::int64_t utc, void (*announce)());
std::int64_t next_of_linux_clock();      // UTC, when pass_linux_clock is wanted
void pass_linux_clock(std::int64_t utc); // may announce
std::int64_t linux_tv_clock(std::int64_t utc);
std::int64_t linux_transition_after(std::int64_t utc); // 0: none
