#include "rtc.h"

#include "zone.h"

#include <time_values.h>

#include <linux/ioctl.h>
#include <linux/types.h>
// The contract has another record of this name.
namespace kernel {
#include <linux/rtc.h>
}
using kernel::rtc_param;
using kernel::rtc_wkalrm;

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static constexpr const char *kDevices = "/sys/class/rtc";
static constexpr const char *kAdjtimePath = "/etc/adjtime";
static constexpr std::int64_t kAgreesSeconds = 5; // a clock that was set from the other

static std::string device; // as "rtc0"; "" when there is none
static std::string path;
static std::string setting;         // as configured
static std::optional<bool> minutes; // whether its alarm counts them, once it has said so

namespace {

// Open for one operation only: the kernel lets one program at a time open the device.
class opened_rtc {
public:
  opened_rtc() : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
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

} // namespace

// --- attributes in /sys ---

// The first word; "" for an empty file. Nothing, with errno, when it cannot be read.
static std::optional<std::string> attribute(const std::string &of, const char *name) {
  errno = 0;
  std::ifstream file(fs::path(kDevices) / of / name);
  std::string word;
  if (!file.is_open())
    return std::nullopt;
  file >> word;
  return file.bad() ? std::nullopt : std::optional(word);
}

static std::optional<std::int64_t> number(const std::string &of, const char *name) {
  const auto word = attribute(of, name);
  if (!word)
    return std::nullopt;
  return std::strtoll(word->c_str(), nullptr, 10);
}

static std::vector<std::string> all_devices() {
  std::vector<std::string> found;
  std::error_code none;
  for (const auto &entry : fs::directory_iterator(kDevices, none))
    found.push_back(entry.path().filename());
  std::ranges::sort(found, [](const std::string &one, const std::string &other) {
    return one.size() == other.size() ? one < other : one.size() < other.size();
  });
  return found;
}

static bool has_alarm(const std::string &of) { return attribute(of, "wakealarm").has_value(); }

static bool can_wake(const std::string &of) {
  return has_alarm(of) && attribute(of, "device/power/wakeup") != "disabled";
}

// --- the device ---

static std::string device_named(const std::string &configured) {
  std::error_code missing;
  if (configured != "auto")
    return fs::canonical(configured, missing).filename();
  const auto found = all_devices();
  const auto first = std::ranges::find_if(found, can_wake);
  return first == found.end() ? "" : *first;
}

static std::string path_of(const std::string &name) { return name.empty() ? "" : "/dev/" + name; }

std::string rtc_named(const std::string &configured) { return path_of(device_named(configured)); }

void choose_rtc(const std::string &configured) {
  setting = configured;
  minutes.reset();
  device = device_named(configured);
  path = path_of(device);
}

const std::string &rtc_path() { return path; }

// An older kernel does not know the question: the alarm then counts seconds, as far as we know.
static bool counts_minutes() {
  if (minutes)
    return *minutes;
  rtc_param asked{};
  asked.param = RTC_PARAM_FEATURES;
  const bool known = opened_rtc().control(RTC_PARAM_GET, &asked);
  const bool counts = known && (asked.uvalue >> RTC_FEATURE_ALARM_RES_MINUTE & 1) != 0;
  if (known || errno != EBUSY) // another program has it open for a while
    minutes = counts;
  return counts;
}

device_reading read_rtc() {
  device_reading reading;
  if (device.empty()) // its driver may be loaded after this daemon has started
    choose_rtc(std::string(setting));
  reading.for_good = device.empty() || !has_alarm(device);
  if (reading.for_good) {
    reading.error = ENODEV;
    return reading;
  }
  const auto clock = number(device, "since_epoch");
  const auto alarm = clock ? number(device, "wakealarm") : std::nullopt;
  if (!alarm) {
    reading.error = errno == 0 ? EIO : errno;
    return reading;
  }
  reading.clock = *clock;
  reading.alarm = *alarm;
  reading.minutes = counts_minutes();
  return reading;
}

static event::alarm_written failed(int error) { return {0, error == 0 ? EIO : error}; }

static event::alarm_written read_back(std::int64_t wanted) {
  const auto found = number(device, "wakealarm");
  if (!found)
    return failed(errno);
  return *found == wanted ? event::alarm_written{wanted, 0} : failed(EIO);
}

static bool set_alarm(bool enabled, std::int64_t count) {
  const std::tm fields = broken_down(to_time_value(count));
  rtc_wkalrm alarm{};
  alarm.enabled = enabled ? 1 : 0;
  alarm.time = {fields.tm_sec,  fields.tm_min,  fields.tm_hour,
                fields.tm_mday, fields.tm_mon,  fields.tm_year,
                fields.tm_wday, fields.tm_yday, 0};
  return opened_rtc().control(RTC_WKALM_SET, &alarm);
}

event::alarm_written write_rtc_alarm(std::int64_t count) {
  if (device.empty())
    return failed(ENODEV);
  return set_alarm(true, count) ? read_back(count) : failed(errno);
}

// The kernel checks the time of an alarm that is off, too.
event::alarm_written switch_off_rtc_alarm() {
  if (device.empty() || number(device, "wakealarm") == 0)
    return {};
  const auto clock = number(device, "since_epoch");
  return clock && set_alarm(false, *clock) ? read_back(0) : failed(errno);
}

// --- its clock ---

static bool counts_local_time() {
  std::ifstream file(kAdjtimePath);
  std::string drift, adjusted, counts;
  return std::getline(file, drift) && std::getline(file, adjusted) && std::getline(file, counts) &&
         counts == "LOCAL";
}

static std::int64_t utc_of(std::int64_t count) {
  return counts_local_time() ? utc_of_local(count).first : count;
}

std::optional<std::int64_t> read_rtc_utc() {
  const auto clock = number(device, "since_epoch");
  return !device.empty() && clock ? std::optional(utc_of(*clock)) : std::nullopt;
}

// The kernel takes the time only from a driver that is built in; that of a module is set by a
// program.
bool rtc_gave_time(std::int64_t least) {
  return std::ranges::any_of(all_devices(), [=](const std::string &of) {
    const auto clock = number(of, "since_epoch");
    if (!clock || utc_of(*clock) < least)
      return false;
    return number(of, "hctosys") == 1 || std::abs(utc_of(*clock) - utc_now()) <= kAgreesSeconds;
  });
}
