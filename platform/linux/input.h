// Keys and buttons of the machine's input devices: that one was pressed, never which.
#pragma once

#include "sink.h"

// Opens the devices, and those that appear later, or closes them.
void watch_input(bool on);
