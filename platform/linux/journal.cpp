#include "journal.h"

#include "sentences.h"

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
#include <string>
#include <string_view>
#include <sys/uio.h>
#include <vector>

static constexpr const char *kTag = "DRAVEL_LINUX";
static constexpr std::string_view kDaemonTag = "DRAVEL_MANAGER";

// Of the entries that tell what happened to a timer or to the machine.
static constexpr const char *kEventId = "4b6f0e5a9d4c4f0f8e3b7c2d1a905e68";

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

static bool is_failure(order::saying what) {
  return what == order::saying::kProblem || what == order::saying::kTelevisionLate;
}

void write_saying(const order::say &said) {
  const sentence told = sentence_of(said);
  const std::string timer = said.timer == 0 ? "" : "DRAVEL_TIMER=" + std::to_string(said.timer);
  const std::string reason = told.reason.empty() ? "" : "DRAVEL_REASON=" + told.reason;
  const auto priority = "PRIORITY=" + std::to_string(is_failure(said.what) ? LOG_ERR : LOG_NOTICE);
  std::vector<iovec> fields;
  const std::string all[] = {priority,
                             std::string("SYSLOG_IDENTIFIER=") + kTag,
                             "MESSAGE=" + told.text,
                             std::string("MESSAGE_ID=") + kEventId,
                             std::string("DRAVEL_EVENT=") + told.event,
                             timer,
                             reason};
  for (const std::string &field : all)
    if (!field.empty())
      fields.push_back({const_cast<char *>(field.data()), field.size()});
  sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
  if (is_copied_to_stderr())
    copy_to_stderr(kTag, told.text.c_str());
}
