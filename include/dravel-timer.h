// The scheduler: start-up markers and runtime flags, one main-loop timer for
// each armed item, the wake-up time in the micro-controller, and the set's
// power, settings and clock events.
//
// An item is armed exactly when its id is in both scheduled-timer tables. It is
// always disarmed before it is armed again or removed.
#pragma once

#include "dravel-api.h"
#include "dravel-changes.h"
#include "dravel-record.h"
#include "dravel-runtime.h"
#include "dravel-util.h"

#include <Eina.h>
#include <glib.h>

#include <optional>

struct settings_key;

typedef void (*dravel_expire_fn)(dravel_item *item, void *data);

// What an armed item's main-loop timer carries.
struct cb_data {
  dravel_expire_fn cb;
  dravel_item *timer_item; // the timer list's
  void *data;
  time_value timediff; // seconds to the expiry when it was armed
  time_value expiry;
};

// The on-time that the micro-controller holds.
struct micom_ontimer_record {
  int timer_id = 0;                               // 0: none
  int is_utc = 0;                                 // 1: `ontime` is UTC, else local time
  time_value ontime = 0;                          // as handed to the micro-controller
  unsigned int type = TIMER_TYPE_ONTIMER_MAX + 1; // above the maximum: nothing was ever programmed
  int priority = 0;                               // -1 after clearing
};

// Results of schedule_dravel_item.
enum schedule_result {
  SCHEDULE_ARMED = 0,
  SCHEDULE_NEVER_FIRES = -1,  // callers remove the item
  SCHEDULE_TIME_UNKNOWN = -2, // the item stays, unarmed
};

extern "C" {

// Leaves the start-up marker, reads the clock flag and starts the 90-second
// wait for the finish marker.
DRAVEL_API void init_dravel(void);

// Writes the finish marker where it is missing and ends the wait for it.
DRAVEL_API void create_dravel_finish_file(void);

// Make and release the two scheduled-timer tables. Releasing them frees the
// records of armed items, but does not delete the main-loop timers.
DRAVEL_API void init_hash_table(void);
DRAVEL_API void fini_hash_table(void);

// Arms `item` to call `cb` at its next expiry, and programs the micro-controller
// again when that changes the on-time. The item must not be armed. Returns a schedule_result. No
// caller here: the daemon calls schedule_item, see below.
DRAVEL_API int schedule_dravel_item(dravel_item *item, dravel_expire_fn cb, void *data);

// Disarms and removes `item`. Chooses the on-time again when the item was the
// programmed on-timer or an off-timer.
DRAVEL_API void cancel_dravel_item(dravel_item *item);

// Chooses the on-time again, over all on-timers, when the item that it belongs to is no longer
// listed, because it was evicted or never fires.
DRAVEL_API void replace_removed_ontimer(void);

// Re-arms every item but transient ones after an expiry or a change of the clock or the disabled
// periods. Armed one-shot items, unless of type 9, are moved to their next time of day; on an
// unknown clock they are disarmed. In the form of a settings watcher, whose arguments it ignores.
DRAVEL_API void adjust_dravel_all_items(struct settings_key *key, void *data);

// Re-arms every item without moving it, once the clock has become valid.
DRAVEL_API void reschedule_all_timers(void);

// The first on-timer equal to `item` in type, weekdays, clock and time: 0 and
// `*out`, or -1.
DRAVEL_API int find_duplicate_ontimer(const dravel_item *item, dravel_item **out);

// The on-timer to wake the set for, and its next expiry; times for which an
// off-timer is set are left out. -1 when there is none. Disarms a
// one-shot on-timer that coincides with an off-timer.
DRAVEL_API int get_next_ontimer_not_overlap_with_offtimer(dravel_item **item, std::tm *expire);

// Programs the micro-controller with the next expiry `expire`, on the local
// clock, of item `timer_id`. Returns 0, or -1 when the power control refused;
// the record then holds the new values all the same.
DRAVEL_API int schedule_micom_ontimer(int timer_id, const std::tm *expire, unsigned int type,
                                      int priority);

// Clears the programmed wake-up time.
DRAVEL_API void disable_micom_ontimer(void);

// Programs the on-time again under the present clock mode and zone, before the
// set sleeps, and marks its row.
DRAVEL_API void update_micom_ontimer(void);

// The power control's operations; 0 on success.
DRAVEL_API int set_power_control_wakeup_timer(unsigned int type, time_value time);
DRAVEL_API int unset_power_control_wakeup_timer(void);

// Marks the row of the programmed on-timer and copies it to the wake-up
// database.
DRAVEL_API void update_micom_flag(void);

// `time` as text, newline included, in one static buffer.
DRAVEL_API const char *time_str(time_value time);

// The power events. init returns 0, or -1 when a subscription failed.
DRAVEL_API int init_power_state_handler(void);
DRAVEL_API void fini_power_state_handler(void);
DRAVEL_API void register_ambient_mode_cb(void);
DRAVEL_API void unregister_ambient_mode_cb(void);

// Watches the clock's settings. Returns 0, or -1 when a watcher was refused.
DRAVEL_API int init_settings_handler(void);

// The middleware has updated the system time.
DRAVEL_API void auto_time_set(void);

// Callbacks of the main loop: a timer that fires, the end of the wait for the
// time update, the poll for a readable TV clock, the retry after a switch to
// automatic clock mode, the end of the wait for the finish marker.
Eina_Bool ecore_timer_cb(void *data);
Eina_Bool adjust_wait_timer_cb(void *data);
Eina_Bool wait_cur_time_cb(void *data);
Eina_Bool retry_adjust_all_timers(void *data);
Eina_Bool wait_dravel_finish_cb(void *data);
}

// For tests: gives the flags, the programmed on-time and the module's main-loop timers their
// initial state. The lists, the tables and the store are left alone.
void reset_runtime_state(void);

// The same as cancel_dravel_item, for another reason than a client's call.
void cancel_dravel_item(dravel_item *item, removal_reason reason);

// Arms `item` for its expiry. The reason for which the caller must remove it when it never fires;
// none when it is armed, or stays unarmed because the time is not known.
std::optional<removal_reason> schedule_item(dravel_item *item);
// The same, at the daemon's start: a timer that is past is named once by dravel_due_timers.
std::optional<removal_reason> schedule_at_start(dravel_item *item);
// What a start does instead while the clock is unknown: when it becomes known, dravel_due_timers
// finds what has passed.
void wait_for_clock(const dravel_item *item);

// When an armed item expires, on the TV clock.
std::optional<time_value> armed_expiry(int timer_id);
const micom_ontimer_record &programmed_ontimer(void);

// The scheduler's state, for this module and its tests.
extern micom_ontimer_record micom_ontimer;
extern GHashTable *scheduled_timer_table; // timer id -> main-loop timer
extern GHashTable *cb_data_table;         // timer id -> cb_data, owned
