// The set's screen manager.
#pragma once

extern "C" {

// Switches the screen's ambient mode: on with both arguments 1, off with both
// 0. Returns a negative code on failure.
int screen_manager_set_ambient_mode(int mode, int on);
}
