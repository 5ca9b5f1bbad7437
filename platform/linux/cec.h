// The television, by HDMI-CEC: of several adapters the first that has one.
#pragma once

#include "sink.h"

#include <string>

void start_cec();

// Closes the adapters and opens those that the configuration names.
void open_cec();

// On: it also shows this machine then.
void turn_television(bool on);
void ask_television();
void answer_television(); // that this machine is the active source

// The adapter and its address, as "/dev/cec0 1.0.0.0"; "" when there is none.
std::string cec_description();
