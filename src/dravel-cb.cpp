#include "dravel-cb.h"

#include "dravel-changes.h"
#include "dravel-edbus.h"
#include "dravel-item.h"
#include "dravel-log.h"
#include "dravel-power.h"
#include "dravel-timer.h"
#include "dravel-util.h"

#include <screen_manager.h>

static void switch_ambient_mode(int on) {
  const int result = screen_manager_set_ambient_mode(on, on);
  if (result < 0)
    LOGE_OF(process_on_timer, "Error screen_manager_set_ambient_mode failed %d", result);
}

static void request_power_on(void) {
  const int result = device_power_set_state(DEVICE_POWER_STATE_ON, 1);
  if (result != 0)
    LOGE_OF(process_on_timer, "Error in device_power_set_state : %d\n", result);
}

void process_on_timer(const dravel_item *item) {
  LOGD("process on timer\n");
  if (ontimer_halt != 0) {
    LOGD("on timer halted");
    timer_halted(item->timer_id);
    return;
  }

  const int state = device_power_get_state();
  const int ambient_mode = device_power_get_ambient_mode();
  LOGI("power_state: %d, ambient_mode: %d", state, ambient_mode);
  if (state != DEVICE_POWER_STATE_SLEEPING && !is_ambient_low_power(state, ambient_mode))
    return;

  set_wakeup_timer(item);
  update_micom_flag();
  const timer_type &type = timer_type_of(item->type);
  const int result = device_power_set_wakeup_reason(type.reason);
  if (result != 0)
    LOGE("Error in device_power_set_wakeup_reason : %d\n", result);

  if (has_type(item, TIMER_TYPE_AMBIENT_ON))
    switch_ambient_mode(1);
  else if (ambient_mode == AMBIENT_MODE_LOW_POWER)
    switch_ambient_mode(0);
  else if (type.action == timer_action::kTurnOn)
    request_power_on();
}

void process_off_timer(unsigned int option) {
  LOGP("off timer halted : %d\n", offtimer_halt);
  if (offtimer_halt != 0)
    return;
  const int result = device_power_request_poweroff(option);
  if (result != 0)
    LOGE("Error in processing power off timer : %d\n", result);
}

// The time of the occurrence; 0 when no clock that the item goes by can be read.
static time_value occurrence_of(const dravel_item *item) {
  time_value now = 0;
  if (get_cur_time_or_rtc(&now, item->time_type) != 0)
    now = 0;
  LOGI_OF(dravel_expire_cb, "cur time:[%lu]", as_ulong(now));
  return now;
}

// A one-shot timer is never skipped. The test may move it past the period: it fires now and, on the
// day after the period, once more.
static bool is_skipped(const dravel_item *item, time_value now) {
  return heeds_disabled_periods(item) && can_skip_timer(item, now) == SKIP_REFUSED;
}

static void turn_off(const dravel_item *item, unsigned option, int ambient_mode) {
  if (has_type(item, TIMER_TYPE_OFF) && ambient_mode != AMBIENT_MODE_CLOSED) {
    LOGI_OF(dravel_expire_cb, "ambient_mode open");
    return;
  }
  if (has_type(item, TIMER_TYPE_AMBIENT_OFF))
    LOGI_OF(dravel_expire_cb, "power off from ambient mode to suspend");
  if (offtimer_halt != 0)
    timer_halted(item->timer_id);
  process_off_timer(option);
}

static void act_by_type(const dravel_item *item, int ambient_mode) {
  const timer_type &type = timer_type_of(item->type);
  switch (type.action) {
  case timer_action::kTurnOn:
  case timer_action::kWake:
    process_on_timer(item);
    break;
  case timer_action::kTurnOff:
    turn_off(item, type.option, ambient_mode);
    break;
  case timer_action::kNone:
    break;
  }
}

void dravel_expire_cb(dravel_item *item, void *) {
  if (item == nullptr) {
    LOGE("timer is NULL");
    return;
  }
  LOGP("dravel expired: [%d]", item->timer_id);
  if (is_skipped(item, occurrence_of(item))) {
    LOGD("skip timer %d", item->timer_id);
    timer_skipped(item->timer_id);
    return;
  }

  timer_fired(item->timer_id, item->week_flag == 0);
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
