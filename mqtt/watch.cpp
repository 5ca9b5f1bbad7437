#include "watch.h"

#include "journal.h"

#include <cstring>
#include <ctime>
#include <utility>

static constexpr const char *kProperties = "org.freedesktop.DBus.Properties";

struct watch::callbacks {
  static bool read(GVariant *arguments, int &value) {
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(i)")) == FALSE)
      return false;
    g_variant_get(arguments, "(i)", &value);
    return true;
  }

  static watch &self(void *data) { return *static_cast<watch *>(data); }

  // Of the three signals of one expiry the id comes before the type.
  static void expiry(GDBusConnection *, const char *, const char *, const char *,
                     const char *member, GVariant *arguments, void *data) {
    int value = 0;
    if (!read(arguments, value))
      return;
    if (std::strcmp(member, "dravel_expired") == 0)
      self(data).expired_ = value;
    else if (std::strcmp(member, "dravel_type_expired") == 0)
      self(data).note({"fired", self(data).expired_, value});
  }

  static void timer(GDBusConnection *, const char *, const char *, const char *, const char *member,
                    GVariant *arguments, void *data) {
    int id = 0;
    const char *why = "";
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(is)")) != FALSE) {
      g_variant_get(arguments, "(i&s)", &id, &why);
      self(data).note({"removed", id, 0, why});
    } else if (read(arguments, id)) {
      self(data).note({std::strcmp(member, "TimerAdded") == 0 ? "added" : "changed", id});
    }
  }

  static void properties(GDBusConnection *, const char *, const char *, const char *, const char *,
                         GVariant *arguments, void *data) {
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(sa{sv}as)")) == FALSE)
      return;
    g_autoptr(GVariant) values = g_variant_get_child_value(arguments, 1);
    std::uint64_t at = 0;
    const char *cause = "";
    if (g_variant_lookup(values, "LastWake", "(t&s)", &at, &cause) != FALSE)
      self(data).note({"woken", 0, 0, cause});
    self(data).expect();
  }

  static void appeared(GDBusConnection *, const char *, const char *, void *data) {
    self(data).is_running_ = true;
    self(data).seen_ = {};
    self(data).expect();
  }

  static void vanished(GDBusConnection *, const char *, void *data) {
    self(data).is_running_ = false;
    self(data).told_.clear();
    self(data).vanished_();
  }

  static gboolean idle(void *data) {
    self(data).idle_ = 0;
    self(data).hand_over();
    return G_SOURCE_REMOVE;
  }
};

watch::watch(client &client, listener changed, std::function<void()> vanished)
    : client_(client), changed_(std::move(changed)), vanished_(std::move(vanished)) {
  const auto subscribe = [&](const char *interface, const char *path, GDBusSignalCallback hear) {
    signals_.push_back(
        g_dbus_connection_signal_subscribe(client.bus(), kDravelBusName, interface, nullptr, path,
                                           nullptr, G_DBUS_SIGNAL_FLAGS_NONE, hear, this, nullptr));
  };
  subscribe(kDravelBusName, kDravelObjectPath, callbacks::expiry);
  subscribe(kStateInterface, kStateObjectPath, callbacks::timer);
  subscribe(kProperties, kStateObjectPath, callbacks::properties);
  subscribe(kProperties, kMachinePath, callbacks::properties);
  name_ =
      g_bus_watch_name_on_connection(client.bus(), kDravelBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                     callbacks::appeared, callbacks::vanished, this, nullptr);
}

watch::~watch() {
  g_bus_unwatch_name(name_);
  for (const unsigned signal : signals_)
    g_dbus_connection_signal_unsubscribe(client_.bus(), signal);
  if (idle_ != 0)
    g_source_remove(idle_);
}

void watch::note(told what) {
  if (what.event == "fired")
    fired_.insert(what.id);
  told_.push_back(std::move(what));
  expect();
}

void watch::expect() {
  if (idle_ == 0)
    idle_ = g_idle_add(callbacks::idle, this);
}

json watch::event_of(const told &what, const snapshot &view) const {
  const bool is_halted_one = what.event == "fired" && is_halted(what.type, view);
  json event{{"event", is_halted_one ? "halted" : what.event}};
  if (what.event == "woken")
    event["cause"] = what.why;
  else
    event["id"] = what.id;
  if (what.event == "removed")
    event["why"] = what.why;
  if (what.event == "fired") {
    event["type"] = what.type;
    event["type_name"] = type_name(what.type);
  }
  if (const timer_record *timer = find_timer(view.timers, what.id);
      timer != nullptr && (what.event == "added" || what.event == "changed")) {
    event["timer"] = json_of(*timer, view);
    event["timer"].erase("next_text");
  }
  add_time(event, "at", view.now.set, view);
  return event;
}

// Timers whose time has come or was passed by a change of the clock, but which have not fired and
// are armed for another one: they rested for a holiday, or were passed over.
std::vector<json> watch::skipped(const snapshot &view) {
  std::vector<json> events;
  for (const auto &[id, at] : seen_.armed) {
    const auto now = view.armed.find(id);
    if (at <= view.now.set && at > seen_.now.set && now != view.armed.end() && now->second > at &&
        !fired_.contains(id))
      events.push_back(event_of({"skipped", id}, view));
  }
  fired_.clear();
  return events;
}

void watch::hand_over() {
  if (!is_running_)
    return;
  try {
    tzset(); // the zone may have been changed
    const snapshot view = client_.look_at_state();
    std::vector<json> events;
    for (const told &what : std::exchange(told_, {}))
      events.push_back(event_of(what, view));
    const auto rested = skipped(view);
    events.insert(events.end(), rested.begin(), rested.end());
    seen_ = view;
    changed_(events, view);
  } catch (const failure &failure) { // it ends, or is older
    log_problem(failure.what);
  }
}
