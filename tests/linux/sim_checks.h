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

#include <algorithm>
#include <array>
#include <deque>
#include <optional>
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
  void goes_down();
  void went_down(bool is_ready); // is_ready: the process could do what it is there for
  void came_up(bool boots);
  void went_off(cause by);
  void clock_stepped();
  void tampered(); // with the alarm or what leads to it
  void sleep_failed() { sent_at_ = -1; }
  void sleep_crosses() { crossed_at_ = now(); }
  void delay_ended(millis begun_at);
  void halted();
  bool is_timer_second(millis at) const; // a timer is due in it
  bool is_step_unseen(millis at) const;
  bool is_cause_open() const { return is_cause_open_; } // not looked at since the wake-up
  bool has_released(millis since) const { return released_at_ >= since; }

private:
  millis now() const;
  void never(int sentence, bool holds, const char *text);
  void may_turn_on(millis until) { on_until_ = std::max(on_until_, until); }
  void expect_nothing();
  bool is_clock_known() const;
  std::int64_t ahead() const; // seconds to the on-time
  void becomes_due(const sim_timer &timer, std::int64_t due);
  void miss(millis due);
  void check_turned_on(bool by_unit);
  void check_sleep(const order::sleep &what);
  void check_return();
  void note_hop(const order::write_alarm &write);
  bool is_user_seen(millis window) const;
  std::int64_t step_slack() const;
  bool is_led_to(off_action method) const;
  off_action wanted_method() const;
  bool wants_return() const;
  millis return_limit() const;
  void follow_return(millis next);
  void check_alarm();
  void check_release();
  void follow_foreign(millis next);
  bool is_cause_sure() const;
  void check_credit();
  void check_cause();
  void check_problems(const event::any &what);
  void check_line(const order::say &said);
  void check_due(const event::any &what);
  void note_call(const event::screen_wanted &call);
  void note_clock(const event::any &what);
  void note_user(const event::any &what);
  void note_job(const event::job_began &job);
  void note_television(const event::any &what);

  static constexpr millis kDayMs = 86400 * kSecondMs;

  sim &world_;

  // timers
  std::vector<millis> expected_;   // until when an on-timer turns the screen on
  std::int64_t slept_through_ = 0; // the last on-timer; 0: none
  std::int64_t off_due_ = 0;       // the last off-timer that became due
  millis due_at_ = -kDayMs;        // the last timer
  millis unknown_due_ = -kDayMs;   // the last on- or off-timer by an unknown clock
  std::uint32_t unknown_type_ = 0;
  millis off_until_ = kNever;   // it turns the screen off
  bool is_off_open_ = false;    // an off-timer came due, and has not fired
  millis made_up_at_ = -kDayMs; // when it was asked for
  bool was_timer_second_ = false;
  bool is_down_known_ = true; // to the daemon, since when it has not asked for missed timers

  // the screen
  millis on_until_ = -1; // a cause holds
  millis off_at_ = -kDayMs, turned_on_at_ = -kDayMs, asked_at_ = -kDayMs;
  millis said_off_at_ = -1, left_at_ = -1, stays_at_ = -1;
  bool has_spoken_ = false;                    // the television, in this boot
  bool is_televisions_ = false;                // the last order
  bool said_on_ = false, is_sent_off_ = false; // by it, last; by the last order in this boot
  bool is_ordered_on_ = false, is_silent_ = false;
  bool is_seen_on_ = false;  // the television, since the wake-up
  bool is_welcomed_ = false; // a user, by a screen that comes back
  bool may_be_welcomed_ = false;
  std::vector<unit> lost_units_;

  // sleeps
  millis test_at_ = -kDayMs, released_at_ = -kDayMs, told_at_ = -kDayMs;
  millis crossed_at_ = -kDayMs; // a sleep of ours, with another one
  millis sent_at_ = -1, lost_sleep_at_ = -kDayMs;
  millis use_unknown_at_ = -kDayMs; // logind would not say
  millis counted_from_ = -kDayMs;   // the on-time that the return is counted from
  std::optional<millis> quiet_since_;
  int failed_ = 0, short_sleeps_ = 0;
  std::deque<millis> sleeps_;
  bool is_test_ = false;

  // the alarm and the wake-up
  wanted_alarm wanted_, wanted_at_down_;
  millis tampered_at_ = -kDayMs, stepped_at_ = -kDayMs, alarm_refused_at_ = -kDayMs;
  millis lost_since_ = kNever;   // another program's alarm
  millis off_went_at_ = -kDayMs; // the last alarm
  millis off_went_before_up_ = -kDayMs;
  std::int64_t left_at_up_ = 0; // seconds to the alarm that stands
  bool timer_went_off_ = false, was_ready_ = false, was_right_ = false, has_booted_ = true;
  bool is_cause_open_ = false;
  bool knows_cause_ = false;  // nobody has hidden it from the process
  bool is_clock_set_ = false; // in this boot
  millis credited_at_ = -1;

  // problems and dues
  std::array<bool, kProblems> has_line_{};
  int dues_ = 0;
  millis dues_since_ = 0;
};
