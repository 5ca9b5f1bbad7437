// All that decisions depend on: one record, copied freely, without pointers. Only decide changes
// it. `unknown` is a value of its own wherever something may be so.
//
// Units: `utc` and the device's counts are seconds; everything named boot, slept, _at or _ms, and
// every entry of `due`, is milliseconds of CLOCK_BOOTTIME (or a length in milliseconds).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::int64_t kNever = INT64_MAX; // a time that does not come
inline constexpr std::int64_t kSecondMs = 1000;

// When an event is decided.
struct moment {
  std::int64_t utc = 0;     // seconds since 1970
  std::int64_t boot = 0;    // ms of CLOCK_BOOTTIME
  std::int64_t slept = 0;   // ms by which CLOCK_BOOTTIME is ahead of CLOCK_MONOTONIC
  std::uint32_t sleeps = 0; // suspend_stats/success
  std::int32_t utc_ms = 0;  // 0 to 999, since the last full second of `utc`

  bool operator==(const moment &) const = default;
};

enum class phase : std::uint8_t { kAwake, kSleepAsked, kGoing, kShuttingDown };
enum class cause : std::uint8_t { kNothing, kUser, kTimer, kHop, kForeign, kTest };
enum class screen_state : std::uint8_t { kUnknown, kOn, kOff };
enum class screen_order : std::uint8_t { kNone, kOn, kOff };
enum class alarm_owner : std::uint8_t { kNone, kTimer, kHop, kTest, kForeign };
enum class clock_state : std::uint8_t { kUnknown, kByHand, kSynchronised };
enum class off_action : std::uint8_t { kSuspend, kPoweroff, kHibernate, kNone };

// Why the machine sleeps when it is we who send it.
enum class sleep_wish : std::uint8_t { kNone, kOffTimer, kReturn, kScreen, kTest };
// How far a wish has come: counted down, its conditions asked for, handed to logind.
enum class wish_stage : std::uint8_t { kWaiting, kAsking, kAsked };

// Bits of `use.blocked` and `use.can`.
enum use_bits : std::uint8_t {
  kSleepBit = 1,    // blocked: sleep; can: suspend
  kShutdownBit = 2, // blocked: shutdown; can: power off
  kIdleBit = 4,     // blocked: idle
  kHibernateBit = 8 // can: hibernate
};

// The units that are started, and their jobs.
enum class unit : std::uint8_t { kOn, kOff, kAmbient, kWakeup };

// What the daemon is told through its callbacks; in the order in which they are delivered when
// several are due.
enum class delivery : std::uint8_t {
  kNone,
  kStandby,
  kWakeup,
  kState,
  kZone,
  kClockMode,
  kTimeSet,
  kTimeUpdate
};

// What is missing or refuses, one sentence of the machine object's Problems for each.
enum class problem : std::uint8_t {
  kNoDevice,     // no real-time clock, or one without an alarm (for good)
  kAlarmRefused, // it refuses; error: errno
  kAlarmRead,    // its alarm cannot be read; error: errno
  kInhibitor,    // no delay inhibitor: a sleep may begin before the alarm is set
  kUse,          // logind does not say who uses the machine: it is not sent to sleep
  kSleep,        // the sleep was refused or failed
  kCannotSleep,  // the machine cannot do the off-action
  kInput,        // input devices cannot be watched
  kScreen,       // the configured CEC adapter is missing or cannot be used
  kTelevision,   // the television did not follow an order
  kOnUnit,       // a target cannot be started
  kOffUnit,
  kAmbientUnit,
  kWakeupUnit,
  kClock,     // timedated does not answer: the clock counts as set by hand
  kZone,      // changes of the zone are not noticed
  kState,     // the record cannot be kept
  kWakesLoop, // the machine wakes again and again, by nothing known
  kCount
};

// Why a wanted sleep waits: the machine object's Postponed.
enum class postponed : std::uint8_t {
  kNot,
  kBlocked,      // a block inhibitor
  kSession,      // a user is logged in
  kJob,          // a unit of a dravel-wakeup@ target runs
  kHook,         // a unit of dravel-off.target runs
  kOnTimeNear,   // an on-time is about to come
  kNoAlarm,      // nothing stands that would wake the machine
  kScreenSilent, // the television must say that it is off, and does not
  kUseUnknown,   // logind does not answer
  kFailed,       // the sleep was ordered and failed
  kOften,        // it was woken too often by nothing known
};

