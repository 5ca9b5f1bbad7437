// What goes into the journal: the daemon's lines, the platform's own, and the events of timers and
// of the machine, which have a fixed MESSAGE_ID and fields to ask for.
#pragma once

#include "event.h"

// An error of a part of the platform that has no sentence of its own: what failed, and what does
// not work because of it.
void report(const char *format, ...) __attribute__((format(printf, 1, 2)));

void write_saying(const order::say &said);
