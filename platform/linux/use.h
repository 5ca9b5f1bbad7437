// Who uses the machine, by logind: sessions of users, block inhibitors, and what the machine can.
#pragma once

#include "sink.h"

void start_use();

// Asks logind; the answer is the event use_changed.
void ask_use();
