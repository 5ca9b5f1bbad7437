// The state object: what the daemon will do, for every local user to read, and its signals. The
// other modules report here what happens to timers, once they have done it. All that happens in one
// pass of the main loop is gathered and sent at its end, after the replies and the expiry signals;
// in a burst of calls, every 20 ms.
#pragma once

#include "dravel-record.h"

#include <vector>

struct E_DBus_Connection;

// Why a timer left the list.
enum class removal_reason { kFired, kCancelled, kReplaced, kEvicted, kPast, kNever, kLost };

// One signal to be sent.
struct timer_change {
  const char *signal;
  int timer_id;
  const char *reason; // the word for it; null unless the timer was removed
};

// Adds the object to the daemon's connection. A failure is logged; the daemon continues.
void init_state_object(E_DBus_Connection *bus);
void fini_state_object(void); // before the binding shuts down

void state_timer_added(int timer_id);
// The timer was moved to another date, or disabled periods count for it now or no longer.
void state_timer_changed(int timer_id);
void state_timer_removed(int timer_id, removal_reason reason);
// The timer was announced as expired. In this pass a one-shot one then leaves the list as kFired.
void state_timer_fired(int timer_id);

// The TV clock may have been set.
void state_clock_set(void);
// Something else that the properties show may have changed.
void state_touched(void);

// Why `item`, for which scheduling said that it never fires, leaves the list.
removal_reason reason_of_no_expiry(const dravel_item *item);

// The signals of this pass so far. The next pass begins.
std::vector<timer_change> take_timer_changes(void);
