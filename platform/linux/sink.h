// Where the adapters hand their events.
#pragma once

#include "event.h"

// Set before the first adapter starts.
inline void (*happens)(const event::any &what);
