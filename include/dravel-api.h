// Marks what the executable exports under its plain name. Everything else is
// built hidden.
#pragma once

#define DRAVEL_API __attribute__((visibility("default")))
