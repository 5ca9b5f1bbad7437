// The real daemon on the private bus, and what a client and the simulated set see of it.
#pragma once

#include "process.h"
#include "store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

using strings = std::vector<std::string>;
using testing::HasSubstr;

class daemon_test : public testing::Test {
protected:
  explicit daemon_test(std::initializer_list<bus_target> heard = {kDaemon, kStandin});
  ~daemon_test() override; // fails the test when the daemon does not end with status 0

  // Starts the daemon on a set with `set` as further lines of its key file, and waits until the
  // daemon has its name and its timers. launch() waits for nothing.
  void start(const std::string &set = "");
  void launch(const char *bus_address, const std::string &set = "");
  int stop();      // SIGTERM, then:
  int wait_exit(); // the exit status

  // Arguments and replies are in GVariant's text form; an error answers with its name.
  std::string call(const char *method, const std::string &arguments) {
    return bus.ask(kDaemon, method, arguments);
  }
  std::string standin(const char *method, const std::string &arguments) {
    return bus.ask(kStandin, method, arguments);
  }
  std::string get(const char *property) { return bus.property(property); }
  std::string state(const char *property) { return bus.property(property, kState); }
  void set(const char *property, const std::string &value) { bus.set_property(property, value); }

  int schedule(const new_timer &timer);          // the reply
  words image(const char *method, int argument); // the integer of an "iay" reply, then its words
  words timer_ids();                             // in list order

  // What the heard objects have sent so far, oldest first, such as "dravel_expired(1,)"; it is
  // forgotten. wait_event() returns at the one with `event` in its text.
  strings events();
  void wait_event(const std::string &event);

  bus_client bus;

private:
  bool keep_event(DBusMessage *arrived, const std::string &awaited);

  std::optional<process> daemon_;
  strings events_;
};

struct outcome {
  int status;
  std::string said; // on standard output and error
};
// Runs a script of sh that finds dravelctl in its path, in /tmp, in UTC.
outcome shell(const std::string &script);
