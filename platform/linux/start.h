// Brings the platform up when the daemon asks for the wake-up reason or makes its first
// subscription, whichever comes first. The main loop is there by then.
#pragma once

#include "cec.h"
#include "rtc.h"

// True once the platform runs; false when another daemon does on this machine.
bool start_platform();

// The devices that are used: the machine's, until a test names others before the start.
void use_devices(rtc_device &rtc, cec_adapter &cec);
