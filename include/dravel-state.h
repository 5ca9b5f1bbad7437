// The state object: what the daemon will do, for every local user to read, and its signals. It
// listens to dravel-changes.h. All that happens in one pass of the main loop is gathered and sent
// at its end, after the replies and the expiry signals; in a burst of calls, every 20 ms.
#pragma once

struct E_DBus_Connection;

// Adds the object to the daemon's connection. A failure is logged; the daemon continues.
void init_state_object(E_DBus_Connection *bus);
void fini_state_object(void); // before the binding shuts down
