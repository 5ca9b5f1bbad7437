#include "dravel-timer.h"

#include "dravel-db.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-power.h"

#include <Ecore.h>
#include <IPowerControl.h>
#include <due_timers.h>
#include <settings.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <span>
#include <unistd.h>
#include <utility>
#include <vector>

static constexpr double kFinishWaitSeconds = 90.0;
static constexpr double kAdjustWaitSeconds = 60.0;
static constexpr double kPollSeconds = 0.1;

static constexpr time_value kMaxDistanceSeconds = DRAVEL_FARTHEST_DAYS * kSecondsPerDay;

static constexpr int kNoOntimer = -1;
static constexpr int kOntimerRefused = -2;

namespace {

struct runtime_state {
  int kinto_time_updated = 1;
  int relaunch_state = 0;
  int wakeup_state = 1;
  int auto_clock_mode_time_update = 0;
};

} // namespace

int ontimer_halt;
int offtimer_halt;
bool ambient_poweroff_received;

micom_ontimer_record micom_ontimer;
GHashTable *scheduled_timer_table;
GHashTable *cb_data_table;

static runtime_state flags;
// One-shot timers that the first scheduling found past, until somebody asks for due timers.
static std::vector<due_timer> missed_timers;
// The ids of those that the clock alone keeps from being armed: it was unknown when they were to be
// armed again, or at the start. One that was evicted since may be among them.
static std::set<int> waiting_for_clock;

static Ecore_Timer *finish_wait_timer;
static Ecore_Timer *adjust_wait_timer;
static Ecore_Timer *retry_adjust_timer;

void set_kinto_time_updated(int value) {
  flags.kinto_time_updated = value;
  state_touched();
}

int get_kinto_time_updated(void) { return flags.kinto_time_updated; }

void set_relaunch_state(int value) { flags.relaunch_state = value; }

int get_relaunch_state(void) { return flags.relaunch_state; }

void set_wakeup_state(int value) { flags.wakeup_state = value; }

int get_wakeup_state(void) { return flags.wakeup_state; }

void set_auto_clock_mode_time_update(int value) { flags.auto_clock_mode_time_update = value; }

int get_auto_clock_mode_time_update(void) { return flags.auto_clock_mode_time_update; }

const char *time_str(time_value time) {
  static char text[kTimeTextSize];
  std::tm tm;
  unsigned_gmtime_r(time, &tm);
  return format_time(&tm, text) ? text : "asctime_r error";
}

static void stop_timer(Ecore_Timer *&timer) {
  if (timer == nullptr)
    return;
  ecore_timer_freeze(timer);
  ecore_timer_del(timer);
  timer = nullptr;
}

void reset_runtime_state(void) {
  flags = {};
  ontimer_halt = offtimer_halt = 0;
  ambient_poweroff_received = false;
  micom_ontimer = {};
  missed_timers.clear();
  waiting_for_clock.clear();
  for (Ecore_Timer **timer : {&finish_wait_timer, &adjust_wait_timer, &retry_adjust_timer})
    stop_timer(*timer);
}

static bool is_tv_clock_known(void) {
  time_value now = 0;
  return get_cur_time(&now, TIME_TYPE_BROADCAST) == 0;
}

// Creates an empty file. True when it existed already.
static bool leave_marker(const char *path, const char *operation = __builtin_FUNCTION()) {
  if (access(path, F_OK) == 0) {
    LOG_FROM(operation, SYSTEM_LOG_PROGRESS, "%s file exist", path);
    return true;
  }
  const int fd = open(path, O_CREAT | O_EXCL | O_RDONLY | O_CLOEXEC, 0644);
  if (fd == -1) {
    LOG_FROM(operation, SYSTEM_LOG_ERROR, "%s create failed", path);
    return false;
  }
  LOG_FROM(operation, SYSTEM_LOG_PROGRESS, "%s file create", path);
  close(fd);
  return false;
}

void create_dravel_finish_file(void) {
  stop_timer(finish_wait_timer);
  leave_marker(kFinishMarkerPath);
}

Eina_Bool wait_dravel_finish_cb(void *) {
  LOGP("time is not set");
  finish_wait_timer = nullptr;
  create_dravel_finish_file();
  return ECORE_CALLBACK_CANCEL;
}

void init_dravel(void) {
  if (leave_marker(kInitMarkerPath))
    set_relaunch_state(1);
  if (!is_tv_clock_known())
    set_kinto_time_updated(0);

  stop_timer(finish_wait_timer);
  finish_wait_timer = ecore_timer_add(kFinishWaitSeconds, wait_dravel_finish_cb, nullptr);
}

void init_hash_table(void) {
  scheduled_timer_table = g_hash_table_new(g_direct_hash, g_direct_equal);
  cb_data_table = g_hash_table_new(g_direct_hash, g_direct_equal);
}

void fini_hash_table(void) {
  g_hash_table_destroy(scheduled_timer_table);
  scheduled_timer_table = nullptr;
  g_hash_table_foreach(
      cb_data_table, [](void *, void *record, void *) { g_free(record); }, nullptr);
  g_hash_table_destroy(cb_data_table);
  cb_data_table = nullptr;
}

