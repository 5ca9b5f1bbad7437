// monitor: one line for each expiry and each change, as they come.
#include "commands.h"
#include "parse.h"

#include <glib-unix.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

using namespace std::chrono;

// A step of the clock is larger than reading it late, or slewing it, explains.
static constexpr seconds kNoStep{1};
static constexpr int kSlewed = 1000;

namespace {

// The monitor reads signals: what it tells of the halts, the wake-up time, the clock and the armed
// timers is what changed from what it told before. The daemon is asked for what the signals leave
// out.
struct listener {
  client &daemon;
  const options &given;
  GMainLoop *loop;
  int left;              // expiries until the end, 0 for no end
  snapshot view{};       // as it was last read
  snapshot told{};       // its halts, clock, armed timers and holidays were told or need not be
  std::set<int> known{}; // timers that the signals have told of
  std::vector<int> told_holidays{};
  seconds told_at{};  // since the machine's start, when told.now was read
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
static void look(listener &self) {
  try {
    self.view = self.daemon.look();
  } catch (const failure &) { // it ended; the bus says so next
  }
}

static seconds since_boot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now); // goes on while the machine sleeps
  return seconds(now.tv_sec);
}

static void tell(listener &self, const std::string &event, const json &about,
                 const std::string &text) {
  json line;
  add_time(line, "time", self.view.now.set, self.view);
  line["event"] = event;
  line.update(about);
  say(self.given.json, line, time_text(self.view.now.set) + "  " + text);
  if (const int error = flush_output(); error != 0)
    end_with(self, error == EPIPE ? failure{} : unwritten(error));
}

static void tell_expiry(listener &self, int type) {
  // An expiry whose beginning was missed is not told in part.
  if (self.id && self.week_flag) {
    look(self);
    const bool halted = is_halted(type, self.view);
    tell(self, "expired",
         {{"id", *self.id},
          {"type", type},
          {"type_name", type_name(type)},
          {"days", day_names(*self.week_flag)},
          {"halted", halted}},
         "timer " + std::to_string(*self.id) + " expired: " + type_name(type) + ", " +
             days_text(*self.week_flag) + (halted ? ", halted" : ""));
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

// --- timers ---

static void keep_armed(listener &self, int id) {
  self.told.armed.erase(id);
  if (const auto at = armed_for(id, self.view))
    self.told.armed.emplace(id, *at);
}

static void tell_timer(listener &self, const std::string &event, int id) {
  const timer_record *timer = find_timer(self.view.timers, id);
  keep_armed(self, id);
  self.known.insert(id);
  tell(self, event, {{"id", id}, {"timer", timer != nullptr ? json_of(*timer, self.view) : json()}},
       "timer " + std::to_string(id) + " " + event +
           (timer != nullptr ? ": " + type_name(timer->type) + ", " + days_text(timer->week_flag) +
                                   ", " + next_text(*timer, self.view)
                             : ""));
}

static void hear_timer(GDBusConnection *, const char *, const char *, const char *,
                       const char *member, GVariant *arguments, void *data) {
  auto &self = *static_cast<listener *>(data);
  int id = 0;
  const char *why = "";
  look(self);
  if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(is)")) != FALSE) {
    g_variant_get(arguments, "(i&s)", &id, &why);
    self.told.armed.erase(id);
    self.known.erase(id);
    tell(self, "removed", {{"id", id}, {"why", why}},
         "timer " + std::to_string(id) + " removed: " + why);
  } else if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(i)")) != FALSE) {
    g_variant_get(arguments, "(i)", &id);
    tell_timer(self, std::strcmp(member, "TimerAdded") == 0 ? "added" : "changed", id);
  }
}

// Of the timers that stay; signals of their own tell of those that come and go.
static void tell_armed(listener &self) {
  for (const timer_record &timer : self.view.timers) {
    const auto at = armed_for(timer.id, self.view);
    const auto was = armed_for(timer.id, self.told);
    if (at == was || !self.known.contains(timer.id))
      continue;
    json about{{"id", timer.id}};
    add_time(about, "at", at, self.view);
    add_time(about, "was", was, self.told);
    tell(self, "armed", about,
         "timer " + std::to_string(timer.id) + " is now " +
             (at ? "armed for " + time_text(*at) : "not armed"));
    keep_armed(self, timer.id);
  }
}

// --- the set ---

static void tell_halts(listener &self) {
  const bool on = self.told.halt_on != 0;
  const bool off = self.told.halt_off != 0;
  tell(self, "halts", {{"on", on}, {"off", off}},
       std::string("on-timers ") + (on ? "halted" : "active") + ", off-timers " +
           (off ? "halted" : "active"));
}

static void tell_wakeup(listener &self, const wakeup_time &wakeup) {
  json about{{"id", wakeup.id}};
  add_wakeup_time(about, wakeup, self.view);
  tell(self, "wakeup", about,
       wakeup.id == 0
           ? "the set is programmed to wake for nothing"
           : "the set is programmed to wake on " + time_text(wakeup.at) +
                 (wakeup.is_utc ? " UTC" : "") + " for timer " + std::to_string(wakeup.id));
}

