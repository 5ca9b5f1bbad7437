// The real-time clock and its alarm. Its counts are seconds as the device counts them: in UTC, or
// in local time where /etc/adjtime says so.
#pragma once

#include "event.h"

#include <optional>
#include <string>

// The path of the device that `choose_rtc` would take.
std::string rtc_named(const std::string &configured);

// Takes the device at that path; "auto": the first whose alarm can wake the machine.
void choose_rtc(const std::string &configured);

const std::string &rtc_path(); // "" when there is none

// All of it, or an errno. Reading is never refused because another program has the device open.
device_reading read_rtc();

// The alarm is read back. On an error `count` is 0.
event::alarm_written write_rtc_alarm(std::int64_t count);
event::alarm_written switch_off_rtc_alarm();

// The clock in UTC.
std::optional<std::int64_t> read_rtc_utc();

// Whether the kernel has set the system clock at the boot from a real-time clock that shows a time
// of at least `least`, UTC.
bool rtc_gave_time(std::int64_t least);
