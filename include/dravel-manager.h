// The daemon's start order and its reverse. `main` runs the loop between the two.
#pragma once

// Starts all parts and queues the loading of the timers for the first idle moment. Returns 0, or -1
// when the settings watchers, the bus service or the power subscriptions could not be registered:
// the main-loop library is then shut down, and the process must end.
int start_dravel(void);

// Called after the main loop has returned: ends the subscriptions to the middleware's signal, the
// ambient mode and the power events, releases the tables, closes the store and shuts Ecore down.
// The settings watchers, the bus service and the lists end with the process.
void stop_dravel(void);
