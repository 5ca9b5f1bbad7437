// What a television says, and what it does not say.
#include "rules.h"

#include <linux/cec.h>

#include <utility>

// The daemon hears of a change that is not its own.
static void believe(decision &d, screen_state state) {
  const bool was_on = is_on(d.m);
  d.m.screen.believed = state;
  if (is_on(d.m) == was_on)
    return;
  used(d);
  tell(d, delivery::kState);
}

// The machine follows a television that its remote has switched off.
static void follow_off(decision &d) {
  const bool is_wished = d.m.sleep.wish == sleep_wish::kScreen && !d.m.sleep.is_dropped;
  if (!d.m.set.follow_screen || is_wished)
    return;
  const bool hibernates = d.m.set.off == off_action::kHibernate;
  wish_sleep(d, sleep_wish::kScreen, hibernates ? off_action::kHibernate : off_action::kSuspend);
}

// One that was believed on before a sleep may have been switched off long before its end, and one
// that we have sent off may take its time.
static void remote_turned(decision &d, bool on) {
  const bool was_on = is_on(d.m);
  believe(d, on ? screen_state::kOn : screen_state::kOff);
  if (on && !was_on)
    drop_wish(d);
  else if (!on && was_on && d.m.screen.seen_on && !is_open(d.m, problem::kTelevision))
    follow_off(d);
}

static bool means_on(event::tv_state state) {
  return state == event::tv_state::kOn || state == event::tv_state::kTurningOn;
}

// It ignores Active Source while it boots: once more when it first says that it is on.
static void answered_on_order(decision &d, event::tv_state state) {
  auto &screen = d.m.screen;
  if (state == event::tv_state::kOn && !screen.said_on) {
    screen.said_on = true;
    send_screen_order(d);
  }
  if (state == event::tv_state::kOn) {
    believe(d, screen_state::kOn);
    finish_order(d);
    end_problem(d, problem::kTelevision);
  }
}

static void answered_off_order(decision &d, bool on) {
  if (on)
    return;
  believe(d, screen_state::kOff);
  finish_order(d);
  end_problem(d, problem::kTelevision);
}

// After it was given up. It is shown this machine only while it is still asked: later somebody else
// may have turned it on.
static void may_follow_late(decision &d, event::tv_state state) {
  auto &screen = d.m.screen;
  const bool is_asked = due_at(d.m, due_kind::kScreenStep) != kNever;
  if (wants_on(d.m) ? state != event::tv_state::kOn : means_on(state))
    return;
  if (wants_on(d.m) && is_asked && !screen.said_on) {
    screen.said_on = true;
    send_screen_order(d);
  }
  d.never(due_kind::kScreenStep);
  end_problem(d, problem::kTelevision);
}

static void has_spoken(decision &d) { d.m.screen.has_spoken = d.m.screen.is_televisions = true; }

void on(decision &d, const event::tv_reports &e) {
  auto &screen = d.m.screen;
  const bool on = means_on(e.state);
  has_spoken(d);
  screen.seen_on = screen.seen_on || on;
  screen.answered = on ? screen_state::kOn : screen_state::kOff;
  d.m.sleep.screen_answered = true;
  d.m.sleep.is_silent = false;
  if (screen.pending && wants_on(d.m)) {
    answered_on_order(d, e.state);
  } else if (screen.pending) {
    answered_off_order(d, on);
  } else {
    remote_turned(d, on);
    may_follow_late(d, e.state);
  }
}

// No answer says nothing; while an order is pending, the next second asks again.
static void forget_answer(decision &d) {
  d.m.screen.answered = screen_state::kUnknown;
  if (d.m.screen.has_cec)
    believe(d, screen_state::kUnknown);
}

void on(decision &d, const event::tv_silent &) {
  d.m.sleep.screen_answered = true;
  forget_answer(d);
}

// When it does not know the message, asking again would not help; otherwise it is only not able to
// answer now.
void on(decision &d, const event::tv_denies &e) {
  const bool is_order = e.opcode == CEC_MSG_STANDBY && !wants_on(d.m);
  const bool is_question = e.opcode == CEC_MSG_GIVE_DEVICE_POWER_STATUS;
  if (!is_order && !is_question)
    return;
  has_spoken(d);
  d.m.sleep.screen_answered = d.m.sleep.screen_answered || is_question;
  forget_answer(d);
  if (!e.for_good)
    return;
  if (!d.m.screen.pending)
    d.never(due_kind::kScreenStep);
  else if (is_order)
    finish_order(d);
  else
    d.m.screen.denied = true;
}

// Its own standby, which it sends to all devices on its cable: its remote has switched it off,
// unless we have, or the message is one of before the sleep.
void on(decision &d, const event::tv_standby &) {
  const auto &screen = d.m.screen;
  const bool is_sent_off = screen.ordered == screen_order::kOff && !is_on(d.m);
  const bool by_remote = !screen.pending && !is_sent_off && !is_resume(d);
  on(d, event::tv_reports{event::tv_state::kOff});
  if (by_remote)
    follow_off(d);
}

void on(decision &d, const event::tv_asks_source &) {
  has_spoken(d);
  if (wants_on(d.m))
    d.give(order::tv_answer{});
  ask_television(d); // its remote may have turned it on
}

void on(decision &d, const event::tv_reachable &e) {
  auto &screen = d.m.screen;
  if (!e.adapter && has_television(d.m)) // nobody says any longer whether it is on
    forget_answer(d);
  const bool had_cec = std::exchange(screen.has_cec, e.adapter);
  if (!e.adapter) {
    screen.pending = screen.has_spoken = false;
    d.never(due_kind::kScreenStep);
    end_problem(d, problem::kTelevision);
  } else if (screen.pending) {
    screen.answered = screen_state::kUnknown; // to the orders before
    send_screen_order(d);
  } else if (!had_cec) {
    adapter_appears(d);
  } else {
    ask_television(d);
  }
}