static bool is_armed(int timer_id) {
  return g_hash_table_contains(scheduled_timer_table, GINT_TO_POINTER(timer_id)) != 0;
}

static void forget_armed(int timer_id) {
  g_hash_table_remove(scheduled_timer_table, GINT_TO_POINTER(timer_id));
  g_hash_table_remove(cb_data_table, GINT_TO_POINTER(timer_id));
  state_touched();
}

void cancel_ecore_timer(int timer_id) {
  LOGD("cancel_ecore_timer %d", timer_id);
  const void *key = GINT_TO_POINTER(timer_id);
  auto *timer = static_cast<Ecore_Timer *>(g_hash_table_lookup(scheduled_timer_table, key));
  stop_timer(timer);
  g_free(g_hash_table_lookup(cb_data_table, key));
  forget_armed(timer_id);
}

const micom_ontimer_record &programmed_ontimer(void) { return micom_ontimer; }

int set_power_control_wakeup_timer(unsigned int type, time_value time) {
  return IPowerControl::getInstance()->set_wakeup_time(type, time);
}

int unset_power_control_wakeup_timer(void) {
  return IPowerControl::getInstance()->clear_wakeup_time();
}

int schedule_micom_ontimer(int timer_id, const std::tm *expire, unsigned int type, int priority) {
  if (type > TIMER_TYPE_ONTIMER_MAX) {
    LOGI("micom_ontimer type %d, do nothing", static_cast<int>(type));
    return 0;
  }

  std::tm ontime = *expire;
  const bool is_utc = get_clock_mode() == CLOCK_MODE_AUTO;
  if (is_utc) {
    LOGI("[before change to UTC][micom ontime] : %s", time_str(unsigned_timegm(expire)));
    ontime = convert_to_utc(ontime);
  }
  micom_ontimer = {timer_id, is_utc ? 1 : 0, unsigned_timegm(&ontime), type, priority};
  LOGP("[micom ontime] : %s", time_str(micom_ontimer.ontime));

  const int result = set_power_control_wakeup_timer(type, micom_ontimer.ontime);
  ontime_requested(result == 0);
  if (result != 0) {
    LOGE("Failed to set_power_control_wakeup_timer\n");
    return -1;
  }
  LOGI("end to set micom ontimer");
  return 0;
}

void disable_micom_ontimer(void) {
  LOGI("disabled micom id: %d", micom_ontimer.timer_id);
  if (unset_power_control_wakeup_timer() != 0)
    LOGE("Failed to write to ontimer enable node\n");
  micom_ontimer = {0, 0, 0, micom_ontimer.type, -1};
  state_touched();
  LOGI("end to disable micom ontimer");
}

static void disable_programmed_ontimer(void) {
  if (micom_ontimer.type <= TIMER_TYPE_ONTIMER_MAX)
    disable_micom_ontimer();
}

// The programmed on-time on the local clock.
static time_value programmed_local_ontime(void) {
  return micom_ontimer.is_utc != 0 ? convert_to_localtime(micom_ontimer.ontime)
                                   : micom_ontimer.ontime;
}

void update_micom_flag(void) {
  if (micom_ontimer.timer_id == 0)
    return;
  LOGD("update micom flag");
  if (set_micom_flag(micom_ontimer.timer_id) != 0)
    LOGE("Failed to set micom flag to db");
  load_wakeup_timer_db(insert_wakeup_dravel_item_db);
}

void update_micom_ontimer(void) {
  if (micom_ontimer.timer_id == 0)
    return;
  std::tm ontime;
  unsigned_gmtime_r(programmed_local_ontime(), &ontime);
  const int result = schedule_micom_ontimer(micom_ontimer.timer_id, &ontime, micom_ontimer.type,
                                            micom_ontimer.priority);
  if (result != 0) {
    LOGE("schedule_micom_ontimer : %d \n", result);
    return;
  }
  update_micom_flag();
  LOGD("micom ontimer_id:%d, ontimer_type: %d\n", micom_ontimer.timer_id,
       static_cast<int>(micom_ontimer.type));
}

int find_duplicate_ontimer(const dravel_item *item, dravel_item **out) {
  if (item == nullptr) {
    LOGE("timer_item should not be NULL");
    return -1;
  }
  if (get_ontimer_list() == nullptr) {
    LOGP("ontimerlist is null");
    return -1;
  }

  const time_value time = unsigned_timegm(&item->tm);
  for (dravel_item *listed : items_of<dravel_item>(get_ontimer_list())) {
    if (listed->type == item->type && listed->week_flag == item->week_flag &&
        listed->time_type == item->time_type && unsigned_timegm(&listed->tm) == time) {
      LOGI("duplicate timer id:%d, time: %lu", listed->timer_id, as_ulong(time));
      *out = listed;
      return 0;
    }
  }
  return -1;
}

// A weekday's bit of a week flag; none for a number that a flag has no bit for.
static int weekday_bit(int wday) {
  return static_cast<unsigned>(wday) < 32U ? static_cast<int>(1U << wday) : 0;
}

namespace {

// An on- or off-timer and the time that it is set for.
struct set_time {
  const dravel_item *item;
  time_value time;        // as its own clock counts
  time_value on_tv_clock; // as the TV clock counts
};

} // namespace

