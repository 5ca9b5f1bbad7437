// Where the adapters hand their events. `start` gives it to each of them.
#pragma once

#include "event.h"

using event_sink = void (*)(const event::any &what);
