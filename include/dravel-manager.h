// The daemon's start order and its reverse. `main` runs the loop between the two.
#pragma once

// Starts all parts and queues the loading of the timers for the first idle moment. Returns 0, or -1
// when the settings watchers, the bus service or the power subscriptions could not be registered:
// the main-loop library is then shut down, and the process must end.
int start_dravel(void);

// Stops what start_dravel started. Called after the main loop has returned.
void stop_dravel(void);
