// monitor: one line for each expiry and each change, as they come.
#include "commands.h"

#include <glib-unix.h>

#include <algorithm>
#include <cstring>
#include <ctime>

namespace {

struct listener {
  client &daemon;
  const options &given;
  GMainLoop *loop;
  int left;           // expiries until the end, 0 for no end
  snapshot view{};    // as it was last told
  failure ended_by{}; // without a text: by a signal or the count
  // The three signals of one expiry arrive in this order: weekdays, id, type.
  std::optional<int> week_flag{};
  std::optional<int> id{};
};

} // namespace

static void end_with(listener &self, const failure &failure) {
  self.ended_by = failure;
  g_main_loop_quit(self.loop);
}

// --- telling ---

// No exception passes the main loop.
static snapshot look(listener &self) {
  try {
    return self.daemon.look();
  } catch (const failure &) { // it ended; the bus says so next
    return self.view;
  }
}

static void tell(listener &self, civil_time now, const std::string &event, const json &about,
                 const std::string &text) {
  json line;
  add_time(line, "time", now);
  line["event"] = event;
  line.update(about);
  say(self.given.json, line, time_text(now) + "  " + text);
  if (const failure unwritten = flush_output(); !unwritten.what.empty())
    end_with(self, unwritten);
}

static void tell_expiry(listener &self, int type) {
  // An expiry whose beginning was missed is not told in part.
  if (self.id && self.week_flag) {
    self.view = look(self);
    tell(self, self.view.now.set, "expired",
         {{"id", *self.id},
          {"type", type},
          {"type_name", type_name(type)},
          {"days", day_names(*self.week_flag)}},
         "timer " + std::to_string(*self.id) + " expired: " + type_name(type) + ", " +
             days_text(*self.week_flag));
    if (self.left > 0 && --self.left == 0)
      g_main_loop_quit(self.loop);
  }
  self.id.reset();
  self.week_flag.reset();
}

static void hear_expiry(GDBusConnection *, const char *, const char *, const char *,
                        const char *member, GVariant *arguments, void *data) {
  auto &self = *static_cast<listener *>(data);
  if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(i)")) == FALSE)
    return;
  int value = 0;
  g_variant_get(arguments, "(i)", &value);
  if (std::strcmp(member, "dravel_week_flag_expired") == 0)
    self.week_flag = value;
  else if (std::strcmp(member, "dravel_expired") == 0)
    self.id = value;
  else if (std::strcmp(member, "dravel_type_expired") == 0)
    tell_expiry(self, value);
}

static void tell_timer(listener &self, const std::string &event, int id) {
  const timer_record *timer = find_timer(self.view.timers, id);
  json about = {{"id", id}, {"timer", timer != nullptr ? json_of(*timer, self.view) : json()}};
  tell(self, self.view.now.set, event, about,
       "timer " + std::to_string(id) + " " + event +
           (timer != nullptr ? ": " + type_name(timer->type) + ", " + days_text(timer->week_flag) +
                                   ", " + next_text(*timer, self.view)
                             : ""));
}

// What changed of the halts, the clock and the wake-up time.
static void tell_state(listener &self) {
  const snapshot before = self.view;
  self.view = look(self);
  const snapshot &now = self.view;
  if (now.halt_on != before.halt_on || now.halt_off != before.halt_off)
    tell(self, now.now.set, "halts", {{"on", now.halt_on != 0}, {"off", now.halt_off != 0}},
         std::string("on-timers ") + (now.halt_on != 0 ? "halted" : "active") + ", off-timers " +
             (now.halt_off != 0 ? "halted" : "active"));
  if (now.clock_confirmed != before.clock_confirmed || now.clock_known != before.clock_known)
    tell(self, now.now.set, "clock",
         {{"known", now.clock_known}, {"confirmed", now.clock_confirmed}},
         std::string("the clock is ") + (now.clock_known ? "" : "not ") + "known, " +
             (now.clock_confirmed ? "" : "not ") + "confirmed");
  if (now.wakeup.id == before.wakeup.id && now.wakeup.at == before.wakeup.at)
    return;
  const std::string at = time_text(now.wakeup.at) + (now.wakeup.is_utc ? " UTC" : "");
  tell(self, now.now.set, "wakeup",
       {{"id", now.wakeup.id},
        {"at", now.wakeup.id != 0 ? json(iso_text(now.wakeup.at)) : json()},
        {"utc", now.wakeup.is_utc}},
       now.wakeup.id == 0 ? "the set is programmed to wake for nothing"
                          : "the set is programmed to wake on " + at + " for timer " +
                                std::to_string(now.wakeup.id));
}

