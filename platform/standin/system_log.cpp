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

constexpr std::size_t kTagLength = 32;

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
  va_start(arguments, format);
  const std::unique_ptr<char, FreeText> text{g_strdup_vprintf(format, arguments)};
  va_end(arguments);

  identify_as(tag);
  syslog(syslog_level(priority), "%s", text.get());
  if (!copy_to_stderr)
    return;
  std::string_view line = text.get();
  while (line.ends_with('\n')) // some texts bring their own
    line.remove_suffix(1);
  std::fprintf(stderr, "%s: %.*s\n", tag, static_cast<int>(line.size()), line.data());
}
