// What Home Assistant is told of the machine: a device whose entities read the documents and events
// and send the commands, as far as the machine carries these out.
#pragma once

#include "configuration.h"

#include <string>

std::string discovery_of(const configuration &configuration, bool has_machine);
