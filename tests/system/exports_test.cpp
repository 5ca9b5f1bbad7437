// What programs find that link the daemon's modules.
#include "daemon.h"

static constexpr const char *kNames = R"(
add_disabled_period_item add_dravel_item add_time_offset adjust_dravel_all_items
ambient_poweroff_received auto_time_set can_skip_standby can_skip_timer cancel_dravel_item
cancel_ecore_timer check_over_max_timer_num close_dravel_db compare_dravel_cb convert_to_localtime
convert_to_utc copy_dravel_item create_dravel_finish_file create_dravel_item
delete_disabled_period_item_db delete_dravel_item_db disable_micom_ontimer dravel_expire_cb
find_disabled_period_item find_dravel_item find_duplicate_ontimer fini_hash_table
fini_power_state_handler get_auto_clock_mode_time_update get_clock_mode get_cur_time
get_cur_time_or_rtc get_disabled_period_list get_dravel_list get_kinto_time_updated
get_next_expire_date get_next_ontimer_not_overlap_with_offtimer get_offtimer_list get_ontimer_list
get_relaunch_state get_wakeup_state get_wakeup_timer heeds_disabled_periods init_dravel
init_edbus_handler init_hash_table init_power_state_handler init_settings_handler
initialize_dravel_db insert_disabled_period_item_db insert_dravel_item_db
insert_wakeup_dravel_item_db integrity_check is_leap_year is_ontimer_item load_disabled_period_db
load_disabled_period_list load_dravel_db load_dravel_list load_wakeup_timer load_wakeup_timer_db
make_db_file_manual next_disabled_period offtimer_halt ontimer_halt process_off_timer
process_on_timer read_clocks rearm_next_ontimer rebuild_onoff_timer_lists register_ambient_mode_cb
remove_disabled_period_item remove_dravel_item replace_removed_ontimer reschedule_all_timers
reset_dravel_db schedule_dravel_item schedule_micom_ontimer send_expire_by_type_signal
send_expire_signal send_expire_week_flag_signal set_auto_clock_mode_time_update
set_kinto_time_updated set_micom_flag set_power_control_wakeup_timer set_relaunch_state
set_wakeup_state set_wakeup_timer shutdown_edbus_handler subscribe_kinto_signal_cb time_str
undo_insert_dravel_item_db unregister_ambient_mode_cb unset_power_control_wakeup_timer
unsigned_gmtime_r unsigned_timegm unsubscribe_kinto_signal_cb update_disable_period_db
update_disable_period_effect_db update_dravel_item_db update_micom_flag update_micom_ontimer
)";

TEST(Exports, AreTheOperationsAndThreeFlags_UnderTheirPlainNames) {
  // Names with a version are the C library's: data that the linker has copied.
  EXPECT_EQ(shell("export LC_ALL=C\n"
                  "nm -D --defined-only -P " DRAVEL_MANAGER " | cut -d' ' -f1 | grep -v '^_\\|@' | "
                  "sort >found\n"
                  "xargs -n1 <<END | diff - found" +
                  std::string(kNames) + "END")
                .said,
            "");
}
