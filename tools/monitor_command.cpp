// monitor: one line for each expiry and each change, as they come.
#include "commands.h"
#include "parse.h"

#include <systemd/sd-event.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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
  sd_event *loop;
  int left;                           // expiries until the end, 0 for no end
  std::optional<std::string> owner{}; // of the daemon's name, as it was last told
  snapshot view{};                    // as it was last read
  snapshot told{};       // its halts, clock, armed timers and holidays were told or need not be
  std::set<int> known{}; // timers that the signals have told of
  std::vector<int> told_holidays{};
  seconds told_at{};  // since the machine's start, when told.now was read
  failure ended_by{}; // without a text: by a signal or the count
  // The three signals of one expiry arrive in this order: weekdays, id, type.
  std::optional<int> week_flag{};
  std::optional<int> id{};
};

// What of the state has a new value, and what that is.
struct new_state {
  bool is_halt = false;
  bool is_confirmed;
  std::optional<wakeup_time> wakeup{};
  std::optional<std::vector<int>> holidays{};
};

struct loop_release {
  void operator()(sd_event *loop) const { sd_event_unref(loop); }
};

} // namespace

static void end_with(listener &self, const failure &failure) {
  self.ended_by = failure;
  sd_event_exit(self.loop, 0);
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
      sd_event_exit(self.loop, 0);
  }
  self.id.reset();
  self.week_flag.reset();
}

static listener &listener_of(void *data) { return *static_cast<listener *>(data); }

static int hear_expiry(sd_bus_message *signal, void *data, sd_bus_error *) {
  auto &self = listener_of(data);
  const std::string_view member = sd_bus_message_get_member(signal);
  int value = 0;
  if (sd_bus_message_has_signature(signal, "i") <= 0)
    return 0;
  sd_bus_message_read(signal, "i", &value);
  if (member == "dravel_week_flag_expired")
    self.week_flag = value;
  else if (member == "dravel_expired")
    self.id = value;
  else if (member == "dravel_type_expired")
    tell_expiry(self, value);
  return 0;
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

static int hear_timer(sd_bus_message *signal, void *data, sd_bus_error *) {
  auto &self = listener_of(data);
  int id = 0;
  const char *why = "";
  look(self);
  if (sd_bus_message_has_signature(signal, "is") > 0) {
    sd_bus_message_read(signal, "is", &id, &why);
    self.told.armed.erase(id);
    self.known.erase(id);
    tell(self, "removed", {{"id", id}, {"why", why}},
         "timer " + std::to_string(id) + " removed: " + why);
  } else if (sd_bus_message_has_signature(signal, "i") > 0) {
    sd_bus_message_read(signal, "i", &id);
    const bool is_new = std::string_view(sd_bus_message_get_member(signal)) == "TimerAdded";
    tell_timer(self, is_new ? "added" : "changed", id);
  }
  return 0;
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

static void read_change(listener &self, new_state &state, property &now) {
  int confirmed = 0;
  wakeup_time wakeup;
  std::vector<int> ids;
  if (now.read("HaltOn", "i", &self.told.halt_on) || now.read("HaltOff", "i", &self.told.halt_off))
    state.is_halt = true;
  else if (now.read("ClockConfirmed", "b", &confirmed))
    state.is_confirmed = confirmed != 0;
  else if (read_wakeup(now, wakeup))
    state.wakeup = wakeup;
  else if (now.read("DisabledPeriods", ids))
    state.holidays = ids;
}

static int hear_properties(sd_bus_message *signal, void *data, sd_bus_error *) {
  auto &self = listener_of(data);
  if (sd_bus_message_has_signature(signal, "sa{sv}as") <= 0)
    return 0;
  look(self);
  new_state state{.is_confirmed = self.told.clock_confirmed};
  sd_bus_message_skip(signal, "s");
  each_property(signal, [&](property &now) { read_change(self, state, now); });
  const auto names = read_texts(signal);
  if (state.is_halt)
    tell_halts(self);
  tell_clock(self, state.is_confirmed);
  if (state.wakeup)
    tell_wakeup(self, *state.wakeup);
  if (state.holidays)
    tell_holidays(self, *state.holidays);
  if (std::ranges::find(names, "Clock") != names.end())
    tell_step(self);
  if (std::ranges::find(names, "Armed") != names.end())
    tell_armed(self);
  return 0;
}

// --- the loop ---

static int lose_bus(sd_bus_message *, void *data, sd_bus_error *) {
  end_with(listener_of(data),
           {"the system bus went away", "start dravelctl monitor again once it is back",
            fault::kNotRunning});
  return 0;
}

static void tell_appeared(listener &self) {
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

// The signal of a change that came before the daemon was asked for is heard after it.
static void tell_owner(listener &self, const std::string &owner) {
  if (std::exchange(self.owner, owner) == owner)
    return;
  if (!owner.empty())
    tell_appeared(self);
  else
    std::fputs("dravel-manager is not running; waiting for it.\n", stderr);
}

static int hear_owner(sd_bus_message *signal, void *data, sd_bus_error *) {
  const char *owner = "";
  sd_bus_message_read(signal, "sss", nullptr, nullptr, &owner);
  tell_owner(listener_of(data), owner);
  return 0;
}

void monitor(client &client, const options &given) {
  const auto count = given.count ? parse_int(*given.count) : 1;
  if (!count || *count < 1)
    throw usage("--count=" + *given.count + " is no count of expiries", "give 1 or more",
                "--count");
  sd_event *events = nullptr;
  if (const int error = sd_event_new(&events); error < 0)
    throw failure{std::string("no loop of events: ") + std::strerror(-error), ""};
  const std::unique_ptr<sd_event, loop_release> loop(events);
  listener self{.daemon = client, .given = given, .loop = events, .left = given.count ? *count : 0};
  // Before it is asked whether the daemon runs, so that nothing is missed once it is said to.
  const bus_slot heard[] = {
      client.hear(kDravelObjectPath, kDravelBusName, hear_expiry, &self),
      client.hear(kStateObjectPath, kStateInterface, hear_timer, &self),
      client.hear(kStateObjectPath, "org.freedesktop.DBus.Properties", hear_properties, &self),
      client.hear_owner(hear_owner, &self), client.hear_loss(lose_bus, &self)};
  for (const int end : {SIGINT, SIGTERM})
    sd_event_add_signal(events, nullptr, end | SD_EVENT_SIGNAL_PROCMASK, nullptr, nullptr);
  tell_owner(self, client.owner());
  sd_bus_attach_event(client.bus(), events, SD_EVENT_PRIORITY_NORMAL);
  const int result = sd_event_loop(events);
  sd_bus_detach_event(client.bus());
  if (result < 0)
    throw failure{std::string("the loop of events failed: ") + std::strerror(-result), ""};
  if (!self.ended_by.what.empty())
    throw self.ended_by;
}
