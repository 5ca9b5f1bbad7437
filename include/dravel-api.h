// Marks what the executable exports under its plain name, for programs that link the daemon's
// modules: the operations marked "no caller here" are called by such programs only. Everything else
// is hidden.
#pragma once

#define DRAVEL_API __attribute__((visibility("default")))
