#include "return_to_sleep.h"

#include "journal.h"
#include "sleep.h"

#include <Ecore.h>

#include <algorithm>
#include <ctime>

static bool is_due;
static off_action action;
static Ecore_Timer *timer;
static std::uint32_t counted_from; // UTC

static std::uint32_t now() { return static_cast<std::uint32_t>(std::time(nullptr)); }

static void stop_timer() {
  if (timer != nullptr)
    ecore_timer_del(timer);
  timer = nullptr;
}

static Eina_Bool count_ended(void *) {
  timer = nullptr;
  note("nothing has turned the screen on, the machine goes back to sleep");
  send_to_sleep(action, counted_from, restart_return);
  return ECORE_CALLBACK_CANCEL;
}

void start_return(off_action new_action, std::uint32_t from) {
  stop_timer();
  is_due = configuration().return_to_sleep != 0;
  if (!is_due)
    return;
  action = new_action;
  counted_from = now();
  const std::uint32_t until_from = std::max(from, now()) - now();
  timer = ecore_timer_add(until_from + configuration().return_to_sleep, count_ended, nullptr);
}

void stop_return() {
  is_due = false;
  stop_timer();
}

void restart_return() {
  if (is_due)
    start_return(action, now());
}

bool is_return_due() { return is_due; }
