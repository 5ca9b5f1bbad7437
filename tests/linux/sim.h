// A machine, its devices and its people in virtual time, without chance of its own: what happens in
// a night is a list of steps, so that a night that shows a fault can be made shorter by leaving
// steps out. The rules are the real ones; around them are models of the kernel, of logind, of a
// television, of people and of the daemon. `sim_checks` looks at all of it.
#pragma once

#include "event.h"
#include "sim_checks.h"
#include "sim_device.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

template <class... Kinds> bool is_one_of(const auto &what) {
  return (std::holds_alternative<Kinds>(what) || ...);
}

inline constexpr std::int64_t kDay = 86400;
inline constexpr millis kHourMs = 3600 * kSecondMs;

// At a restart answers are lost and asked for again: an order may come some seconds later.
inline constexpr millis kRestartMs = 15 * kSecondMs;

// One thing that happens; `what` is a row of the table of acts.
struct step {
  millis at = 0;
  int what = 0;
  std::int64_t a = 0;
  std::int64_t b = 0;
};

struct night {
  millis length = 0;
  std::vector<step> steps;
  int restart = -1;     // compared with a run in which the process restarts before this event,
  bool is_busy = false; // or later, when there is a wish or a job to keep
};

enum class life { kRunning, kAsleep, kOff };

// A timer of the daemon. Type 0 turns on, 1 turns off, 2 wakes with reason 20, 4 is announced.
struct sim_timer {
  std::uint32_t id;
  std::uint32_t type;
  std::int64_t local; // the next occurrence, by the TV clock
  bool daily;
  std::int64_t since;       // utc: when it was added
  millis fires_at = kNever; // CLOCK_MONOTONIC; kNever: not armed
};

struct sim_television {
  bool has_cec = true;
  bool has_address = true;
  bool on = true;
  bool is_silent = false;
  bool denies = false;     // does not know Standby
  bool lies = false;       // always says that it is on
  bool is_monitor = false; // behind an adapter that could have a television
  bool is_pulled = false;  // the adapter
  millis answers_after = 50;
  millis boots_for = 3 * kSecondMs;
  millis boots_until = 0;
  millis changed_at = 0; // by its remote, or in what it can do
  millis said_at = -1;   // ends every question before it

  bool answers() const { return has_adapter() && has_address && !is_silent; }
  bool has_adapter() const { return has_cec && !is_pulled; }
  bool is_plain() const { return !has_adapter() && !is_monitor; }
  event::tv_state reported(millis now) const {
    if (lies || (on && boots_until <= now))
      return event::tv_state::kOn;
    return on ? event::tv_state::kTurningOn : event::tv_state::kOff;
  }
};

struct sim {
  sim() : checks(*this) {}
  sim(const sim &) = delete;
  sim &operator=(const sim &) = delete;

  using action = std::function<void()>;

  // --- clocks: the true time is in milliseconds since kEvening ---

  millis now = 0;
  millis wall_offset = 0; // of CLOCK_REALTIME
  millis booted_at = -kHourMs;
  millis slept = 0;
  std::uint32_t sleeps = 0;
  bool counts_sleep = true; // false: CLOCK_BOOTTIME and CLOCK_MONOTONIC stay together
  std::int64_t offset_before = 3600, offset_after = 3600, transition = 0; // the zone

  std::int64_t utc() const { return kEvening + seconds_of(now + wall_offset); }
  std::int64_t offset(std::int64_t at_utc) const {
    return transition == 0 || at_utc < transition ? offset_before : offset_after;
  }
  std::int64_t to_utc(std::int64_t local) const;
  // Calls visit(utc, day) for the days on which it comes, 0 being the one of `local`; on a day
  // whose clock skips its time it does not.
  template <class Visit>
  void for_each_day(const sim_timer &timer, int first, int last, Visit visit) const {
    for (int day = timer.daily ? first : 0; day <= (timer.daily ? last : 0); ++day) {
      const std::int64_t local = timer.local + day * kDay;
      if (const std::int64_t due = to_utc(local); due + offset(due) == local)
        visit(due, day);
    }
  }
  std::int64_t next_transition() const { return transition > utc() ? transition : 0; }
  std::int64_t tv_clock() const { return utc() + offset(utc()); }
  millis boot_ms() const { return now - booted_at; }
  millis mono_ms() const { return boot_ms() - slept; }
  moment this_moment() const;

  // --- devices, services, people ---