static void hear_state(GDBusConnection *, const char *, const char *, const char *,
                       const char *member, GVariant *arguments, void *data) {
  auto &self = *static_cast<listener *>(data);
  int id = 0;
  const char *why = "";
  if (std::strcmp(member, "PropertiesChanged") == 0)
    return tell_state(self);
  if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(is)")) != FALSE) {
    g_variant_get(arguments, "(i&s)", &id, &why);
    tell(self, self.view.now.set, "removed", {{"id", id}, {"why", why}},
         "timer " + std::to_string(id) + " removed: " + why);
  } else if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(i)")) != FALSE) {
    g_variant_get(arguments, "(i)", &id);
    const snapshot before = self.view; // tell_state() is to find what else changed
    self.view = look(self);
    tell_timer(self, std::strcmp(member, "TimerAdded") == 0 ? "added" : "changed", id);
    self.view.wakeup = before.wakeup;
    self.view.halt_on = before.halt_on;
    self.view.halt_off = before.halt_off;
  }
}

// --- the loop ---

static gboolean end_loop(void *loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

static void lose_bus(GDBusConnection *, gboolean, GError *, void *data) {
  end_with(*static_cast<listener *>(data),
           {"the system bus went away", "start dravelctl monitor again once it is back"});
}

static void tell_appeared(GDBusConnection *, const char *, const char *, void *data) {
  auto &self = *static_cast<listener *>(data);
  self.view = look(self);
  std::fputs("dravel-manager is running; Ctrl-C ends the monitor.\n", stderr);
}

static void tell_vanished(GDBusConnection *, const char *, void *) {
  std::fputs("dravel-manager is not running; waiting for it.\n", stderr);
}

void monitor(client &client, const options &given) {
  const auto count = parse_int(given.count);
  if (!count || *count < 0)
    throw usage("--count=" + given.count + " is no count of expiries", "give 1 or more");
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  listener self{.daemon = client, .given = given, .loop = loop, .left = *count};
  GDBusConnection *bus = client.bus();
  const auto subscribe = [&](const char *interface, const char *path, GDBusSignalCallback hear) {
    return g_dbus_connection_signal_subscribe(bus, kDravelBusName, interface, nullptr, path,
                                              nullptr, G_DBUS_SIGNAL_FLAGS_NONE, hear, &self,
                                              nullptr);
  };
  // Before the name is watched, so that nothing is missed once the daemon is said to run.
  const unsigned signals[] = {
      subscribe(kDravelBusName, kDravelObjectPath, hear_expiry),
      subscribe(kStateInterface, kStateObjectPath, hear_state),
      subscribe("org.freedesktop.DBus.Properties", kStateObjectPath, hear_state)};
  const unsigned name =
      g_bus_watch_name_on_connection(bus, kDravelBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                     tell_appeared, tell_vanished, &self, nullptr);
  const unsigned long closed = g_signal_connect(bus, "closed", G_CALLBACK(lose_bus), &self);
  const unsigned ends[] = {g_unix_signal_add(SIGINT, end_loop, loop),
                           g_unix_signal_add(SIGTERM, end_loop, loop)};
  g_main_loop_run(loop);

  std::ranges::for_each(ends, g_source_remove);
  g_signal_handler_disconnect(bus, closed);
  g_bus_unwatch_name(name);
  for (const unsigned signal : signals)
    g_dbus_connection_signal_unsubscribe(bus, signal);
  if (!self.ended_by.what.empty())
    throw self.ended_by;
}
