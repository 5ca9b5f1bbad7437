#include "return_to_sleep.h"

#include "clock.h"
#include "journal.h"
#include "loop_timer.h"
#include "sleep.h"

#include <Ecore.h>

#include <algorithm>

static bool is_due;
static off_action action;
static Ecore_Timer *timer;
static std::uint32_t counted_from; // UTC

static void stop_count() {
  end_timer(timer);
  cancel_sleep(restart_return);
}

static Eina_Bool count_ended(void *) {
  timer = nullptr;
  note("nothing has turned the screen on, the machine goes back to sleep");
  send_to_sleep(action, counted_from, restart_return);
  return ECORE_CALLBACK_CANCEL;
}

void start_return(off_action new_action, std::uint32_t from) {
  stop_count();
  is_due = configuration().return_to_sleep != 0;
  if (!is_due)
    return;
  action = new_action;
  counted_from = utc_now();
  const std::uint32_t until_from = std::max(from, utc_now()) - utc_now();
  timer = ecore_timer_add(until_from + configuration().return_to_sleep, count_ended, nullptr);
}

void stop_return() {
  is_due = false;
  stop_count();
}

void restart_return() {
  if (is_due)
    start_return(action, utc_now());
}

bool is_return_due() { return is_due; }
