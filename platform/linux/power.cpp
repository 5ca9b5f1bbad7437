#include "power.h"

#include "alarm.h"
#include "clock.h"
#include "configuration.h"
#include "events.h"
#include "journal.h"
#include "screen.h"
#include "sleep.h"
#include "start.h"
#include "targets.h"
#include "time_source.h"

#include <Ecore.h>
#include <IPowerControl.h>
#include <device_power.h>
#include <screen_manager.h>
#include <time_values.h>

#include <ctime>

static constexpr int kDone = 0;
static constexpr int kFailed = -1;
static constexpr int kNoReason = 0;
static constexpr int kAmbientModeClosed = 0;
static constexpr std::uint32_t kTypeOn = 0;

// Many televisions do not report that their own remote has turned them on or off.
static constexpr std::uint32_t kAskBeforeSeconds = 10;
static constexpr double kBlockedSeconds = 30.0; // until a sleep that was postponed is tried again

static int state = DEVICE_POWER_STATE_ON;
static int wakeup_reason = kNoReason;
static wake_up before_sleep; // what was programmed when the machine went to sleep
static bool was_booted;      // by the alarm, not resumed
static Ecore_Timer *ask_timer;
static Ecore_Timer *sleep_timer; // null: nothing sends the machine back to sleep
static int off_steps_left;       // of an off order, before its action

static std::uint32_t now() { return to_time_value(std::time(nullptr)); }

static void stop_timer(Ecore_Timer *&timer) {
  if (timer != nullptr)
    ecore_timer_del(timer);
  timer = nullptr;
}

// --- return to sleep ---

static Eina_Bool return_to_sleep(void *);

static void return_to_sleep_after(double seconds) {
  stop_timer(sleep_timer);
  sleep_timer = ecore_timer_add(seconds, return_to_sleep, nullptr);
}

static void return_is_postponed() { return_to_sleep_after(configuration().return_to_sleep); }

static off_action sleep_of_before() {
  if (was_booted)
    return off_action::kPoweroff;
  return configuration().off == off_action::kHibernate ? off_action::kHibernate
                                                       : off_action::kSuspend;
}

static Eina_Bool return_to_sleep(void *) {
  sleep_timer = nullptr;
  note("nothing has turned the screen on, the machine goes back to sleep");
  send_to_sleep(sleep_of_before(), return_is_postponed);
  return ECORE_CALLBACK_CANCEL;
}

// --- the screen ---

static void set_state(int new_state) {
  if (new_state == state)
    return;
  state = new_state;
  if (state != DEVICE_POWER_STATE_ON)
    return;
  off_steps_left = 0;
  stop_timer(sleep_timer);
}

static void turn_on() {
  set_state(DEVICE_POWER_STATE_ON);
  turn_screen(true, nullptr);
  start_target(kOnTarget);
}

static Eina_Bool try_off_action(void *);

static void off_action_is_postponed() {
  stop_timer(sleep_timer);
  sleep_timer = ecore_timer_add(kBlockedSeconds, try_off_action, nullptr);
}

static Eina_Bool try_off_action(void *) {
  sleep_timer = nullptr;
  send_to_sleep(configuration().off, off_action_is_postponed);
  return ECORE_CALLBACK_CANCEL;
}

// Called when the screen is off and when the hooks of the target have run: the machine sleeps after
// both.
static void off_step_ended() {
  if (off_steps_left > 0 && --off_steps_left == 0)
    try_off_action(nullptr);
}

static void turn_off() {
  stop_timer(sleep_timer);
  set_state(DEVICE_POWER_STATE_SLEEPING);
  off_steps_left = 2;
  turn_screen(false, off_step_ended);
  start_off_target(off_step_ended);
}

void screen_is(bool on) {
  const int new_state = on ? DEVICE_POWER_STATE_ON : DEVICE_POWER_STATE_SLEEPING;
  if (new_state == state)
    return;
  set_state(new_state);
  deliver_state_changed(state, kAmbientModeClosed);
}

// --- waking up ---

