// The set's settings store: integer keys that can be read and watched.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// The changed key, as the store hands it to a watcher.
struct settings_key;

typedef void (*settings_changed_cb)(struct settings_key *key, void *user_data);

// Reads the integer at `key`. Returns 0 on success; otherwise `*value` is left
// as it was.
int settings_get_int(const char *key, int *value);

// Calls `callback` on the main-loop thread whenever `key` changes. Returns a
// negative code on failure.
int settings_notify_key_changed(const char *key, settings_changed_cb callback, void *user_data);

#ifdef __cplusplus
}
#endif
