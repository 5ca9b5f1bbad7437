// The daemon's files in the sandbox.
#pragma once

#include "dravel-db.h"
#include "dravel-runtime.h"

#include <string>

// Throws outside the sandbox, where the files and the bus are the machine's own.
void require_sandbox();

// Removes the markers and all files beside and including the databases.
void empty_store();

// The rows that `sql` gives, as "1|0 2|5"; runs any other statement too.
std::string rows(const std::string &sql, const char *path = kDravelDbPath);
