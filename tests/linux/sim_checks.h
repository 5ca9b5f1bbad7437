// What must hold in a simulated night, looked at from outside: by what the devices and people did,
// and by the orders that were given. Findings are numbered:
//  1 an on-timer turns the screen on in its second     7 one sentence for what is refused
//  2 each "screen on" has a cause                      8 nothing due, nothing armed
//  3 no sleep that somebody or something speaks against 9 a restart changes nothing
//  4 what may sleep again does                         10 no loop of sleeps
//  5 the right alarm stands while the machine is down  11 no call within a call
//  6 the right cause, and one credit at most
#pragma once

#include "event.h"
#include "sim_device.h"

#include <array>
#include <deque>
#include <optional>
#include <string>
#include <vector>

struct sim;
struct sim_timer;

class sim_checks {
public:
  explicit sim_checks(sim &world) : world_(world) {}

  void time_passes(millis next);
  void decided(const machine &before, const event::any &what, const orders &list);
  void ordered(const order::any &what);
  void process_ended() { expected_.clear(); }
  void went_down(bool is_ready); // is_ready: the process could do what it is there for
  void came_up();
  void asked_at_start();
  void went_off(cause by);
  void clock_stepped();
  void screen_called(bool on);
  void tampered() { tampered_at_ = now(); } // with the alarm or what leads to it

private:
  millis now() const;
  void becomes_due(const sim_timer &timer, std::int64_t due);
  void miss();
  void check_sleep(const order::sleep &what);
  void check_use(bool is_return, off_action method);
  void check_return();
  void check_alarm(bool has_begun);
  bool wants_return() const;
  millis return_limit() const;
  void follow_return(millis next);
  void check_credit();
  bool is_alarm_near() const;
  void check_cause();
  void check_problems(const event::any &what);
  void check_due(const event::any &what);

  sim &world_;
  std::vector<millis> expected_;            // until when an on-timer turns the screen on
  std::vector<std::int64_t> slept_through_; // on-timers
  std::int64_t off_due_ = 0;                // the last off-timer that became due
  std::int64_t due_at_ = 0;                 // the last timer, true ms
  millis on_until_ = -1;                    // a cause holds
  millis ordered_on_at_ = -kDayMs, sent_at_ = -1, asked_at_ = -kDayMs, said_off_at_ = -1;
  std::optional<millis> quiet_since_;
  int failed_ = 0, short_sleeps_ = 0;
  std::deque<millis> sleeps_;
  bool timer_went_off_ = false, was_right_ = false, is_silent_ = false;
  millis credited_at_ = -1;
  std::int64_t left_at_up_ = 0; // seconds to the alarm that stands
  wanted_alarm wanted_, wanted_at_down_;
  millis tampered_at_ = -kDayMs, stepped_at_ = -kDayMs;
  std::array<bool, kProblems> is_bad_{};
  int dues_ = 0;
  millis dues_since_ = 0;

  static constexpr millis kDayMs = 86400 * kSecondMs;
};
