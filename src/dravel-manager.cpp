#include "dravel-manager.h"

#include "dravel-db.h"
#include "dravel-edbus.h"
#include "dravel-item.h"
#include "dravel-list.h"
#include "dravel-log.h"
#include "dravel-timer.h"
#include "kinto-signal-subscribe.h"

#include <Ecore.h>

// Runs once, after the bus service and all subscriptions are registered. While
// the clock is not known the timers stay unarmed.
static Eina_Bool _schedule_dravel(void *) {
  Eina_List *timers = load_dravel_list();
  LOGP("start scheduling...");
  LOGP("is time update [%d]", get_kinto_time_updated());
  if (get_kinto_time_updated() != 0) {
    for (dravel_item *item : items_of<dravel_item>(timers)) {
      cancel_ecore_timer(item->timer_id); // an earlier bus call may have armed it
      if (const auto reason = schedule_at_start(item)) {
        LOGP("timer doesn't have next expire date (%s)", "_schedule_dravel");
        remove_dravel_item(item, *reason);
      }
    }
    replace_removed_ontimer();
    create_dravel_finish_file();
  } else {
    for (const dravel_item *item : items_of<dravel_item>(timers))
      wait_for_clock(item);
  }
  LOGP("end scheduling...");
  return ECORE_CALLBACK_CANCEL;
}

// The lines name `main` and keep the texts that people search for: `init_poweroff_handler` stands
// for init_power_state_handler.
static int give_up(const char *failed) {
  LOGE_OF(main, "%s() failed\n", failed);
  ecore_shutdown();
  return -1;
}

int start_dravel(void) {
  // The lists live as long as the process: ecore_shutdown must not shut Eina down.
  eina_init();
  ecore_init();
  init_dravel();
  init_hash_table();
  // Each of these may fail: the daemon runs without it.
  initialize_dravel_db();
  load_wakeup_timer();
  load_disabled_period_list();

  if (init_settings_handler() != 0)
    return give_up("init_settings_handler");
  if (init_edbus_handler() != 0)
    return give_up("init_edbus_handler");
  if (init_power_state_handler() != 0)
    return give_up("init_poweroff_handler");

  ecore_idler_add(_schedule_dravel, nullptr);
  register_ambient_mode_cb();
  subscribe_kinto_signal_cb();
  return 0;
}

void stop_dravel(void) {
  unsubscribe_kinto_signal_cb();
  unregister_ambient_mode_cb();
  fini_power_state_handler();
  fini_hash_table();
  close_dravel_db();
  ecore_shutdown();
}
