// The systemd targets that are started when the set is turned on or off. The units that are
// WantedBy them, the hooks, run with them.
#pragma once

inline constexpr const char *kOnTarget = "dravel-on.target";
inline constexpr const char *kOffTarget = "dravel-off.target";
inline constexpr const char *kAmbientTarget = "dravel-ambient.target";

void start_targets();

// Starts a target; one that is active already is started again, so that its hooks run every time.
void start_target(const char *unit);
void stop_target(const char *unit);

// Starts kOffTarget. `ended` is called once: when its hooks have run, cannot be started, or take
// more than 90 seconds.
void start_off_target(void (*ended)());

// Does not wait for the hooks any longer; `ended` is not called.
void leave_off_target();

// Starts dravel-wakeup@REASON.target.
void start_wakeup_target(int reason);
