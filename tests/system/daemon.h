// The real daemon on the private bus, and what a client and the simulated set see of it.
#pragma once

#include "process.h"
#include "store.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

class daemon_test : public testing::Test {
protected:
  daemon_test();
  ~daemon_test() override; // fails the test when the daemon does not end with status 0

  // Starts the daemon on a set with `set` as further lines of its key file, and waits until the
  // daemon has its name and its timers. launch() waits for nothing.
  void start(const std::string &set = "");
  void launch(const char *bus_address, const std::string &set);
  int stop();      // SIGTERM, then:
  int wait_exit(); // the exit status

  // Arguments and replies are in GVariant's text form; an error answers with its name.
  std::string call(const char *method, const std::string &arguments);
  std::string standin(const char *method, const std::string &arguments);
  std::string get(const char *property) { return bus_.property(property); }
  std::string state(const char *property) { return bus_.property(property, kState); }
  void set(const char *property, const std::string &value) { bus_.set_property(property, value); }
  bool is_answered(const char *method, const std::string &arguments);

  int schedule(const new_timer &timer);          // the reply
  words image(const char *method, int argument); // the integer of an "iay" reply, then its words
  words timer_ids();                             // in list order

  // The daemon's signals and requests so far, oldest first, such as "dravel_expired(1,)"; they are
  // forgotten.
  strings events();
  void wait_event(const std::string &event);
  // Likewise, those of the state object up to the one with `last` in its text.
  strings state_signals(const std::string &last);

private:
  bool keep_event(DBusMessage *arrived, const std::string &awaited);

  bus_client bus_;
  std::optional<process> daemon_;
  strings events_;
  strings state_signals_;
};

int times_logged(const std::string &text);