static void tell_clock(listener &self, bool confirmed) {
  const bool known = self.view.clock_known;
  if (known != self.told.clock_known || confirmed != self.told.clock_confirmed)
    tell(self, "clock", {{"known", known}, {"confirmed", confirmed}},
         std::string("the clock is ") + (known ? "" : "not ") + "known, " +
             (confirmed ? "" : "not ") + "confirmed");
  self.told.clock_known = known;
  self.told.clock_confirmed = confirmed;
}

// The daemon announces each setting of the clock; most leave it as it was.
static void tell_step(listener &self) {
  const seconds passed = since_boot() - self.told_at;
  const seconds step = self.view.now.set - (self.told.now.set + passed);
  self.told.now = self.view.now;
  self.told_at += passed;
  if (!self.view.clock_known || abs(step) <= kNoStep + passed / kSlewed)
    return;
  tell(self, "clock-set", {{"by", step.count()}},
       "the clock was set " + std::string(step > 0s ? "forward" : "back") + " by " +
           span_text(abs(step)));
}

static void tell_holiday(listener &self, const char *event, int id,
                         const std::vector<holiday> &known) {
  const auto found = std::ranges::find(known, id, &holiday::id);
  const bool is_known = found != known.end(); // not when they are gone already
  tell(self, std::string("holidays-") + event,
       {{"id", id}, {"holidays", is_known ? json_of(*found) : json()}},
       "holidays " + std::to_string(id) + " " + event + (is_known ? ": " + date_text(*found) : ""));
}

static void tell_holidays(listener &self, const std::vector<int> &ids) {
  const auto has = [](const std::vector<int> &list, int id) {
    return std::ranges::find(list, id) != list.end();
  };
  if (ids == self.told_holidays)
    tell(self, "holidays", {{"ids", ids}}, "the holidays were changed and changed back");
  for (const int id : ids)
    if (!has(self.told_holidays, id))
      tell_holiday(self, "added", id, self.view.holidays);
  for (const int id : self.told_holidays)
    if (!has(ids, id))
      tell_holiday(self, "removed", id, self.told.holidays);
  self.told_holidays = ids;
  self.told.holidays = self.view.holidays;
}

static void hear_properties(GDBusConnection *, const char *, const char *, const char *,
                            const char *, GVariant *arguments, void *data) {
  auto &self = *static_cast<listener *>(data);
  if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(sa{sv}as)")) == FALSE)
    return;
  look(self);
  g_autoptr(GVariant) changed = g_variant_get_child_value(arguments, 1);
  g_autoptr(GVariantDict) values = g_variant_dict_new(changed);
  const bool halted_on = g_variant_dict_lookup(values, "HaltOn", "i", &self.told.halt_on) != FALSE;
  if (g_variant_dict_lookup(values, "HaltOff", "i", &self.told.halt_off) != FALSE || halted_on)
    tell_halts(self);
  gboolean confirmed = self.told.clock_confirmed ? TRUE : FALSE;
  g_variant_dict_lookup(values, "ClockConfirmed", "b", &confirmed);
  tell_clock(self, confirmed != FALSE);
  if (wakeup_time wakeup; read_wakeup(values, wakeup))
    tell_wakeup(self, wakeup);
  if (g_autoptr(GVariant) ids =
          g_variant_dict_lookup_value(values, "DisabledPeriods", G_VARIANT_TYPE("ai"))) {
    gsize count = 0;
    const auto *first =
        static_cast<const int *>(g_variant_get_fixed_array(ids, &count, sizeof(int)));
    tell_holidays(self, {first, first + count});
  }
  const char **names = nullptr;
  g_variant_get_child(arguments, 2, "^a&s", &names);
  if (g_strv_contains(names, "Clock") != FALSE)
    tell_step(self);
  if (g_strv_contains(names, "Armed") != FALSE)
    tell_armed(self);
  g_free(static_cast<void *>(names));
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
  look(self);
  self.told = self.view;
  self.known.clear();
  for (const timer_record &timer : self.view.timers)
    self.known.insert(timer.id);
  self.told_holidays.clear();
  for (const holiday &period : self.view.holidays)
    self.told_holidays.push_back(period.id);
  self.told_at = since_boot();
  std::fputs("dravel-manager is running; Ctrl-C ends the monitor.\n", stderr);
}

static void tell_vanished(GDBusConnection *, const char *, void *) {
  std::fputs("dravel-manager is not running; waiting for it.\n", stderr);
}

void monitor(client &client, const options &given) {
  const auto count = given.count ? parse_int(*given.count) : 1;
  if (!count || *count < 1)
    throw usage("--count=" + *given.count + " is no count of expiries", "give 1 or more",
                "--count");
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  listener self{.daemon = client, .given = given, .loop = loop, .left = given.count ? *count : 0};
  GDBusConnection *bus = client.bus();
  const auto subscribe = [&](const char *interface, const char *path, GDBusSignalCallback hear) {
    return g_dbus_connection_signal_subscribe(bus, kDravelBusName, interface, nullptr, path,
                                              nullptr, G_DBUS_SIGNAL_FLAGS_NONE, hear, &self,
                                              nullptr);
  };
  // Before the name is watched, so that nothing is missed once the daemon is said to run.
  const unsigned signals[] = {
      subscribe(kDravelBusName, kDravelObjectPath, hear_expiry),
      subscribe(kStateInterface, kStateObjectPath, hear_timer),
      subscribe("org.freedesktop.DBus.Properties", kStateObjectPath, hear_properties)};
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
