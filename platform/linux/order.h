// What is to be done: by an adapter, or by the shell itself.
#pragma once

#include "words.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <variant>

namespace order {

// --- at once; the result is the next event, decided before the next order ---

struct read_alarm {};     // alarm_read
struct write_alarm {      // alarm_written
  std::int64_t count = 0; // by the device's clock
  alarm_owner owner = alarm_owner::kNone;
};
struct switch_off_alarm {}; // alarm_written with count 0
// The daemon's timers that became due after `from` and up to `to`, UTC: late_timers.
struct ask_late {
  std::int64_t from = 0;
  std::int64_t to = 0;
};
struct ask_zone {     // zone_changed with changed false
  std::int64_t after; // UTC: the next transition after it is wanted
};

// --- answers come later ---

struct take_inhibitor {}; // refused or works{kInhibitor}
struct release_inhibitor {};
struct sleep { // sleep_answered, and refused or works{kSleep} are decide's own
  off_action method = off_action::kSuspend;
};
struct ask_use {}; // use_changed with is_answer; refused{kUse}
struct ask_preparing {};
struct watch_input {
  bool on = false;
};
struct tv_on {}; // Image View On and Active Source
struct tv_off {};
struct tv_ask {};    // tv_reports, tv_silent or tv_denies
struct tv_answer {}; // Active Source
struct start_unit {
  unit name = unit::kOn;
  std::int32_t reason = 0; // kWakeup: dravel-wakeup@REASON.target
};
struct stop_unit {
  unit name = unit::kAmbient;
};
struct ask_clock {}; // ntp

// --- the daemon, always the last order of a list ---

// `value`: the wake-up reason, the power state. Inside a contract call it waits for the main loop.
struct deliver {
  delivery callback = delivery::kNone;
  std::int32_t value = 0;
};

// --- journal, machine object ---

// One sentence in the journal, with DRAVEL_EVENT of this name.
enum class saying : std::uint8_t {
  kWoken,          // number: cause
  kBooted,         // number: cause
  kHopWillNotBoot, // number: utc of the on-time; nothing wakes the machine for it
  kForeignFound,   // number: utc; another program's alarm
  kForeignPutBack, // number: utc
  kScreenOn,
  kScreenOff,
  kTelevisionLate,  // number: 0 does not say that it is on, 1 says it is not
  kTelevisionStays, // on, after it was turned off
  kGoesToSleep,     // number: off_action
  kPostponed,       // number: enum postponed
  kLate,            // type; number: seconds
  kTestBegins,      // number: seconds
  kProblem,         // number: enum problem, error
  kProblemOver,     // number: enum problem
};
struct say {
  saying what = saying::kWoken;
  std::uint32_t type = 0;
  std::int64_t number = 0;
  int error = 0;
  std::uint32_t timer = 0; // its id; 0: none
};

// Ends the call of test_wake. `error` is an errno; 0: it slept. ERANGE: the seconds; EALREADY:
// another one runs, or a sleep; EBUSY: an on-time, a foreign alarm, an inhibitor or a job is in the
// way; ECANCELED: the sleep did not come about; otherwise the alarm's or logind's.
struct answer {
  std::uint64_t call = 0;
  std::int64_t seconds = 0;
  cause woken_by = cause::kNothing;
  int error = 0;
};

using any =
    std::variant<read_alarm, write_alarm, switch_off_alarm, ask_late, ask_zone, take_inhibitor,
                 release_inhibitor, sleep, ask_use, ask_preparing, watch_input, tv_on, tv_off,
                 tv_ask, tv_answer, start_unit, stop_unit, ask_clock, deliver, say, answer>;

} // namespace order

// To be carried out in their order. The record is stored first.
struct orders {
  static constexpr std::size_t kMost = 32;
  std::array<order::any, kMost> list;
  std::size_t count = 0;

  const order::any *begin() const { return list.data(); }
  const order::any *end() const { return list.data() + count; }
};
