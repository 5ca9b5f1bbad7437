#include "dravel-item.h"

#include "dravel-db.h"
#include "dravel-list.h"
#include "dravel-power.h"
#include "dravel-runtime.h"

#include <glib.h>
#include <system_info.h>

#include <chrono>
#include <climits>
#include <span>
#include <vector>

static constexpr int kFirstTransientTimerId = -10;
static constexpr int kDaysPerWeek = 7;
static constexpr int kFebruary = 1;

static Eina_List *dravel_list;
static Eina_List *ontimer_list;
static Eina_List *offtimer_list;
static Eina_List *disabled_period_list;
// Owns the removed items whose rows could not be deleted. Nothing reads it; the next start reads
// their rows.
static Eina_List *undeleted_list;
static dravel_item *wakeup_timer;
static int next_transient_timer_id = kFirstTransientTimerId;
static int load_wakeup_reason;

Eina_List *get_dravel_list(void) { return dravel_list; }

Eina_List *get_ontimer_list(void) { return ontimer_list; }

Eina_List *get_offtimer_list(void) { return offtimer_list; }

Eina_List *get_disabled_period_list(void) { return disabled_period_list; }

int is_ontimer_item(const dravel_item *item) { return is_ontimer_type(item->type) ? 1 : 0; }

static void follow_february_end(std::tm *date, int leap_year_f, int year) {
  if (leap_year_f != 1 || date->tm_mon != kFebruary)
    return;
  if (date->tm_mday == 28 && is_leap_year(year))
    date->tm_mday = 29;
  else if (date->tm_mday == 29 && !is_leap_year(year))
    date->tm_mday = 28;
}

// The year that decides about the end of February: the present one on the item's clock. Periods
// have no year of their own, and all of them follow one calendar, whatever year an occurrence is
// in. When that clock cannot be read it is the year of the occurrence, but 1970 for the TV clock.
static int february_year(const dravel_item *item, time_value occurrence) {
  time_value now = 0;
  if (get_cur_time(&now, item->time_type) != 0 && item->time_type != TIME_TYPE_BROADCAST)
    now = occurrence;
  std::tm current;
  unsigned_gmtime_r(now, &current);
  return current.tm_year + 1900;
}

// Orders the dates within a year.
static std::int64_t date_key(const std::tm &date) {
  return std::int64_t{100} * date.tm_mon + date.tm_mday;
}

// Finds the first disabled period that holds the date `when`; `*end` is then
// its last day in the year `year`.
static bool find_period_of(const std::tm &when, int year, std::tm *end) {
  for (const disabled_period_item *period : items_of<disabled_period_item>(disabled_period_list)) {
    std::tm start = period->start_tm;
    *end = period->end_tm;
    follow_february_end(&start, period->start_date_leap_year_f, year);
    follow_february_end(end, period->end_date_leap_year_f, year);
    LOGI_OF(can_skip_timer, "start_date: M = %d, D = %d\n", add_wrapping(start.tm_mon, 1),
            start.tm_mday);
    LOGI_OF(can_skip_timer, "end_date: M = %d, D = %d\n", add_wrapping(end->tm_mon, 1),
            end->tm_mday);
    if (date_key(start) <= date_key(when) && date_key(when) <= date_key(*end))
      return true;
  }
  return false;
}

// The day that `date` names on the calendar when it is read in `year` (since 1900). Months and days
// beyond their range are carried over, also beyond 2106. Months that lead past the year 32767, as a
// client may send them, give some other day.
static std::int64_t calendar_day(int year, const std::tm &date) {
  using namespace std::chrono;
  const sys_days first((std::chrono::year(1900 + year) / January + months(date.tm_mon)) / 1);
  return std::int64_t{first.time_since_epoch().count()} + date.tm_mday;
}

// The days from the date `when` to the day after `end`, both read in the year of `when`.
static int days_until_after(const std::tm &when, const std::tm &end) {
  return static_cast<int>(calendar_day(when.tm_year, end) + 1 - calendar_day(when.tm_year, when));
}

