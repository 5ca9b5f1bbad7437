// Orders to the screen, and what follows them.
#include "rules.h"

#include <iterator>

// Many televisions do not say that their own remote has turned them on or off.
static constexpr std::int64_t kAskBeforeSeconds = 10;
static constexpr unsigned kAgainSeconds[] = {4, 8};
static constexpr unsigned kGiveUpSeconds = 15;
// Some take longer to boot: they are still asked, but not as often.
static constexpr unsigned kSlowSeconds = 5;
static constexpr unsigned kSlowestSeconds = 120;

bool is_on(const machine &m) { return m.screen.believed == screen_state::kOn; }

bool has_television(const machine &m) { return m.screen.has_cec && m.screen.has_spoken; }

bool wants_on(const machine &m) { return m.screen.ordered == screen_order::kOn; }

void ask_television(decision &d) {
  if (d.m.screen.has_cec)
    d.give(order::tv_ask{});
}

void send_screen_order(decision &d) {
  if (wants_on(d.m))
    d.give(order::tv_on{});
  else
    d.give(order::tv_off{});
}

// Without CEC the targets turn the screen on and off, and nobody says what it does.
static screen_state state_after_order(const machine &m, bool on) {
  if (m.screen.has_cec)
    return screen_state::kUnknown;
  return on ? screen_state::kOn : screen_state::kOff;
}

static void begin_order(decision &d) {
  auto &screen = d.m.screen;
  screen.answered = screen_state::kUnknown;
  screen.pending = screen.has_cec;
  screen.step = 0;
  screen.said_on = screen.denied = false;
  d.never(due_kind::kScreenStep);
  if (!screen.pending)
    return;
  d.due_after(due_kind::kScreenStep, kSecondMs);
  send_screen_order(d);
}

static void order_screen(decision &d, bool on) {
  auto &screen = d.m.screen;
  screen.ordered = on ? screen_order::kOn : screen_order::kOff;
  screen.ordered_on = on;
  screen.is_televisions = has_television(d.m);
  screen.ordered_at = d.now.boot;
  screen.believed = state_after_order(d.m, on);
  begin_order(d);
}

// What was ordered long ago may be undone by a remote since.
static bool is_order_fresh(const decision &d) {
  return d.now.boot - d.m.screen.ordered_at < kSlowestSeconds * kSecondMs;
}

// Its driver may be loaded late, or it starts again with its television.
void adapter_appears(decision &d) {
  const auto &screen = d.m.screen;
  if (screen.ordered_on && !screen.said_on && is_order_fresh(d))
    begin_order(d);
  else
    ask_television(d);
}

// Without CEC nothing else has turned the screen on or off.
void doubt_screen_order(decision &d, unit refused) {
  if (!d.m.screen.has_cec && (refused == unit::kOn || refused == unit::kOff))
    d.m.screen.believed = screen_state::kUnknown;
}

void turn_screen(decision &d, bool on) {
  if (on) {
    drop_wish(d);
    d.m.woken.stays = false;
  }
  order_screen(d, on);
  for (const unit before : {unit::kOn, unit::kOff})
    forget_start(d, before);
  begin_unit(d, on ? unit::kOn : unit::kOff);
  say(d, on ? order::saying::kScreenOn : order::saying::kScreenOff);
}

void turn_off_by_timer(decision &d) {
  const off_action action = d.m.set.off;
  turn_screen(d, false);
  d.m.woken.stays = action == off_action::kNone;
  if (action != off_action::kNone)
    wish_sleep(d, sleep_wish::kOffTimer, action);
}

void on(decision &d, const event::screen_wanted &e) {
  used(d);
  if (e.by == event::asker::kDaemon)
    timers_have_fired(d);
  if (!e.on && e.by == event::asker::kDaemon) {
    turn_off_by_timer(d);
    return;
  }
  turn_screen(d, e.on);
  d.m.woken.stays = !e.on;
}

// --- an order that is not confirmed yet ---

void finish_order(decision &d) {
  d.m.screen.pending = false;
  d.never(due_kind::kScreenStep);
  if (!is_on(d.m) && wants_on(d.m))
    used(d); // the return is counted from here
}

// One that is silent once it is off does what most do.
static void give_off_up(decision &d) {
  if (d.m.screen.answered == screen_state::kUnknown) {
    end_problem(d, problem::kTelevision);
    return;
  }
  d.m.screen.believed = screen_state::kOn;
  tell(d, delivery::kState);
  begin_problem(d, problem::kTelevision, 0);
  say(d, order::saying::kTelevisionStays);
}

static void give_on_up(decision &d) {
  const screen_state answered = d.m.screen.answered;
  d.m.screen.believed = answered; // it may boot for longer than this
  begin_problem(d, problem::kTelevision, 0);
  say(d, order::saying::kTelevisionLate, answered == screen_state::kUnknown ? 0 : 1);
}

static void give_screen_up(decision &d) {
  if (has_television(d.m) && wants_on(d.m))
    give_on_up(d);
  else if (has_television(d.m))
    give_off_up(d);
  finish_order(d);
  if (is_open(d.m, problem::kTelevision))
    d.due_after(due_kind::kScreenStep, kSlowSeconds * kSecondMs);
}

// The time counts, not the questions: while this process is away none are asked.
static void ask_slowly(decision &d) {
  if (!is_order_fresh(d))
    return;
  ask_television(d);
  d.due_after(due_kind::kScreenStep, kSlowSeconds * kSecondMs);
}

// One that does not know the question may still have to hear the order again.
static void repeat_order(decision &d) {
  const auto &screen = d.m.screen;
  for (const unsigned again : kAgainSeconds)
    if (screen.step == again)
      send_screen_order(d);
  if (screen.denied && screen.step >= *std::rbegin(kAgainSeconds)) {
    finish_order(d);
    return;
  }
  if (!screen.denied)
    ask_television(d);
  d.due_after(due_kind::kScreenStep, kSecondMs);
}

void screen_step(decision &d) {
  if (!d.m.screen.pending)
    ask_slowly(d);
  else if (++d.m.screen.step >= kGiveUpSeconds)
    give_screen_up(d);
  else
    repeat_order(d);
}

// An on-time that is suddenly so near that the question would come too late.
void ask_before_near(decision &d) {
  const std::int64_t ahead = d.m.alarm.wanted.on_time - d.now.utc;
  if (ahead > 0 && ahead <= kAskBeforeSeconds)
    ask_television(d);
}

void count_screen(decision &d) {
  const std::int64_t on_time = d.m.alarm.wanted.on_time;
  if (d.m.screen.has_cec && on_time - kAskBeforeSeconds > d.now.utc)
    d.due_at_utc(due_kind::kAskScreen, on_time - kAskBeforeSeconds);
  else
    d.never(due_kind::kAskScreen);
}
