// Holds the record, takes events one at a time, and has the orders carried out that decide gives
// for them. It arms the one timer of the main loop that the record asks for.
#pragma once

#include "event.h"

#include <optional>

// What surrounds it.
struct shell_parts {
  // An order that is carried out at once gives its result, which is decided before the next order.
  std::optional<event::any> (*carry_out)(const order::any &ordered);
  void (*deliver)(const order::deliver &told); // calls the daemon
  void (*changed)();                           // the record, before the main loop waits
};

void start_shell(const event::started &first, const shell_parts &around);

// Everything but `started` and the contract's calls. An event that happens during a decision is
// decided after it; one that happens before the start, after that.
void post(const event::any &what);

// A call of the contract: decided at once, also while the daemon is told something. The daemon is
// not called before it has returned.
void call(const event::any &what);

const machine &the_record();
