// The set's system log: tagged, prioritised lines.
//
// Callers compare a line's priority with `system_log_threshold` before they
// form its arguments, so that a line below the threshold costs one comparison.
#pragma once

extern "C" {

// Lines that tell what the daemon does have SYSTEM_LOG_PROGRESS. They are as urgent as errors: a
// log that knows three priorities writes them as errors. Lines with SYSTEM_LOG_ERROR report a
// failure.
enum system_log_priority {
  SYSTEM_LOG_DEBUG = 0,
  SYSTEM_LOG_INFO = 1,
  SYSTEM_LOG_ERROR = 2,
  SYSTEM_LOG_PROGRESS = 3
};

// The lowest priority that is written.
extern enum system_log_priority system_log_threshold;

// Writes one line under `tag`, which is static text. Ignores the threshold.
void system_log_print(enum system_log_priority priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Keeps one thing that happened to a timer or to the set, for a log that has such entries beside
// its lines: `event` in one word, the timer's id or 0, a word that says why or "", and one
// sentence. Ignores the threshold. A log without such entries does nothing.
void system_log_event(const char *event, int timer_id, const char *reason, const char *text);
}
