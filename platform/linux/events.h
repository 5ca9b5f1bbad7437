// What the platform tells the daemon: the subscriptions of all interfaces, and their events.
#pragma once

void announce_setting(const char *key);
void send_time_update();

void deliver_standby();
void deliver_wakeup(int reason);
void deliver_state_changed(int state, int ambient_mode);
