// Each operation of the set refused in turn: at the start, and while timers are set, cancelled,
// moved and fire. The daemon answers, keeps its timers, and programs the next on-time once the set
// works again.

#include "soak.h"

#include <standin.h>

#include <algorithm>
#include <cstring>
#include <set>

static constexpr int kGivenUp = 255; // the exit status
static constexpr dbus_int32_t kTimeUpdated = 108;
static constexpr unsigned kTimers = 12;
static constexpr unsigned kFirstMinute = 20; // hours ahead: none of them fires

struct refusable {
  std::string_view operation;
  bool needed_to_start = false;
  bool keeps_timers = true; // without it
  bool fires = true;        // likewise
};

// The operations whose refusal shows.
static constexpr refusable kMissed[] = {
    {"device_power_subscribe_poweroff", true},
    {"device_power_subscribe_standby", true},
    {"device_power_subscribe_wakeup", true},
    {"device_power_subscribe_ambient_poweroff", true},
    {"settings_notify_key_changed", true},
    {"GetCurrentTime", false, true, false},
    // A date that cannot be converted never comes: its timer is removed.
    {"Unsigned_timegm", false, false, false},
};

static refusable refusable_of(std::string_view operation) {
  const auto missed = std::ranges::find(kMissed, operation, &refusable::operation);
  return missed == std::end(kMissed) ? refusable{operation} : *missed;
}

static std::set<int> listed_ids(bus_client &bus) {
  std::set<int> ids;
  for (const auto &[id, words] : listed_timers(bus))
    ids.insert(id);
  return ids;
}

static void send_event(bus_client &bus, const char *event,
                       std::initializer_list<dbus_int32_t> arguments) {
  bus.call(daemon_set, event, {arguments.begin(), arguments.size()});
}

// The set works again and says so: the next on-time is programmed.
static void check_recovery(bus_client &bus, const refusable &refused, const std::set<int> &kept) {
  bus.set_text("Refuse", "");
  send_event(bus, "MiddlewareSignal", {kTimeUpdated});
  send_event(bus, "TimeSet", {});
  if (refused.keeps_timers && listed_ids(bus) != kept)
    fail(std::string(refused.operation) + " refused: timers got lost");

  constexpr std::uint32_t soon = kNoon + 1800;
  const int id = bus.schedule(daemon_service, timer_at(soon, 2, 0));
  if (bus.property("WakeupTime") != soon)
    fail(std::string(refused.operation) + " refused: the next on-time was not programmed after it");
  bus.cancel(daemon_service, id);
}

static void check_start(soak_run &run, bus_client &bus, const refusable &refused,
                        const std::set<int> &kept) {
  write_set("Refuse=" + std::string(refused.operation) + '\n');
  if (refused.needed_to_start) {
    if (const int status = end(start({run.daemon}, kDaemonErrors)); status != kGivenUp)
      fail(text("%s refused: the start ended with status %d", refused.operation.data(), status));
  } else {
    const service daemon(bus, daemon_service, {run.daemon}, kDaemonErrors);
    const double begun = microseconds();
    while (refused.keeps_timers && listed_ids(bus) != kept)
      if (microseconds() - begun > 1e7)
        fail(std::string(refused.operation) + " refused: timers are not loaded");
    check_recovery(bus, refused, kept);
  }
  write_set();
}

static void live_through_a_day(bus_client &bus) {
  const dbus_int32_t period[20] = {126, 11, 24, 0, 0, 0, 0, 0, 0, 126, 11, 26};
  const dbus_int32_t id = bus.call_int(daemon_service, "request_set_disable_period", period);
  send_event(bus, "Standby", {0});
  send_event(bus, "Wakeup", {20});
  send_event(bus, "AmbientPowerOff", {});
  send_event(bus, "StateChanged", {4, 2});
  send_event(bus, "TimeSet", {});
  for (const unsigned mode : {0U, 1U})
    bus.set_property("ClockMode", DBUS_TYPE_INT32, mode);
  send_event(bus, "MiddlewareSignal", {kTimeUpdated});
  bus.call_int(daemon_service, "request_remove_disabled_period", {&id, 1});
}

// An on-timer and an off-timer one second ahead; the clock then shows their second. The daemon
// counts it by itself.
static void let_timers_fire(bus_client &bus) {
  for (const int type : {0, 10}) {
    bus.set_property("TvClock", DBUS_TYPE_UINT32, kNoon - 1);
    const int fired = bus.schedule(daemon_service, timer_at(kNoon, type, 0));
    bus.set_property("TvClock", DBUS_TYPE_UINT32, kNoon);
    bus.receive([&](DBusMessage *arrived) {
      dbus_int32_t id = 0;
      return dbus_message_is_signal(arrived, daemon_service.interface, "dravel_expired") &&
             dbus_message_get_args(arrived, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INVALID) &&
             id == fired;
    });
    if (type == 10) // transient timers are cancelled by their owners
      bus.cancel(daemon_service, fired);
    else if (listed_ids(bus).contains(fired))
      fail(text("timer %d has fired and is still listed", fired));
  }
}

static void check_running(soak_run &run, bus_client &bus, const refusable &refused,
                          std::set<int> kept, bool with_expiries) {
  const auto daemon = start_daemon(run, bus);
  bus.set_text("Refuse", refused.operation.data());

  const int added =
      bus.call_int(daemon_service, "schedule_timer", distinct_timer(run, kFirstMinute + kTimers));
  if (listed_ids(bus).contains(added) != (added != -1))
    fail(std::string(refused.operation) + " refused: the answer and the list differ");
  if (added != -1)
    kept.insert(added);
  bus.cancel(daemon_service, *kept.begin());
  kept.erase(kept.begin());

  live_through_a_day(bus);
  if (with_expiries && refused.fires)
    let_timers_fire(bus);
  check_recovery(bus, refused, kept);
  bus.set_text("Refuse", refused.operation.data()); // its end must bear it, too
}

std::string run_refusals(soak_run &run) {
  bus_client bus;
  bus.listen("type='signal',member='dravel_expired'");
  for (int round = 0; round < run.rounds; ++round) {
    for (const std::string_view operation : kStandinOperations) {
      const refusable refused = refusable_of(operation);
      empty_store();
      std::set<int> kept;
      {
        const auto daemon = start_daemon(run, bus);
        bus.set_property("PowerState", DBUS_TYPE_INT32, 2);
        for (unsigned i = 0; i < kTimers; ++i)
          kept.insert(bus.schedule(daemon_service, distinct_timer(run, kFirstMinute + i)));
      }
      check_start(run, bus, refused, kept);
      if (refused.keeps_timers)
        check_running(run, bus, refused, kept, round == 0 && run.rounds > 1);
    }
  }
  return text(
      "%d times %zu operations, at the start and later: timers kept, on-time programmed after",
      run.rounds, std::size(kStandinOperations));
}
