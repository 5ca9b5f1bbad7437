#include "off_order.h"

#include "configuration.h"
#include "loop_timer.h"
#include "screen.h"
#include "sleep.h"
#include "targets.h"

#include <Ecore.h>

static constexpr double kBlockedSeconds = 30.0; // until a blocked off-action is tried again

static int steps_left; // before the off-action
static Ecore_Timer *blocked_timer;

static void off_action_is_postponed();

static void do_off_action() {
  send_to_sleep(configuration().off, kNoUser, off_action_is_postponed);
}

static Eina_Bool try_again(void *) {
  blocked_timer = nullptr;
  do_off_action();
  return ECORE_CALLBACK_CANCEL;
}

static void off_action_is_postponed() {
  cancel_off_order();
  blocked_timer = ecore_timer_add(kBlockedSeconds, try_again, nullptr);
}

static void step_ended() {
  if (steps_left > 0 && --steps_left == 0)
    do_off_action();
}

void give_off_order() {
  cancel_off_order();
  steps_left = 2;
  turn_screen(false, step_ended);
  start_off_target(step_ended);
}

void cancel_off_order() {
  steps_left = 0;
  leave_off_target();
  end_timer(blocked_timer);
  cancel_sleep(off_action_is_postponed);
}
