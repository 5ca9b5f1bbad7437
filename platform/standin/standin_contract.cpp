// The set's interfaces, answered from the record. An operation's own name, as
// __func__ gives it, is the one by which it is refused.
#include "standin_private.h"

#include <CTimeUtil.h>
#include <IPowerControl.h>
#include <KintoAPI.h>
#include <device_power.h>
#include <screen_manager.h>
#include <settings.h>
#include <system_info.h>

#include <memory>
#include <tuple>
#include <vector>

static constexpr int kDone = 0;
static constexpr int kFailed = -1;
static constexpr int kSubscribed = 1; // the middleware's success is above 0

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
  return standin_callbacks().add(subscription, callback, user_data);
}

template <class Callback>
static int unsubscribe(const char *operation, const char *subscription, Callback callback) {
  if (standin_refuses(operation))
    return kFailed;
  return standin_callbacks().remove(subscription, callback);
}

namespace {

class PowerControl final : public IPowerControl {
public:
  int read_rtc(rtc_time *out) override {
    const std::uint32_t now = standin_rtc();
    if (!now || standin_refuses(__func__))
      return kFailed;
    std::tm time;
    CTimeUtil::Unsigned_gmtime_r(now, &time);
    *out = {time.tm_sec,  time.tm_min,     time.tm_hour,
            time.tm_mday, time.tm_mon + 1, time.tm_year - 100};
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

// A subscriber gets signals of every type, so that an unexpected one can be tested.
class SignalSubscriber final : public ISignalSubscriber {
public:
  explicit SignalSubscriber(SignalCallback listener) : callback(listener) {}

  // The middleware names no parameter but the first: other values than these are refused.
  int Subscribe(int type, int a, int b, int c, int d) override {
    if (std::tuple(type, a, b, c, d) != std::tuple(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0))
      return kFailed;
    const int result = subscribe(__func__, "signal", callback, nullptr);
    return result == kDone ? kSubscribed : result;
  }

  int Unsubscribe(int type, int a, int b, int c) override {
    if (std::tuple(type, a, b, c) != std::tuple(SIGNAL_SYSTEM_TIME_UPDATED, 1, 0, 0))
      return kFailed;
    return unsubscribe(__func__, "signal", callback);
  }

  const SignalCallback callback;
};

} // namespace

static std::vector<std::unique_ptr<SignalSubscriber>> signal_subscribers;

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
int device_power_subscribe_poweroff(device_power_option_cb callback, void *user_data) {
  standin_export();
  return subscribe(__func__, "poweroff", callback, user_data);
}

int device_power_subscribe_standby(device_power_option_cb callback, void *user_data) {
  return subscribe(__func__, "standby", callback, user_data);
}

int device_power_subscribe_wakeup(device_power_option_cb callback, void *user_data) {
  return subscribe(__func__, "wakeup", callback, user_data);
}

int device_power_subscribe_ambient_poweroff(device_power_ambient_poweroff_cb callback,
                                            void *user_data) {
  return subscribe(__func__, "ambient_poweroff", callback, user_data);
}

int device_power_subscribe_state_changed_event(device_power_state_changed_cb callback,
                                               void *user_data) {
  return subscribe(__func__, "state_changed_event", callback, user_data);
}

int device_power_unsubscribe_poweroff(device_power_option_cb callback) {
  return unsubscribe(__func__, "poweroff", callback);
}

int device_power_unsubscribe_standby(device_power_option_cb callback) {
  return unsubscribe(__func__, "standby", callback);
}

int device_power_unsubscribe_wakeup(device_power_option_cb callback) {
  return unsubscribe(__func__, "wakeup", callback);
}

int device_power_unsubscribe_ambient_poweroff(device_power_ambient_poweroff_cb callback) {
  return unsubscribe(__func__, "ambient_poweroff", callback);
}

int device_power_unsubscribe_state_changed_event(device_power_state_changed_cb callback) {
  return unsubscribe(__func__, "state_changed_event", callback);
}

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
  if (callback == nullptr || standin_refuses(__func__))
    return kFailed;
  *out = signal_subscribers.emplace_back(std::make_unique<SignalSubscriber>(callback)).get();
  return kDone;
}

int KintoAPI::DestroySignalSubscriber(SignalCallback callback) {
  if (standin_refuses(__func__))
    return kFailed;
  standin_callbacks().remove("signal", callback);
  const auto destroyed = std::erase_if(signal_subscribers, [callback](const auto &subscriber) {
    return subscriber->callback == callback;
  });
  return destroyed ? kDone : kFailed;
}
