// The power micro-controller: its real-time clock, and the wake-up time that it
// holds while the rest of the set sleeps.
#pragma once

#include <cstdint>

// A reading of the real-time clock, as the micro-controller counts it.
struct rtc_time {
  std::int32_t seconds;
  std::int32_t minutes;
  std::int32_t hours;
  std::int32_t day;   // 1 to 31
  std::int32_t month; // 1 to 12
  std::int32_t year;  // counted from 2000
};

class IPowerControl {
public:
  // The one power control of the set; never null, never to be released.
  static IPowerControl *getInstance();

  // Fills `out`. Returns 0 on success; otherwise `out` is undefined.
  virtual int read_rtc(rtc_time *out) = 0;

  // Programs the time at which to wake the set, with the type of the timer it
  // belongs to. It replaces the time programmed before. Returns 0 on success.
  virtual int set_wakeup_time(std::uint32_t type, std::uint32_t time) = 0;

  // Clears the programmed wake-up time. Returns 0 on success.
  virtual int clear_wakeup_time() = 0;

protected:
  ~IPowerControl() = default;
};
