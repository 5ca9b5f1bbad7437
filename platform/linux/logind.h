// Sleep and shutdown, by logind: the delay inhibitor, the announcements, the orders.
#pragma once

#include "sink.h"

void start_logind();

void take_inhibitor();
void release_inhibitor();
void ask_preparing();
void send_to_sleep(off_action method);
