#include "rtc.h"

#include "configuration.h"

#include <time_values.h>

// The contract has another record of this name.
#define rtc_time kernel_rtc_time
#include <linux/rtc.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// Open for one operation only: the kernel lets one program at a time open the device.
class opened_rtc {
public:
  opened_rtc() : fd_(open(configuration().rtc.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~opened_rtc() {
    if (fd_ >= 0)
      close(fd_);
  }
  opened_rtc(const opened_rtc &) = delete;
  opened_rtc &operator=(const opened_rtc &) = delete;

  bool control(unsigned long request, void *argument) const {
    return fd_ >= 0 && ioctl(fd_, request, argument) == 0;
  }

private:
  int fd_;
};

class kernel_rtc final : public rtc_device {
public:
  bool exists() override { return access(configuration().rtc.c_str(), F_OK) == 0; }
  std::optional<std::int64_t> read_clock() override;
  bool read_alarm(std::optional<std::int64_t> &alarm) override;
  bool set_alarm(std::int64_t time) override;
  bool clear_alarm() override;
};

} // namespace

// The kernel's record begins with the fields of a broken-down time.
static std::int64_t seconds_of(const kernel_rtc_time &time) {
  std::tm fields{};
  fields.tm_sec = time.tm_sec;
  fields.tm_min = time.tm_min;
  fields.tm_hour = time.tm_hour;
  fields.tm_mday = time.tm_mday;
  fields.tm_mon = time.tm_mon;
  fields.tm_year = time.tm_year;
  return civil_seconds(fields);
}

static kernel_rtc_time kernel_time_of(std::int64_t seconds) {
  const std::tm fields = broken_down(to_time_value(seconds));
  return {fields.tm_sec,  fields.tm_min,  fields.tm_hour,
          fields.tm_mday, fields.tm_mon,  fields.tm_year,
          fields.tm_wday, fields.tm_yday, 0};
}

std::optional<std::int64_t> kernel_rtc::read_clock() {
  kernel_rtc_time time{};
  if (!opened_rtc().control(RTC_RD_TIME, &time))
    return std::nullopt;
  return seconds_of(time);
}

// A device that cannot have an alarm refuses with EINVAL.
bool kernel_rtc::read_alarm(std::optional<std::int64_t> &alarm) {
  rtc_wkalrm read{};
  alarm.reset();
  if (!opened_rtc().control(RTC_WKALM_RD, &read))
    return errno == EINVAL;
  if (read.enabled != 0)
    alarm = seconds_of(read.time);
  return true;
}

bool kernel_rtc::set_alarm(std::int64_t time) {
  rtc_wkalrm alarm{1, 0, kernel_time_of(time)};
  return opened_rtc().control(RTC_WKALM_SET, &alarm);
}

// The kernel checks the time of an alarm that is off, too.
bool kernel_rtc::clear_alarm() {
  const opened_rtc device;
  rtc_wkalrm alarm{};
  return device.control(RTC_RD_TIME, &alarm.time) && device.control(RTC_WKALM_SET, &alarm);
}

rtc_device &machine_rtc() {
  static kernel_rtc device;
  return device;
}
