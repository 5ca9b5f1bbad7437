// Starts the platform. Called at the first settings_notify_key_changed, or at the daemon's question
// for the wake-up reason if that comes earlier; further calls do nothing. Ecore is initialised
// before.
#pragma once

#include "cec.h"
#include "rtc.h"

// True when the platform runs; false when another daemon runs on this machine.
bool start_platform();

// Replaces the machine's devices. For tests, before the start.
void use_devices(rtc_device &rtc, cec_adapter &cec);
