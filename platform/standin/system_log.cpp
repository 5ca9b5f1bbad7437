#include <system_log.h>

#include <glib.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

struct FreeText {
  void operator()(char *text) const { g_free(text); }
};

system_log_priority threshold_from_environment() {
  const char *name = std::getenv("DRAVEL_LOG");
  const std::string_view wanted = name ? name : "";
  if (wanted == "debug")
    return SYSTEM_LOG_DEBUG;
  return wanted == "error" ? SYSTEM_LOG_ERROR : SYSTEM_LOG_INFO;
}

bool stderr_wanted() {
  const char *wish = std::getenv("DRAVEL_LOG_STDERR");
  return (wish && wish == std::string_view{"1"}) || isatty(STDERR_FILENO);
}

const bool copy_to_stderr = stderr_wanted();

// Without a receiver syslog(3) opens and closes a socket for every line, 8 us; a change of clock
// with 80 timers writes hundreds.
const bool is_received = access(_PATH_LOG, F_OK) == 0;

int syslog_level(system_log_priority priority) {
  switch (priority) {
  case SYSTEM_LOG_DEBUG:
    return LOG_DEBUG;
  case SYSTEM_LOG_INFO:
    return LOG_INFO;
  default:
    return LOG_ERR;
  }
}

} // namespace

// Read from the environment before main runs.
system_log_priority system_log_threshold = threshold_from_environment();

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  va_list arguments;
  if (is_received) {
    openlog(tag, 0, LOG_DAEMON);
    va_start(arguments, format);
    vsyslog(syslog_level(priority), format, arguments);
    va_end(arguments);
  }
  if (!copy_to_stderr)
    return;
  va_start(arguments, format);
  const std::unique_ptr<char, FreeText> text{g_strdup_vprintf(format, arguments)};
  va_end(arguments);
  std::string_view line = text.get();
  while (line.ends_with('\n')) // some texts bring their own
    line.remove_suffix(1);
  std::fprintf(stderr, "%s: %.*s\n", tag, static_cast<int>(line.size()), line.data());
}