int can_skip_timer(const dravel_item *item, time_value occurrence) {
  if (disabled_period_list == nullptr)
    return SKIP_NO;
  LOGP("disabled_period list : %d", static_cast<int>(eina_list_count(disabled_period_list)));

  std::tm when;
  std::tm end;
  unsigned_gmtime_r(occurrence, &when);
  if (!find_period_of(when, february_year(item, occurrence), &end))
    return SKIP_NO;

  if (item->week_flag != 0) {
    LOG_TIME(SYSTEM_LOG_INFO, "skip_timer : %s", &when);
    return SKIP_REFUSED;
  }

  dravel_item *listed = find_dravel_item(item->timer_id);
  if (listed == nullptr) {
    LOGP("The shift timer is disabled\n");
    return SKIP_REFUSED;
  }
  listed->tm.tm_mday = add_wrapping(listed->tm.tm_mday, days_until_after(when, end));
  update_dravel_item_db(listed);
  timer_changed(listed->timer_id);
  LOG_TIME(SYSTEM_LOG_INFO, "to shift timer as after holiday period: %s", &listed->tm);
  return SKIP_MOVED;
}

int next_disabled_period(disabled_period_item *period) {
  std::tm &start = period->start_tm;
  std::tm &end = period->end_tm;
  LOG_TIME(SYSTEM_LOG_PROGRESS, "current start_date : %s", &start);
  LOG_TIME(SYSTEM_LOG_PROGRESS, "current end_date : %s", &end);

  start.tm_year = add_wrapping(start.tm_year, 1);
  end.tm_year = add_wrapping(end.tm_year, 1);
  follow_february_end(&start, period->start_date_leap_year_f, add_wrapping(start.tm_year, 1900));
  follow_february_end(&end, period->end_date_leap_year_f, add_wrapping(end.tm_year, 1900));

  LOG_TIME(SYSTEM_LOG_PROGRESS, "next start_date : %s", &start);
  LOG_TIME(SYSTEM_LOG_PROGRESS, "next end_date : %s", &end);
  return update_disable_period_db(period);
}

static bool is_on_internet_time(const dravel_item *item) {
  return item->time_type == TIME_TYPE_INTERNET;
}

// Only the internet clock needs the others: its times are moved onto the TV clock
// or, while that is unknown, onto the real-time clock.
static int read_clocks_of(const dravel_item *item, clock_reading *clocks) {
  if (is_on_internet_time(item))
    return read_clocks(clocks);
  *clocks = {};
  if (get_cur_time(&clocks->broadcast, TIME_TYPE_BROADCAST) != 0)
    return -1;
  clocks->now = clocks->broadcast;
  return 0;
}

// The date that the item's own clock shows.
static void today_of(const dravel_item *item, const clock_reading &clocks, std::tm *today) {
  unsigned_gmtime_r(is_on_internet_time(item) ? clocks.internet : clocks.broadcast, today);
}

static void clear_seconds(const dravel_item *item, std::tm *tm) {
  if (!is_ontimer_item(item) || tm->tm_sec <= 0)
    return;
  LOGI_OF(get_next_expire_date, "ontimer with seconds: [%d], ignore seconds", tm->tm_sec);
  tm->tm_sec = 0;
}

static time_value add_offset_of(const dravel_item *item, const clock_reading &clocks,
                                time_value expire) {
  if (!is_on_internet_time(item))
    return expire;
  expire = add_time_offset(expire, clocks.offset);
  LOGI_OF(get_next_expire_date, "expire time with offset[%lu]", as_ulong(expire));
  return expire;
}

bool heeds_disabled_periods(const dravel_item *item) {
  return !has_type(item, TIMER_TYPE_ALWAYS) && item->disable_period_effect != 0;
}

static int holiday_test(const dravel_item *item, time_value expire) {
  if (!heeds_disabled_periods(item))
    return SKIP_NO;
  const int decision = can_skip_timer(item, expire);
  if (decision == SKIP_REFUSED)
    LOGP_OF(get_next_expire_date, "timer is disabled\n");
  return decision;
}

// The TV clock wraps from the end of 2099 to 2001: in 2099 a time in 2001 lies
// ahead.
static bool lies_after_wrap(const dravel_item *item, const clock_reading &clocks) {
  std::tm today;
  today_of(item, clocks, &today);
  LOGI_OF(get_next_expire_date, "get_next_expire_date, expired_timer_year: %d, curtime_year: %d \n",
          item->tm.tm_year, today.tm_year);
  if (item->tm.tm_year != kYear2001 || today.tm_year != kYear2099)
    return false;
  LOGI_OF(get_next_expire_date, "expired_timer_year == 101 && curtime_year == 199");
  return true;
}

// The time that a one-shot item is set for, on the TV clock.
static time_value one_shot_time(const dravel_item *item, const clock_reading &clocks) {
  std::tm date = item->tm;
  clear_seconds(item, &date);
  const time_value time = unsigned_timegm(&date);
  LOGI_OF(get_next_expire_date, "expire time[%lu]", as_ulong(time));
  return add_offset_of(item, clocks, time);
}

