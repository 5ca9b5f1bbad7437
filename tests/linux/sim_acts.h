// What may happen in a night.
#pragma once

#include "sim.h"

#include <span>

using act_range = std::pair<std::int64_t, std::int64_t>;

struct act {
  const char *name;
  int weight; // how often it is drawn; below 0: only at the start, in one of so many nights
  act_range a, b;
  void (*does)(sim &, std::int64_t a, std::int64_t b);
  bool is_noticed = false; // by a restart: a night with it is not compared with one with a restart
};

inline constexpr int kAddTimer = 0;       // its row
inline constexpr std::int64_t kDaily = 4; // a daily on-timer; below, the type

std::span<const act> acts();
