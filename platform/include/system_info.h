// The set's feature configuration.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Reads the boolean feature `key`. Returns 0 on success; otherwise `*value` is
// left as it was.
int system_info_get_custom_bool(const char *key, bool *value);

#ifdef __cplusplus
}
#endif
