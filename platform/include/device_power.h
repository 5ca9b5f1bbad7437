// The set's power service: power state, ambient mode, wake-up reason, power
// requests, and the five power notifications.
//
// States, modes, reasons and options are the service's own numbers. Operations
// that return int answer 0 on success and a non-zero code on failure, unless
// said otherwise. dravel-timer-types.h has the reasons and options that timers give. Notifications
// arrive on the main-loop thread, one at a time and never from within a request.
#pragma once

#include <cstddef>
#include <cstdint>

enum device_power_state {
  DEVICE_POWER_STATE_ON = 0,
  DEVICE_POWER_STATE_SLEEPING = 2, // the screen is off, the processor runs
  DEVICE_POWER_STATE_AMBIENT = 4,
};

// What a state-changed callback gets: the two fields that callers read, at the service's offsets.
// The service's record has other fields, too, and may be longer.
struct device_power_event {
  std::int32_t unused[3];
  std::int32_t state;
  std::int32_t unused_too;
  std::int32_t ambient_mode;
};
static_assert(offsetof(device_power_event, state) == 12);
static_assert(offsetof(device_power_event, ambient_mode) == 20);

extern "C" {

// Called with the option (power-off, standby) or the reason (wake-up).
typedef int (*device_power_option_cb)(int option, void *user_data);

// Called when the set goes from ambient mode into suspend.
typedef int (*device_power_ambient_poweroff_cb)(void *user_data);

// Called with a device_power_event, which lives only during the call and may be unaligned.
typedef int (*device_power_state_changed_cb)(const void *event, void *user_data);

// The present power state, ambient mode and wake-up reason.
int device_power_get_state(void);
int device_power_get_ambient_mode(void);
int device_power_get_wakeup_reason(void);

// Tells the service why the set is being woken.
int device_power_set_wakeup_reason(int reason);

// Requests a power state; `force` is 1 to request it at once.
int device_power_set_state(int state, int force);

// Requests a power-off with one of the service's options.
int device_power_request_poweroff(unsigned int option);

int device_power_subscribe_poweroff(device_power_option_cb callback, void *user_data);
int device_power_subscribe_standby(device_power_option_cb callback, void *user_data);
int device_power_subscribe_wakeup(device_power_option_cb callback, void *user_data);
int device_power_subscribe_ambient_poweroff(device_power_ambient_poweroff_cb callback,
                                            void *user_data);
int device_power_subscribe_state_changed_event(device_power_state_changed_cb callback,
                                               void *user_data);

int device_power_unsubscribe_poweroff(device_power_option_cb callback);
int device_power_unsubscribe_standby(device_power_option_cb callback);
int device_power_unsubscribe_wakeup(device_power_option_cb callback);
int device_power_unsubscribe_ambient_poweroff(device_power_ambient_poweroff_cb callback);
int device_power_unsubscribe_state_changed_event(device_power_state_changed_cb callback);
}
