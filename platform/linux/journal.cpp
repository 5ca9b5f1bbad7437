#include "journal.h"

#include "sentences.h"

#include <log_output.h>
#include <machine_bus.h>
#include <system_log.h>

#include <glib.h>
#include <syslog.h>
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cstdarg>
#include <string>
#include <sys/uio.h>
#include <utility>
#include <vector>

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

// Every user may ask for a timer that is not there, which is a line. The journal drops all lines of
// a unit that writes too many, and `dravelctl history` would miss what has fired.
static bool is_too_many(system_log_priority priority) {
  static constexpr std::int64_t kSpan = std::int64_t{30} * G_USEC_PER_SEC;
  static constexpr int kMost = 1000;
  static std::int64_t begin = 0;
  static int lines = 0;
  if (priority < SYSTEM_LOG_ERROR) // asked for by whoever looks for a fault
    return false;
  const std::int64_t now = g_get_monotonic_time();
  if (lines == 0 || now - begin > kSpan) {
    begin = now;
    lines = 0;
  }
  if (++lines == kMost + 1)
    report("more than %d lines in 30 s; the others are left out", kMost);
  return lines > kMost;
}

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  if (is_too_many(priority))
    return;
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

static bool is_failure(order::saying what) {
  return what == order::saying::kProblem || what == order::saying::kTelevisionLate ||
         what == order::saying::kTelevisionStays;
}

// One entry; a field without a value is left out.
static void write_event(int level, const std::string &event, const std::string &timer,
                        const std::string &reason, const std::string &text) {
  const std::pair<const char *, std::string> all[] = {{"PRIORITY=", std::to_string(level)},
                                                      {"SYSLOG_IDENTIFIER=", kTag},
                                                      {"MESSAGE=", text},
                                                      {"", kMachineEvents},
                                                      {"DRAVEL_EVENT=", event},
                                                      {"DRAVEL_TIMER=", timer},
                                                      {"DRAVEL_REASON=", reason}};
  std::vector<std::string> entry;
  for (const auto &[name, value] : all)
    if (!value.empty())
      entry.push_back(name + value);
  std::vector<iovec> fields;
  fields.reserve(entry.size());
  for (std::string &field : entry)
    fields.push_back({field.data(), field.size()});
  sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
  copy_to_stderr(kTag, text.c_str());
}

void system_log_event(const char *event, int timer_id, const char *reason, const char *text) {
  write_event(LOG_NOTICE, event, timer_id == 0 ? "" : std::to_string(timer_id), reason, text);
}

void write_saying(const order::say &said) {
  const sentence told = sentence_of(said);
  write_event(is_failure(said.what) ? LOG_ERR : LOG_NOTICE, told.event,
              said.timer == 0 ? "" : std::to_string(said.timer), told.reason, told.text);
}
