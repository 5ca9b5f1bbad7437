// What the benchmarks share: clocks, the services that they measure and the timers that these hold.
#pragma once

#include "process.h"
#include "store.h"

#include <cstdint>
#include <string>
#include <vector>

constexpr bus_target kBare = {"org.olvara.tv.bare", "/org/olvara/tv/bare", "org.olvara.tv.bare"};
constexpr const char *kBareStore = "/opt/dbspace/bare.db";
constexpr const char *kBareWakeupStore = "/opt/dbspace/bare-wakeup.db";

// The `index`-th of a household's timers: on- and off-timers in turn, each a quarter of an hour
// after the one before; half of them repeat when `repeating`.
timer_arguments household_timer(std::uint32_t from, int index, bool repeating);
timer_arguments timer_at(std::uint32_t time, int type, int week_flag);

std::uint32_t wall_clock();  // whole seconds, as the set's clocks count
double precise_wall_clock(); // seconds
double microseconds();       // of the monotonic clock

// Services started later log errors alone, as on a set, whose clocks run.
void prepare_measuring();

// Returns once the service has its name.
process start_service(bus_client &bus, const bus_target &target,
                      const std::vector<std::string> &command);