static next_expiry next_one_shot(const dravel_item *item, const clock_reading &clocks,
                                 time_value *expire) {
  *expire = one_shot_time(item, clocks);
  if (*expire <= clocks.now) {
    LOGI_OF(get_next_expire_date, "get_next_expire_date, timer_time: %lu, curtime: %lu \n",
            as_ulong(*expire), as_ulong(clocks.now));
    if (!lies_after_wrap(item, clocks))
      return next_expiry::kPast;
  }

  const int decision = holiday_test(item, *expire);
  if (decision == SKIP_REFUSED)
    return next_expiry::kNever;
  if (decision == SKIP_MOVED) {
    // On its own clock, also for a system-clock timer: the next computation adds the offset.
    std::tm date = item->tm;
    clear_seconds(item, &date);
    *expire = unsigned_timegm(&date);
  }
  return next_expiry::kDue;
}

static bool repeats_on(const dravel_item *item, int wday) {
  return (static_cast<unsigned>(item->week_flag) >> wday & 1U) != 0;
}

static next_expiry next_repeating(const dravel_item *item, const clock_reading &clocks,
                                  time_value *expire) {
  std::tm today;
  today_of(item, clocks, &today);
  std::tm date = item->tm;
  date.tm_mday = today.tm_mday;
  date.tm_mon = today.tm_mon;
  date.tm_year = today.tm_year;

  // An on-timer keeps its seconds for the following days unless today is one of its days.
  if (repeats_on(item, today.tm_wday)) {
    clear_seconds(item, &date);
    *expire = add_offset_of(item, clocks, unsigned_timegm(&date));
    if (*expire > clocks.now && holiday_test(item, *expire) != SKIP_REFUSED)
      return next_expiry::kDue;
  }
  for (int day = 1; day <= DRAVEL_SEARCH_DAYS; ++day) {
    ++date.tm_mday;
    if (!repeats_on(item, (today.tm_wday + day) % kDaysPerWeek))
      continue;
    *expire = add_offset_of(item, clocks, unsigned_timegm(&date));
    if (holiday_test(item, *expire) != SKIP_REFUSED)
      return next_expiry::kDue;
  }
  return next_expiry::kNever;
}

next_expiry find_next_expiry(const dravel_item *item, time_value *expire) {
  clock_reading clocks;
  if (read_clocks_of(item, &clocks) != 0)
    return next_expiry::kUnknown;
  LOGI_OF(get_next_expire_date,
          "timer_id[%d], crt_time[%lu], broadcast time[%lu], internet time[%lu], internet time "
          "offset[%lf]",
          item->timer_id, as_ulong(clocks.now), as_ulong(clocks.broadcast),
          as_ulong(clocks.internet), clocks.offset);

  const next_expiry found = item->week_flag == 0 ? next_one_shot(item, clocks, expire)
                                                 : next_repeating(item, clocks, expire);
  std::tm tm;
  if (found == next_expiry::kDue)
    LOG_TIME_FROM("get_next_expire_date", SYSTEM_LOG_DEBUG, "time: %s",
                  unsigned_gmtime_r(*expire, &tm));
  return found;
}

std::optional<time_value> one_shot_time(const dravel_item *item) {
  clock_reading clocks{};
  return read_clocks_of(item, &clocks) == 0 ? std::optional(one_shot_time(item, clocks))
                                            : std::nullopt;
}

std::optional<time_value> occurrence_after(const dravel_item *item, time_value fired) {
  clock_reading clocks{};
  if (item->week_flag == 0 || read_clocks_of(item, &clocks) != 0)
    return std::nullopt;
  clocks.now = clocks.broadcast = fired;
  clocks.internet = add_time_offset(fired, -clocks.offset);
  time_value next = 0;
  return next_repeating(item, clocks, &next) == next_expiry::kDue ? std::optional(next)
                                                                  : std::nullopt;
}

int result_of(next_expiry found) {
  switch (found) {
  case next_expiry::kDue:
    return 0;
  case next_expiry::kUnknown:
    return -2;
  default:
    return -1;
  }
}

int get_next_expire_date(const dravel_item *item, std::tm *expire) {
  if (item == nullptr || expire == nullptr) {
    LOGE("timer and expire date should not be NULL\n");
    return -1;
  }
  time_value next = 0;
  const next_expiry found = find_next_expiry(item, &next);
  if (found == next_expiry::kDue)
    unsigned_gmtime_r(next, expire);
  return result_of(found);
}