static set_time set_time_of(const dravel_item *item, double offset) {
  const time_value time = unsigned_timegm(&item->tm);
  return {item, time, item->time_type == TIME_TYPE_INTERNET ? add_time_offset(time, offset) : time};
}

// The configured time of an on- or off-timer, as the TV clock counts.
static time_value configured_time(const set_time &timer, const char *name) {
  LOGI_OF(get_next_ontimer_not_overlap_with_offtimer, "%s_time[%lu]", name, as_ulong(timer.time));
  if (timer.item->time_type == TIME_TYPE_INTERNET)
    LOGI_OF(get_next_ontimer_not_overlap_with_offtimer, "%s_time with offset[%lu]", name,
            as_ulong(timer.on_tv_clock));
  return timer.on_tv_clock;
}

// Without the TV clock, times on it cannot be compared.
static bool is_on_unknown_tv_clock(const dravel_item *item, const clock_reading &clocks) {
  return clocks.broadcast == 0 && item->time_type == TIME_TYPE_BROADCAST;
}

// The off-timers that every on-timer is compared with.
static std::vector<set_time> comparable_offtimers(const clock_reading &clocks) {
  std::vector<set_time> offtimers;
  for (const dravel_item *offtimer : items_of<dravel_item>(get_offtimer_list())) {
    if (!is_on_unknown_tv_clock(offtimer, clocks))
      offtimers.push_back(set_time_of(offtimer, clocks.offset));
  }
  return offtimers;
}

// For each off-timer that is set for the on-timer's own time: a repeating one removes its weekdays
// from `*week_flag`, a one-shot one flips its weekday. False when no day is left, or when the
// on-timer is a one-shot one of that time.
static bool leave_out_offtimers(const set_time &on, std::span<const set_time> offtimers,
                                int *week_flag) {
  const dravel_item *ontimer = on.item;
  const time_value on_time = configured_time(on, "on");
  for (const set_time &off : offtimers) {
    if (configured_time(off, "off") != on_time)
      continue;

    const dravel_item *offtimer = off.item;
    const bool once_off = offtimer->week_flag == 0;
    if (ontimer->week_flag == 0) {
      if (once_off || (offtimer->week_flag & weekday_bit(ontimer->tm.tm_wday)) != 0) {
        cancel_ecore_timer(ontimer->timer_id);
        return false;
      }
    } else if (once_off) {
      // Flipped, not removed: a second off-timer gives the day back, and a day that is not the
      // on-timer's is added.
      *week_flag ^= weekday_bit(offtimer->tm.tm_wday);
    } else {
      *week_flag &= ontimer->week_flag & ~offtimer->week_flag;
    }
  }
  return ontimer->week_flag == 0 || *week_flag != 0;
}

int get_next_ontimer_not_overlap_with_offtimer(dravel_item **item, std::tm *expire) {
  if (get_ontimer_list() == nullptr) {
    LOGP("ontimerlist is null");
    return -1;
  }

  const bool has_offtimers = get_offtimer_list() != nullptr;
  clock_reading clocks{};
  if (has_offtimers) {
    read_clocks(&clocks);
    LOGI("internet_time_offset[%lf]", clocks.offset);
  }
  const std::vector<set_time> offtimers = comparable_offtimers(clocks);

  time_value earliest = kInvalidTime;
  for (dravel_item *ontimer : items_of<dravel_item>(get_ontimer_list())) {
    dravel_item narrowed = *ontimer;
    if (has_offtimers &&
        (is_on_unknown_tv_clock(ontimer, clocks) ||
         !leave_out_offtimers(set_time_of(ontimer, clocks.offset), offtimers, &narrowed.week_flag)))
      continue;

    std::tm next{};
    if (get_next_expire_date(ontimer->week_flag == 0 ? ontimer : &narrowed, &next) != 0)
      continue;
    const time_value time = unsigned_timegm(&next);
    if (time >= earliest)
      continue;
    *item = ontimer;
    *expire = next;
    earliest = time;
    LOGD("next ontimer %s", time_str(time));
  }
  return earliest == kInvalidTime ? -1 : 0;
}

// Programs the on-timer that the set is to wake for next. Returns 0; -1 when there
// is none and -2 when the power control refused it.
static int program_next_ontimer(void) {
  dravel_item *chosen = nullptr;
  std::tm expire{};
  if (get_next_ontimer_not_overlap_with_offtimer(&chosen, &expire) != 0)
    return kNoOntimer;
  const int result = schedule_micom_ontimer(chosen->timer_id, &expire,
                                            static_cast<unsigned>(chosen->type), chosen->priority);
  return result == 0 ? 0 : kOntimerRefused;
}

// The same; when there is none the programmed on-time is cleared.
static int replace_programmed_ontimer(void) {
  const int result = program_next_ontimer();
  if (result == kNoOntimer)
    disable_programmed_ontimer();
  return result;
}

