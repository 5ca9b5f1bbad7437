// A test of the machine: the screen goes off and on again, or the machine sleeps and wakes. It
// takes its time; one runs at once.
#pragma once

#include "client.h"
#include "output.h"

#include <functional>
#include <string>

class trial {
public:
  // What came of it, or why it failed.
  using listener = std::function<void(const json &about, const failure *failed)>;

  explicit trial(client &client) : client_(client) {}
  ~trial();
  trial(const trial &) = delete;
  trial &operator=(const trial &) = delete;

  // `what` is "screen" or "wake". Throws a failure when it cannot begin; `ended` is called later.
  // One that is not `named` is a button that somebody pressed, perhaps twice: it is refused for a
  // minute after the last one.
  void start(const std::string &what, bool is_named, listener ended);
  void break_off(); // leaves no dark screen

private:
  struct callbacks;

  void start_screen();
  void start_wake();
  void end(const json &about, const failure *failed);

  client &client_;
  listener ended_;        // null while none runs
  long long free_at_ = 0; // for one that is not named; microseconds, monotonic
  unsigned timer_ = 0;    // while the screen is dark
  int tries_ = 0;         // left to turn it on
  bus_slot woken_;        // the answer to the test of the alarm is heard
};
