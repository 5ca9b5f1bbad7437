// Starts the platform. Called when the daemon asks for the wake-up reason and at its first
// subscription; the second call does nothing. Ecore is initialised before.
#pragma once

#include "cec.h"
#include "rtc.h"

// True when the platform runs; false when another daemon runs on this machine.
bool start_platform();

// Replaces the machine's devices. For tests, before the start.
void use_devices(rtc_device &rtc, cec_adapter &cec);
