#include "journal.h"

#include <log_output.h>
#include <system_log.h>

#include <glib.h>
#include <syslog.h>
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <span>
#include <string_view>

static constexpr const char *kTag = "DRAVEL_LINUX";
static constexpr std::string_view kDaemonTag = "DRAVEL_MANAGER";

// A change of clock writes hundreds of lines below error priority.
system_log_priority system_log_threshold = threshold_from_environment(SYSTEM_LOG_ERROR);

// The daemon gives its progress lines error priority, too. Only a line that reports a failure is an
// error in the journal.
static constexpr const char *kFailures[] = {"ailed",         " fail",          "rror ",    " error",
                                            "out of memory", "SQLITE_CORRUPT", "] deleted"};

// A caller's unknown id, a missing time update, a timer without a next expiry and a file that the
// first start makes are not failures.
static constexpr const char *kNoFailures[] = {"failed to get dravel item",
                                              "failed to get wakeup item", "failed auto_time_set",
                                              "get_next_expire_date", "fail, it will recreate"};

static bool has_any(const char *format, std::span<const char *const> parts) {
  return std::ranges::any_of(
      parts, [=](const char *part) { return std::strstr(format, part) != nullptr; });
}

static bool tells_of_failure(const char *format) {
  return has_any(format, kFailures) && !has_any(format, kNoFailures);
}

static int journal_priority(system_log_priority priority, const char *tag, const char *format) {
  if (priority == SYSTEM_LOG_ERROR && tag == kDaemonTag && !tells_of_failure(format))
    return LOG_NOTICE;
  return syslog_level(priority);
}

static void write_line(system_log_priority priority, const char *tag, const char *format,
                       va_list arguments) {
  g_autofree char *text = g_strchomp(g_strdup_vprintf(format, arguments));
  sd_journal_send("PRIORITY=%d", journal_priority(priority, tag, format), "SYSLOG_IDENTIFIER=%s",
                  tag, "MESSAGE=%s", text, nullptr);
  copy_to_stderr(tag, text);
}

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line(priority, tag, format, arguments);
  va_end(arguments);
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
