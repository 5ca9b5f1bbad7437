// The daemon's subscriptions, and the events that the platform delivers to them.
#pragma once

void announce_setting(const char *key);
void send_time_update();

void deliver_standby();
void deliver_wakeup(int reason);
void deliver_state_changed(int state, int ambient_mode);
