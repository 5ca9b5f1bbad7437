// What happens to timers and clocks, told by the modules that do it, once they have done it. They
// call nothing above them: this header includes nothing, and dravel-state listens.
#pragma once

// Why a timer left the list.
enum class removal_reason { kFired, kCancelled, kReplaced, kEvicted, kPast, kNever, kLost };

void timer_added(int timer_id);
// The timer was moved to another date, or disabled periods count for it now or no longer.
void timer_changed(int timer_id);
void timer_removed(int timer_id, removal_reason reason);
// The timer was announced as expired. One that fires `once` then leaves the list as past, or as
// never where the clock was set back meanwhile: that is told as kFired, also after a disabled
// period has moved it.
void timer_fired(int timer_id, bool once);

// The timer is due, but its action is halted.
void timer_halted(int timer_id);
// The timer is due on a day of a disabled period: it does not fire.
void timer_skipped(int timer_id);

// The power control was asked to wake the set at the programmed on-time.
void ontime_requested(bool is_accepted);

// The TV clock may have been set.
void clock_set(void);
// Something else may have changed that the state object shows.
void state_touched(void);
