// What the simulated machine is made of, in virtual time: five clocks that differ, and the alarm
// register of the real-time clock with the habits of the kernel's.
#pragma once

#include "event.h"

#include <cerrno>
#include <cstdint>
#include <optional>

using millis = std::int64_t;
inline constexpr std::int64_t kEvening = 1'800'043'200; // 2027-01-15 20:00:00 UTC, true time 0
inline constexpr std::int64_t kMinute = 60;             // seconds

// Seconds, rounded down also before zero.
constexpr std::int64_t seconds_of(millis time) {
  return time >= 0 ? time / kSecondMs : -((-time + kSecondMs - 1) / kSecondMs);
}

// The register. Its times are counts of its own clock, in seconds.
class sim_register {
public:
  // habits
  std::int64_t ahead = 0;                 // of the true time
  std::int64_t drift = 0;                 // milliseconds a day
  std::optional<std::int64_t> range = {}; // of an alarm, in seconds
  bool counts_minutes = false;
  bool keeps_flag = false; // shows an alarm that has gone off as one that stands
  bool boots = true;       // its alarm starts a machine that is off
  int refuses = 0;         // errno of a write
  bool is_there = true;

  std::int64_t count(millis now) const {
    return kEvening + seconds_of(now + now / 86400 * drift / kSecondMs) + ahead;
  }

  // A refused write switches off what stood; one in the past is accepted and sets nothing.
  int write(millis now, std::int64_t alarm, int refused = 0) {
    const int error = refused != 0 ? refused : refuses;
    if (error == EBUSY)
      return error;
    enabled_ = went_off_ = false;
    if (error != 0)
      return error;
    if (range && alarm - count(now) > *range)
      return EINVAL;
    alarm_ = counts_minutes ? alarm / kMinute * kMinute : alarm;
    shown_ = alarm;
    enabled_ = alarm_ > count(now);
    return 0;
  }
  int switch_off() {
    if (refuses == 0)
      enabled_ = went_off_ = false;
    return refuses;
  }

  // What /sys shows; 0 while no alarm is enabled.
  std::int64_t read() const { return enabled_ || (keeps_flag && went_off_) ? shown_ : 0; }
  std::int64_t stands() const { return enabled_ ? alarm_ : 0; }
  std::int64_t left(millis now) const { return stands() - count(now); }
  std::int64_t rounding() const { return counts_minutes ? kMinute : 0; }

  // When it goes off, kNever while none stands.
  millis next(millis now) const {
    if (!enabled_)
      return kNever;
    const millis left = (alarm_ - count(now)) * kSecondMs - now % kSecondMs;
    return now + (left > 0 ? left : 0);
  }
  void go_off() {
    shown_ = alarm_;
    enabled_ = false;
    went_off_ = true;
  }

private:
  std::int64_t alarm_ = 0;
  std::int64_t shown_ = 0;
  bool enabled_ = false;
  bool went_off_ = false;
};
