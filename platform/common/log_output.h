// The log settings of the environment: DRAVEL_LOG = debug, info or error is the lowest priority
// written. Lines are copied to standard error if DRAVEL_LOG_STDERR=1 or if it is a terminal.
#pragma once

#include <system_log.h>

system_log_priority threshold_from_environment(system_log_priority otherwise);

// The syslog level of a line; a progress line counts as an error.
int syslog_level(system_log_priority priority);

bool is_copied_to_stderr();
void copy_to_stderr(const char *tag, const char *text); // if is_copied_to_stderr()
