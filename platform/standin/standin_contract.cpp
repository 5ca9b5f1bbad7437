// The set's interfaces, answered from the record. An operation's own name, as
// __func__ gives it, is the one by which it is refused.
#include "standin_private.h"

#include <CTimeUtil.h>
#include <IPowerControl.h>
#include <daemon_callbacks.h>
#include <screen_manager.h>
#include <system_info.h>
#include <time_values.h>

static int answer(const char *operation, int value) {
  return standin_refuses(operation) ? kFailed : value;
}

static int request(const char *operation, const char *noted, std::uint32_t first,
                   std::uint32_t second) {
  standin_note(noted, first, second);
  return answer(operation, kDone);
}

template <class Callback>
static int subscribe(const char *operation, const char *subscription, Callback callback,
                     void *user_data) {
  if (standin_refuses(operation))
    return kFailed;
  return daemon_callbacks().add(subscription, callback, user_data);
}

template <class Callback>
static int unsubscribe(const char *operation, const char *subscription, Callback callback) {
  if (standin_refuses(operation))
    return kFailed;
  return daemon_callbacks().remove(subscription, callback);
}

namespace {

class PowerControl final : public IPowerControl {
public:
  int read_rtc(rtc_time *out) override {
    const std::uint32_t now = standin_rtc();
    if (!now || standin_refuses(__func__))
      return kFailed;
    *out = rtc_reading(now);
    return kDone;
  }

  int set_wakeup_time(std::uint32_t type, std::uint32_t time) override {
    standin_note(__func__, type, time);
    if (standin_refuses(__func__))
      return kFailed;
    standin().wakeup_type = type;
    standin().wakeup_time = time;
    return kDone;
  }

  int clear_wakeup_time() override {
    standin_note(__func__);
    if (standin_refuses(__func__))
      return kFailed;
    standin().wakeup_type = 0;
    standin().wakeup_time = 0;
    return kDone;
  }
};

} // namespace

// --- power service ---

int device_power_get_state() { return answer(__func__, standin().power_state); }

int device_power_get_ambient_mode() { return answer(__func__, standin().ambient_mode); }

int device_power_get_wakeup_reason() { return answer(__func__, standin().wakeup_reason); }

int device_power_set_wakeup_reason(int reason) {
  return request(__func__, "wakeup_reason", static_cast<std::uint32_t>(reason), 0);
}

int device_power_set_state(int state, int force) {
  return request(__func__, "state", static_cast<std::uint32_t>(state),
                 static_cast<std::uint32_t>(force));
}

int device_power_request_poweroff(unsigned int option) {
  return request(__func__, "poweroff", option, 0);
}

// Exports the set's object at the first power subscription: the daemon is on the
// bus then, and its main loop does not run yet, so that no call comes before it.
template <class Callback>
static int subscribe_power(const char *operation, const char *event, Callback callback,
                           void *user_data) {
  standin_export();
  return subscribe(operation, event, callback, user_data);
}

DEFINE_POWER_SUBSCRIPTIONS(subscribe_power, unsubscribe)

// --- power micro-controller ---

IPowerControl *IPowerControl::getInstance() {
  static PowerControl instance;
  return &instance;
}

// --- settings, features, screen ---

int settings_get_int(const char *key, int *value) {
  if (standin_refuses(__func__) || key != std::string_view{kSettingsClockMode})
    return kFailed;
  *value = standin().clock_mode;
  return kDone;
}

int settings_notify_key_changed(const char *key, settings_changed_cb callback, void *user_data) {
  for (const char *known : {kSettingsTimeZone, kSettingsClockMode, kSettingsTimeSet})
    if (key == std::string_view{known})
      return subscribe(__func__, known, callback, user_data);
  return kFailed;
}

int system_info_get_custom_bool(const char *key, bool *value) {
  if (standin_refuses(__func__) || key != std::string_view{kFeatureSyncDb} || standin().sync_db < 0)
    return kFailed;
  *value = standin().sync_db == 1;
  return kDone;
}

int screen_manager_set_ambient_mode(int mode, int on) {
  return request(__func__, "ambient_mode", static_cast<std::uint32_t>(mode),
                 static_cast<std::uint32_t>(on));
}

// --- middleware signals ---

int KintoAPI::CreateSignalSubscriber(SignalCallback callback, ISignalSubscriber **out) {
  *out = nullptr;
  return standin_refuses(__func__) ? kFailed : create_subscriber(callback, out, standin_refuses);
}

int KintoAPI::DestroySignalSubscriber(SignalCallback callback) {
  return standin_refuses(__func__) ? kFailed : destroy_subscriber(callback);
}
