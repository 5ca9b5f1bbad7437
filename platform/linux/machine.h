// All that decisions depend on: one record, copied freely, without pointers. Only decide changes
// it. `unknown` is a value of its own wherever something may be so.
#pragma once

#include "words.h"

struct machine {
  bool started = false;         // false: no event has been decided yet
  bool armed = false;           // the daemon's first pass after its start has ended
  std::int64_t started_utc = 0; // this run
  settings set;

  struct {
    phase now = phase::kAwake;
    moment went;             // when the last sleep or shutdown was announced or noticed
    moment seen;             // boot, slept and sleeps at the last event: a growth is a sleep
    bool count_owed = false; // the last sleep was noticed before `sleeps` counted it
    bool standby_told = false;
    bool released = false;      // the inhibitor, for this sleep
    bool may_hibernate = false; // somebody else has ordered the last sleep
    bool end_owed = false;      // the machine is awake, and logind has not said so
    bool signal_owed = false;   // logind's signal of the last sleep may still be on its way
    bool step_held = false;     // the clock was stepped between standby and wake-up
    bool ending = false;        // this process ends
    std::uint32_t short_sleeps = 0;
    std::int64_t pause_until = 0; // after too many of them we send it to sleep no earlier
    std::array<std::int64_t, kSleepsAnHour> sent_at{}; // our own sleeps of the last hour, 0: none
  } power;

  struct {
    cause by = cause::kUser; // who woke or booted the machine
    bool booted = false;
    bool credited = false;  // a timer was given as the reason
    bool told = false;      // the daemon has been told so
    std::uint32_t type = 0; // that timer's type
    std::int64_t utc = 0;   // when
    std::int64_t at = 0;
    std::int64_t slept_from = 0; // boot; input before that has woken nothing
    std::int64_t counted_at = 0; // the return is counted from here
    bool fired = false;          // a timer has expired or somebody has used it since
    bool cause_open = false;     // the device is still to be read
    bool late_open = false;      // the daemon is still to be asked for late timers
    std::int64_t late_from = 0;  // UTC: until then timers have fired, or were asked for
    bool stays = false;          // somebody has turned the screen off, and only that
  } woken;

  struct {
    screen_state believed = screen_state::kUnknown;
    screen_order ordered = screen_order::kNone; // the last order; it stays when it is carried out
    bool pending = false;                       // the television is still asked whether it follows
    std::int64_t ordered_at = 0;                // boot
    std::uint8_t step = 0;                      // seconds since the order
    bool said_on = false;                       // since the order
    bool denied = false;                        // it does not know the question, since the order
    bool has_cec = false;                       // there is an adapter that may have a television
    bool has_spoken = false;                    // it has; a monitor never says anything
    bool is_televisions = false;                // the last order; also while its adapter is away
    bool ordered_on = false;                    // since the wake-up
    bool seen_on = false;                       // a television has said so since the wake-up
    screen_state answered = screen_state::kUnknown; // by a television since the wake-up or order
  } screen;

  struct {
    wanted_alarm wanted;
    device_alarm stands;
    device_alarm foreign; // the last foreign write, while it is ahead
    int refused = 0;      // errno; 0: nothing was refused
    bool for_good = false;
    std::uint8_t tries = 0;
    std::int64_t range = 0; // seconds that the device takes; 0: not known
    bool minutes = false;
    std::int64_t clock = 0; // the device's, at the last reading
    bool dirty = false;     // not yet written
    bool stale = false;     // wanted by the last run; this one has not said yet
    bool leaves = false;    // the device: nothing of ours is to stay on it
    bool check = false;     // the device is to be read and what must stand to be written
    bool changes = false;   // a write is decided: `next` is to be written, unless `unread`
    device_alarm next;
    bool doubt = false;      // a write was refused: what stands is to be read
    bool unread = false;     // it cannot be read: nobody knows what stands
    std::uint8_t failed = 0; // what was refused since the reading: bits of 1 << owner
    wanted_alarm before_sleep_wanted;
    device_alarm before_sleep;
  } alarm;

  struct {
    clock_state state = clock_state::kByHand;
    bool ntp = false;
    bool synchronised = false;
    bool rtc_valid = false;
    bool was_set = false;    // by NTP or by somebody, in this boot
    bool update_due = false; // the daemon waits for a time update
    bool zone_open = false;  // the next transition is to be asked for
    std::int64_t build_day = 0;
    std::int64_t unknown_from = kNever; // boot: since when; kNever: it is known
    std::int64_t next_transition = 0;   // utc; 0: none
    std::uint8_t asked = 0;             // times, since the last step
  } clock;

  struct {
    std::int64_t input_at = 0;   // 0: none since the wake-up
    std::int64_t session_at = 0; // when the newest user session began; 0: none
    std::int64_t active_at = 0;  // when a user became active; 0: all are idle
    std::uint8_t blocked = 0;
    std::uint8_t can = 0;
    std::int64_t delay_max_ms = 5 * kSecondMs;
    bool watched = false; // input
    std::uint8_t inhibit_tries = 0;
  } use;

  struct {
    sleep_wish wish = sleep_wish::kNone;
    std::int64_t wished_at = 0;
    wish_stage stage = wish_stage::kWaiting;
    off_action method = off_action::kNone;
    off_action last_method = off_action::kSuspend; // of the last sleep or power-off
    postponed why = postponed::kNot;
    std::uint8_t failures = 0;
    bool held = false;       // until due kSleepAgain
    bool is_dropped = false; // an order on its way is not given again
    bool is_silent = false;  // the television has not said what it must say
    bool use_answered = false;
    bool screen_answered = false;
  } sleep;

  struct {
    bool running = false;
    std::uint64_t call = 0;
    std::int64_t until = 0; // boot
  } test;

  struct {
    delivery now = delivery::kNone;
    std::uint32_t pending = 0; // bits of 1 << delivery
  } told;

  std::array<job, kJobs> jobs;
  std::array<int, kProblems> problems{}; // 0: none; otherwise an errno or 1
  std::array<std::int64_t, kDueKinds> due = [] {
    std::array<std::int64_t, kDueKinds> never{};
    never.fill(kNever);
    return never;
  }();
  bool wants_idle = false; // the event `idle` is wanted when the loop has nothing left
};

inline std::int64_t &due_at(machine &m, due_kind kind) {
  return m.due[static_cast<std::size_t>(kind)];
}
inline std::int64_t due_at(const machine &m, due_kind kind) {
  return m.due[static_cast<std::size_t>(kind)];
}

// The time at which the event `due` is wanted; kNever: not at all.
std::int64_t next_due(const machine &m);
