// What is published once, while it cannot be: it waits for the connection, unless that takes so
// long that it would surprise who acts on it.
#pragma once

#include "broker.h"

#include <vector>

class outbox {
public:
  static long long now(); // milliseconds since the machine's start, its sleep among them

  void put(publication kept);                    // the oldest of more than 100 is dropped
  std::vector<publication> take(long long when); // in order; those of the last two minutes

private:
  std::vector<publication> kept_; // by the time they were made
};
