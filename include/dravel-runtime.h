// The daemon's runtime flags, and the three operations that modules below their own call: disarming
// and re-arming, for an eviction, and the expiry, which the scheduler arms timers with.
#pragma once

#include "dravel-api.h"

struct dravel_item;

// The start-up markers: the daemon has started in this boot, and has scheduled its timers.
constexpr const char *kInitMarkerPath = "/tmp/dravel_init";
constexpr const char *kFinishMarkerPath = "/tmp/dravel_finish";

extern "C" {

// Non-zero: expiring on-timers do not turn the set on.
DRAVEL_API extern int ontimer_halt;
// Non-zero: expiring off-timers do not power the set off.
DRAVEL_API extern int offtimer_halt;
// True once power state changes are subscribed.
DRAVEL_API extern bool ambient_poweroff_received;

// Whether the TV clock is known to be valid, so that timers may be armed; 1 at
// start. The setters store a value as it is given.
DRAVEL_API void set_kinto_time_updated(int value);
DRAVEL_API int get_kinto_time_updated(void);

// Whether the daemon ran before in this boot; 0 at start.
DRAVEL_API void set_relaunch_state(int value);
DRAVEL_API int get_relaunch_state(void);

// Whether the set is awake; 1 at start.
DRAVEL_API void set_wakeup_state(int value);
DRAVEL_API int get_wakeup_state(void); // no caller here

// Whether the middleware updated the time in automatic clock mode; 0 at start.
DRAVEL_API void set_auto_clock_mode_time_update(int value);
DRAVEL_API int get_auto_clock_mode_time_update(void);

// Disarms the item `timer_id`, if it is armed.
DRAVEL_API void cancel_ecore_timer(int timer_id);

// Arms the next on-timer, after an off-timer has left the list that may have taken its time.
DRAVEL_API void rearm_next_ontimer(void);

// The expiry callback of every armed item. It must not disarm or remove the
// item: the scheduler reads it afterwards.
DRAVEL_API void dravel_expire_cb(dravel_item *item, void *data);
}
