// Random calls of the right types, and events of the set, as fast as they are answered. The lists
// and the store tell the same all the while.

#include "soak.h"

#include <algorithm>
#include <cstring>
#include <utility>

static constexpr int kCallsBetweenChecks = 500;
static constexpr std::size_t kMostPeriods = 8;     // that leave days for timers to fire
static constexpr std::size_t kMostTransients = 20; // beside the stored ones that the run is about

enum method_index : std::size_t { kSchedule = 0, kCancel = 1, kAddPeriod = 2, kRemovePeriod = 3 };

static constexpr struct {
  const char *name;
  unsigned arguments;
  const char *reply;
  unsigned weight;
} kMethods[] = {
    {"schedule_timer", 15, "i", 30},
    {"cancel_timer", 1, "i", 20},
    {"request_set_disable_period", 20, "i", 2},
    {"request_remove_disabled_period", 1, "i", 2},
    {"request_set_disable_period_effect", 2, "i", 4},
    {"request_timer_list", 1, "iay", 8},
    {"request_wakeup_timer", 1, "iay", 6},
    {"request_halt_ontimers", 1, "i", 4},
    {"request_halt_offtimers", 1, "i", 4},
    {"request_get_timers_halt_effect", 1, "ii", 4},
    {"request_disabled_period_list", 1, "iay", 6},
    {"dravel_get_timer_by_id", 1, "iay", 10},
};

static constexpr struct {
  const char *name;
  int arguments;
} kEvents[] = {{"Standby", 1},      {"Wakeup", 1},  {"AmbientPowerOff", 0},
               {"StateChanged", 2}, {"TimeSet", 0}, {"MiddlewareSignal", 1}};

static constexpr dbus_int32_t kExtremes[] = {0,
                                             1,
                                             -1,
                                             2,
                                             6,
                                             7,
                                             12,
                                             28,
                                             29,
                                             31,
                                             59,
                                             60,
                                             127,
                                             128,
                                             255,
                                             366,
                                             65536,
                                             0x7fffffff,
                                             -0x7fffffff - 1};

static constexpr int kSmallestId = 1;

static dbus_int32_t any_number(soak_run &run) {
  return run.below(8) == 0 ? static_cast<dbus_int32_t>(run.random()) : run.pick(kExtremes);
}

// Up to a fortnight, so that a few of them leave most of the year.
static std::vector<dbus_int32_t> holiday(soak_run &run) {
  const auto month = static_cast<int>(run.below(12));
  const auto first = static_cast<int>(1 + run.below(28));
  std::vector<dbus_int32_t> period(20);
  period[1] = period[10] = month;
  period[2] = first;
  period[11] = first + static_cast<int>(run.below(14));
  period[18] = period[19] = static_cast<int>(run.below(2));
  return period;
}

namespace {

// What the calls so far have given ids to.
struct known_ids {
  int highest_timer = 0;
  // A full list loses its transient timers first: each makes room for a stored one more.
  std::ptrdiff_t most_stored = 80;
  std::vector<int> transients;
  std::vector<int> periods;
  int scheduled = 0;
  int cancelled = 0;
};

} // namespace

static std::vector<dbus_int32_t> timer_like(soak_run &run, bool stored) {
  timer_arguments timer = lasting_timer(run);
  timer[0] = static_cast<int>(run.below(stored ? 10 : 18));
  timer[13] = static_cast<int>(run.below(2));
  timer[14] = static_cast<int>(run.below(3));
  if (stored && run.below(8) == 0)
    run.pick(timer) = any_number(run);
  return {timer.begin(), timer.end()};
}

