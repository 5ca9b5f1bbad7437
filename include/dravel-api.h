// Marks what the executable exports under its plain name, for programs that link the daemon's
// modules: some operations have no caller here. Everything else is hidden.
#pragma once

#define DRAVEL_API __attribute__((visibility("default")))
