// logind: sends the machine to sleep, and passes sleep, wake-up and shutdown to power.h.
#pragma once

#include "configuration.h"

void start_sleep();

// Sends the machine to sleep or off. When another program blocks that, `postponed` is called
// instead. A refusal is reported.
void send_to_sleep(off_action action, void (*postponed)());
