// The daemon's bus service: its name, object, methods and signals.
#pragma once

#include "dravel-api.h"

extern "C" {

// Connects to the system bus and exports the service. Returns 0, also when the
// service exists already, or -1.
DRAVEL_API int init_edbus_handler(void);

// Shuts the bus library down; returns 0. No caller here: the daemon keeps the
// service until it ends.
DRAVEL_API int shutdown_edbus_handler(void);

// Send one expiry signal each. Return 0, also when it could not be sent.
DRAVEL_API int send_expire_signal(int timer_id);
DRAVEL_API int send_expire_by_type_signal(int type);
DRAVEL_API int send_expire_week_flag_signal(int week_flag);
}
