// What the daemon will do with the timers that are listed now, by its own order of steps: which
// fire, and what becomes of the others.
#pragma once

#include "timers.h"

#include <vector>

// What arming all timers again does to others.
struct effects {
  std::vector<int> moved{};   // that are armed for another time now
  std::vector<int> removed{}; // that are gone
};

struct firing {
  int id;
  civil_time at;
  civil_time system{};       // what the system clock reads then
  std::vector<int> passed{}; // timers at the same second; one of them may fire in its place
  effects others{};
};

// The set's clock jumps to or from summer time; all timers are armed again.
struct clock_change {
  civil_time from;
  civil_time to;
  civil_time system;
  effects others{};
};

struct outlook {
  std::vector<firing> firings; // the soonest first
  std::vector<clock_change> changes;
};

// All that happens up to `until`. Each firing and each change of the clock arms all timers again,
// which moves timers for one moment to the next such time of day.
outlook forecast(const snapshot &view, civil_time until);
// In the coming five weeks, and until each timer that is armed for later has fired.
outlook forecast(const snapshot &view);

// The view once the daemon has added `timer`: armed, unless an off-timer is set for the same time,
// and other on-timers disarmed for which the new timer is such an off-timer.
snapshot with_timer(const timer_record &timer, const snapshot &view);

// An on-timer that fires within ten minutes after `at`: a standby timer is then left out. May move
// timers past holidays, like the daemon.
std::optional<int> ontimer_soon_after(civil_time at, snapshot &view, int except);

// The off-timer that is set for the same time as the on-timer `timer`, on a day that both have.
const timer_record *coinciding_offtimer(const timer_record &timer, const snapshot &view);