  sim_register alarm;
  std::optional<std::int64_t> foreign; // the last foreign write that is ahead, as a count
  // One that was wanted when another program switched off ours: nobody knows, once ours has passed.
  std::optional<std::int64_t> forgotten;
  bool foreign_stands = false;           // it is what the register holds
  millis foreign_at = -kDay * kSecondMs; // written
  sim_television tv;
  bool plain_on = true; // a screen without CEC
  life state = life::kRunning;
  bool sleeps_now = false, stops_now = false; // logind's PreparingFor...
  bool holds_inhibitor = false;
  std::int64_t fails = 0; // sleeps that will fail
  bool doubles_end = false;
  millis foreign_delay = 0; // another program's delay inhibitor
  millis bus_ms = 5;
  std::int64_t delay_max = 5; // seconds
  std::uint8_t blocked = 0, can = kSleepBit | kShutdownBit | kHibernateBit;
  millis use_changed_at = 0;
  std::int64_t session_at = 0, active_at = 0; // boot
  millis input_at = -1, seen_at = -1;         // the last; the last while somebody looks
  millis first_seen_at = -1;                  // since the wake-up
  bool watches_input = false;
  millis job_runs = kSecondMs; // a job of a dravel-wakeup@ target
  std::map<std::uint32_t, std::pair<unit, millis>> jobs;
  std::vector<std::uint32_t> frozen_jobs; // that go on after a sleep
  bool ntp_on = true, ntp_synchronised = true, rtc_valid = true;
  std::uint32_t refused = 0; // orders that are: bits of their place in order::any
  template <class... Orders> bool refuses() const {
    return (((refused >> order::any(Orders{}).index() & 1U) != 0) || ...);
  }
  settings set;
  millis down_at = 0;
  off_action method = off_action::kSuspend; // of the last sleep or shutdown
  millis up_at = 0;
  cause up_by = cause::kUser;

  void world_at(millis when, action what);
  void process_at(millis when, action what); // dropped when the process ends
  void answer(const event::any &what);       // over the bus
  void signal(const event::any &what);
  bool is_signal_under_way() const { return signal_at_ > now; }
  bool is_leaving() const { return sleeps_now || stops_now; }
  millis begun_at() const { return begun_at_ + booted_at; } // the last announced sleep or shutdown
  void begin_sleep(off_action by);
  void begin_shutdown(bool is_called_off);
  void release_checked(); // of the inhibitor
  void go_down(off_action by, bool is_announced);
  void wake(cause by);
  void boot(cause by);
  void tell_use(bool is_answer);
  void start_job(unit of, millis runs);
  void end_job(std::uint32_t id);
  device_reading read_device();
  void tell_reachable();

  // --- the process: the shell and the daemon ---

  machine m;
  machine stored;
  bool has_stored = false, has_run = false; // has_run: in this boot
  bool is_alive = false;
  millis alive_at = 0;
  bool is_delivering = false;
  int calls = 0; // contract calls that are running
  std::int64_t orders_to_live = -1;
  bool is_halted = false;
  // missed: once ones that were past at its start, until it is asked for late ones
  std::vector<sim_timer> timers, missed;

  void start_process();
  void end_process();
  void send(const event::any &what);
  void call(const event::any &what);
  void deliver(delivery callback);
  event::late_timers late_timers(std::int64_t from, std::int64_t to);
  void add_timer(std::uint32_t type, std::int64_t local, bool daily);
  bool is_armed() const { return is_alive && m.armed; }
  bool is_clock_known() const { return m.clock.state != clock_state::kUnknown; }
  void arm(sim_timer &timer);
  void arm_timers();
  void program_alarm();
  const sim_timer *next_on_timer() const; // null: none

  // --- the night ---

  sim_checks checks;
  std::string finding; // "3: a block inhibitor at a sleep"; "" while all holds
  std::optional<std::vector<std::string>> trace;
  std::vector<std::pair<millis, std::string>> given; // orders that reach the outside
  unsigned events = 0;                               // from outside
  unsigned downs = 0;                                // sleeps and shutdowns
  millis acted_at = -kHourMs;                        // somebody
  // A restart moves by some ms what somebody does close to a timer, while the machine goes or while
  // a television is switched, and a sleep that has only just come before an on-time.
  bool may_move = false;

  std::string run(const night &what, bool restarts = false);
  void broken(int sentence, const std::string &text);
  void note(const std::string &text);

private:
  using queue = std::multimap<millis, action>;
  void carry_out(const order::any &what);
  bool may_restart() const;
  void keep_order(const std::string &text, bool is_sleep);
  void fire(std::uint32_t id);
  bool run_next(millis end);

  queue world_, process_;
  unsigned restart_at_event_ = UINT32_MAX; // or later, when it may
  bool restarts_busy_ = false;
  millis timer_ = kNever; // the shell's, CLOCK_MONOTONIC
  int run_ = 0;           // of the process
  int sleep_ = 0;         // announced ones
  int depth_ = 0;         // of send
  millis may_go_at_ = 0, signal_at_ = 0;
  millis begun_at_ = 0; // boot: the last sleep or shutdown that was announced
  bool was_announced_ = false, is_called_off_ = false;
  std::uint32_t next_id_ = 1, next_job_ = 1, answers_ = 0;
};
