#include "start.h"

#include "bus.h"
#include "cec.h"
#include "configuration.h"
#include "input.h"
#include "journal.h"
#include "logind.h"
#include "machine_object.h"
#include "milliseconds.h"
#include "record.h"
#include "rtc.h"
#include "shell.h"
#include "targets.h"
#include "timedated.h"
#include "use.h"
#include "zone.h"

#include <Ecore.h>
#include <daemon_callbacks.h>
#include <due_timers.h>
#include <time_values.h>

#include <algorithm>
#include <span>
#include <vector>

// 00:00 UTC of the day of the build.
static constexpr std::int64_t kBuildDay = DRAVEL_BUILD_DAY;

static constexpr int kReload = 1; // SIGUSR1

// --- orders ---

// Where the clock is set back meanwhile, what it shows goes beyond both ends.
static std::vector<due_timer> timers_shown(std::int64_t from, std::int64_t until) {
  static constexpr std::size_t kMost = 64; // in an hour
  const std::int64_t first = utc_to_local(from);
  const std::int64_t last = utc_to_local(until);
  std::vector<due_timer> found(kMost);
  found.resize(dravel_due_timers(to_time_value(std::min(first, last - (until - from))),
                                 to_time_value(std::max(last, first + (until - from))),
                                 found.data(), found.size()));
  return found;
}

static event::late_timers timers_due(std::int64_t from, std::int64_t until) {
  std::vector<late_timer> due;
  for (const due_timer &timer : timers_shown(from, until)) {
    const utc_times at = utc_of_local(timer.time);
    const std::int64_t utc = at.second != 0 && at.first <= from ? at.second : at.first;
    if (utc_to_local(utc) == timer.time && utc > from && utc <= until) // it comes today
      due.push_back({static_cast<std::uint32_t>(timer.timer_id),
                     static_cast<std::uint32_t>(timer.type), utc});
  }
  std::ranges::stable_sort(due, {}, &late_timer::utc);
  const auto last = std::span(due).last(std::min(due.size(), kLateTimers));
  event::late_timers late;
  std::ranges::copy(last, late.timers.begin());
  late.count = static_cast<std::uint8_t>(last.size());
  return late;
}

namespace {

using result = std::optional<event::any>;

struct carrier {
  result operator()(const order::read_alarm &) const { return event::alarm_read{read_rtc()}; }
  result operator()(const order::write_alarm &ordered) const {
    return write_rtc_alarm(ordered.count);
  }
  result operator()(const order::switch_off_alarm &) const { return switch_off_rtc_alarm(); }
  result operator()(const order::ask_late &ordered) const {
    return timers_due(ordered.from, ordered.to);
  }
  result operator()(const order::ask_zone &asked) const { return present_zone(asked.after); }
  result operator()(const order::take_inhibitor &) const { return done(take_inhibitor); }
  result operator()(const order::release_inhibitor &) const { return done(release_inhibitor); }
  result operator()(const order::sleep &ordered) const {
    return done(send_to_sleep, ordered.method);
  }
  result operator()(const order::ask_use &) const { return done(ask_use); }
  result operator()(const order::ask_preparing &) const { return done(ask_preparing); }
  result operator()(const order::watch_input &ordered) const {
    return done(watch_input, ordered.on);
  }
  result operator()(const order::tv_on &) const { return done(turn_television, true); }
  result operator()(const order::tv_off &) const { return done(turn_television, false); }
  result operator()(const order::tv_ask &) const { return done(ask_television); }
  result operator()(const order::tv_answer &) const { return done(answer_television); }
  result operator()(const order::start_unit &ordered) const {
    return done(start_unit, ordered.name, ordered.reason);
  }
  result operator()(const order::stop_unit &ordered) const { return done(stop_unit, ordered.name); }
  result operator()(const order::ask_clock &) const { return done(ask_clock); }
  result operator()(const order::deliver &) const { return std::nullopt; } // the shell's own
  result operator()(const order::say &ordered) const { return done(write_saying, ordered); }
  result operator()(const order::answer &ordered) const { return done(answer_test_wake, ordered); }

private:
  template <class... Given, class... Arguments>
  static result done(void (*carry_out)(Given...), const Arguments &...arguments) {
    carry_out(arguments...);
    return std::nullopt;
  }
};

} // namespace

static result carry_out(const order::any &ordered) { return std::visit(carrier{}, ordered); }

static void deliver(const order::deliver &told) {
  switch (told.callback) {
  case delivery::kNone:
    break;
  case delivery::kStandby:
    deliver_standby(0);
    break;
  case delivery::kWakeup:
    deliver_wakeup(told.value);
    break;
  case delivery::kState:
    deliver_state_changed(told.value, device_power_get_ambient_mode());
    break;
  case delivery::kZone:
    deliver_setting(kSettingsTimeZone);
    break;
  case delivery::kClockMode:
    deliver_setting(kSettingsClockMode);
    break;
  case delivery::kTimeSet:
    deliver_setting(kSettingsTimeSet);
    break;
  case delivery::kTimeUpdate:
    deliver_signal(SIGNAL_SYSTEM_TIME_UPDATED);
    break;
  }
}

// --- reload and end ---

// Nothing of ours stays on a device that is not used any longer.
static void change_rtc() {
  const std::string &wanted = configuration().rtc;
  if (rtc_named(wanted) != rtc_path())
    post(event::device_leaves{});
  choose_rtc(wanted);
}

static Eina_Bool user_signal(void *, int, void *data) {
  if (static_cast<const Ecore_Event_Signal_User *>(data)->number == kReload) {
    read_configuration();
    change_rtc();
    post(event::configured{configuration().decisions});
    open_cec();
  }
  return ECORE_CALLBACK_PASS_ON;
}

// Ecore ends the main loop by itself only where nobody handles the signal.
static Eina_Bool process_ends(void *, int, void *) {
  post(event::ended{});
  ecore_main_loop_quit();
  return ECORE_CALLBACK_PASS_ON;
}

// --- start ---

// From files, /sys and clocks alone: the daemon asks for the wake-up reason before anything else.
static event::started first_event() {
  event::started first;
  first.device = read_rtc();
  const kept_record kept = load_record(first.device.alarm);
  first.kept = kept.record;
  first.has_kept = kept.exists;
  first.same_boot = kept.same_boot;
  first.is_other_build = kept.is_other_build;
  first.rtc_valid = rtc_gave_time(kBuildDay);
  first.booted_at = utc_now() - milliseconds_of(CLOCK_BOOTTIME) / kSecondMs;
  first.build_day = kBuildDay;
  first.next_transition = transition_after(utc_now());
  first.set = configuration().decisions;
  return first;
}

static void start_adapters() {
  happens = post;
  start_bus();
  start_logind();
  start_use();
  start_targets();
  start_timedated();
  start_cec();
  open_cec();
  start_machine_object({the_record, cec_description});
}

static void start_parts() {
  read_configuration();
  read_zone();
  choose_rtc(configuration().rtc);
  start_adapters();
  ecore_event_handler_add(ECORE_EVENT_SIGNAL_USER, user_signal, nullptr);
  ecore_event_handler_add(ECORE_EVENT_SIGNAL_EXIT, process_ends, nullptr);
  start_shell(first_event(), {carry_out, deliver, announce_machine});
}

bool start_platform() {
  static const bool locked = lock_state();
  static bool started = false;
  if (locked && !started) {
    started = true;
    start_parts();
  }
  return locked;
}
