// The timer types: their numbers, and what the daemon does when a timer of a type expires. The
// daemon, its platforms and its tools read this table. In C it gives the names of the numbers only.
#pragma once

// The numbers that have a name because some code compares them.
enum dravel_timer_type {
  TIMER_TYPE_ON = 0,
  TIMER_TYPE_OFF = 1,
  TIMER_TYPE_STANDBY = 6,    // not armed when an on-timer follows within ten minutes
  TIMER_TYPE_ALWAYS = 9,     // neither disabled periods nor clock changes move it
  TIMER_TYPE_TRANSIENT = 10, // never stored; its id is below 0
  TIMER_TYPE_REPLACING = 13, // takes the place of an equal one
  TIMER_TYPE_AMBIENT_ON = 15,
  TIMER_TYPE_AMBIENT_OFF = 16,
  TIMER_TYPE_ONTIMER_MAX = 254
};

#ifdef __cplusplus

// Every expiry is announced on the bus. Besides:
enum class timer_action {
  kNone,
  kTurnOn, // gives a sleeping set the reason and requests the power state "on"
  kWake,   // gives a sleeping set the reason
  kTurnOff // requests a power-off with the option
};

struct timer_type {
  int number;
  timer_action action;
  int reason;      // why the set is woken; 2 where the type has no reason of its own
  unsigned option; // of the power-off
  const char *word;
  const char *meaning;
};

inline constexpr const char *kWakesAndIsAnnounced = "wakes a sleeping set and is announced";

inline constexpr timer_type kTimerTypes[] = {
    {TIMER_TYPE_ON, timer_action::kTurnOn, 2, 0, "on", "turns the set on"},
    {TIMER_TYPE_OFF, timer_action::kTurnOff, 2, 1, "off", "powers the set off"},
    {2, timer_action::kWake, 20, 0, "wake-20", "wakes the set, reason 20"},
    {3, timer_action::kWake, 5, 0, "wake-5", "wakes the set, reason 5"},
    {4, timer_action::kNone, 2, 0, "announce", kWakesAndIsAnnounced},
    {5, timer_action::kWake, 28, 0, "wake-28", "wakes the set, reason 28"},
    {TIMER_TYPE_STANDBY, timer_action::kWake, 30, 0, "standby",
     "wakes the set, reason 30, unless an on-timer follows within ten minutes"},
    {7, timer_action::kWake, 33, 0, "wake-33", "wakes the set, reason 33"},
    {8, timer_action::kWake, 36, 0, "wake-36", "wakes the set, reason 36"},
    {TIMER_TYPE_ALWAYS, timer_action::kNone, 2, 0, "always",
     "wakes a sleeping set and is announced, on holidays too"},
    {TIMER_TYPE_TRANSIENT, timer_action::kTurnOff, 2, 2, "transient-off",
     "powers the set off; lost when the daemon ends"},
    {11, timer_action::kWake, 74, 0, "wake-74", "wakes the set, reason 74"},
    {12, timer_action::kNone, 2, 0, "announce-12", kWakesAndIsAnnounced},
    {TIMER_TYPE_REPLACING, timer_action::kWake, 92, 0, "replacing",
     "wakes the set, reason 92; replaces an equal timer"},
    {14, timer_action::kWake, 99, 0, "wake-99", "wakes the set, reason 99"},
    {TIMER_TYPE_AMBIENT_ON, timer_action::kWake, 89, 0, "ambient-on",
     "wakes the set into ambient mode, reason 89"},
    {TIMER_TYPE_AMBIENT_OFF, timer_action::kTurnOff, 2, 0x4000001A, "ambient-off",
     "powers the set off from ambient mode"},
};

inline constexpr timer_type kOtherOnTimers = {-1, timer_action::kNone, 2, 0,
                                              "", kWakesAndIsAnnounced};
inline constexpr timer_type kOtherTimers = {-1, timer_action::kNone, 2, 0, "", "is announced"};

// The row of a type. Those beyond TIMER_TYPE_ONTIMER_MAX, and negative ones, wake no set.
constexpr const timer_type &timer_type_of(long long number) {
  for (const timer_type &type : kTimerTypes)
    if (type.number == number)
      return type;
  return number >= 0 && number <= TIMER_TYPE_ONTIMER_MAX ? kOtherOnTimers : kOtherTimers;
}

// An on-timer: the power control is programmed to wake the set for it.
constexpr bool is_ontimer_type(long long number) {
  return number >= 0 && number <= TIMER_TYPE_ONTIMER_MAX &&
         timer_type_of(number).action != timer_action::kTurnOff;
}

#endif
