// What may happen in a night.
#pragma once

#include "sim.h"

#include <span>

using act_range = std::pair<std::int64_t, std::int64_t>;

enum act_flags {
  kAwake = 1,   // happens only to a machine that runs
  kNoticed = 2, // by a restart: a night with it is not compared with one with a restart
};

struct act {
  const char *name;
  int weight; // how often it is drawn; below 0: only at the start, in one of so many nights
  act_range a, b;
  void (*does)(sim &, std::int64_t a, std::int64_t b);
  int flags = 0;
};

inline constexpr int kAddTimer = 0;       // its row
inline constexpr std::int64_t kDaily = 4; // a daily on-timer; below, the type

std::span<const act> acts();