enum class due_kind : std::uint8_t {
  kReturn,      // the return to sleep
  kSleepAgain,  // a postponed or failed sleep
  kAsked,       // what was asked before a sleep has not been answered
  kAlarmAgain,  // a refused alarm
  kAlarmPasses, // the alarm that stands
  kAskScreen,   // before the on-time
  kScreenStep,  // of an order to the television
  kHook,        // the limit of the first job
  kTransition,  // to or from daylight saving time
  kAskClock,
  kUserWindow,   // input until then shows that a user has woken the machine
  kInhibitAgain, // a refused inhibitor
  kCount
};

inline constexpr std::size_t kDueKinds = static_cast<std::size_t>(due_kind::kCount);
inline constexpr std::size_t kProblems = static_cast<std::size_t>(problem::kCount);
inline constexpr std::size_t kJobs = 8;
inline constexpr std::size_t kLateTimers = 8;
inline constexpr std::size_t kSleepsAnHour = 6; // that we order without an on-time among them

// The keys of the configuration that decisions depend on.
struct settings {
  off_action off = off_action::kSuspend;
  std::int64_t lead_suspend = 15;     // seconds
  std::int64_t lead_poweroff = 90;    // seconds
  std::int64_t return_to_sleep = 120; // seconds, 0: never
  bool hop_boots = true;
  bool follow_screen = false;  // a television switched off by its remote sends the machine to sleep
  bool screen_follows = false; // the television follows the machine and its user

  bool operator==(const settings &) const = default;
};

// An on-time that the daemon has programmed; 0: none.
struct wanted_alarm {
  std::uint32_t type = 0;
  std::int64_t on_time = 0;

  bool operator==(const wanted_alarm &) const = default;
};

// An alarm of the device. `count` is by the device's own clock, `utc` what that is worth.
struct device_alarm {
  alarm_owner owner = alarm_owner::kNone;
  std::int64_t count = 0;
  std::int64_t utc = 0;

  bool operator==(const device_alarm &) const = default;
};

// A reading of the device.
struct device_reading {
  int error = 0;          // errno; nothing else is valid then
  bool for_good = false;  // no device, or none with an alarm
  bool minutes = false;   // its alarm counts minutes
  std::int64_t clock = 0; // its clock's count now
  std::int64_t alarm = 0; // the count of the alarm that is enabled; 0: none
};

// A timer of the daemon that became due while the machine slept.
struct late_timer {
  std::uint32_t id = 0;
  std::uint32_t type = 0;
  std::int64_t utc = 0;

  bool operator==(const late_timer &) const = default;
};

inline constexpr std::uint32_t kStarting = UINT32_MAX;

struct job {
  std::uint32_t id = 0; // 0: no job; kStarting: asked for, not yet begun
  unit of = unit::kOn;
  std::int32_t reason = 0;        // of kWakeup
  bool may_be_lost = false;       // asked for by a run that ended before it began
  std::int64_t limit_at = kNever; // it is not waited for any longer

  bool operator==(const job &) const = default;
};

struct machine {
  bool started = false;         // false: no event has been decided yet
  bool armed = false;           // the daemon's first pass after its start has ended
  std::int64_t started_utc = 0; // this run
  settings set;

  struct {
    phase now = phase::kAwake;
    moment went;             // when the last sleep or shutdown was announced or noticed
    moment seen;             // slept and sleeps, as known: a growth is a sleep
    bool count_owed = false; // the last sleep was noticed before `sleeps` counted it
    bool standby_told = false;
    bool released = false;  // the inhibitor, for this sleep
    bool step_held = false; // the clock was stepped between standby and wake-up
    bool ending = false;    // this process ends
    std::uint32_t short_sleeps = 0;
    std::int64_t pause_until = 0; // after too many of them we send it to sleep no earlier
    std::array<std::int64_t, kSleepsAnHour> sent_at{}; // our own sleeps of the last hour, 0: none
  } power;