// From the first to the last second that the TV clock shows before it wraps.
static time_value wrap_span(void) {
  std::tm first{};
  first.tm_year = kYear2001;
  first.tm_mday = 1;
  std::tm last{};
  last.tm_year = kYear2099;
  last.tm_mon = 11;
  last.tm_mday = 31;
  last.tm_hour = 23;
  last.tm_min = 59;
  last.tm_sec = 59;
  return unsigned_timegm(&last) - unsigned_timegm(&first);
}

// The seconds from `now` to an expiry. -1 for one that has passed, unless the TV
// clock is about to wrap from 2099 to 2001.
static int distance_to(time_value expire_time, const std::tm &expire_tm, time_value now,
                       time_value *timediff) {
  *timediff = expire_time - now;
  if (expire_time >= now)
    return 0;

  LOGP_OF(schedule_dravel_item, "invalied time : %s", time_str(expire_time));
  std::tm now_tm;
  unsigned_gmtime_r(now, &now_tm);
  LOGI_OF(schedule_dravel_item, "schedule_dravel_item, expired_timer_year: %d, curtime_year: %d \n",
          expire_tm.tm_year, now_tm.tm_year);
  if (expire_tm.tm_year != kYear2001 || now_tm.tm_year != kYear2099)
    return -1;
  LOGI_OF(schedule_dravel_item, "expired_timer_year == 101 and curtime_year == 199");
  *timediff += wrap_span();
  LOGI_OF(schedule_dravel_item, "timediff : %lu", as_ulong(*timediff));
  return 0;
}

// An on-time within the current minute is not given to the micro-controller: the
// daemon fires it, and the micro-controller must not start the set again.
static bool fires_in_current_minute(time_value now, const std::tm &expire_tm, time_value timediff) {
  std::tm now_tm;
  unsigned_gmtime_r(now, &now_tm);
  if (timediff > DRAVEL_GUARD_SECONDS || now_tm.tm_min != expire_tm.tm_min)
    return false;
  LOGI_OF(schedule_dravel_item, "micom spec. abovid reboot");
  return true;
}

// The programmed on-time on the local clock, 0 when none lies ahead of `now`.
static time_value pending_local_ontime(time_value now) {
  const time_value local_ontime = programmed_local_ontime();
  LOGI_OF(schedule_dravel_item, "local_ontime : %s", time_str(local_ontime));
  LOGI_OF(schedule_dravel_item, "local_ontime : %lu", as_ulong(local_ontime));
  if (now <= local_ontime)
    return local_ontime;
  LOGI_OF(schedule_dravel_item, "set local_ontime to 0");
  return 0;
}

std::optional<time_value> armed_expiry(int timer_id) {
  const auto *record =
      static_cast<const cb_data *>(g_hash_table_lookup(cb_data_table, GINT_TO_POINTER(timer_id)));
  return record == nullptr ? std::nullopt : std::optional(record->expiry);
}

namespace {

struct expiry_call {
  dravel_expire_fn cb;
  void *data;
};

} // namespace

static int arm(dravel_item *item, const expiry_call &call, time_value timediff, time_value expiry) {
  auto *record = g_try_new(cb_data, 1);
  Ecore_Timer *timer = nullptr;
  if (record != nullptr) {
    *record = {call.cb, item, call.data, timediff, expiry};
    timer = ecore_timer_add(static_cast<double>(timediff), ecore_timer_cb, record);
  }
  if (timer == nullptr) {
    LOGE_OF(schedule_dravel_item, "out of memory");
    g_free(record);
    return -1;
  }
  LOGI_OF(schedule_dravel_item, "cb_data : %p, timer_item : %p, scheduled_timer : %p",
          static_cast<void *>(record), static_cast<void *>(item), static_cast<void *>(timer));
  g_hash_table_insert(scheduled_timer_table, GINT_TO_POINTER(item->timer_id), timer);
  g_hash_table_insert(cb_data_table, GINT_TO_POINTER(item->timer_id), record);
  state_touched();
  return 0;
}

static bool goes_before_programmed(const dravel_item *item, time_value expire_time,
                                   time_value local_ontime) {
  return local_ontime == 0 || expire_time < local_ontime ||
         (expire_time == local_ontime && item->priority > micom_ontimer.priority);
}

// After `item` is armed: an on-timer before the programmed one replaces it, an
// off-timer may remove it.
static void reconsider_micom_ontimer(const dravel_item *item, time_value expire_time,
                                     time_value local_ontime, bool avoid_reboot) {
  if (is_ontimer_item(item) && !avoid_reboot) {
    if (goes_before_programmed(item, expire_time, local_ontime) &&
        program_next_ontimer() == kOntimerRefused)
      LOGE_OF(schedule_dravel_item, "Failed to schedule micom ontimer");
    return;
  }
  if (!has_type(item, TIMER_TYPE_OFF) || local_ontime == 0)
    return;
  if (replace_programmed_ontimer() == kOntimerRefused)
    LOGE_OF(schedule_dravel_item, "Failed to schedule micom offtimer");
}

static bool is_halted(int type) {
  switch (timer_type_of(type).action) {
  case timer_action::kTurnOn:
  case timer_action::kWake:
    return ontimer_halt != 0;
  case timer_action::kTurnOff:
    return offtimer_halt != 0;
  default:
    return false;
  }
}

