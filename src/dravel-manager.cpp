// The daemon: start-up, main loop, shutdown.

#include "dravel-cb.h"
#include "dravel-db.h"
#include "dravel-edbus.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-log.h"
#include "dravel-timer.h"
#include "kinto-signal-subscribe.h"

#include <Ecore.h>

// Runs once, when everything that could want to hear of a timer is in place.
// While the clock is not known the timers stay unarmed until it is.
static Eina_Bool _schedule_dravel(void *) {
  Eina_List *timers = load_dravel_list();
  LOGE("start scheduling...");
  LOGE("is time update [%d]", get_kinto_time_updated());
  if (get_kinto_time_updated() != 0) {
    for (dravel_item *item : items_of<dravel_item>(timers)) {
      cancel_ecore_timer(item->timer_id); // armed by a client that was quicker
      if (schedule_dravel_item(item, dravel_expire_cb, nullptr) == SCHEDULE_NEVER_FIRES) {
        LOGE("timer doesn't have next expire date (%s)", "_schedule_dravel");
        remove_dravel_item(item);
      }
    }
    create_dravel_finish_file();
  }
  LOGE("end scheduling...");
  return ECORE_CALLBACK_CANCEL;
}

static int give_up(void) {
  ecore_shutdown();
  return -1;
}

int main() {
  // The lists live as long as the process: Eina must not go with Ecore.
  eina_init();
  ecore_init();
  init_dravel();
  init_hash_table();
  initialize_dravel_db();
  load_wakeup_timer();
  load_disabled_period_list();

  if (init_settings_handler() != 0) {
    LOGE("init_settings_handler() failed\n");
    return give_up();
  }
  if (init_edbus_handler() != 0) {
    LOGE("init_edbus_handler() failed\n");
    return give_up();
  }
  if (init_power_state_handler() != 0) {
    LOGE("init_poweroff_handler() failed\n");
    return give_up();
  }

  ecore_idler_add(_schedule_dravel, nullptr);
  register_ambient_mode_cb();
  subscribe_kinto_signal_cb();
  ecore_main_loop_begin();

  unsubscribe_kinto_signal_cb();
  unregister_ambient_mode_cb();
  fini_power_state_handler();
  fini_hash_table();
  close_dravel_db();
  ecore_shutdown();
  return 0;
}
