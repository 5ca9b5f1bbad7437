// The commands: each checks its message, acts through the daemon, and gives what is answered.
#pragma once

#include "client.h"
#include "command.h"

struct act {
  const char *name;
  const char *right;                                   // of the key `commands`
  bool needs_id;                                       // it must not be carried out twice
  json (*run)(client &client, const message &message); // throws a failure
};

// Null for an unknown name. `apply` and `test` are not among them: see plans.h and trial.h.
const act *find_act(const std::string &name);
