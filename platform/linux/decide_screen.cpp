// Orders to the screen, and what follows them.
#include "rules.h"

// Many televisions do not say that their own remote has turned them on or off.
static constexpr std::int64_t kAskBeforeSeconds = 10;
static constexpr unsigned kAgainSeconds[] = {4, 8};
static constexpr unsigned kGiveUpSeconds = 15;

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

void order_screen(decision &d, bool on) {
  auto &screen = d.m.screen;
  screen.ordered = on ? screen_order::kOn : screen_order::kOff;
  screen.ordered_on = on;
  screen.answered = screen_state::kUnknown;
  screen.believed = state_after_order(d.m, on);
  screen.pending = screen.has_cec;
  screen.step = 0;
  screen.said_on = false;
  d.never(due_kind::kScreenStep);
  if (!screen.pending)
    return;
  d.due_after(due_kind::kScreenStep, kSecondMs);
  send_screen_order(d);
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
  if (!e.on && e.by == event::asker::kDaemon) {
    turn_off_by_timer(d);
    return;
  }
  turn_screen(d, e.on);
  d.m.woken.stays = !e.on;
}

// --- an order that is not confirmed yet ---

void order_is_settled(decision &d) {
  d.m.screen.pending = false;
  d.never(due_kind::kScreenStep);
  if (!is_on(d.m) && wants_on(d.m))
    used(d); // the return is counted from here
}

// One that is silent once it is off does what most do.
static void give_off_up(decision &d) {
  if (d.m.screen.answered == screen_state::kUnknown) {
    is_over(d, problem::kTelevision);
    return;
  }
  d.m.screen.believed = screen_state::kOn;
  tell(d, delivery::kState);
  has_problem(d, problem::kTelevision, 0);
  say(d, order::saying::kTelevisionStays);
}

static void give_on_up(decision &d) {
  const screen_state answered = d.m.screen.answered;
  d.m.screen.believed = answered; // it may boot for longer than this
  has_problem(d, problem::kTelevision, 0);
  say(d, order::saying::kTelevisionLate, answered == screen_state::kUnknown ? 0 : 1);
}

static void give_screen_up(decision &d) {
  if (has_television(d.m) && wants_on(d.m))
    give_on_up(d);
  else if (has_television(d.m))
    give_off_up(d);
  order_is_settled(d);
}

void screen_step(decision &d) {
  auto &screen = d.m.screen;
  if (!screen.pending)
    return;
  ++screen.step;
  if (screen.step >= kGiveUpSeconds) {
    give_screen_up(d);
    return;
  }
  for (const unsigned again : kAgainSeconds)
    if (screen.step == again)
      send_screen_order(d);
  ask_television(d);
  d.due_after(due_kind::kScreenStep, kSecondMs);
}

void count_screen(decision &d) {
  const std::int64_t on_time = d.m.alarm.wanted.on_time;
  if (d.m.screen.has_cec && on_time - kAskBeforeSeconds > d.now.utc)
    d.due_at_utc(due_kind::kAskScreen, on_time - kAskBeforeSeconds);
  else
    d.never(due_kind::kAskScreen);
}
