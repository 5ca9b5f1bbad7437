// The machine's time zone as the C library knows it: it reads /etc/localtime, whether that is a
// link or a file. Times are UTC seconds since 1970, local ones are counted as if they were UTC.
#pragma once

#include <cstdint>

// Reads /etc/localtime again. True when the zone is another one.
bool read_zone();

std::uint32_t utc_now();
std::int64_t utc_to_local(std::int64_t utc);

// When a clock of the zone shows a time. In autumn it shows some of them twice, in spring some not
// at all: of those `first` is the end of the hour that is left out.
struct utc_times {
  std::int64_t first;
  std::int64_t second; // 0: only once
};
utc_times utc_of_local(std::int64_t local);

// The next second at which the offset from UTC changes, 0 when there is none within 400 days.
std::int64_t transition_after(std::int64_t utc);
