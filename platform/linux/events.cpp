#include "configuration.h"
#include "start.h"
#include "time_source.h"

#include <daemon_callbacks.h>
#include <system_info.h>

// --- power service ---

template <class Callback>
static int subscribe(const char *, const char *event, Callback callback, void *user_data) {
  return daemon_callbacks().add(event, callback, user_data);
}

template <class Callback>
static int unsubscribe(const char *, const char *event, Callback callback) {
  return daemon_callbacks().remove(event, callback);
}

DEFINE_POWER_SUBSCRIPTIONS(subscribe, unsubscribe)

// --- settings and features ---

int settings_get_int(const char *key, int *value) {
  if (key != std::string_view{kSettingsClockMode})
    return kFailed;
  *value = clock_mode();
  return kDone;
}

// The daemon's first subscription.
int settings_notify_key_changed(const char *key, settings_changed_cb callback, void *user_data) {
  return start_platform() ? daemon_callbacks().add(key, callback, user_data) : kFailed;
}

int system_info_get_custom_bool(const char *key, bool *value) {
  if (key != std::string_view{kFeatureSyncDb})
    return kFailed;
  *value = configuration().keep_timers;
  return kDone;
}

// --- middleware signals ---

int KintoAPI::CreateSignalSubscriber(SignalCallback callback, ISignalSubscriber **out) {
  return create_subscriber(callback, out);
}

int KintoAPI::DestroySignalSubscriber(SignalCallback callback) {
  return destroy_subscriber(callback);
}
