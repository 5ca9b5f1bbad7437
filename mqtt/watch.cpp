#include "watch.h"

#include "journal.h"

#include <glib.h>

#include <ctime>
#include <utility>

static constexpr unsigned kAgainMs = 3000;
static constexpr const char *kProperties = "org.freedesktop.DBus.Properties";

struct watch::callbacks {
  static watch &self(void *data) { return *static_cast<watch *>(data); }

  static bool is(sd_bus_message *signal, const char *member) {
    return sd_bus_message_is_signal(signal, nullptr, member) > 0;
  }

  // Of the three signals of one expiry the id comes before the type.
  static int expiry(sd_bus_message *signal, void *data, sd_bus_error *) {
    int value = 0;
    if (sd_bus_message_has_signature(signal, "i") <= 0)
      return 0;
    sd_bus_message_read(signal, "i", &value);
    if (is(signal, "dravel_expired"))
      self(data).expired_ = value;
    else if (is(signal, "dravel_type_expired"))
      self(data).note({"fired", self(data).expired_, value});
    return 0;
  }

  static int timer(sd_bus_message *signal, void *data, sd_bus_error *) {
    int id = 0;
    const char *why = "";
    if (sd_bus_message_has_signature(signal, "is") > 0) {
      sd_bus_message_read(signal, "is", &id, &why);
      self(data).note({"removed", id, 0, why});
    } else if (sd_bus_message_has_signature(signal, "i") > 0) {
      sd_bus_message_read(signal, "i", &id);
      self(data).note({is(signal, "TimerAdded") ? "added" : "changed", id});
    }
    return 0;
  }

  static int properties(sd_bus_message *signal, void *data, sd_bus_error *) {
    if (sd_bus_message_has_signature(signal, "sa{sv}as") <= 0)
      return 0;
    sd_bus_message_skip(signal, "s");
    each_property(signal, [&](property &now) {
      std::uint64_t at = 0;
      const char *cause = "";
      if (now.read("LastWake", "(ts)", &at, &cause))
        self(data).note({"woken", 0, 0, cause});
    });
    self(data).expect();
    return 0;
  }

  static int owner(sd_bus_message *signal, void *data, sd_bus_error *) {
    const char *name = "";
    sd_bus_message_read(signal, "sss", nullptr, nullptr, &name);
    self(data).set_running(*name != '\0');
    return 0;
  }

  static gboolean start(void *data) {
    self(data).start_ = 0;
    try {
      self(data).set_running(!self(data).client_.owner().empty());
    } catch (const failure &failure) {
      log_problem(failure.what);
      self(data).start_ = g_timeout_add(kAgainMs, start, data);
    }
    return G_SOURCE_REMOVE;
  }

  static gboolean again(void *data) {
    self(data).again_ = 0;
    self(data).hand_over();
    return G_SOURCE_REMOVE;
  }

  static gboolean idle(void *data) {
    self(data).idle_ = 0;
    if (const unsigned again = std::exchange(self(data).again_, 0); again != 0)
      g_source_remove(again);
    self(data).hand_over();
    return G_SOURCE_REMOVE;
  }
};

watch::watch(client &client, listener changed, std::function<void()> vanished)
    : client_(client), changed_(std::move(changed)), vanished_(std::move(vanished)) {
  signals_.push_back(client.hear(kDravelObjectPath, kDravelBusName, callbacks::expiry, this));
  signals_.push_back(client.hear(kStateObjectPath, kStateInterface, callbacks::timer, this));
  for (const char *path : {kStateObjectPath, kMachinePath})
    signals_.push_back(client.hear(path, kProperties, callbacks::properties, this));
  signals_.push_back(client.hear_owner(callbacks::owner, this));
  start_ = g_idle_add(callbacks::start, this);
}

watch::~watch() {
  for (const unsigned source : {start_, idle_, again_})
    if (source != 0)
      g_source_remove(source);
}

void watch::set_running(bool is_running) {
  is_running_ = is_running;
  is_busy_ = false;
  if (is_running) {
    seen_ = {};
    expect();
  } else {
    told_.clear();
    vanished_();
  }
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

void watch::look_later() {
  if (again_ == 0)
    again_ = g_timeout_add(kAgainMs, callbacks::again, this);
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
    is_busy_ = false;
  } catch (const failure &failure) { // it ends, is older or busy
    const bool is_busy = failure.kind == fault::kTimeout;
    if (!is_busy || !is_busy_) // one line, however long it lasts
      log_problem(failure.what);
    is_busy_ = is_busy;
    if (is_busy)
      look_later();
  }
}
