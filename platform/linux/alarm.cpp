#include "alarm.h"

#include "clock.h"
#include "configuration.h"
#include "journal.h"
#include "loop_timer.h"

#include <Ecore.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

// An alarm that is nearer might go off before the machine sleeps, or while it still shuts down.
static constexpr std::uint32_t kLeastAheadSeconds = 5;
static constexpr std::uint32_t kLeastAheadOfBootSeconds = 60;
// The system clock and the real-time clock change their seconds at different moments.
static constexpr std::uint32_t kClockSlackSeconds = 2;
static constexpr double kRetrySeconds = 1.0;

static rtc_device *device;
static wake_up programmed;
static wake_kind kind = wake_kind::kResume;
static Ecore_Timer *retry_timer; // after EBUSY
static bool is_retry;

static std::uint32_t alarm_for(std::uint32_t on_time) {
  const bool boots = kind == wake_kind::kBoot;
  const std::uint32_t lead = boots ? configuration().lead_poweroff : configuration().lead_suspend;
  const std::uint32_t least_ahead = boots ? kLeastAheadOfBootSeconds : kLeastAheadSeconds;
  return std::max(on_time - std::min(on_time, lead), utc_now() + least_ahead);
}

// --- the device ---

static Eina_Bool try_again(void *);

// Always false. Another program that has the device open usually closes it soon.
static bool refused(const char *what) {
  if (errno == EBUSY && !is_retry)
    retry_timer = ecore_timer_add(kRetrySeconds, try_again, nullptr);
  else
    report("%s: %s: %s; the machine is not woken by it", configuration().rtc.c_str(), what,
           std::strerror(errno));
  return false;
}

static bool switch_off() {
  std::optional<std::int64_t> alarm;
  if (device->read_alarm(alarm) && !alarm)
    return true;
  return device->clear_alarm() || refused("the alarm is not switched off");
}

// The daemon programs the same alarm once for each off-timer: an unchanged alarm is not written.
static bool write_alarm(std::uint32_t alarm) {
  const auto clock = device->read_clock();
  if (!clock)
    return refused("the clock cannot be read");
  // The device's clock may be wrong: the alarm is as far ahead on it as on the system clock.
  const std::int64_t time = *clock + (std::int64_t{alarm} - utc_now());
  std::optional<std::int64_t> found;
  if (device->read_alarm(found) && found == time)
    return true;
  if (!device->set_alarm(time))
    return refused("the alarm is not set");
  if (!device->read_alarm(found))
    return refused("the alarm cannot be read back");
  errno = EIO;
  return found == time || refused("the alarm reads back differently");
}

// --- what is programmed ---

static int program(wake_up wanted) {
  end_timer(retry_timer);
  if (wanted.on_time <= utc_now())
    wanted = {};
  else
    wanted.alarm = alarm_for(wanted.on_time);
  const bool exists = device->exists();
  const bool done = exists && (wanted.on_time == 0 ? switch_off() : write_alarm(wanted.alarm));
  if (!done)
    wanted.alarm = 0;
  programmed = wanted;
  keep_wake_up(programmed);
  return done || !exists || retry_timer != nullptr ? 0 : -1;
}

static Eina_Bool try_again(void *) {
  retry_timer = nullptr;
  is_retry = true;
  program(programmed);
  is_retry = false;
  return ECORE_CALLBACK_CANCEL;
}

static void look_for_device() {
  if (!device->exists())
    report("%s: there is no real-time clock; the machine is not woken for on-timers",
           configuration().rtc.c_str());
}

wake_up start_alarm(rtc_device &rtc) {
  device = &rtc;
  const wake_up left = kept_wake_up();
  look_for_device();
  clear_alarm();
  return left;
}

int set_alarm(std::uint32_t type, std::uint32_t on_time) { return program({type, on_time, 0}); }

int clear_alarm() { return program({}); }

// The device is left now: a busy one is not tried again.
void release_device() {
  end_timer(retry_timer);
  is_retry = true;
  if (device->exists())
    switch_off();
  is_retry = false;
}

void take_device() {
  look_for_device();
  program(programmed);
}

void change_alarm_lead(wake_kind new_kind) {
  kind = new_kind;
  if (programmed.on_time != 0)
    program(programmed);
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