int can_skip_standby(const std::tm *standby, int timer_id) {
  const time_value standby_time = unsigned_timegm(standby);
  if (ontimer_list == nullptr) {
    LOGP("ontimer list is null");
    return 0;
  }
  LOG_TIME(SYSTEM_LOG_DEBUG, "check on timer to skip standby timer: %s", standby);

  for (const dravel_item *ontimer : items_of<dravel_item>(ontimer_list)) {
    time_value expire = 0;
    if (ontimer->timer_id == timer_id || find_next_expiry(ontimer, &expire) != next_expiry::kDue)
      continue;
    const time_value distance = expire - standby_time;
    if (distance >= 1 && distance <= DRAVEL_STANDBY_SKIP_SECONDS) {
      LOGD("can skipped standby timer(TC_DTU_000099)");
      LOG_TIME(SYSTEM_LOG_DEBUG, "by on timer: %s", &ontimer->tm);
      return 1;
    }
  }
  LOGD("can't skipped standby timer");
  return 0;
}

// Whether computing the next expiry of `item` may move it.
static bool may_be_moved(const dravel_item *item) {
  return disabled_period_list != nullptr && item->week_flag == 0 && heeds_disabled_periods(item);
}

namespace {

// An item and its next expiry, for the comparisons of one sorting.
class sort_key {
public:
  explicit sort_key(const dravel_item *of) : item(of) {}

  // None for an item that has no next expiry.
  const std::optional<time_value> &expiry() {
    if (!known_) {
      time_value next = 0;
      expiry_.reset();
      if (find_next_expiry(item, &next) == next_expiry::kDue)
        expiry_ = next;
      known_ = !may_be_moved(item);
    }
    return expiry_;
  }

  const dravel_item *item;

private:
  bool known_ = false; // `expiry_` is computed and cannot change
  std::optional<time_value> expiry_;
};

} // namespace

static int compare_keys(sort_key &listed, sort_key &added) {
  const std::optional<time_value> &listed_expiry = listed.expiry();
  if (!listed_expiry)
    return -1;
  const std::optional<time_value> &added_expiry = added.expiry();
  if (!added_expiry)
    return 1;
  if (*listed_expiry != *added_expiry)
    return *listed_expiry < *added_expiry ? -1 : 1;
  if (listed.item->priority > added.item->priority)
    return -1;
  // An off-timer listed first keeps its place.
  return has_type(listed.item, TIMER_TYPE_OFF) ? -1 : 1;
}

int compare_dravel_cb(const void *listed, const void *added) {
  if (listed == nullptr || added == nullptr)
    return 0;
  sort_key listed_key(static_cast<const dravel_item *>(listed));
  sort_key added_key(static_cast<const dravel_item *>(added));
  return compare_keys(listed_key, added_key);
}

// The place of `added`: before the first listed item that it goes ahead of. Eina's sorted insertion
// bisects; with a listed item that has no next expiry it would put an earlier item at the tail.
static std::size_t place_of(sort_key &added, std::span<sort_key> listed) {
  std::size_t place = 0;
  while (place < listed.size() && compare_keys(listed[place], added) <= 0)
    ++place;
  return place;
}

static void insert_key(std::vector<sort_key> &keys, sort_key added) {
  keys.insert(keys.begin() + static_cast<std::ptrdiff_t>(place_of(added, keys)), added);
}

static void insert_in_order(const dravel_item *item) {
  std::vector<sort_key> keys;
  for (const dravel_item *listed : items_of<dravel_item>(dravel_list))
    keys.emplace_back(listed);
  sort_key added(item);
  Eina_List *next = eina_list_nth_list(dravel_list, static_cast<unsigned>(place_of(added, keys)));
  dravel_list = next != nullptr ? eina_list_prepend_relative_list(dravel_list, item, next)
                                : eina_list_append(dravel_list, item);
}

static Eina_List *list_of(const std::vector<sort_key> &keys) {
  Eina_List *list = nullptr;
  for (const sort_key &key : keys)
    list = eina_list_append(list, key.item);
  return list;
}

// Sorting compares every item with most others. The next expiry of an item is
// computed once, unless disabled periods may move the item during the sorting.
void rebuild_onoff_timer_lists(void) {
  ontimer_list = eina_list_free(ontimer_list);
  offtimer_list = eina_list_free(offtimer_list);

  std::vector<sort_key> ontimers;
  std::vector<sort_key> offtimers;
  for (const dravel_item *item : items_of<dravel_item>(dravel_list)) {
    if (has_type(item, TIMER_TYPE_OFF))
      insert_key(offtimers, sort_key(item));
    else if (is_ontimer_item(item))
      insert_key(ontimers, sort_key(item));
  }
  ontimer_list = list_of(ontimers);
  offtimer_list = list_of(offtimers);
}

