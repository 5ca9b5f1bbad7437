// The systemd targets that are started when something happens to the set. The units that are
// WantedBy them, the hooks, run with them: a target's job lasts as long as they start.
#pragma once

#include "sink.h"

void start_targets();

// Starts a target; one that is active already is started again, so that its hooks run every time.
void start_unit(unit of, std::int32_t reason);
void stop_unit(unit of);
