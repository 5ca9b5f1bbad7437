// The middleware's system-time-updated signal.
#pragma once

#include "dravel-api.h"

extern "C" {

// Starts and ends listening. A failure to start is logged; the daemon then
// relies on its own waits.
DRAVEL_API void subscribe_kinto_signal_cb(void);
DRAVEL_API void unsubscribe_kinto_signal_cb(void);
}
