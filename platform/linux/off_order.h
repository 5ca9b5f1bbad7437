// Turns the set off: the screen and the hooks of the target, then the machine.
#pragma once

// The off-action follows when the screen is off and the hooks have run. While another program
// blocks it, it is tried again.
void give_off_order();
void cancel_off_order();
