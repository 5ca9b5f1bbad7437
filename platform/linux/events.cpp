#include "events.h"

#include "configuration.h"
#include "start.h"
#include "time_source.h"

#include <KintoAPI.h>
#include <callback_list.h>
#include <device_power.h>
#include <settings.h>
#include <system_info.h>

#include <string_view>

struct settings_key {
  const char *name;
};

namespace {

// There is one object: the daemon subscribes once.
class time_subscriber final : public ISignalSubscriber {
public:
  int Subscribe(int, int, int, int, int) override;
  int Unsubscribe(int, int, int, int) override;

  SignalCallback callback = nullptr;
};

} // namespace

static constexpr int kDone = 0;
static constexpr int kFailed = -1;
static constexpr int kSubscribed = 1; // the middleware's success is above 0

static callback_list callbacks;
static time_subscriber subscriber;

void announce_setting(const char *key) {
  settings_key changed{key};
  callbacks.deliver<settings_changed_cb>(key, &changed);
}

void send_time_update() {
  callbacks.deliver<SignalCallback>("signal", SIGNAL_SYSTEM_TIME_UPDATED, PROFILE_MAIN,
                                    std::uint16_t{0}, TSSignalData{});
}

void deliver_standby() { callbacks.deliver<device_power_option_cb>("standby", 0); }

void deliver_wakeup(int reason) { callbacks.deliver<device_power_option_cb>("wakeup", reason); }

void deliver_state_changed(int state, int ambient_mode) {
  const device_power_event event = {{}, state, 0, ambient_mode};
  callbacks.deliver<device_power_state_changed_cb>("state_changed_event", &event);
}

// --- power service ---

#define POWER_SUBSCRIPTION(event, callback_type)                                                   \
  int device_power_subscribe_##event(callback_type callback, void *user_data) {                    \
    return callbacks.add(#event, callback, user_data);                                             \
  }                                                                                                \
  int device_power_unsubscribe_##event(callback_type callback) {                                   \
    return callbacks.remove(#event, callback);                                                     \
  }

POWER_SUBSCRIPTION(poweroff, device_power_option_cb)
POWER_SUBSCRIPTION(standby, device_power_option_cb)
POWER_SUBSCRIPTION(wakeup, device_power_option_cb)
POWER_SUBSCRIPTION(ambient_poweroff, device_power_ambient_poweroff_cb)
POWER_SUBSCRIPTION(state_changed_event, device_power_state_changed_cb)

// --- settings and features ---

int settings_get_int(const char *key, int *value) {
  if (key != std::string_view{kSettingsClockMode})
    return kFailed;
  *value = clock_mode();
  return kDone;
}

// The daemon's first subscription.
int settings_notify_key_changed(const char *key, settings_changed_cb callback, void *user_data) {
  return start_platform() ? callbacks.add(key, callback, user_data) : kFailed;
}

int system_info_get_custom_bool(const char *key, bool *value) {
  if (key != std::string_view{kFeatureSyncDb})
    return kFailed;
  *value = configuration().keep_timers;
  return kDone;
}

// --- middleware signals ---

int time_subscriber::Subscribe(int, int, int, int, int) {
  return callbacks.add("signal", callback, nullptr) == kDone ? kSubscribed : kFailed;
}

int time_subscriber::Unsubscribe(int, int, int, int) {
  return callbacks.remove("signal", callback);
}

int KintoAPI::CreateSignalSubscriber(SignalCallback callback, ISignalSubscriber **out) {
  subscriber.callback = callback;
  *out = callback == nullptr ? nullptr : &subscriber;
  return callback == nullptr ? kFailed : kDone;
}

int KintoAPI::DestroySignalSubscriber(SignalCallback callback) {
  callbacks.remove("signal", callback);
  return callback == subscriber.callback ? kDone : kFailed;
}
