#include "start.h"

#include "alarm.h"
#include "bus.h"
#include "configuration.h"
#include "power.h"
#include "screen.h"
#include "sleep.h"
#include "targets.h"
#include "time_source.h"

#include <Ecore.h>

#include <csignal>

static rtc_device *rtc = &machine_rtc();
static cec_adapter *cec = &machine_cec();

void use_devices(rtc_device &new_rtc, cec_adapter &new_cec) {
  rtc = &new_rtc;
  cec = &new_cec;
}

static Eina_Bool user_signal(void *, int, void *data) {
  if (static_cast<const Ecore_Event_Signal_User *>(data)->number == 1) {
    release_device();
    read_configuration();
    start_screen(*cec);
    take_device();
  }
  return ECORE_CALLBACK_PASS_ON;
}

static void start_parts() {
  read_configuration();
  start_bus();
  ecore_event_handler_add(ECORE_EVENT_SIGNAL_USER, user_signal, nullptr);
  start_time_source();
  start_screen(*cec);
  start_targets();
  start_sleep();
  start_power(start_alarm(*rtc));
}

bool start_platform() {
  static const bool locked = lock_state();
  static bool started = false;
  if (locked && !started) {
    started = true;
    start_parts();
  }
  return locked;
}
