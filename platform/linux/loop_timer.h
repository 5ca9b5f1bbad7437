// A timer of the main loop that one variable holds.
#pragma once

#include <Ecore.h>

// Ends the timer, if there is one, and sets the variable to null.
inline void end_timer(Ecore_Timer *&timer) {
  if (timer != nullptr)
    ecore_timer_del(timer);
  timer = nullptr;
}