static std::vector<dbus_int32_t> arguments_of(soak_run &run, std::size_t method, known_ids &known) {
  const bool at_random = run.below(5) == 0;
  if (method == kSchedule && !at_random)
    return timer_like(run, known.transients.size() >= kMostTransients);
  if (method == kAddPeriod && run.below(20) != 0)
    return holiday(run);
  std::vector<dbus_int32_t> arguments(kMethods[method].arguments);
  for (dbus_int32_t &argument : arguments)
    argument = any_number(run);
  if (method == kSchedule && arguments[0] == 10)
    arguments[0] = 9;
  if (method == kRemovePeriod && !known.periods.empty())
    arguments[0] = run.pick(known.periods);
  else if (method == kCancel && known.transients.size() >= kMostTransients)
    arguments[0] = run.pick(known.transients);
  else if (!at_random)
    arguments[0] = known.highest_timer - static_cast<int>(run.below(100));
  return arguments;
}

// Keeps the ids that a call has made or ended.
static void learn(known_ids &known, std::size_t method, int argument, int result) {
  if (method == kSchedule && result < -1) {
    known.transients.push_back(result);
    ++known.most_stored;
  }
  if (method == kSchedule) {
    known.highest_timer = std::max(known.highest_timer, result);
    known.scheduled += result != -1;
  }
  if (method == kCancel) { // evicted ones are forgotten so, too
    std::erase(known.transients, argument);
    known.cancelled += result == 0;
  }
  if (method == kAddPeriod && result != -1)
    known.periods.push_back(result);
  if (method == kRemovePeriod && result == 0)
    std::erase(known.periods, argument);
}

static std::size_t any_method(soak_run &run, const known_ids &known) {
  unsigned total = 0;
  for (const auto &method : kMethods)
    total += method.weight;
  unsigned at = run.below(total);
  std::size_t method = 0;
  while (at >= kMethods[method].weight)
    at -= kMethods[method++].weight;
  return method == kAddPeriod && known.periods.size() >= kMostPeriods ? kRemovePeriod : method;
}

static void any_event(soak_run &run, bus_client &bus) {
  const auto &event = run.pick(kEvents);
  dbus_int32_t arguments[2] = {static_cast<int>(run.below(8)), static_cast<int>(run.below(4))};
  bus.call(daemon_set, event.name, {arguments, static_cast<std::size_t>(event.arguments)});
}

// Stored timers are the rows, in number and by id.
static void check_lists(bus_client &bus, const known_ids &known) {
  std::string stored;
  for (const auto &[id, words] : listed_timers(bus))
    if (id >= kSmallestId)
      stored += std::to_string(id) + '\n';
  if (stored != read_store(daemon_store, "SELECT timer_id FROM dravel ORDER BY timer_id"))
    fail("the list and the store differ");
  if (std::ranges::count(stored, '\n') > known.most_stored)
    fail("more timers are stored than are kept");
}

std::string run_calls(soak_run &run) {
  bus_client bus;
  auto daemon = start_daemon(run, bus);
  known_ids known;
  int seen_cancelled = 0;
  for (int call = 1; call <= run.rounds; ++call) {
    const std::size_t method = any_method(run, known);
    const std::vector<dbus_int32_t> arguments = arguments_of(run, method, known);
    const message reply = bus.call(daemon_service, kMethods[method].name, arguments);
    if (!dbus_message_has_signature(reply.get(), kMethods[method].reply))
      fail(std::string(kMethods[method].name) + " was answered with " +
           dbus_message_get_signature(reply.get()));
    dbus_int32_t result = -1;
    dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &result, DBUS_TYPE_INVALID);
    learn(known, method, arguments[0], result);
    if (run.below(200) == 0)
      any_event(run, bus);
    if (call % kCallsBetweenChecks == 0 || call == run.rounds)
      check_lists(bus, known);
    if (call % kCallsBetweenChecks == 0 &&
        known.cancelled == std::exchange(seen_cancelled, known.cancelled))
      fail("no timer was there to be cancelled any more");
  }
  daemon.reset();
  check_sound(daemon_store);
  return text("%d calls answered, %d timers set, %d cancelled, list and store alike throughout",
              run.rounds, known.scheduled, known.cancelled);
}
