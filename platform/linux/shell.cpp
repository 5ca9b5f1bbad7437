#include "shell.h"

#include "milliseconds.h"
#include "record.h"

#include <Ecore.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <deque>
#include <fstream>
#include <utility>

static constexpr const char *kSleepsPath = "/sys/power/suspend_stats/success";
static constexpr std::int64_t kLongestWaitMs = 86400 * kSecondMs;
static constexpr std::int64_t kSleptAgainMs = 500; // two readings of one clock differ by less

static shell_parts parts;
static machine record;
static std::deque<event::any> events;
static std::optional<order::deliver> waiting; // it was ordered inside a call
static int calls;                             // of the contract, that have not returned
static bool is_deciding;
static bool is_delivering;
static bool is_changed; // the record, since the main loop waited
static int store_error;

static Ecore_Timer *timer;
static std::int64_t armed_for = kNever;
static std::int64_t armed_slept;

// --- time ---

static moment now() {
  moment present;
  const std::int64_t utc = milliseconds_of(CLOCK_REALTIME);
  present.utc = utc / kSecondMs;
  present.utc_ms = static_cast<std::int32_t>(utc % kSecondMs);
  present.boot = milliseconds_of(CLOCK_BOOTTIME);
  present.slept = present.boot - milliseconds_of(CLOCK_MONOTONIC);
  std::ifstream(kSleepsPath) >> present.sleeps;
  return present;
}

// --- decisions ---

static void decide_one(const event::any &what);

static void store() {
  const int error = store_record(record);
  if (error == store_error)
    return;
  store_error = error;
  events.push_back(error == 0 ? event::any(event::works{problem::kState})
                              : event::any(event::refused{problem::kState, error}));
}

// Whoever calls the daemon is not being called by it.
static void hand_over(const order::deliver &told) {
  assert(!is_delivering && !waiting);
  if (calls > 0) {
    waiting = told;
    return;
  }
  is_delivering = true;
  parts.deliver(told);
  is_delivering = false;
  decide_one(event::returned{told.callback});
}

static void decide_one(const event::any &what) {
  const auto [next, list] = decide(record, what, now());
  record = next;
  is_changed = true;
  store();
  for (const order::any &ordered : list) {
    if (const auto *told = std::get_if<order::deliver>(&ordered)) {
      assert(&ordered == list.end() - 1);
      hand_over(*told);
    } else if (const auto result = parts.carry_out(ordered)) {
      decide_one(*result);
    }
  }
}

// --- the timer ---

static Eina_Bool timer_ended(void *) {
  timer = nullptr;
  armed_for = kNever;
  post(event::due{});
  return ECORE_CALLBACK_CANCEL;
}

// The main loop's clock stands still while the machine sleeps.
static void arm() {
  const std::int64_t boot = milliseconds_of(CLOCK_BOOTTIME);
  const std::int64_t slept = boot - milliseconds_of(CLOCK_MONOTONIC);
  const std::int64_t due = next_due(record);
  if (due == armed_for && std::abs(slept - armed_slept) < kSleptAgainMs)
    return;
  if (timer != nullptr)
    ecore_timer_del(timer);
  timer = nullptr;
  armed_for = due;
  armed_slept = slept;
  if (due == kNever)
    return;
  const std::int64_t wait = std::clamp<std::int64_t>(due - boot, 0, kLongestWaitMs);
  timer = ecore_timer_add(static_cast<double>(wait) / kSecondMs, timer_ended, nullptr);
}

static void decide_all() {
  if (std::exchange(is_deciding, true))
    return;
  while (!events.empty()) {
    const event::any what = events.front();
    events.pop_front();
    decide_one(what);
  }
  is_deciding = false;
  arm();
}

// --- the main loop ---

// The daemon arms its timers in the first pass. Ecore calls the idler that was added last first: in
// that pass this one comes before the daemon's.
static Eina_Bool first_pass_ended(void *) {
  static bool is_second = false;
  if (!std::exchange(is_second, true))
    return ECORE_CALLBACK_RENEW;
  post(event::armed{});
  return ECORE_CALLBACK_CANCEL;
}

static void await_first_pass() {
  static bool awaited = false;
  if (!std::exchange(awaited, true))
    ecore_idler_add(first_pass_ended, nullptr);
}

static void deliver_waiting() {
  const auto told = std::exchange(waiting, std::nullopt);
  if (!told)
    return;
  is_deciding = true;
  hand_over(*told);
  is_deciding = false;
  decide_all();
}

static Eina_Bool main_loop_is_idle(void *) {
  deliver_waiting();
  if (record.wants_idle)
    post(event::idle{});
  if (std::exchange(is_changed, false))
    parts.changed();
  await_first_pass();
  return ECORE_CALLBACK_RENEW;
}

// --- from outside ---

void post(const event::any &what) {
  events.push_back(what);
  if (record.started)
    decide_all();
}

static void decide_call(const event::any &what) {
  ++calls;
  if (is_deciding) {
    decide_one(what);
  } else {
    events.push_front(what);
    decide_all();
  }
  --calls;
}

// A daemon that is refused because another one runs changes nothing.
void call(const event::any &what) {
  if (record.started)
    decide_call(what);
}

void start_shell(const event::started &first, const shell_parts &around) {
  parts = around;
  // Before the bus connection's own step, which sends what is ordered here.
  ecore_idle_enterer_before_add(main_loop_is_idle, nullptr);
  decide_call(first);
}

const machine &the_record() { return record; }
