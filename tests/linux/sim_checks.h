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
  void decided(const event::any &what, const orders &list);
  void ordered(const order::any &what);
  void called(const event::any &what); // of the contract, when it has returned
  void lost(const order::any &what);   // with the process, before it was carried out
  void process_ended();
  void went_down(bool is_ready); // is_ready: the process could do what it is there for
  void came_up(bool boots);
  void asked_at_start();
  void went_off(cause by);
  void clock_stepped();
  void screen_called(bool on);
  bool is_timer_second() const; // a timer is due in it
  void tampered() {             // with the alarm or what leads to it
    tampered_at_ = now();
    knows_cause_ = knows_cause_ && !is_cause_open_;
  }
  bool is_cause_open() const { return is_cause_open_; }
  bool is_step_unseen() const;
  void sleep_failed() { sent_at_ = -1; }
  void sleep_crosses() { crossed_at_ = now(); }
  void test_called() { test_at_ = now(); }
  bool has_released(millis since) const { return released_at_ >= since; }
  void delay_ended(millis begun_at);
  void turned_off_by_timer();
  void halted();

private:
  millis now() const;
  void becomes_due(const sim_timer &timer, std::int64_t due);
  void miss(millis due);
  void check_turned_on(bool by_unit);
  void check_sleep(const order::sleep &what);
  void check_use(bool is_return, off_action method);
  void check_return();
  bool is_clock_known() const;
  void check_wish(sleep_wish wish);
  void check_alarm();
  void check_release();
  void follow_foreign(millis next);
  void check_line(const order::say &said);
  void note_clock(const event::any &what);
  void note_user(const event::any &what);
  void note_television(const event::any &what);
  bool is_led_to(off_action method) const;
  off_action wanted_method() const;
  bool wants_return() const;
  millis return_limit() const;
  void follow_return(millis next);
  void check_lost(millis next);
  void check_credit();
  bool is_alarm_near() const;
  bool is_user_seen(millis window) const;
  void check_cause();
  void check_problems(const event::any &what);
  void check_due(const event::any &what);

  sim &world_;
  std::vector<millis> expected_;   // until when an on-timer turns the screen on
  std::int64_t slept_through_ = 0; // the last on-timer; 0: none
  std::int64_t off_due_ = 0;       // the last off-timer that became due
  millis due_at_ = -kDayMs;        // the last timer
  millis unknown_due_ = -kDayMs;   // the last on- or off-timer by an unknown clock
  std::uint32_t unknown_type_ = 0;
  millis off_until_ = kNever; // it turns the screen off
  millis off_at_ = -kDayMs, test_at_ = -kDayMs, released_at_ = -kDayMs, told_at_ = -kDayMs;
  millis on_until_ = -1;        // a cause holds
  millis crossed_at_ = -kDayMs; // a sleep of ours, with another one
  millis sent_at_ = -1, asked_at_ = -kDayMs, said_off_at_ = -1, left_at_ = -1, stays_at_ = -1;
  millis turned_on_at_ = -kDayMs, use_unknown_at_ = -kDayMs; // logind would not say
  bool is_off_open_ = false;    // an off-timer came due, and has not fired
  millis made_up_at_ = -kDayMs; // when it was asked for
  std::optional<millis> quiet_since_;
  int failed_ = 0, short_sleeps_ = 0;
  std::deque<millis> sleeps_;
  std::vector<unit> lost_units_;
  bool is_cause_open_ = false; // not looked at since the wake-up
  bool knows_cause_ = false;   // nobody has hidden it from the process
  bool was_timer_second_ = false;
  bool was_ready_ = false, has_booted_ = true;
  bool is_down_known_ =
      true;                 // to the daemon, since when it has not asked for timers that it missed
  bool has_spoken_ = false; // the television, in this boot
  bool is_clock_set_ = false, said_on_ = false;  // in this boot; by the television, last
  bool is_ordered_on_ = false, is_test_ = false; // the screen; the sleep
  bool is_seen_on_ = false;                      // the television, since the wake-up
  bool is_sent_off_ = false;                     // the screen, by the last order in this boot
  bool is_welcomed_ = false;                     // a user, by a screen that comes back
  bool timer_went_off_ = false, was_right_ = false, is_silent_ = false;
  millis credited_at_ = -1;
  std::int64_t left_at_up_ = 0;   // seconds to the alarm that stands
  millis counted_from_ = -kDayMs; // the on-time that the return is counted from
  millis off_went_at_ = -kDayMs;  // the last alarm
  millis off_went_before_up_ = -kDayMs;
  wanted_alarm wanted_, wanted_at_down_;
  millis tampered_at_ = -kDayMs, stepped_at_ = -kDayMs;
  std::array<bool, kProblems> is_bad_{}, has_line_{};
  millis lost_since_ = kNever; // another program's alarm
  int dues_ = 0;
  millis dues_since_ = 0;

  static constexpr millis kDayMs = 86400 * kSecondMs;
};