dravel_item *copy_dravel_item(const dravel_item *values) {
  dravel_item *item = g_try_new0(dravel_item, 1);
  if (item == nullptr) {
    LOGE_OF(create_dravel_item, "Failed to alloc new timer item\n");
    return nullptr;
  }
  copy_fields(*item, *values);
  return item;
}

dravel_item *create_dravel_item(int type, int priority, int date_type, int tm_year, int tm_mon,
                                int tm_mday, int tm_hour, int tm_min, int tm_sec, int tm_wday,
                                int tm_yday, int tm_isdst, int delay, int week_flag,
                                int disable_period_effect, int time_type) {
  dravel_item values{kUnstoredTimerId,      type,     priority, date_type, {}, delay, week_flag,
                     disable_period_effect, time_type};
  values.tm.tm_sec = tm_sec;
  values.tm.tm_min = tm_min;
  values.tm.tm_hour = tm_hour;
  values.tm.tm_mday = tm_mday;
  values.tm.tm_mon = tm_mon;
  values.tm.tm_year = tm_year;
  values.tm.tm_wday = tm_wday;
  values.tm.tm_yday = tm_yday;
  values.tm.tm_isdst = tm_isdst;
  return copy_dravel_item(&values);
}

dravel_item *find_dravel_item(int timer_id) {
  for (dravel_item *item : items_of<dravel_item>(dravel_list)) {
    if (item->timer_id == timer_id)
      return item;
  }
  return nullptr;
}

Eina_List *remove_dravel_item(dravel_item *item, removal_reason reason) {
  LOGP("remove_dravel_item: [%d]", item->timer_id);
  dravel_list = eina_list_remove(dravel_list, item);
  rebuild_onoff_timer_lists();

  if (delete_dravel_item_db(item->timer_id) != 0) {
    LOGE("failed to save dravel item to the DB\n");
    const bool has_row = !has_type(item, TIMER_TYPE_TRANSIENT);
    timer_removed(item->timer_id, has_row ? removal_reason::kLost : reason);
    undeleted_list = eina_list_append(undeleted_list, item);
    return dravel_list;
  }
  timer_removed(item->timer_id, reason);
  g_free(item);
  LOGP("complate remove_dravel_item");
  return dravel_list;
}

Eina_List *remove_dravel_item(dravel_item *item) {
  return remove_dravel_item(item, removal_reason::kCancelled);
}

void check_over_max_timer_num(void) {
  if (eina_list_count(dravel_list) < kMaxTimerNum)
    return;

  dravel_item *oldest = nullptr;
  for (dravel_item *item : items_of<dravel_item>(dravel_list)) {
    if (oldest == nullptr || item->timer_id < oldest->timer_id)
      oldest = item;
  }
  LOGP("over the max timer num, remove: %d", oldest->timer_id);
  const bool is_offtimer = has_type(oldest, TIMER_TYPE_OFF);
  cancel_ecore_timer(oldest->timer_id);
  remove_dravel_item(oldest, removal_reason::kEvicted);
  if (is_offtimer)
    rearm_next_ontimer();
}

// A row of a foreign file may have such an id already.
static int take_transient_timer_id(void) {
  int timer_id = 0;
  do {
    if (next_transient_timer_id == INT_MIN)
      next_transient_timer_id = kFirstTransientTimerId;
    timer_id = next_transient_timer_id--;
  } while (find_dravel_item(timer_id) != nullptr);
  return timer_id;
}

// A foreign file's table without a primary key may give an id that a listed item
// has. The two would share one main-loop timer: the new one is refused.
static int store_new(dravel_item *item) {
  const int result = insert_dravel_item_db(item);
  if (result != 0 || find_dravel_item(item->timer_id) == nullptr)
    return result;
  undo_insert_dravel_item_db();
  return -1;
}

Eina_List *add_dravel_item(dravel_item *item) {
  LOGP("add_dravel_item");
  if (has_type(item, TIMER_TYPE_TRANSIENT)) {
    item->timer_id = take_transient_timer_id();
    LOGP("timer_id: %d", item->timer_id);
  } else {
    check_over_max_timer_num();
    if (store_new(item) != 0) {
      LOGE("failed to save dravel item to the DB\n");
      return nullptr;
    }
  }
  insert_in_order(item);
  rebuild_onoff_timer_lists();
  timer_added(item->timer_id);
  return dravel_list;
}