// The daemon never fires a timer that is past.
static void catch_up_late(const wake_up &wake) {
  if (now() <= wake.on_time || now() > wake.on_time + kLatestSeconds)
    return;
  note("the machine is %u seconds late", now() - wake.on_time);
  if (wake.type == kTypeOn)
    turn_on();
  else
    start_wakeup_target(device_power_reason_of(wake.type));
}

static void credit(const wake_up &wake, bool booted) {
  was_booted = booted;
  wakeup_reason = device_power_reason_of(wake.type);
  set_state(DEVICE_POWER_STATE_SLEEPING);
  if (configuration().return_to_sleep == 0)
    return;
  const std::uint32_t until_on_time = wake.on_time > now() ? wake.on_time - now() : 0;
  return_to_sleep_after(until_on_time + configuration().return_to_sleep);
}

// A machine that comes back from the disk takes as long as one that boots.
static wake_kind kind_of_sleep() {
  return configuration().off == off_action::kHibernate ? wake_kind::kBoot : wake_kind::kResume;
}

void machine_goes_to_sleep() {
  stop_timer(sleep_timer);
  off_steps_left = 0;
  leave_screen();
  change_alarm_lead(kind_of_sleep());
  deliver_standby();
  before_sleep = programmed_wake_up();
}

void machine_woke_up() {
  const bool by_alarm = explains(before_sleep, now());
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

void machine_shuts_down() {
  change_alarm_lead(wake_kind::kBoot);
  deliver_standby();
}

void machine_stays_up() {
  change_alarm_lead(wake_kind::kResume);
  deliver_wakeup(kNoReason);
  confirm_time();
}

void user_is_active() { stop_timer(sleep_timer); }

static std::uint32_t boot_time() {
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  return to_time_value(std::time(nullptr) - up.tv_sec);
}

void start_power(const wake_up &left) {
  if (!explains(left, boot_time()))
    return;
  note("booted by the alarm");
  credit(left, true);
  catch_up_late(left);
}

// --- power service ---

int device_power_get_state() { return state; }

int device_power_get_ambient_mode() { return kAmbientModeClosed; }

// The daemon calls it before its first subscription.
int device_power_get_wakeup_reason() {
  start_platform();
  return wakeup_reason;
}

// Called at an expiry: the time until the return to sleep starts again.
int device_power_set_wakeup_reason(int reason) {
  start_wakeup_target(reason);
  if (sleep_timer != nullptr)
    return_to_sleep_after(configuration().return_to_sleep);
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

// --- power micro-controller ---

namespace {

class wake_control final : public IPowerControl {
public:
  int read_rtc(rtc_time *out) override;
  int set_wakeup_time(std::uint32_t type, std::uint32_t time) override;
  int clear_wakeup_time() override;
};

} // namespace

static Eina_Bool ask_before_on_time(void *) {
  ask_timer = nullptr;
  ask_screen();
  return ECORE_CALLBACK_CANCEL;
}

int wake_control::read_rtc(rtc_time *out) {
  const auto utc = read_rtc_utc();
  if (!utc)
    return kFailed;
  const std::tm time = broken_down(*utc);
  *out = {time.tm_sec,  time.tm_min,     time.tm_hour,
          time.tm_mday, time.tm_mon + 1, time.tm_year - 100};
  return kDone;
}

// The daemon gives UTC in the automatic clock mode, local time otherwise.
int wake_control::set_wakeup_time(std::uint32_t type, std::uint32_t time) {
  const std::uint32_t on_time = clock_mode() == kClockModeAutomatic ? time : to_utc(time);
  stop_timer(ask_timer);
  if (on_time > now() + kAskBeforeSeconds)
    ask_timer = ecore_timer_add(on_time - now() - kAskBeforeSeconds, ask_before_on_time, nullptr);
  return set_alarm(type, on_time);
}

int wake_control::clear_wakeup_time() {
  stop_timer(ask_timer);
  return clear_alarm();
}

IPowerControl *IPowerControl::getInstance() {
  static wake_control instance;
  return &instance;
}
