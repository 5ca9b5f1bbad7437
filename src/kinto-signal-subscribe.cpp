#include "kinto-signal-subscribe.h"

#include "dravel-log.h"
#include "dravel-timer.h"

#include <KintoAPI.h>

static ISignalSubscriber *time_signal_subscriber;

static int SystemTimeUpdatedEvent(ESignalType type, EProfile, std::uint16_t, TSSignalData, void *) {
  LOGI("SYSTEM_TIME Signage Event!");
  if (type != SIGNAL_SYSTEM_TIME_UPDATED) {
    LOGI("unexpected event");
    return 0;
  }
  LOGP("SIGNAL_SYSTEM_TIME_UPDATED event");
  auto_time_set();
  return 0;
}

void subscribe_kinto_signal_cb(void) {
  KintoAPI::CreateSignalSubscriber(SystemTimeUpdatedEvent, &time_signal_subscriber);
  if (time_signal_subscriber == nullptr) {
    LOGE("CreateSignalSubscriber error");
    return;
  }
  const int result = time_signal_subscriber->Subscribe(SIGNAL_SYSTEM_TIME_UPDATED, 0, 1, 0, 0);
  if (result <= 0)
    LOGE("Subscribe Signal SIGNAL_SYSTEM_TIME_UPDATED %d failed, nRet = %d",
         SIGNAL_SYSTEM_TIME_UPDATED, result);
}

void unsubscribe_kinto_signal_cb(void) {
  if (time_signal_subscriber == nullptr)
    return;
  time_signal_subscriber->Unsubscribe(SIGNAL_SYSTEM_TIME_UPDATED, 1, 0, 0);
  KintoAPI::DestroySignalSubscriber(SystemTimeUpdatedEvent);
  time_signal_subscriber = nullptr;
}