static bool is_db_synchronised(void) {
  bool sync_db = false;
  if (system_info_get_custom_bool(kFeatureSyncDb, &sync_db) != 0) {
    LOGE_OF(dravel_item_db_cb, "system_info_get_custom_bool(%s) failed", kFeatureSyncDb);
    return false;
  }
  return sync_db;
}

// The feature is asked for first, so that the log shows a failure for each row that is listed.
static bool is_dropped_by_cold_start(const dravel_item *row) {
  return !is_db_synchronised() && load_wakeup_reason == 0 && get_relaunch_state() == 0 &&
         (has_type(row, TIMER_TYPE_ON) || has_type(row, TIMER_TYPE_OFF));
}

static int dravel_item_db_cb(const dravel_item *row) {
  // An earlier bus call has stored and listed it.
  if (find_dravel_item(row->timer_id) != nullptr)
    return 0;
  if (is_dropped_by_cold_start(row)) {
    LOGP("On/Off timers are removed\n");
    if (delete_dravel_item_db(row->timer_id) != 0)
      LOGE("failed to save dravel item to the DB\n");
    return 0;
  }

  const dravel_item *item = copy_dravel_item(row);
  if (item == nullptr) {
    LOGE("failed to create new timer item\n");
    return 0;
  }
  insert_in_order(item);
  return 0;
}

Eina_List *load_dravel_list(void) {
  load_wakeup_reason = device_power_get_wakeup_reason();
  LOGP("wakeup reason : %d\n", load_wakeup_reason);
  load_dravel_db(dravel_item_db_cb);
  rebuild_onoff_timer_lists();
  state_touched();
  return dravel_list;
}

void set_wakeup_timer(const dravel_item *item) {
  g_free(wakeup_timer);
  wakeup_timer = g_try_new0(dravel_item, 1);
  if (wakeup_timer == nullptr) {
    LOGE("Failed to alloc new timer item\n");
    return;
  }
  copy_fields(*wakeup_timer, *item);
  LOGD("[%s]wakeup_timer_id : %d \n", "set_wakeup_timer", wakeup_timer->timer_id);
}

dravel_item *get_wakeup_timer(void) {
  if (wakeup_timer != nullptr)
    LOGD("wakeup_timer_id : %d \n", wakeup_timer->timer_id);
  return wakeup_timer;
}

static int wakeup_timer_item_db_cb(const dravel_item *row) {
  const int reason = device_power_get_wakeup_reason();
  LOGD("wakeup reason : %d\n", reason);
  if (!is_woken_by_timer(reason)) {
    LOGD("This TV is not woken by timer");
    return 0;
  }
  set_wakeup_timer(row);
  return 0;
}

int load_wakeup_timer(void) {
  g_free(wakeup_timer);
  wakeup_timer = nullptr;
  return load_wakeup_timer_db(wakeup_timer_item_db_cb);
}

Eina_List *add_disabled_period_item(disabled_period_item *period) {
  if (insert_disabled_period_item_db(period) != 0) {
    LOGE("failed to save disabled period item to the DB\n");
    return nullptr;
  }
  disabled_period_list = eina_list_append(disabled_period_list, period);
  state_touched();
  return disabled_period_list;
}

Eina_List *remove_disabled_period_item(disabled_period_item *period) {
  if (delete_disabled_period_item_db(period->period_id) != 0) {
    LOGE("failed to remove disabled period item to the DB\n");
    return nullptr;
  }
  disabled_period_list = eina_list_remove(disabled_period_list, period);
  state_touched();
  g_free(period);
  return disabled_period_list;
}

disabled_period_item *find_disabled_period_item(int period_id) {
  for (disabled_period_item *period : items_of<disabled_period_item>(disabled_period_list)) {
    if (period->period_id == period_id)
      return period;
  }
  return nullptr;
}

static int disabled_period_db_cb(const disabled_period_item *row) {
  disabled_period_item *period = g_try_new0(disabled_period_item, 1);
  if (period == nullptr) {
    LOGE("failed to allocate memory\n");
    return 0;
  }
  copy_fields(*period, *row);
  disabled_period_list = eina_list_append(disabled_period_list, period);
  return 0;
}

Eina_List *load_disabled_period_list(void) {
  load_disabled_period_db(disabled_period_db_cb);
  return disabled_period_list;
}
