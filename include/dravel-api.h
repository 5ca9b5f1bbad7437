// Marks what the executable exports under its plain name; everything else is
// hidden.
#pragma once

#define DRAVEL_API __attribute__((visibility("default")))
