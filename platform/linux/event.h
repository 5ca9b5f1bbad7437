// What happens to the machine, and what is to be done: the words that adapters and decide share.
// An adapter turns its messages into events and carries out its orders; it includes no other
// adapter.
#pragma once

#include "machine.h"
#include "order.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <variant>

namespace event {

// --- start ---

// Made from files, sysfs and clocks alone. `kept` is the record of the last run: all of it when
// `same_boot`, otherwise only its alarm, and when it slept and woke.
struct started {
  machine kept;
  bool has_kept = false;
  bool same_boot = false;
  bool is_other_build = false; // of the same boot, but only what is kept by names
  device_reading device;
  bool rtc_valid = false;     // a clock of the machine had a valid time at the start
  std::int64_t booted_at = 0; // utc
  std::int64_t build_day = 0; // utc
  std::int64_t next_transition = 0;
  settings set;
};
struct configured {
  settings set;
};
struct ended {};         // this process ends
struct device_leaves {}; // another real-time clock is used from the next `configured` on

// --- contract calls ---

// UTC. `again` is the other time, when the clock shows this one twice; 0: it does not.
struct program {
  std::uint32_t type = 0;
  std::int64_t on_time = 0;
  std::int64_t again = 0;
};
struct unprogram {};
enum class asker : std::uint8_t { kDaemon, kBus };
struct screen_wanted {
  bool on = false;
  asker by = asker::kDaemon;
};
struct fired {
  std::int32_t reason = 0;
};
struct ambient {
  bool on = false;
};

// The daemon's callback has come back.
struct returned {
  delivery callback = delivery::kNone;
};
struct armed {}; // the daemon's first pass after its start has ended

// --- alarm: each at once, as the result of an order ---

struct alarm_written { // the alarm is read back
  std::int64_t count = 0;
  int error = 0; // errno; EIO: it reads back differently
};
struct alarm_read {
  device_reading device;
};

// --- daemon: at once, as the result of ask_late ---

struct late_timers {
  std::array<late_timer, kLateTimers> timers; // by time
  std::uint8_t count = 0;
};

// --- logind, input ---

struct sleep_begins {};
struct sleep_ends {};
struct shutdown_begins {};
struct shutdown_ends {};
struct sleep_answered {
  int error = 0; // errno; 0 does not show that the machine sleeps
};
// PreparingForSleep and PreparingForShutdown, asked for with ask_preparing.
struct preparing {
  bool sleep = false;
  bool shutdown = false;
};
struct use_changed {
  std::int64_t session_at = 0; // see machine.use
  std::int64_t active_at = 0;
  std::uint8_t blocked = 0;
  std::uint8_t can = 0;
  std::int64_t delay_max_ms = 0;
  bool is_answer = false; // to ask_use; otherwise logind has told it
};
struct input {
  std::int64_t at = kNever; // boot: when the key was pressed; kNever: not known
};

// --- targets ---

struct job_began {
  std::uint32_t id = 0;
  unit of = unit::kOn;
};
struct job_ended {
  std::uint32_t id = 0;
};
struct jobs_told_again {}; // systemd has started again, those that still run are told next
struct unit_refused {
  unit of = unit::kOn;
  int error = 0;
};

// --- television ---

enum class tv_state : std::uint8_t { kOn, kOff, kTurningOn, kTurningOff };
struct tv_reports {
  tv_state state = tv_state::kOff;
};
struct tv_silent {}; // no answer, not acknowledged, no address
struct tv_denies {
  std::uint8_t opcode = 0; // of the message that it does not carry out
  bool for_good = true;    // it does not know it
};
struct tv_standby {};     // it sends the devices on its cable to standby
struct tv_asks_source {}; // Set Stream Path to us, or Request Active Source
struct tv_reachable {     // at the start and at each change, of its physical address, too
  bool adapter = false;   // there is one with a television, and it can be used
};

// --- clock ---

struct clock_stepped {};
struct zone_changed {
  std::int64_t next_transition = 0; // utc; 0: none
  bool changed = true;              // false: only the answer to ask_zone
};
struct ntp {
  bool on = false;
  bool synchronised = false;
  bool answered = true; // false: there is no timedated
};

// --- machine object, main loop ---

struct test_wake {
  std::uint64_t call = 0;
  std::int64_t seconds = 0;
};
struct idle {};
struct due {};

// A part that cannot do what it is there for, and one that can again. For parts that have no result
// of their own above.
struct refused {
  problem part = problem::kCount;
  int error = 0;
};
struct works {
  problem part = problem::kCount;
};

using any =
    std::variant<started, configured, ended, device_leaves, program, unprogram, screen_wanted,
                 fired, ambient, returned, armed, alarm_written, alarm_read, late_timers,
                 sleep_begins, sleep_ends, shutdown_begins, shutdown_ends, sleep_answered,
                 preparing, use_changed, input, job_began, job_ended, jobs_told_again, unit_refused,
                 tv_reports, tv_silent, tv_denies, tv_standby, tv_asks_source, tv_reachable,
                 clock_stepped, zone_changed, ntp, test_wake, idle, due, refused, works>;

} // namespace event

// Pure: calls nothing, reads no clock, allocates nothing.
std::pair<machine, orders> decide(const machine &before, const event::any &what, const moment &now);
