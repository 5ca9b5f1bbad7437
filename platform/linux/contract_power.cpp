// The power service and the power micro-controller of the set.
#include "rtc.h"
#include "shell.h"
#include "start.h"
#include "zone.h"

#include <IPowerControl.h>
#include <daemon_callbacks.h>
#include <device_power.h>
#include <dravel-timer-types.h>
#include <screen_manager.h>
#include <time_values.h>

static constexpr int kNoReason = 0;
static constexpr int kAmbientModeClosed = 0;

namespace {

class wake_control final : public IPowerControl {
public:
  int read_rtc(rtc_time *out) override;
  int set_wakeup_time(std::uint32_t type, std::uint32_t time) override;
  int clear_wakeup_time() override;
};

} // namespace

// --- power service ---

int device_power_get_state() {
  return the_record().screen.believed == screen_state::kOn ? DEVICE_POWER_STATE_ON
                                                           : DEVICE_POWER_STATE_SLEEPING;
}

int device_power_get_ambient_mode() { return kAmbientModeClosed; }

// The daemon may call it before any other operation: the platform then starts here.
int device_power_get_wakeup_reason() {
  const bool runs = start_platform();
  const auto &woken = the_record().woken;
  return runs && woken.credited ? timer_type_of(woken.type).reason : kNoReason;
}

int device_power_set_wakeup_reason(int reason) {
  call(event::fired{reason});
  return kDone;
}

int device_power_set_state(int state, int) {
  if (state != DEVICE_POWER_STATE_ON)
    return kFailed;
  call(event::screen_wanted{true});
  return kDone;
}

int device_power_request_poweroff(unsigned int) {
  call(event::screen_wanted{false});
  return kDone;
}

template <class Callback>
static int subscribe(const char *, const char *event, Callback callback, void *user_data) {
  return daemon_callbacks().add(event, callback, user_data);
}

template <class Callback>
static int unsubscribe(const char *, const char *event, Callback callback) {
  return daemon_callbacks().remove(event, callback);
}

DEFINE_POWER_SUBSCRIPTIONS(subscribe, unsubscribe)

int screen_manager_set_ambient_mode(int mode, int) {
  call(event::ambient{mode != 0});
  return kDone;
}

// --- micro-controller ---

int wake_control::read_rtc(rtc_time *out) {
  const auto utc = read_rtc_utc();
  if (!utc)
    return kFailed;
  *out = rtc_reading(to_time_value(*utc));
  return kDone;
}

// The daemon gives UTC in the automatic clock mode, local time otherwise.
int wake_control::set_wakeup_time(std::uint32_t type, std::uint32_t time) {
  const bool is_utc = the_record().clock.state == clock_state::kSynchronised;
  const utc_times on_time = is_utc ? utc_times{time, 0} : utc_of_local(time);
  call(event::program{type, on_time.first, on_time.second});
  return the_record().alarm.for_good ? kFailed : kDone;
}

int wake_control::clear_wakeup_time() {
  call(event::unprogram{});
  return kDone;
}

IPowerControl *IPowerControl::getInstance() {
  static wake_control instance;
  return &instance;
}
