// The real daemon on the private bus, and what a client and the simulated set see of it.
#pragma once

#include "process.h"
#include "store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using strings = std::vector<std::string>;
using testing::HasSubstr;

class daemon_test : public testing::Test {
protected:
  daemon_test() { empty_store(); }
  ~daemon_test() override; // fails the test when the daemon does not end with status 0

  // Starts the daemon on a set whose clocks stand still at kNoon, in UTC, with `set` as further
  // lines of its key file, and waits until it has its name and its timers. launch() does not wait.
  void start(const std::string &set = "");
  void launch(const char *bus_address, const std::string &set = "");
  void wait_start(bus_client &by);
  int stop();      // SIGTERM, then:
  int wait_exit(); // the exit status

  // Arguments and replies are in GVariant's text form; an error answers with its name.
  std::string call(const char *method, const std::string &arguments) {
    return bus.ask(kDaemon, method, arguments);
  }
  std::string get(const char *property) { return bus.property(property); }
  int schedule(const new_timer &timer);          // the reply
  words image(const char *method, int argument); // the integer of an "iay" reply, then its words
  words timer_ids();                             // in list order

  bus_client bus;
  const char *log_level = "debug";

private:
  std::optional<process> daemon_;
};

// While it lives, daemon_test starts the daemon of a machine: with simulated services and a clock
// that refuses the alarm.
class simulated_machine {
public:
  explicit simulated_machine(bus_client &bus);
  ~simulated_machine();

private:
  process services_;
};

struct outcome {
  int status;
  std::string said; // on standard output and error
};
// Runs a script of sh that finds dravelctl in its path, in UTC, in a directory of its own: the
// checkout may lie below /tmp.
#define SHELL_DIRECTORY "/run/bench/shell"
outcome shell(const std::string &script);
