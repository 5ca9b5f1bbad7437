#include <system_log.h>

#include <glib.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>

namespace {

constexpr std::size_t kTagLength = 32;
constexpr std::int64_t kLookAgainMs = 10;

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

char identity[kTagLength] = ""; // syslog keeps the pointer

void identify_as(const char *tag) {
  if (identity == std::string_view{tag})
    return;
  std::snprintf(identity, sizeof identity, "%s", tag);
  openlog(identity, 0, LOG_DAEMON);
}

std::int64_t milliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Without a receiver syslog(3) would open a socket in vain for every line, and a change of clock
// logs hundreds. One that was seen is left to syslog(3), which finds it again when it is started
// anew.
bool is_received() {
  static bool seen = false;
  static std::int64_t looked = -kLookAgainMs;
  if (seen)
    return true;
  const std::int64_t now = milliseconds();
  if (now - looked < kLookAgainMs)
    return false;
  looked = now;
  seen = access(_PATH_LOG, F_OK) == 0;
  return seen;
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

} // namespace

// Read from the environment before main runs.
system_log_priority system_log_threshold = threshold_from_environment();

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  va_list arguments;
  if (is_received()) {
    identify_as(tag);
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