// The first time for which the main loop would have come to it. A repeating item may be armed for a
// later one already.
static std::optional<time_value> first_due(const dravel_item *item, time_value from) {
  const auto armed = armed_expiry(item->timer_id);
  if (!armed && !waiting_for_clock.contains(item->timer_id))
    return std::nullopt;
  if (item->week_flag != 0)
    return occurrence_after(item, from);
  return armed ? armed : one_shot_time(item);
}

static void add_due(const dravel_item *item, time_value from, time_value until,
                    std::vector<due_timer> &due) {
  auto time = first_due(item, from);
  for (time_value last = from; time && *time > last && *time <= until;
       time = occurrence_after(item, last)) {
    last = *time;
    due.push_back({item->timer_id, item->type, last});
  }
}

std::size_t dravel_due_timers(time_value from, time_value until, due_timer *out, std::size_t room) {
  std::vector<due_timer> due = std::exchange(missed_timers, {});
  std::erase_if(due, [=](const due_timer &missed) {
    return missed.time <= from || missed.time > until || is_halted(missed.type);
  });
  for (const dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    if (!is_halted(item->type))
      add_due(item, from, until, due);
  }
  std::ranges::stable_sort(due, {}, &due_timer::time);
  const std::size_t count = std::min(due.size(), room);
  std::ranges::copy(std::span(due).last(count), out);
  return count;
}

static next_expiry schedule_dravel_item(dravel_item *item, const expiry_call &call,
                                        time_value &next) {
  LOGP("start schedule timer_id[%d] week_flag[0x%x] disable_effect[%d] time_type[%d]",
       item->timer_id, static_cast<unsigned>(item->week_flag), item->disable_period_effect,
       item->time_type);
  time_value now = 0;
  if (get_cur_time_or_rtc(&now, item->time_type) != 0)
    return next_expiry::kUnknown;
  LOGP("curtime : %s", time_str(now));

  const next_expiry found = find_next_expiry(item, &next);
  if (found != next_expiry::kDue) {
    LOGP("get_next_expire_date~~~error code : %d\n", result_of(found));
    return found;
  }
  std::tm expire_tm;
  unsigned_gmtime_r(next, &expire_tm);
  if (has_type(item, TIMER_TYPE_STANDBY) && can_skip_standby(&expire_tm, item->timer_id) != 0)
    return next_expiry::kNever;

  const time_value expire_time = unsigned_timegm(&expire_tm);
  time_value timediff = 0;
  if (distance_to(expire_time, expire_tm, now, &timediff) != 0)
    return next_expiry::kPast;
  const bool avoid_reboot = fires_in_current_minute(now, expire_tm, timediff);
  const time_value local_ontime = pending_local_ontime(now);

  LOGP("expire_time : %s", time_str(expire_time));
  LOGI("timediff : %lu", as_ulong(timediff));
  LOGI("micom_ontime : %s", time_str(micom_ontimer.ontime));
  LOGI("local_ontime : %s", time_str(local_ontime));
  LOGD("expire_time : %lu", as_ulong(expire_time));
  LOGD("micom_ontime : %lu", as_ulong(micom_ontimer.ontime));
  LOGP("ontimer_list_count %d, offtimer_list_count %d",
       static_cast<int>(eina_list_count(get_ontimer_list())),
       static_cast<int>(eina_list_count(get_offtimer_list())));
  if (timediff > kMaxDistanceSeconds) {
    LOGP("!!!timediff couldn't be greater than one year~~~\n");
    return next_expiry::kNever;
  }

  LOGP("scheduled item id: %d, type: %d", item->timer_id, item->type);
  if (arm(item, call, timediff, expire_time) != 0)
    return next_expiry::kNever;
  reconsider_micom_ontimer(item, expire_time, local_ontime, avoid_reboot);
  return next_expiry::kDue;
}

int schedule_dravel_item(dravel_item *item, dravel_expire_fn cb, void *data) {
  time_value expiry = 0;
  return result_of(schedule_dravel_item(item, {cb, data}, expiry));
}

static std::optional<removal_reason> schedule_item(dravel_item *item, time_value &expiry) {
  const next_expiry found = schedule_dravel_item(item, {dravel_expire_cb, nullptr}, expiry);
  if (found != next_expiry::kUnknown)
    waiting_for_clock.erase(item->timer_id);
  switch (found) {
  case next_expiry::kPast:
    return removal_reason::kPast;
  case next_expiry::kNever:
    return removal_reason::kNever;
  default:
    return std::nullopt;
  }
}

std::optional<removal_reason> schedule_item(dravel_item *item) {
  time_value expiry = 0;
  return schedule_item(item, expiry);
}

std::optional<removal_reason> schedule_at_start(dravel_item *item) {
  time_value expiry = 0;
  const auto reason = schedule_item(item, expiry);
  if (reason == removal_reason::kPast)
    missed_timers.push_back({item->timer_id, item->type, expiry});
  return reason;
}

void wait_for_clock(const dravel_item *item) { waiting_for_clock.insert(item->timer_id); }

// To be armed again at once, if the clock allows it.
static void disarm_for_now(const dravel_item *item) {
  if (is_armed(item->timer_id))
    wait_for_clock(item);
  cancel_ecore_timer(item->timer_id);
}

