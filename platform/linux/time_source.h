// Follows timedated's settings, steps of the wall clock and changes of the zone. Announces them to
// the daemon as changed settings keys and as the middleware's time update.
#pragma once

inline constexpr int kClockModeAutomatic = 0;
inline constexpr int kClockModeManual = 1;

void start_time_source();

// While the machine sleeps and until it is known who woke it, a step of the clock is not announced:
// at the wake-up the daemon arms its timers by the clock in any case.
void hold_clock_steps(bool held);

// Automatic while timedated's NTP is on and has synchronised the clock since it was switched on;
// manual otherwise.
int clock_mode();

// Announces the time update now if the clock can be trusted, otherwise as soon as NTP has
// synchronised it.
void confirm_time();
