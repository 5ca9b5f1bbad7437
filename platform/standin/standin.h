// The stand-in set: one simulated television behind the platform's contract. It
// answers with the values that it was given and keeps a list of the requests. Tests
// use this record directly; over the bus it is the object /org/olvara/tv/standin.
#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>

// The operations that the set can be told to refuse: those that can report a
// failure.
inline constexpr std::string_view kStandinOperations[] = {
    "device_power_get_state",
    "device_power_get_ambient_mode",
    "device_power_get_wakeup_reason",
    "device_power_set_wakeup_reason",
    "device_power_set_state",
    "device_power_request_poweroff",
    "device_power_subscribe_poweroff",
    "device_power_subscribe_standby",
    "device_power_subscribe_wakeup",
    "device_power_subscribe_ambient_poweroff",
    "device_power_subscribe_state_changed_event",
    "device_power_unsubscribe_poweroff",
    "device_power_unsubscribe_standby",
    "device_power_unsubscribe_wakeup",
    "device_power_unsubscribe_ambient_poweroff",
    "device_power_unsubscribe_state_changed_event",
    "read_rtc",
    "set_wakeup_time",
    "clear_wakeup_time",
    "GetCurrentTime",
    "GetClockMode",
    "Unsigned_timegm",
    "settings_get_int",
    "settings_notify_key_changed",
    "system_info_get_custom_bool",
    "screen_manager_set_ambient_mode",
    "CreateSignalSubscriber",
    "DestroySignalSubscriber",
    "Subscribe",
    "Unsubscribe",
};

// One request that the daemon made of the set, in the words of the bus signal
// "Requested".
struct standin_request {
  std::string operation;
  std::uint32_t first;
  std::uint32_t second;

  bool operator==(const standin_request &) const = default;
};

struct standin_set {
  int clock_mode = 1; // the time utility's and the settings key's
  int power_state = 0;
  int ambient_mode = 0;
  int wakeup_reason = 0;
  int sync_db = 0; // 1 on, 0 off, -1 the query fails
  std::uint32_t wakeup_time = 0;
  std::uint32_t wakeup_type = 0;
  std::set<std::string, std::less<>> refused; // platform operations that fail
  std::deque<standin_request> requests;       // oldest first
};

// The one set. The first use reads the key file that DRAVEL_STANDIN names.
standin_set &standin();

// Takes the values of the key file; a malformed one is logged and ignored. False
// when the file cannot be read.
bool standin_read_key_file(const char *path);

// Back to the defaults: running clocks, the system's time zone, no
// subscription, no request. The key file is not read again.
void standin_reset();

// The clocks. Value 0 makes a clock unknown (the TV clock) or unreadable (the
// real-time clock) until it is set again. Stopped clocks stand still.
void standin_set_tv_clock(std::uint32_t value);
void standin_set_rtc(std::uint32_t value);
void standin_run_clocks(bool run);
std::uint32_t standin_tv_clock();
std::uint32_t standin_rtc(); // 0 when unreadable

// Moves the set to the zone `name` and announces the time-zone key. False, and
// no change, for a zone that does not exist.
bool standin_set_time_zone(const char *name);

// From now on announces the time-set key when the clock of the set's zone jumps to or from daylight
// saving time, unless the TV clock stands still or was set by hand. Needs the main loop.
void standin_follow_transitions();

// Changes the clock mode and announces the clock-mode key.
void standin_change_clock_mode(int mode);

// Announces the time-set key.
void standin_announce_time_set();

// Deliver one event to its subscribers.
void standin_power_off(int option);
void standin_standby(int option);
void standin_wakeup(int reason);
void standin_ambient_power_off();
void standin_state_changed(int state, int ambient_mode);
void standin_middleware_signal(int type);

// How many callbacks the set holds for `subscription`: "poweroff", "standby",
// "wakeup", "ambient_poweroff", "state_changed_event", "signal" or a settings
// key.
int standin_subscribers(const char *subscription);
