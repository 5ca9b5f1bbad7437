// logind: the machine's way to sleep and back. What happens there arrives at power.h.
#pragma once

#include "configuration.h"

void start_sleep();

// Sends the machine to sleep or off. While somebody else blocks that, `postponed` is called
// instead. A refusal is reported.
void send_to_sleep(off_action action, void (*postponed)());
