// Follows what sets the clock: timedated's NTP, a synchronisation by timesyncd, changes of the time
// zone and steps of the wall clock.
#pragma once

#include "sink.h"

void start_timedated();

// Asks timedated; the answer is the event ntp.
void ask_clock();

// The zone as it is now, as the answer to ask_zone.
event::zone_changed present_zone(std::int64_t utc);
