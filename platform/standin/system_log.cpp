#include <glib.h>
#include <log_output.h>
#include <system_log.h>

#include <cstdarg>
#include <syslog.h>
#include <unistd.h>

system_log_priority system_log_threshold = threshold_from_environment(SYSTEM_LOG_INFO);

// Without a receiver syslog(3) opens and closes a socket for every line, 8 us; a change of clock
// with 80 timers writes hundreds. The receiver may come later than the daemon: it is looked for
// once a second.
static bool is_received() {
  static bool is_known = false;
  static gint64 look_again = 0;
  if (is_known)
    return true;
  if (const gint64 now = g_get_monotonic_time(); now >= look_again) {
    is_known = access(_PATH_LOG, F_OK) == 0;
    look_again = now + G_USEC_PER_SEC;
  }
  return is_known;
}

void system_log_event(const char *, int, const char *, const char *) {}

void system_log_print(system_log_priority priority, const char *tag, const char *format, ...) {
  const bool to_syslog = is_received();
  if (!to_syslog && !is_copied_to_stderr())
    return;
  va_list arguments;
  va_start(arguments, format);
  g_autofree char *text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  if (to_syslog) {
    openlog(tag, 0, LOG_DAEMON);
    syslog(syslog_level(priority), "%s", text);
  }
  copy_to_stderr(tag, text);
}