Eina_Bool ecore_timer_cb(void *data) {
  auto *record = static_cast<cb_data *>(data);
  dravel_item *item = record->timer_item;
  LOGI("~#@CBDATA = %p~TIMERITEM = %p~TIMEID = %d~TYPE = %d~TIMEDIFF = %ld\n",
       static_cast<void *>(record), static_cast<void *>(item), item->timer_id, item->type,
       static_cast<long>(record->timediff));
  record->cb(item, record->data);
  forget_armed(item->timer_id);
  adjust_dravel_all_items(nullptr, nullptr);
  g_free(record);
  return ECORE_CALLBACK_CANCEL;
}

static bool is_head_due(void) {
  const auto *head = static_cast<const dravel_item *>(eina_list_data_get(get_ontimer_list()));
  std::tm expire{};
  return get_next_expire_date(head, &expire) == 0;
}

// The programmed on-timer was removed: programs the next one. The on-time is cleared first, so that
// the set does not wake for the removed one when there is no next one. After a cancellation an
// on-timer at the head without a next expiry ends the choice: nothing is programmed until timers
// are armed again or another on-timer is scheduled.
static void schedule_next_ontimer(bool was_cancelled) {
  disable_programmed_ontimer();
  if (get_ontimer_list() == nullptr) {
    // Cleared again: the first request may have been refused.
    disable_programmed_ontimer();
    return;
  }
  if (was_cancelled && !is_head_due())
    return;
  if (replace_programmed_ontimer() == kOntimerRefused)
    LOGE("Failed to schedule next micom ontimer");
}

void replace_removed_ontimer(void) {
  if (micom_ontimer.timer_id != 0 && find_dravel_item(micom_ontimer.timer_id) == nullptr)
    schedule_next_ontimer(false);
}

// Arms `item`, or removes it when it never fires: `operation` then logs a line.
static void arm_or_remove(dravel_item *item, const char *operation, system_log_priority priority) {
  const auto reason = schedule_item(item);
  if (!reason)
    return;
  LOG_FROM(operation, priority, "timer doesn't have next expire date");
  remove_dravel_item(item, *reason);
}

// An off-timer was removed: an on-timer of the same time may fire again and is
// armed.
void rearm_next_ontimer(void) {
  dravel_item *chosen = nullptr;
  std::tm expire{};
  if (get_next_ontimer_not_overlap_with_offtimer(&chosen, &expire) != 0)
    return;
  cancel_ecore_timer(chosen->timer_id);
  arm_or_remove(chosen, "cancel_dravel_item", SYSTEM_LOG_PROGRESS);
  replace_removed_ontimer();
}

void cancel_dravel_item(dravel_item *item, removal_reason reason) {
  LOGD("timer:%d canceled\n", item->timer_id);
  LOGP("timer_item %p", static_cast<void *>(item));
  const int timer_id = item->timer_id;
  const bool is_offtimer = has_type(item, TIMER_TYPE_OFF);
  const bool had_ontimers = get_ontimer_list() != nullptr;

  cancel_ecore_timer(timer_id);
  waiting_for_clock.erase(timer_id);
  remove_dravel_item(item, reason);
  if (micom_ontimer.timer_id == timer_id)
    schedule_next_ontimer(true);
  if (is_offtimer && had_ontimers)
    rearm_next_ontimer();
}

void cancel_dravel_item(dravel_item *item) { cancel_dravel_item(item, removal_reason::kCancelled); }

// Moves a one-shot item by whole days, so that it is due within the next 24 hours, and stores it:
// the clock may have jumped over its day. A time on 1 January 1970 counts as far ahead, because the
// subtraction wraps. A date past 2106 has no time value, and is left as it is.
static void re_anchor(dravel_item *item, const clock_reading &clocks) {
  time_value scheduled = unsigned_timegm(&item->tm);
  LOGI_OF(adjust_dravel_all_items, "scheduled_time[%lu]", as_ulong(scheduled));
  if (scheduled == kInvalidTime)
    return;
  time_value on_tv_clock = scheduled;
  if (item->time_type == TIME_TYPE_INTERNET) {
    on_tv_clock = add_time_offset(scheduled, clocks.offset);
    LOGI_OF(adjust_dravel_all_items, "scheduled_time with offset[%lu]", as_ulong(on_tv_clock));
  }

  if (on_tv_clock - kSecondsPerDay >= clocks.now) {
    scheduled -= kSecondsPerDay * ((on_tv_clock - clocks.now) / kSecondsPerDay);
  } else if (clocks.now > on_tv_clock) {
    const time_value late = clocks.now - on_tv_clock;
    const time_value days = late / kSecondsPerDay;
    scheduled += late == kSecondsPerDay * days ? late : kSecondsPerDay * (days + 1);
  }

  const bool moves = scheduled != unsigned_timegm(&item->tm);
  unsigned_gmtime_r(scheduled, &item->tm);
  const int result = update_dravel_item_db(item);
  if (result != 0)
    LOGD_OF(adjust_dravel_all_items, "update_dravel_item_db error : %d", result);
  if (moves)
    timer_changed(item->timer_id);
  LOGD_OF(adjust_dravel_all_items, "changed once time : %s", time_str(scheduled));
}

