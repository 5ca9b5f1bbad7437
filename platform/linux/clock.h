// The machine's wall clock and time zone.
#pragma once

#include <cstdint>

// Takes the zone `name`, or with null the one of /etc/localtime. True when the zone has changed; an
// unknown name changes nothing.
bool change_zone(const char *name);

std::uint32_t utc_now();
std::uint32_t to_utc(std::uint32_t local);

// What the real-time clock shows, in UTC: it counts local time where /etc/adjtime says so.
std::uint32_t utc_of_rtc(std::int64_t reading);
