// A machine that scenarios of the rules send events to.
#pragma once

#include "event.h"

#include <algorithm>
#include <cerrno>
#include <vector>

inline constexpr std::int64_t kNow = 1'800'000'000;
inline constexpr std::int64_t kOneDay = 86400;

// A machine that is awake with its daemon armed; its device takes every alarm.
struct awake_machine {
  explicit awake_machine(const settings &set = {}, bool has_cec = true, bool rtc_valid = true) {
    event::started start;
    start.rtc_valid = rtc_valid;
    start.set = set;
    start.device.clock = now.utc;
    send(start);
    send(event::tv_reachable{has_cec});
    if (has_cec)
      send(event::tv_asks_source{}); // it speaks
    send(event::use_changed{0, 0, 0, kSleepBit | kShutdownBit | kHibernateBit, 5000, true});
    send(event::armed{});
    send(event::ntp{});
    given.clear();
  }

  void send(const event::any &what) {
    const auto [next, list] = decide(m, what, now);
    m = next;
    for (const order::any &one : list) {
      given.push_back(one);
      std::visit([this](const auto &o) { carry_out(o); }, one);
    }
  }
  void pass(std::int64_t ms) {
    const std::int64_t since_second = now.utc_ms + ms;
    now.utc += since_second / kSecondMs;
    now.utc_ms = static_cast<std::int32_t>(since_second % kSecondMs);
    now.boot += ms;
  }
  // Sleeps until then, and wakes.
  void sleep(std::int64_t seconds) {
    if (m.power.now != phase::kGoing)
      send(event::sleep_begins{});
    pass(seconds * kSecondMs);
    now.slept += seconds * kSecondMs;
    ++now.sleeps;
    given.clear();
    send(event::sleep_ends{});
  }
  // An off-timer, whose hooks have run.
  void off_time() {
    send(event::screen_wanted{false, event::asker::kDaemon});
    send(event::job_began{1, unit::kOff});
    send(event::job_ended{1});
  }
  bool has(problem part) const { return m.problems[static_cast<std::size_t>(part)] != 0; }
  template <typename Order> long count() const {
    return std::ranges::count_if(
        given, [](const order::any &one) { return std::holds_alternative<Order>(one); });
  }

  void carry_out(const order::read_alarm &) {
    send(event::alarm_read{{read_error, is_gone, minutes, now.utc, alarm}});
  }
  void carry_out(const order::write_alarm &o) {
    const int error = o.count - now.utc > range ? EINVAL : refusal;
    alarm = error == 0 ? o.count : error == EBUSY ? alarm : 0;
    send(event::alarm_written{o.count, error});
  }
  void carry_out(const order::switch_off_alarm &) {
    alarm = refusal == EBUSY ? alarm : 0;
    send(event::alarm_written{0, refusal == EBUSY ? EBUSY : 0});
  }
  void carry_out(const order::ask_late &) { send(late); }
  void carry_out(const order::ask_zone &) { send(event::zone_changed{next_transition, false}); }
  void carry_out(const order::deliver &o) {
    if (!is_busy)
      send(event::returned{o.callback});
  }
  template <typename Order> void carry_out(const Order &) {}

  machine m;
  moment now{kNow, 3600 * kSecondMs, 0, 0, 0};
  std::vector<order::any> given;
  std::int64_t alarm = 0, range = kNever;
  bool is_gone = false; // the device
  bool minutes = false; // its alarm counts them
  bool is_busy = false; // the daemon
  int refusal = 0, read_error = 0;
  std::int64_t next_transition = 0;
  event::late_timers late;
};
