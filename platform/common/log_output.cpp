#include "log_output.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

static bool stderr_wanted() {
  const char *wish = std::getenv("DRAVEL_LOG_STDERR");
  return (wish != nullptr && wish == std::string_view{"1"}) || isatty(STDERR_FILENO) != 0;
}

system_log_priority threshold_from_environment(system_log_priority otherwise) {
  const char *name = std::getenv("DRAVEL_LOG");
  const std::string_view wanted = name == nullptr ? "" : name;
  if (wanted == "debug")
    return SYSTEM_LOG_DEBUG;
  if (wanted == "info")
    return SYSTEM_LOG_INFO;
  return wanted == "error" ? SYSTEM_LOG_ERROR : otherwise;
}

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

bool is_copied_to_stderr() {
  static const bool wanted = stderr_wanted();
  return wanted;
}

void copy_to_stderr(const char *tag, const char *text) {
  if (!is_copied_to_stderr())
    return;
  std::string_view line = text;
  while (line.ends_with('\n')) // some texts bring their own
    line.remove_suffix(1);
  std::fprintf(stderr, "%s: %.*s\n", tag, static_cast<int>(line.size()), line.data());
}
