// The set's settings store: integer keys that can be read and watched.
#pragma once

// The keys that the daemon watches. Only the clock mode is read: 0 automatic, 1 manual.
inline constexpr const char *kSettingsTimeZone = "db/menu/system/time/clock/time_zone";
inline constexpr const char *kSettingsClockMode = "db/menu/system/time/clock/clock_mode";
inline constexpr const char *kSettingsTimeSet = "db/menu/system/time/clock/time_set";

extern "C" {

// The changed key, as the store hands it to a watcher.
struct settings_key;

typedef void (*settings_changed_cb)(struct settings_key *key, void *user_data);

// Reads the integer at `key`. Returns 0 on success; otherwise `*value` is left
// as it was.
int settings_get_int(const char *key, int *value);

// Calls `callback` on the main-loop thread whenever `key` changes. Returns a
// negative code on failure.
int settings_notify_key_changed(const char *key, settings_changed_cb callback, void *user_data);
}
