// Log lines of the daemon. The text must be a literal; the arguments are not
// evaluated when the line's priority is below the threshold.
//
// LOGP is for what the daemon does and for calls that ask for something unknown, LOGE for what
// failed.
#pragma once

#include <system_log.h>

#define DRAVEL_LOG_LINE(priority, text, ...)                                                       \
  LOG_FROM(__func__, priority, text __VA_OPT__(, ) __VA_ARGS__)

// The same for a helper: `function` is the operation that its line names.
#define LOG_FROM(function, priority, text, ...)                                                    \
  do {                                                                                             \
    if ((priority) >= system_log_threshold)                                                        \
      system_log_print((priority), "DRAVEL_MANAGER", "%s: %s(%d) > " text, __FILE_NAME__,          \
                       (function), __LINE__ __VA_OPT__(, ) __VA_ARGS__);                           \
  } while (0)

#define LOGD(text, ...) DRAVEL_LOG_LINE(SYSTEM_LOG_DEBUG, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGI(text, ...) DRAVEL_LOG_LINE(SYSTEM_LOG_INFO, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGP(text, ...) DRAVEL_LOG_LINE(SYSTEM_LOG_PROGRESS, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGE(text, ...) DRAVEL_LOG_LINE(SYSTEM_LOG_ERROR, text __VA_OPT__(, ) __VA_ARGS__)

#define LOGD_OF(operation, text, ...)                                                              \
  LOG_FROM(#operation, SYSTEM_LOG_DEBUG, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGI_OF(operation, text, ...)                                                              \
  LOG_FROM(#operation, SYSTEM_LOG_INFO, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGP_OF(operation, text, ...)                                                              \
  LOG_FROM(#operation, SYSTEM_LOG_PROGRESS, text __VA_OPT__(, ) __VA_ARGS__)
#define LOGE_OF(operation, text, ...)                                                              \
  LOG_FROM(#operation, SYSTEM_LOG_ERROR, text __VA_OPT__(, ) __VA_ARGS__)
