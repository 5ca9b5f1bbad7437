#include "journal.h"

#include <log_output.h>
#include <system_log.h>

#include <glib.h>
#include <syslog.h>
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cstdarg>

static constexpr const char *kTag = "DRAVEL_LINUX";

// A change of clock writes hundreds of lines below error priority.
system_log_priority system_log_threshold = threshold_from_environment(SYSTEM_LOG_ERROR);

static int journal_priority(system_log_priority priority) {
  return priority == SYSTEM_LOG_PROGRESS ? LOG_NOTICE : syslog_level(priority);
}

static void write_line(system_log_priority priority, const char *tag, const char *format,
                       va_list arguments) {
  g_autofree char *text = g_strchomp(g_strdup_vprintf(format, arguments));
  sd_journal_send("PRIORITY=%d", journal_priority(priority), "SYSLOG_IDENTIFIER=%s", tag,
                  "MESSAGE=%s", text, nullptr);
  copy_to_stderr(tag, text);
}

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(priority, tag, format, arguments);
  va_end(arguments);
}

void system_log_event(const char *event, int timer_id, const char *reason, const char *text) {
  sd_journal_send("MESSAGE_ID=%s", kEventId, "PRIORITY=%d", LOG_NOTICE, "SYSLOG_IDENTIFIER=%s",
                  kTag, "DRAVEL_EVENT=%s", event, "DRAVEL_TIMER=%d", timer_id, "DRAVEL_REASON=%s",
                  reason, "MESSAGE=%s", text, nullptr);
}

void report(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(SYSTEM_LOG_ERROR, kTag, format, arguments);
  va_end(arguments);
}

void note(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(SYSTEM_LOG_INFO, kTag, format, arguments);
  va_end(arguments);
}
