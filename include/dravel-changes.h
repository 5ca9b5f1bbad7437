// What happens to timers and clocks, told by the modules that do it, once they have done it. They
// call nothing above them: this header includes nothing, and dravel-state listens.
#pragma once

// Why a timer left the list.
enum class removal_reason { kFired, kCancelled, kReplaced, kEvicted, kPast, kNever, kLost };

void timer_added(int timer_id);
// The timer was moved to another date, or disabled periods count for it now or no longer.
void timer_changed(int timer_id);
void timer_removed(int timer_id, removal_reason reason);
// The timer was announced as expired. A one-shot one then leaves the list as past: that is told as
// kFired.
void timer_fired(int timer_id);

// The TV clock may have been set.
void clock_set(void);
// Something else may have changed that the state object shows.
void state_touched(void);
