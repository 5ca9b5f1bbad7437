// What the topics of decide share: a decision in the making, one `on` for each event, and the steps
// that follow every event. Nothing else includes it.
//
// An event only changes the record and gives orders whose results come later. What has its result
// at once (the alarm, the daemon's late timers) and what the daemon is told is open in the record,
// and `go_on` gives one of them, as the last order. Its result goes on with the next.
#pragma once

#include "event.h"

#include <cassert>

struct decision {
  machine m;
  moment now;
  orders out;

  template <typename Order> void give(const Order &order) {
    assert(out.count < orders::kMost); // no night comes near
    if (out.count < orders::kMost)
      out.list[out.count++] = order;
  }
  std::int64_t &due(due_kind kind) { return due_at(m, kind); }
  void due_after(due_kind kind, std::int64_t ms) { due(kind) = now.boot + ms; }
  void never(due_kind kind) { due(kind) = kNever; }
  // At a UTC second. A time that is set already keeps its milliseconds.
  void due_at_utc(due_kind kind, std::int64_t utc);
};

// --- events ---

void on(decision &d, const event::started &e);
void on(decision &d, const event::configured &e);
void on(decision &d, const event::ended &e);
void on(decision &d, const event::device_leaves &e);
void on(decision &d, const event::program &e);
void on(decision &d, const event::unprogram &e);
void on(decision &d, const event::screen_wanted &e);
void on(decision &d, const event::fired &e);
void on(decision &d, const event::ambient &e);
void on(decision &d, const event::returned &e);
void on(decision &d, const event::armed &e);
void on(decision &d, const event::alarm_written &e);
void on(decision &d, const event::alarm_read &e);
void on(decision &d, const event::late_timers &e);
void on(decision &d, const event::sleep_begins &e);
void on(decision &d, const event::sleep_ends &e);
void on(decision &d, const event::shutdown_begins &e);
void on(decision &d, const event::shutdown_ends &e);
void on(decision &d, const event::sleep_answered &e);
void on(decision &d, const event::preparing &e);
void on(decision &d, const event::use_changed &e);
void on(decision &d, const event::input &e);
void on(decision &d, const event::job_began &e);
void on(decision &d, const event::job_ended &e);
void on(decision &d, const event::jobs_told_again &e);
void on(decision &d, const event::unit_refused &e);
void on(decision &d, const event::tv_reports &e);
void on(decision &d, const event::tv_silent &e);
void on(decision &d, const event::tv_denies &e);
void on(decision &d, const event::tv_standby &e);
void on(decision &d, const event::tv_asks_source &e);
void on(decision &d, const event::tv_reachable &e);
void on(decision &d, const event::clock_stepped &e);
void on(decision &d, const event::zone_changed &e);
void on(decision &d, const event::ntp &e);
void on(decision &d, const event::test_wake &e);
void on(decision &d, const event::idle &e);
void on(decision &d, const event::due &e);
void on(decision &d, const event::refused &e);
void on(decision &d, const event::works &e);

// --- decide_tell.cpp: the daemon, the journal, the problems ---

void tell(decision &d, delivery what);
void take_back(decision &d, delivery what);
void deliver_next(decision &d);
void say(decision &d, order::saying what, std::int64_t number = 0, std::uint32_t type = 0);
// One line when a problem begins, one when it is over.
void begin_problem(decision &d, problem which, int error);
void end_problem(decision &d, problem which);
bool is_open(const machine &m, problem which);

// --- decide_alarm.cpp: which alarm must stand ---

// The last second at which a timer that was missed is made up for, after its time.
inline constexpr std::int64_t kLatestSeconds = 300;
// The system clock and the device's change their seconds at different moments.
inline constexpr std::int64_t kSlackSeconds = 2;

device_alarm alarm_that_must_stand(const decision &d);
off_action coming_sleep(const machine &m);
inline bool can_hibernate(const machine &m) { return (m.use.can & kHibernateBit) != 0; }
std::int64_t lead_seconds(const machine &m, off_action method);
// An alarm that is nearer might go off before the machine sleeps.
std::int64_t nearness_seconds(const machine &m, off_action method);
// False while an on-time is wanted and nothing stands that leads to it.
bool alarm_leads(const machine &m, const moment &now, off_action method);
// UTC: the first of what the machine must be awake for; kNever: nothing.
std::int64_t next_wake_utc(const machine &m, const moment &now);
// When an alarm with this count goes off.
std::int64_t rounded_down(const machine &m, std::int64_t count);
bool is_ahead(const machine &m, const device_alarm &alarm, std::int64_t clock);
// A machine that is off is not woken for the on-time, because it must not boot for hops.
bool is_hop_left_out(const machine &m, const moment &now);
unsigned refusal_bit(alarm_owner owner);

