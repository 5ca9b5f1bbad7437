// Processes, and what the daemon as one logs.
#pragma once

#include "bus.h"

#include <string>
#include <utility>
#include <vector>

// A program with its standard error in a file. Its destructor ends it with SIGTERM, and ends the
// whole run when the exit status is not 0.
class process {
public:
  explicit process(std::vector<std::string> command, const char *errors = "/dev/null");
  ~process();
  process(process &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  process &operator=(process &&) = delete;

  pid_t pid() const { return pid_; }
  void wait_name(bus_client &bus, const bus_target &target); // until it has the target's name
  int wait(); // the exit status, or the signal that ended it as a negative number; killed in the
              // end
  int stop(); // SIGTERM, and the same

private:
  pid_t pid_;
};

constexpr const char *kKeyFile = "/run/bench/set.ini";
constexpr const char *kDaemonLog = "/run/bench/daemon.log"; // of the last start

std::string daemon_log();
void wait_log(const std::string &text);
