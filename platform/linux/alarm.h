// The alarm of the real-time clock: wakes or boots the machine before the on-time, by the lead.
#pragma once

#include "rtc.h"
#include "state.h"

// Which lead counts: that of a sleep or that of a boot.
enum class wake_kind { kResume, kBoot };

// A wake-up later than its on-time by at most this counts as caused by the alarm.
inline constexpr std::uint32_t kLatestSeconds = 300;

// Reads what the last run programmed, and switches the alarm off.
wake_up start_alarm(rtc_device &rtc);

// Programs `on_time`, UTC, for a timer of `type`. Returns 0, also for an on-time that is past,
// which is not set, on a machine without the device, and while the device is busy: then it is tried
// once more. -1 when the device refuses.
int set_alarm(std::uint32_t type, std::uint32_t on_time);
int clear_alarm();

// For a change of the configured device: switches the alarm of the old one off; programs again, on
// the new one, what was programmed.
void release_device();
void take_device();

// Programs again what is programmed, with the lead for `kind` from now on.
void change_alarm_lead(wake_kind kind);

const wake_up &programmed_wake_up();

// Whether `wake` explains a machine that came up at `time`, UTC.
bool explains(const wake_up &wake, std::uint32_t time);

// The real-time clock in UTC.
std::optional<std::uint32_t> read_rtc_utc();