static void adjust_unarmed(dravel_item *item) {
  LOG_TIME_FROM("adjust_dravel_all_items", SYSTEM_LOG_DEBUG, "time: %s", &item->tm);
  if (const auto reason = schedule_item(item))
    remove_dravel_item(item, *reason);
}

static void adjust_armed(dravel_item *item, const clock_reading &clocks) {
  disarm_for_now(item);
  if (!has_type(item, TIMER_TYPE_ALWAYS) && item->week_flag == 0) {
    if (is_on_unknown_tv_clock(item, clocks))
      return;
    re_anchor(item, clocks);
  }
  LOGD_OF(adjust_dravel_all_items, "adjust timer timer_id: %d, type: %d", item->timer_id,
          item->type);
  LOG_TIME_FROM("adjust_dravel_all_items", SYSTEM_LOG_DEBUG, "time: %s", &item->tm);
  arm_or_remove(item, "adjust_dravel_all_items", SYSTEM_LOG_DEBUG);
}

void adjust_dravel_all_items(struct settings_key *, void *) {
  LOGP("adjust_all_timers");
  clock_set();
  disable_programmed_ontimer();
  LOGP("timer list count: %d", static_cast<int>(eina_list_count(get_dravel_list())));

  clock_reading clocks;
  read_clocks(&clocks);
  LOGI("curtime[%lu], broadcast time[%lu], internet time[%lu], internet time offset[%lf]",
       as_ulong(clocks.now), as_ulong(clocks.broadcast), as_ulong(clocks.internet), clocks.offset);

  for (dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    if (has_type(item, TIMER_TYPE_TRANSIENT))
      continue;
    if (is_armed(item->timer_id))
      adjust_armed(item, clocks);
    else
      adjust_unarmed(item);
  }
  replace_removed_ontimer();
}

void reschedule_all_timers(void) {
  clock_set();
  LOGP("timer list count: %d", static_cast<int>(eina_list_count(get_dravel_list())));
  disable_programmed_ontimer();
  for (dravel_item *item : items_of<dravel_item>(get_dravel_list())) {
    disarm_for_now(item);
    arm_or_remove(item, __func__, SYSTEM_LOG_PROGRESS);
  }
  replace_removed_ontimer();
}

// The TV clock has become valid: timers may be armed from now on.
static void start_with_valid_time(void) {
  set_kinto_time_updated(1);
  reschedule_all_timers();
  create_dravel_finish_file();
}

Eina_Bool adjust_wait_timer_cb(void *) {
  LOGP("failed auto_time_set");
  adjust_wait_timer = nullptr;
  set_kinto_time_updated(1);
  reschedule_all_timers();
  return ECORE_CALLBACK_CANCEL;
}

Eina_Bool wait_cur_time_cb(void *) {
  if (!is_tv_clock_known())
    return ECORE_CALLBACK_RENEW;
  start_with_valid_time();
  return ECORE_CALLBACK_CANCEL;
}

static int power_poweroff_cb(int option, void *) {
  LOGP("poweroff option: %d", option);
  if (is_resetting_poweroff(option)) {
    LOGI("reset dravel db");
    reset_dravel_db();
  }
  set_kinto_time_updated(0);
  return 0;
}

static int power_standby_cb(int option, void *) {
  LOGP("standby option: %d", option);
  set_kinto_time_updated(0);
  set_wakeup_state(0);
  update_micom_ontimer();
  return 0;
}

static int ambient_power_off_cb(void *) {
  LOGP("into the ambient suspend mode");
  set_kinto_time_updated(0);
  set_wakeup_state(0);
  update_micom_flag();
  return 0;
}

// The clock may have jumped while the set slept.
//
// The programmed on-timer is disarmed first: an adjustment moves armed one-shot timers to another
// day, and this one may just have woken the set. Unarmed it keeps its day. The next adjustment arms
// it or, when its time has passed, removes it.
//
// A clock that is trusted needs nothing else. Otherwise all timers are adjusted now, when the clock
// can be read, and rescheduled when the middleware confirms the time or 60 seconds have passed.
//
// The line has the `event`'s priority. It is logged for id 0, which stands for no timer, too.
static void react_to_wakeup(system_log_priority priority,
                            const char *event = __builtin_FUNCTION()) {
  set_wakeup_state(1);
  if (micom_ontimer.timer_id >= 0) {
    LOG_FROM(event, priority, "micom_ontimer id: %d", micom_ontimer.timer_id);
    cancel_ecore_timer(micom_ontimer.timer_id);
  }
  if (get_kinto_time_updated() != 0)
    return;

  if (is_tv_clock_known())
    adjust_dravel_all_items(nullptr, nullptr);
  stop_timer(adjust_wait_timer);
  adjust_wait_timer = ecore_timer_add(kAdjustWaitSeconds, adjust_wait_timer_cb, nullptr);
}

static int power_wakeup_cb(int reason, void *) {
  LOGP("wakeup reason: %d", reason);
  react_to_wakeup(SYSTEM_LOG_DEBUG);
  return 0;
}