// --- decide_reading.cpp, decide_device.cpp: reading and writing it ---

// To the alarm that stood, since it was read last.
enum class others_did : std::uint8_t { kNothing, kSwitchedOff, kReplaced };
others_did what_others_did(const machine &m, const device_reading &reading);
void take_reading(decision &d, const device_reading &reading);
void check_alarm(decision &d);
void write_next_alarm(decision &d);
bool is_write_open(const machine &m);
// False while it is still to be read or written; what was refused counts as settled.
bool is_alarm_settled(const machine &m);
void count_alarm(decision &d);

// --- decide_wake.cpp, decide_cause.cpp ---

inline bool is_leaving(const machine &m) {
  return m.power.now == phase::kGoing || m.power.now == phase::kShuttingDown;
}
// A sleep, or its end, that nobody has announced yet is noticed at any event.
void notice_sleep(decision &d);
std::int64_t utc_before(const moment &now, std::int64_t ms);
void take_inhibitor(decision &d);
void inhibitor_refused(decision &d);
void try_inhibitor_again(decision &d);
void release_if_ready(decision &d);
void ask_whether_leaving(decision &d);
cause cause_by_alarm(const machine &m, others_did others, std::int64_t clock);
void decide_cause(decision &d, others_did others);
void credit(decision &d);
void say_cause(decision &d);
void user_window_ends(decision &d);
bool awaits_user(const machine &m);
bool by_alarm_of_ours(const machine &m);

// --- decide_late.cpp ---

void timers_have_fired(decision &d); // which have become due until now
void find_timers_of_unknown_clock(decision &d);

// --- decide_obstacle.cpp ---

std::int64_t near_until(const machine &m, const moment &now);
std::int64_t often_until(const machine &m);
postponed obstacle(const machine &m, const moment &now);
// A wish that asks no user has been postponed until somebody came.
bool is_overtaken(const machine &m);

// --- decide_sleep.cpp, decide_return.cpp ---

void wish_sleep(decision &d, sleep_wish wish, off_action method);
void drop_wish(decision &d);
void forget_wish(decision &d); // also one that has been handed to logind
void change_off_action(decision &d);
void count_sleep(decision &d);
void sleep_failed(decision &d, int error);
void sleep_again(decision &d);
void order_was_lost(decision &d);
void answers_end(decision &d);
void ask_again(decision &d); // what was asked before a sleep, after a start
void pursue_sleep(decision &d);
bool must_say_off(const machine &m); // the television, before a return
void wish_return(decision &d);
void count_return(decision &d);
// An expiry, or somebody: the return is counted from now.
void used(decision &d);
void watch_input(decision &d);

// --- decide_use.cpp ---

bool is_session_in_use(const machine &m);
bool wakeup_job_runs(const machine &m);
bool off_job_runs(const machine &m);
void begin_unit(decision &d, unit of, std::int32_t reason = 0);
void forget_start(decision &d, unit of);
void doubt_jobs(decision &d);       // after a start
void forget_lost_jobs(decision &d); // after a sleep
void forget_overdue_jobs(decision &d);
void count_jobs(decision &d);
void check_off_action(decision &d);

// --- decide_screen.cpp ---

bool wants_on(const machine &m); // the screen, by the last order
bool is_on(const machine &m);
bool has_television(const machine &m); // one that has said something
void turn_screen(decision &d, bool on);
void doubt_screen_order(decision &d, unit refused);
void turn_off_by_timer(decision &d);
void ask_television(decision &d);
void adapter_appears(decision &d);
void ask_before_near(decision &d);
void send_screen_order(decision &d);
void finish_order(decision &d);
void screen_step(decision &d);
void count_screen(decision &d);

// --- decide_clock.cpp ---

bool is_clock_known(const machine &m, const moment &now);
void start_clock(decision &d);
void ask_clock_again(decision &d);
bool is_resume(const decision &d); // what is read now may be older than the sleep
void count_clock(decision &d);

// --- decide_trial.cpp ---

void trial_ends(decision &d, int error);
// Something that the machine must be awake for has been set since the call.
bool is_test_disturbed(const machine &m, const moment &now);
