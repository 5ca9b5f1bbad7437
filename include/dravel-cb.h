// What happens when a timer expires (dravel_expire_cb): three signals, then the action of the
// timer's type.
#pragma once

#include "dravel-api.h"
#include "dravel-record.h"
#include "dravel-runtime.h"

extern "C" {

// Tells a sleeping set the wake-up reason of `item`'s type. Type 0 also turns the set on; type 15,
// or any type in ambient mode 2, switches the ambient mode. Nothing happens while on-timers are
// halted or the set is awake.
DRAVEL_API void process_on_timer(const dravel_item *item);

// Requests a power-off with `option`, unless off-timers are halted.
DRAVEL_API void process_off_timer(unsigned int option);
}