static int power_state_changed(const void *record, void *) {
  device_power_event event;
  std::memcpy(&event, record, sizeof event);
  const int state = event.state;
  const int ambient_mode = event.ambient_mode;
  LOGP("power_state_changed, [%d], [%d]", state, ambient_mode);
  if (!is_ambient_low_power(state, ambient_mode))
    return 0;
  LOGI("into the ambient low power mode");
  react_to_wakeup(SYSTEM_LOG_INFO);
  return 0;
}

// The subscriptions without which the daemon does not start, in their order.
static constexpr struct {
  const char *name;
  int (*subscribe)();
  int (*unsubscribe)();
} kPowerSubscriptions[] = {
    {"poweroff", [] { return device_power_subscribe_poweroff(power_poweroff_cb, nullptr); },
     [] { return device_power_unsubscribe_poweroff(power_poweroff_cb); }},
    {"standby", [] { return device_power_subscribe_standby(power_standby_cb, nullptr); },
     [] { return device_power_unsubscribe_standby(power_standby_cb); }},
    {"wakeup", [] { return device_power_subscribe_wakeup(power_wakeup_cb, nullptr); },
     [] { return device_power_unsubscribe_wakeup(power_wakeup_cb); }},
    {"ambient_poweroff",
     [] { return device_power_subscribe_ambient_poweroff(ambient_power_off_cb, nullptr); },
     [] { return device_power_unsubscribe_ambient_poweroff(ambient_power_off_cb); }},
};

int init_power_state_handler(void) {
  for (const auto &subscription : kPowerSubscriptions) {
    const int result = subscription.subscribe();
    if (result != 0) {
      LOGE("device_power_subscribe_%s error : %d \n", subscription.name, result);
      return -1;
    }
  }
  return 0;
}

void fini_power_state_handler(void) {
  for (const auto &subscription : kPowerSubscriptions) {
    const int result = subscription.unsubscribe();
    if (result != 0)
      LOGE("device_power_unsubscribe_%s error : %d \n", subscription.name, result);
  }
}

void register_ambient_mode_cb(void) {
  if (ambient_poweroff_received)
    return;
  const int result = device_power_subscribe_state_changed_event(power_state_changed, nullptr);
  if (result != 0) {
    LOGE("failed to set power state changed callback, %d", result);
    return;
  }
  ambient_poweroff_received = true;
}

void unregister_ambient_mode_cb(void) {
  if (ambient_poweroff_received)
    device_power_unsubscribe_state_changed_event(power_state_changed);
}

Eina_Bool retry_adjust_all_timers(void *) {
  if (get_auto_clock_mode_time_update() == 0) {
    LOGP("retry_adjust_all_timers, clock mode change but time not update.");
    return ECORE_CALLBACK_RENEW;
  }
  adjust_dravel_all_items(nullptr, nullptr);
  retry_adjust_timer = nullptr;
  return ECORE_CALLBACK_CANCEL;
}

static void clock_mode_changed(struct settings_key *, void *) {
  LOGP("clock_mode_changed");
  int mode = 0;
  if (settings_get_int(kSettingsClockMode, &mode) != 0)
    return;
  stop_timer(retry_adjust_timer);
  if (mode == CLOCK_MODE_MANUAL)
    set_auto_clock_mode_time_update(0);
  if (mode != CLOCK_MODE_AUTO)
    return;
  if (get_auto_clock_mode_time_update() != 0)
    adjust_dravel_all_items(nullptr, nullptr);
  else
    retry_adjust_timer = ecore_timer_add(kPollSeconds, retry_adjust_all_timers, nullptr);
}

static constexpr struct {
  const char *key;
  settings_changed_cb changed;
  const char *event;
} kSettingsWatchers[] = {
    {kSettingsTimeZone, adjust_dravel_all_items, "changing time zone"},
    {kSettingsClockMode, clock_mode_changed, "changing clockmode"},
    {kSettingsTimeSet, adjust_dravel_all_items, "time setting"},
};

int init_settings_handler(void) {
  for (const auto &watcher : kSettingsWatchers) {
    if (settings_notify_key_changed(watcher.key, watcher.changed, nullptr) < 0) {
      LOGE("Failed to add callback for %s event\n", watcher.event);
      return -1;
    }
  }
  return 0;
}

void auto_time_set(void) {
  clock_set();
  const int time_updated = get_kinto_time_updated();
  const int state = device_power_get_state();
  const int ambient_mode = device_power_get_ambient_mode();
  LOGI("power_state: %d, ambient_mode: %d, get_kinto_time_updated %d", state, ambient_mode,
       time_updated);

  if (time_updated == 0 &&
      (state == DEVICE_POWER_STATE_ON || state == DEVICE_POWER_STATE_SLEEPING ||
       is_ambient_low_power(state, ambient_mode))) {
    stop_timer(adjust_wait_timer);
    if (is_tv_clock_known())
      start_with_valid_time();
    else // one more poll with each time update; all end once the clock can be read
      ecore_timer_add(kPollSeconds, wait_cur_time_cb, nullptr);
  }

  int mode = 0;
  if (settings_get_int(kSettingsClockMode, &mode) == 0 && mode == CLOCK_MODE_AUTO)
    set_auto_clock_mode_time_update(1);
}
