#include "rules.h"

#include <algorithm>

// A time that comes later by less than this is the same: the clocks are read one after the other.
static constexpr std::int64_t kJitterMs = 500;

void decision::due_at_utc(due_kind kind, std::int64_t utc) {
  const std::int64_t then = now.boot + (utc - now.utc) * kSecondMs - now.utc_ms;
  const std::int64_t before = due(kind);
  if (before == kNever || before < then || before - then > kJitterMs)
    due(kind) = then;
}

std::int64_t next_due(const machine &m) { return *std::ranges::min_element(m.due); }

// --- what is due ---

static void look_again(decision &) {} // what follows every event does

static constexpr struct {
  due_kind kind;
  void (*passes)(decision &d);
} kDueRows[] = {
    {due_kind::kReturn, look_again},           {due_kind::kSleepAgain, sleep_again},
    {due_kind::kAsked, answers_end},           {due_kind::kAlarmAgain, check_alarm},
    {due_kind::kAlarmPasses, check_alarm},     {due_kind::kAskScreen, ask_television},
    {due_kind::kScreenStep, screen_step},      {due_kind::kHook, forget_overdue_jobs},
    {due_kind::kTransition, look_again},       {due_kind::kAskClock, ask_clock_again},
    {due_kind::kUserWindow, user_window_ends}, {due_kind::kInhibitAgain, try_inhibitor_again},
    {due_kind::kLeaving, ask_whether_leaving},
};
static_assert(std::size(kDueRows) == kDueKinds);

void on(decision &d, const event::due &) {
  for (const auto &row : kDueRows) {
    if (due_at(d.m, row.kind) > d.now.boot)
      continue;
    d.never(row.kind);
    row.passes(d);
  }
}

// --- what follows every event ---

static void count_dues(decision &d) {
  count_alarm(d);
  count_screen(d);
  count_clock(d);
  count_return(d);
  count_jobs(d);
}

// True when an order was given whose result comes at once.
static bool ask_at_once(decision &d) {
  if (is_write_open(d.m))
    write_next_alarm(d);
  else if (d.m.alarm.check)
    d.give(order::read_alarm{});
  else if (d.m.woken.late_open && d.m.armed)
    d.give(order::ask_late{d.m.woken.late_from, d.now.utc});
  else if (d.m.clock.zone_open)
    d.give(order::ask_zone{d.now.utc});
  else
    return false;
  return true;
}

static void go_on(decision &d) {
  count_dues(d);
  pursue_sleep(d);
  watch_input(d);
  if (ask_at_once(d))
    return;
  release_if_ready(d);
  deliver_next(d);
}

std::pair<machine, orders> decide(const machine &before, const event::any &what,
                                  const moment &now) {
  decision d{before, now, {}};
  if (!std::holds_alternative<event::started>(what))
    notice_sleep(d);
  std::visit([&](const auto &e) { on(d, e); }, what);
  go_on(d);
  return {d.m, d.out};
}
