// Timer items, the lists that hold them, the timer that woke the set, the
// disabled periods, and the rules that say when an item fires next.
//
// The timer list owns every item from its add until its removal; the on- and
// off-timer lists only point into it and are rebuilt by every add, remove and
// load. Positions follow the next expiries at the moment of insertion.
#pragma once

#include "dravel-api.h"
#include "dravel-changes.h"
#include "dravel-record.h"
#include "dravel-util.h"

#include <Eina.h>

#include <optional>

// What can_skip_timer decides about one occurrence.
enum skip_decision { SKIP_NO = 0, SKIP_REFUSED = 1, SKIP_MOVED = 2 };

// The number of listed timers at which storing one more evicts one.
constexpr unsigned kMaxTimerNum = 80;

extern "C" {

// The lists' heads, null when empty. Valid until the next add, remove or load.
DRAVEL_API Eina_List *get_dravel_list(void);
DRAVEL_API Eina_List *get_ontimer_list(void);
DRAVEL_API Eina_List *get_offtimer_list(void);
DRAVEL_API Eina_List *get_disabled_period_list(void);

// A new unstored item in no list, the caller's to add or free; null when memory
// is short. The date runs from the year (since 1900) down to the second. No caller here.
DRAVEL_API dravel_item *create_dravel_item(int type, int priority, int date_type, int tm_year,
                                           int tm_mon, int tm_mday, int tm_hour, int tm_min,
                                           int tm_sec, int tm_wday, int tm_yday, int tm_isdst,
                                           int delay, int week_flag, int disable_period_effect,
                                           int time_type);

// A new item with the fields of `values`, its id included, in no list, the caller's to add or free;
// null when memory is short.
DRAVEL_API dravel_item *copy_dravel_item(const dravel_item *values);

// Stores `item`, gives it its id and lists it; a full list first loses the item
// with the smallest id. A transient item is not stored and evicts nothing. Returns the timer list.
// Null when the item could not be stored: it is then in no list and still the caller's.
DRAVEL_API Eina_List *add_dravel_item(dravel_item *item);

// Takes the disarmed `item` out of the lists, deletes its row and releases it.
// Returns the timer list. When the row cannot be deleted the item leaves the
// lists, too, but is not released; the next start lists the row again. No caller here: the daemon
// gives the reason, see below.
DRAVEL_API Eina_List *remove_dravel_item(dravel_item *item);

// The first listed item with that id, or null.
DRAVEL_API dravel_item *find_dravel_item(int timer_id);

// 1 for a type that turns the set on, else 0.
DRAVEL_API int is_ontimer_item(const dravel_item *item);

// When 80 or more are listed, disarms and removes the item with the smallest id. When that
// was an off-timer, an on-timer that it had disarmed is armed again, or removed when it is past.
DRAVEL_API void check_over_max_timer_num(void);

// The order of the lists: below 0 when the listed item stays ahead of the new
// one, above 0 when the new one goes ahead of it, 0 when either is null. No caller here.
DRAVEL_API int compare_dravel_cb(const void *listed, const void *added);

DRAVEL_API void rebuild_onoff_timer_lists(void);

// Lists all stored timers and returns the timer list; called once, at start-up.
// At the first start in a boot without a wake-up reason, rows of types 0 and 1 are
// deleted instead, unless the set's `sync_db` feature keeps them.
DRAVEL_API Eina_List *load_dravel_list(void);

// The timer that woke the set: a copy of its own, kept until the next
// set_wakeup_timer. get_wakeup_timer gives null when no timer did.
DRAVEL_API void set_wakeup_timer(const dravel_item *item);
DRAVEL_API dravel_item *get_wakeup_timer(void);

// At start-up: keeps the marked row when the set was woken by a timer. Returns
// the query's result, 0 on success.
DRAVEL_API int load_wakeup_timer(void);

// Disabled periods, in the order in which they were loaded or added. The list
// owns the records.
//
// add: stores and lists the caller's heap record and returns the list. Null when it could not be
// stored: the record is then still the caller's.
// remove: deletes the row, releases the record and returns the list, null when it is then empty.
// Null also when the row could not be deleted: the record is then still listed.
DRAVEL_API Eina_List *add_disabled_period_item(disabled_period_item *period);
DRAVEL_API Eina_List *remove_disabled_period_item(disabled_period_item *period);
DRAVEL_API disabled_period_item *find_disabled_period_item(int period_id);
DRAVEL_API Eina_List *load_disabled_period_list(void);

// When `item` fires next, as a time of the TV clock read as UTC. 0: `*expire` is set;
// -1: it never fires, or an argument is null; -2: the time is not known. May
// move a one-shot item past a disabled period, see can_skip_timer.
DRAVEL_API int get_next_expire_date(const dravel_item *item, std::tm *expire);

// Whether the occurrence of `item` at `occurrence` lies in a disabled period: a
// skip_decision. A repeating item loses the occurrence; a listed one-shot item
// is moved to the day after the period and stored.
DRAVEL_API int can_skip_timer(const dravel_item *item, time_value occurrence);

// Whether disabled periods skip or move `item`: it opted in, and disabled periods apply to its
// type.
DRAVEL_API bool heeds_disabled_periods(const dravel_item *item);

// Moves a period on by one year and stores it; returns the update's result. No caller here.
DRAVEL_API int next_disabled_period(disabled_period_item *period);

// 1 when an on-timer other than `timer_id` fires 1 to 599 seconds after
// `standby`, which makes the standby useless; else 0.
DRAVEL_API int can_skip_standby(const std::tm *standby, int timer_id);
}

// The same, with the reason that is told. Without one it is kCancelled.
Eina_List *remove_dravel_item(dravel_item *item, removal_reason reason);

// Whether `item` fires again, and if not, why.
enum class next_expiry { kDue, kPast, kNever, kUnknown };

// The result of get_next_expire_date for it.
int result_of(next_expiry found);

// The same as get_next_expire_date, with a time value; kUnknown while the time is not known.
next_expiry find_next_expiry(const dravel_item *item, time_value *expire);

// The time that a one-shot item is set for, on the TV clock, past or not; none while the time is
// not known.
std::optional<time_value> one_shot_time(const dravel_item *item);

// The occurrence of a repeating item that follows the one at `fired`; none for a one-shot item.
std::optional<time_value> occurrence_after(const dravel_item *item, time_value fired);
