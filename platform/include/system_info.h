// The set's feature configuration.
#pragma once

// True where a cold start keeps the timers of types 0 and 1.
inline constexpr const char *kFeatureSyncDb = "com.vellmar/featureconf/appfw.dravel.sync_db";

extern "C" {

// Reads the boolean feature `key`. Returns 0 on success; otherwise `*value` is
// left as it was.
int system_info_get_custom_bool(const char *key, bool *value);
}
