// The clocks, settings, features and signals of the set.
#include "configuration.h"
#include "shell.h"
#include "start.h"
#include "zone.h"

#include <CTimeUtil.h>
#include <daemon_callbacks.h>
#include <system_info.h>
#include <time_values.h>

#include <string_view>

static constexpr int kAutomatic = 0;
static constexpr int kManual = 1;

// The daemon's first call.
std::uint32_t CTimeUtil::GetCurrentTime() {
  const bool is_known = start_platform() && the_record().clock.state != clock_state::kUnknown;
  return is_known ? to_time_value(utc_to_local(utc_now())) : 0;
}

int CTimeUtil::GetClockMode() {
  return the_record().clock.state == clock_state::kSynchronised ? kAutomatic : kManual;
}

std::uint32_t CTimeUtil::ConvertToLocalTime(std::uint32_t utc) {
  return to_time_value(utc_to_local(utc));
}

// Of a time that comes twice the first that is still ahead.
std::tm CTimeUtil::ConvertToUTCTime(std::tm local) {
  const utc_times times = utc_of_local(civil_seconds(local));
  const bool is_past = times.second != 0 && times.first <= utc_now();
  return broken_down(to_time_value(is_past ? times.second : times.first));
}

std::uint32_t CTimeUtil::Unsigned_timegm(const std::tm *time) { return time_value_of(*time); }

std::tm *CTimeUtil::Unsigned_gmtime_r(std::uint32_t time, std::tm *out) {
  *out = broken_down(time);
  return out;
}

// --- settings and features ---

int settings_get_int(const char *key, int *value) {
  if (key != std::string_view{kSettingsClockMode})
    return kFailed;
  *value = CTimeUtil::GetClockMode();
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

// --- the middleware's signals ---

int KintoAPI::CreateSignalSubscriber(SignalCallback callback, ISignalSubscriber **out) {
  return create_subscriber(callback, out);
}

int KintoAPI::DestroySignalSubscriber(SignalCallback callback) {
  return destroy_subscriber(callback);
}
