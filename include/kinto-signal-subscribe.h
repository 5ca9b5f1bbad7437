// The middleware's system-time-updated signal.
#pragma once

#include "dravel-api.h"

extern "C" {

// Subscribe and unsubscribe. A failure to subscribe is logged; the daemon then
// waits 60 seconds after each wake-up.
DRAVEL_API void subscribe_kinto_signal_cb(void);
DRAVEL_API void unsubscribe_kinto_signal_cb(void);
}