  struct {
    cause by = cause::kUser; // who woke or booted the machine
    bool booted = false;
    bool credited = false;  // a timer was given as the reason
    bool told = false;      // the daemon has been told so
    std::uint32_t type = 0; // that timer's type
    std::int64_t utc = 0;   // when
    std::int64_t at = 0;
    std::int64_t counted_at = 0; // the return is counted from here
    bool fired = false;          // a timer has expired or somebody has used it since
    bool cause_open = false;     // the device is still to be read
    bool late_open = false;      // the daemon is still to be asked for late timers
    std::int64_t late_from = 0;  // UTC
    bool stays = false;          // an off-timer has turned the screen off, and only that
  } woken;

  struct {
    screen_state believed = screen_state::kUnknown;
    screen_order ordered = screen_order::kNone; // the last order; it stays when it is carried out
    bool pending = false;                       // the television is still asked whether it follows
    std::uint8_t step = 0;                      // seconds of the pending order
    bool said_on = false;                       // for the pending order
    bool has_cec = false;                       // there is an adapter with a television
    bool ordered_on = false;                    // since the wake-up
    screen_state answered = screen_state::kUnknown; // by a television since the wake-up or order
  } screen;

  struct {
    wanted_alarm wanted;
    device_alarm stands;
    device_alarm foreign; // the last foreign write, while it is ahead
    int refused = 0;      // errno; 0: nothing was refused
    bool for_good = false;
    std::uint8_t tries = 0;
    std::int64_t range = 0; // seconds that the device takes; 0: not known
    bool minutes = false;
    std::int64_t clock = 0; // the device's, at the last reading
    bool dirty = false;     // not yet written
    bool stale = false;     // wanted by the last run; this one has not said yet
    bool check = false;     // the device is to be read and what must stand to be written
    bool changes = false;   // a write is decided: `next` is to be written
    device_alarm next;
    bool doubt = false;      // a write was refused: what stands is to be read
    std::uint8_t failed = 0; // what was refused since the reading: bits of 1 << owner
    wanted_alarm before_sleep_wanted;
    device_alarm before_sleep;
  } alarm;

  struct {
    clock_state state = clock_state::kByHand;
    bool ntp = false;
    bool synchronised = false;
    bool rtc_valid = false;
    bool was_set = false;    // by NTP or by somebody, in this boot
    bool update_due = false; // the daemon waits for a time update
    bool zone_open = false;  // the next transition is to be asked for
    std::int64_t build_day = 0;
    std::int64_t next_transition = 0; // utc; 0: none
    std::uint8_t asked = 0;           // times, since the last step
  } clock;

  struct {
    std::int64_t input_at = 0;   // 0: none since the wake-up
    std::int64_t session_at = 0; // when the newest user session began; 0: none
    std::int64_t active_at = 0;  // when a user became active; 0: all are idle
    std::uint8_t blocked = 0;
    std::uint8_t can = 0;
    std::int64_t delay_max_ms = 5 * kSecondMs;
    bool watched = false; // input
    std::uint8_t inhibit_tries = 0;
  } use;

  struct {
    sleep_wish wish = sleep_wish::kNone;
    wish_stage stage = wish_stage::kWaiting;
    off_action method = off_action::kNone;
    off_action last_method = off_action::kSuspend; // of the last sleep or power-off
    postponed why = postponed::kNot;
    std::uint8_t failures = 0;
    bool held = false;      // until due kSleepAgain
    bool is_silent = false; // the television has not said what it must say
    bool use_answered = false;
    bool screen_answered = false;
  } sleep;

  struct {
    bool running = false;
    std::uint64_t call = 0;
    std::int64_t until = 0; // utc
  } test;

  struct {
    delivery now = delivery::kNone;
    std::uint32_t pending = 0; // bits of 1 << delivery
  } told;

  std::array<job, kJobs> jobs;
  std::array<int, kProblems> problems{}; // 0: none; otherwise an errno or 1
  std::array<std::int64_t, kDueKinds> due = [] {
    std::array<std::int64_t, kDueKinds> never{};
    never.fill(kNever);
    return never;
  }();
  bool wants_idle = false; // the event `idle` is wanted when the loop has nothing left
};

inline std::int64_t &due_at(machine &m, due_kind kind) {
  return m.due[static_cast<std::size_t>(kind)];
}
inline std::int64_t due_at(const machine &m, due_kind kind) {
  return m.due[static_cast<std::size_t>(kind)];
}

// The time at which the event `due` is wanted; kNever: not at all.
std::int64_t next_due(const machine &m);
