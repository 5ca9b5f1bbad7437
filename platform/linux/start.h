// Puts the platform together. Ecore is initialised before.
#pragma once

#include "event.h"

// True when the platform runs; false when another daemon runs on this machine. The first call
// starts it, further calls do nothing.
bool start_platform();
