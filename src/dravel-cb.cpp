#include "dravel-cb.h"

#include "dravel-edbus.h"
#include "dravel-item.h"
#include "dravel-log.h"
#include "dravel-power.h"
#include "dravel-timer.h"
#include "dravel-util.h"

#include <device_power.h>
#include <screen_manager.h>

#include <iterator>

namespace {

enum class expiry_action { none, turn_on, turn_off };

// What the daemon does itself when a timer of a type expires: the reason that it
// gives the power service for waking the set, or the option of its power-off.
struct type_row {
  expiry_action action;
  int wakeup_reason;
  unsigned poweroff_option;
};

} // namespace

static constexpr type_row kTypeRows[] = {
    {expiry_action::turn_on, 2, 0},                            // 0
    {expiry_action::turn_off, 2, POWEROFF_BY_OFF_TIMER},       // 1
    {expiry_action::turn_on, 20, 0},                           // 2
    {expiry_action::turn_on, 5, 0},                            // 3
    {expiry_action::none, 2, 0},                               // 4
    {expiry_action::turn_on, 28, 0},                           // 5
    {expiry_action::turn_on, 30, 0},                           // 6
    {expiry_action::turn_on, 33, 0},                           // 7
    {expiry_action::turn_on, 36, 0},                           // 8
    {expiry_action::none, 2, 0},                               // 9
    {expiry_action::turn_off, 2, POWEROFF_BY_TRANSIENT_TIMER}, // 10
    {expiry_action::turn_on, 74, 0},                           // 11
    {expiry_action::none, 2, 0},                               // 12
    {expiry_action::turn_on, 92, 0},                           // 13
    {expiry_action::turn_on, 99, 0},                           // 14
    {expiry_action::turn_on, 89, 0},                           // 15
    {expiry_action::turn_off, 2, POWEROFF_AMBIENT_TO_SUSPEND}, // 16
};
static constexpr type_row kOtherTypes = {expiry_action::none, 2, 0};

static const type_row &row_of(const dravel_item *item) {
  const auto type = static_cast<unsigned>(item->type);
  return type < std::size(kTypeRows) ? kTypeRows[type] : kOtherTypes;
}

static void switch_ambient_mode(int on) {
  const int result = screen_manager_set_ambient_mode(on, on);
  if (result < 0)
    LOGE("Error screen_manager_set_ambient_mode failed %d", result);
}

static void request_power_on(void) {
  const int result = device_power_set_state(POWER_STATE_ON, 1);
  if (result != 0)
    LOGE("Error in device_power_set_state : %d\n", result);
}

void process_on_timer(const dravel_item *item) {
  LOGD("process on timer\n");
  if (ontimer_halt != 0) {
    LOGD("on timer halted");
    return;
  }

  const int state = device_power_get_state();
  const int ambient_mode = device_power_get_ambient_mode();
  LOGI("power_state: %d, ambient_mode: %d", state, ambient_mode);
  if (state != POWER_STATE_SLEEPING && !is_ambient_low_power(state, ambient_mode))
    return;

  set_wakeup_timer(item);
  update_micom_flag();
  const int result = device_power_set_wakeup_reason(row_of(item).wakeup_reason);
  if (result != 0)
    LOGE("Error in device_power_set_wakeup_reason : %d\n", result);

  if (has_type(item, TIMER_TYPE_AMBIENT_ON))
    switch_ambient_mode(1);
  else if (ambient_mode == AMBIENT_MODE_LOW_POWER)
    switch_ambient_mode(0);
  else if (has_type(item, TIMER_TYPE_ON))
    request_power_on();
}

void process_off_timer(unsigned int option) {
  LOGE("off timer halted : %d\n", offtimer_halt);
  if (offtimer_halt != 0)
    return;
  const int result = device_power_request_poweroff(option);
  if (result != 0)
    LOGE("Error in processing power off timer : %d\n", result);
}

// The time of the occurrence; 0 when no clock that the item goes by can be read.
static time_value occurrence_of(const dravel_item *item) {
  time_value now = 0;
  if (get_cur_time(&now, TIME_TYPE_BROADCAST) != 0 && item->time_type == TIME_TYPE_INTERNET &&
      get_cur_time(&now, TIME_TYPE_RTC) != 0)
    now = 0;
  LOGI("cur time:[%lu]", as_ulong(now));
  return now;
}

static bool is_skipped(const dravel_item *item, time_value now) {
  if (has_type(item, TIMER_TYPE_ALWAYS) || item->disable_period_effect == 0 ||
      can_skip_timer(item, now) != SKIP_REFUSED)
    return false;
  LOGD("skip timer %d", item->timer_id);
  return true;
}

static void act_by_type(const dravel_item *item, int ambient_mode) {
  const type_row &row = row_of(item);
  switch (row.action) {
  case expiry_action::turn_on:
    process_on_timer(item);
    break;
  case expiry_action::turn_off:
    if (has_type(item, TIMER_TYPE_OFF) && ambient_mode != AMBIENT_MODE_CLOSED) {
      LOGI("ambient_mode open");
      break;
    }
    if (has_type(item, TIMER_TYPE_AMBIENT_OFF))
      LOGI("power off from ambient mode to suspend");
    process_off_timer(row.poweroff_option);
    break;
  case expiry_action::none:
    break;
  }
}

void dravel_expire_cb(dravel_item *item, void *) {
  if (item == nullptr) {
    LOGE("timer is NULL");
    return;
  }
  LOGE("dravel expired: [%d]", item->timer_id);
  if (is_skipped(item, occurrence_of(item)))
    return;

  LOGI("[dravel_expire_cb] send_expire_week_flag_signal week_flag = %d, timer_id = %d",
       item->week_flag, item->timer_id);
  send_expire_week_flag_signal(item->week_flag);
  send_expire_signal(item->timer_id);
  LOGI("[dravel_expire_cb] send signal by timer_type(%d)", item->type);
  send_expire_by_type_signal(item->type);

  const int ambient_mode = device_power_get_ambient_mode();
  LOGD("ambient_mode = %d", ambient_mode);
  act_by_type(item, ambient_mode);
}
