// The words that the record, the events and the orders are made of. UTC and counts of the device
// are seconds; everything named boot, slept, _at or _ms is milliseconds of CLOCK_BOOTTIME.
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
  kClock,      // timedated does not answer: the clock counts as set by hand
  kZone,       // changes of the zone are not noticed
  kState,      // the record cannot be kept
  kWakesLoop,  // the machine wakes again and again, by nothing known
  kScreenUnit, // a dravel-screen unit has failed
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
  kLeaving,      // whether an announced sleep or shutdown still goes on
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
