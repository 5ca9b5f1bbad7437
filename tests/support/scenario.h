// Scenarios of a clean set. The words are in the tables of scenario.cpp.
#pragma once

#include "fixture.h"
#include "lines.h"
