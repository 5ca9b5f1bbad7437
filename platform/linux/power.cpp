#include "power.h"

#include "alarm.h"
#include "clock.h"
#include "configuration.h"
#include "journal.h"
#include "loop_timer.h"
#include "off_order.h"
#include "return_to_sleep.h"
#include "screen.h"
#include "start.h"
#include "targets.h"
#include "time_source.h"

#include <daemon_callbacks.h>
#include <dravel-timer-types.h>
#include <screen_manager.h>
#include <time_values.h>

#include <ctime>

static constexpr int kNoReason = 0;
static constexpr int kAmbientModeClosed = 0;
static constexpr std::uint32_t kStartSeconds = 5;     // until the daemon has armed its timers
static constexpr std::uint32_t kArmedLateSeconds = 2; // an armed timer has fired by then

static int state = DEVICE_POWER_STATE_ON;
static int wakeup_reason = kNoReason;
static wake_up before_sleep;     // what was programmed before a sleep or a boot
static bool was_booted;          // by the alarm, not resumed
static Ecore_Timer *start_timer; // of a start that may end after the on-time

static void keep() { keep_power({state, wakeup_reason, was_booted, is_return_due()}); }

// --- the screen ---

static void set_state(int new_state) {
  state = new_state;
  if (state == DEVICE_POWER_STATE_ON) {
    end_timer(start_timer);
    cancel_off_order();
    stop_return();
  }
  keep();
}

static off_action action_of_return() {
  if (was_booted)
    return off_action::kPoweroff;
  return configuration().off == off_action::kHibernate ? off_action::kHibernate
                                                       : off_action::kSuspend;
}

static void return_after(std::uint32_t time) {
  start_return(action_of_return(), time);
  keep();
}

// When a timer has woken the machine and the television stays off, the machine sleeps again.
static void on_order_ended() {
  if (state != DEVICE_POWER_STATE_ON && wakeup_reason != kNoReason)
    return_after(utc_now());
}

static void turn_on() {
  set_state(DEVICE_POWER_STATE_ON);
  turn_screen(true, on_order_ended);
  start_target(kOnTarget);
}

static void turn_off() {
  stop_return();
  set_state(DEVICE_POWER_STATE_SLEEPING);
  give_off_order();
}

void screen_is(bool on) {
  const int new_state = on ? DEVICE_POWER_STATE_ON : DEVICE_POWER_STATE_SLEEPING;
  if (new_state == state)
    return;
  set_state(new_state);
  deliver_state_changed(state, kAmbientModeClosed);
}

// --- waking up ---

// The daemon never fires a timer that is past or due in this second.
static void catch_up_late(const wake_up &wake) {
  if (utc_now() < wake.on_time || utc_now() > wake.on_time + kLatestSeconds)
    return;
  note("the machine is %u seconds late", utc_now() - wake.on_time);
  const timer_type &type = timer_type_of(wake.type);
  if (type.action == timer_action::kTurnOn)
    turn_on();
  else if (type.action == timer_action::kWake)
    start_wakeup_target(type.reason);
}

static Eina_Bool start_ended(void *) {
  start_timer = nullptr;
  catch_up_late(before_sleep);
  return ECORE_CALLBACK_CANCEL;
}

// Whether the daemon gives a wake-up reason when a timer of this type expires.
static bool has_reason(std::uint32_t type) {
  return timer_type_of(type).action != timer_action::kNone;
}

// An on-time that passes while the daemon starts is past when it arms its timers. Only the wake-up
// reason of an expiry shows that it was in time.
static void catch_up_after_start(const wake_up &wake) {
  before_sleep = wake;
  catch_up_late(wake);
  const std::uint32_t ahead = wake.on_time - utc_now();
  if (ahead >= 1 && ahead <= kStartSeconds && has_reason(wake.type))
    start_timer = ecore_timer_add(ahead + kArmedLateSeconds, start_ended, nullptr);
}

static void credit(const wake_up &wake, bool booted) {
  was_booted = booted;
  wakeup_reason = timer_type_of(wake.type).reason;
  set_state(DEVICE_POWER_STATE_SLEEPING);
  return_after(wake.on_time);
}

// logind does not say which sleep begins: the configured one is assumed. A machine that comes back
// from the disk takes as long as one that boots.
static wake_kind kind_of_sleep() {
  return configuration().off == off_action::kHibernate ? wake_kind::kBoot : wake_kind::kResume;
}

static void drop_orders() {
  end_timer(start_timer);
  stop_return();
  cancel_off_order();
  leave_screen();
}

void machine_goes_to_sleep() {
  drop_orders();
  hold_clock_steps(true);
  change_alarm_lead(kind_of_sleep());
  deliver_standby(0);
  before_sleep = programmed_wake_up();
}

void machine_woke_up() {
  hold_clock_steps(false);
  const bool by_alarm = explains(before_sleep, utc_now());
  note("woken by %s", by_alarm ? "the alarm" : "the user");
  if (by_alarm) {
    credit(before_sleep, false);
  } else {
    wakeup_reason = kNoReason;
    set_state(DEVICE_POWER_STATE_ON);
  }
  deliver_wakeup(wakeup_reason);
  confirm_time();
  if (by_alarm)
    catch_up_late(before_sleep);
  ask_screen();
}

// The daemon marks the programmed timer at a standby, and at no other event before the end.
void machine_shuts_down() {
  drop_orders();
  change_alarm_lead(wake_kind::kBoot);
  deliver_standby(0);
}

void machine_stays_up() {
  change_alarm_lead(wake_kind::kResume);
  deliver_wakeup(kNoReason);
  confirm_time();
}

// After a boot by the alarm the session may be one that starts by itself. Before the return to
// sleep logind is asked whether its user is active.
void user_is_active() {
  if (was_booted)
    return;
  stop_return();
  keep();
}

static std::uint32_t boot_time() {
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  return to_time_value(std::time(nullptr) - up.tv_sec);
}

static void take_over(const power_record &kept) {
  state = kept.state;
  wakeup_reason = kept.wakeup_reason;
  was_booted = kept.was_booted;
  if (kept.returns)
    return_after(utc_now());
}

void start_power(const wake_up &left) {
  if (const auto kept = kept_power()) {
    take_over(*kept);
  } else if (explains(left, boot_time())) {
    note("booted by the alarm");
    credit(left, true);
    catch_up_after_start(left);
  }
  keep();
}

// --- power service ---

int device_power_get_state() { return state; }

int device_power_get_ambient_mode() { return kAmbientModeClosed; }

// The daemon may call it before any other operation: the platform then starts here.
int device_power_get_wakeup_reason() {
  start_platform();
  return wakeup_reason;
}

// Called at an expiry: the time until the return to sleep starts again.
int device_power_set_wakeup_reason(int reason) {
  end_timer(start_timer);
  start_wakeup_target(reason);
  restart_return();
  return kDone;
}

int device_power_set_state(int new_state, int) {
  if (new_state != DEVICE_POWER_STATE_ON)
    return kFailed;
  turn_on();
  return kDone;
}

int device_power_request_poweroff(unsigned int) {
  turn_off();
  return kDone;
}

int screen_manager_set_ambient_mode(int mode, int) {
  if (mode != 0)
    start_target(kAmbientTarget);
  else
    stop_target(kAmbientTarget);
  return kDone;
}
