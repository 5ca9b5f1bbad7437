// The callbacks that the daemon has subscribed, and the delivery of a set's events to them.
#pragma once

#include "callback_list.h"

#include <KintoAPI.h>
#include <device_power.h>
#include <settings.h>

// What an operation of a platform answers.
inline constexpr int kDone = 0;
inline constexpr int kFailed = -1;

// All callbacks: under the name of a power event as in the subscription's name, under a settings
// key, or under "signal" for the middleware's.
callback_list &daemon_callbacks();

void deliver_poweroff(int option);
void deliver_standby(int option);
void deliver_wakeup(int reason);
void deliver_ambient_poweroff();
void deliver_state_changed(int state, int ambient_mode);
void deliver_setting(const char *key); // to the watchers of `key`
void deliver_signal(int type);         // of the middleware

// Whether a platform refuses the operation; null: it refuses none.
using refusal = bool (*)(std::string_view operation);

// What KintoAPI's operations do. A subscriber takes no other values than those in the contract, and
// gets signals of every type, so that an unexpected one can be tested.
int create_subscriber(SignalCallback callback, ISignalSubscriber **out, refusal refuses = nullptr);
int destroy_subscriber(SignalCallback callback);

// Defines the subscription and its end for one power event. `subscribe` and `unsubscribe` are the
// platform's functions or templates that get the operation's name, the event's name, the callback
// and, for a subscription, its data.
#define DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, event, callback_type)                    \
  int device_power_subscribe_##event(callback_type callback, void *user_data) {                    \
    return subscribe(__func__, #event, callback, user_data);                                       \
  }                                                                                                \
  int device_power_unsubscribe_##event(callback_type callback) {                                   \
    return unsubscribe(__func__, #event, callback);                                                \
  }

// The same for all five.
#define DEFINE_POWER_SUBSCRIPTIONS(subscribe, unsubscribe)                                         \
  DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, poweroff, device_power_option_cb)              \
  DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, standby, device_power_option_cb)               \
  DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, wakeup, device_power_option_cb)                \
  DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, ambient_poweroff,                              \
                            device_power_ambient_poweroff_cb)                                      \
  DEFINE_POWER_SUBSCRIPTION(subscribe, unsubscribe, state_changed_event,                           \
                            device_power_state_changed_cb)
