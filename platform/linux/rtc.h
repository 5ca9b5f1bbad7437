// The device of the real-time clock. Its times are seconds as the clock counts them, in UTC or in
// local time. A failure sets errno.
#pragma once

#include <cstdint>
#include <optional>

class rtc_device {
public:
  virtual bool exists() = 0;
  virtual std::optional<std::int64_t> read_clock() = 0;

  // The alarm; nothing while it is off or the device has none. False: it cannot be read.
  virtual bool read_alarm(std::optional<std::int64_t> &alarm) = 0;
  virtual bool set_alarm(std::int64_t time) = 0;
  virtual bool clear_alarm() = 0;

protected:
  ~rtc_device() = default;
};

// The machine's, at the path of the configuration.
rtc_device &machine_rtc();
