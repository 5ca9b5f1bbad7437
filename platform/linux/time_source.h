// Where the time comes from: timedated's settings, steps of the wall clock, changes of the zone. It
// announces the settings keys and the middleware's time update.
#pragma once

inline constexpr int kClockModeAutomatic = 0;
inline constexpr int kClockModeManual = 1;

void start_time_source();

// Automatic from the moment at which the network has given the time, for as long as timedated's NTP
// is on; manual otherwise.
int clock_mode();

// Announces the time update as soon as the clock can be trusted: after a wake-up at once, unless
// the network has not given the time yet.
void confirm_time();
