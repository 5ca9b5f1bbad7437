// A clock of the kernel's in milliseconds.
#pragma once

#include <cstdint>
#include <ctime>

inline constexpr int kMillisecondUs = 1000; // microseconds

inline std::int64_t milliseconds_of(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}
