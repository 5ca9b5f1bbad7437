#include "alarm.h"

#include "clock.h"
#include "configuration.h"
#include "journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

// An alarm that is nearer might go off before the machine sleeps.
static constexpr std::uint32_t kLeastAheadSeconds = 5;
// The system clock and the real-time clock change their seconds at different moments.
static constexpr std::uint32_t kClockSlackSeconds = 2;

static rtc_device *device;
static wake_up programmed;
static wake_kind kind = wake_kind::kResume;

static std::uint32_t now() { return static_cast<std::uint32_t>(std::time(nullptr)); }

static std::uint32_t lead() {
  return kind == wake_kind::kBoot ? configuration().lead_poweroff : configuration().lead_suspend;
}

static std::uint32_t alarm_for(std::uint32_t on_time) {
  return std::max(on_time - std::min(on_time, lead()), now() + kLeastAheadSeconds);
}

static int refused(const char *what) {
  report("%s: %s: %s; the machine is not woken by it", configuration().rtc.c_str(), what,
         std::strerror(errno));
  return -1;
}

static int switch_off() {
  if (!device->exists() || !device->read_alarm() || device->clear_alarm())
    return 0;
  return refused("the alarm is not switched off");
}

// The alarm is set by its distance from now, so that a wrong clock of the device does not matter.
// One that the device has already is left: the daemon programs once for each off-timer.
static int write_alarm(std::uint32_t alarm) {
  if (!device->exists())
    return 0;
  const auto clock = device->read_clock();
  if (!clock)
    return refused("the clock cannot be read");
  const std::int64_t time = *clock + (std::int64_t{alarm} - now());
  if (device->read_alarm() == time)
    return 0;
  if (!device->set_alarm(time))
    return refused("the alarm is not set");
  errno = EIO;
  if (device->read_alarm() != time)
    return refused("the alarm reads back differently");
  return 0;
}

static int program(std::uint32_t type, std::uint32_t on_time) {
  if (on_time <= now()) {
    programmed = {};
    keep_wake_up(programmed);
    return switch_off();
  }
  programmed = {type, on_time, alarm_for(on_time)};
  keep_wake_up(programmed);
  return write_alarm(programmed.alarm);
}

wake_up start_alarm(rtc_device &rtc) {
  device = &rtc;
  programmed = {};
  const wake_up left = kept_wake_up();
  if (!device->exists())
    report("%s: there is no real-time clock; the machine is not woken for on-timers",
           configuration().rtc.c_str());
  clear_alarm();
  return left;
}

int set_alarm(std::uint32_t type, std::uint32_t on_time) { return program(type, on_time); }

int clear_alarm() {
  programmed = {};
  keep_wake_up(programmed);
  return switch_off();
}

void change_alarm_lead(wake_kind new_kind) {
  kind = new_kind;
  if (programmed.on_time != 0)
    program(programmed.type, programmed.on_time);
}

const wake_up &programmed_wake_up() { return programmed; }

bool explains(const wake_up &wake, std::uint32_t time) {
  return wake.alarm != 0 && time + kClockSlackSeconds >= wake.alarm &&
         time <= std::max(wake.alarm, wake.on_time) + kLatestSeconds;
}

std::optional<std::uint32_t> read_rtc_utc() {
  const auto clock = device->read_clock();
  if (!clock)
    return std::nullopt;
  return utc_of_rtc(*clock);
}
