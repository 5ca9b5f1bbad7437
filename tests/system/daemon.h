// The real daemon on the private bus of the house, and what a client and a pretend set see of it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "../unit/rows.h"

// 2024-11-24 12:00:00, a Sunday: where the stopped clocks stand unless a test moves them.
constexpr std::uint32_t noon = 1732449600;
constexpr std::uint32_t hour = 3600;

// What a client gives of a timer; the rest of the fifteen arguments follows from `at`.
struct timer {
  int type = 0;
  std::uint32_t at = noon + hour;
  int week_flag = 0;
  int priority = 0;
  int disable_period_effect = 0;
  int time_type = 0;
};

using strings = std::vector<std::string>;
using words = std::vector<std::int32_t>;

class daemon_test : public testing::Test {
protected:
  daemon_test();
  ~daemon_test() override; // fails the test when the daemon does not end with status 0

  // Starts the daemon on a set with `set` as further lines of its key file, and waits until the
  // daemon has its name and its timers. launch() waits for nothing.
  void start(const std::string &set = "");
  void launch(const std::string &bus_address, const std::string &set);
  int stop();      // SIGTERM, then:
  int wait_exit(); // the exit status, or -1

  // Arguments and replies are in GVariant's text form; an error answers with its name.
  std::string call(const char *method, const std::string &arguments);
  std::string standin(const char *method, const std::string &arguments);
  std::string get(const std::string &property);
  std::string state(const std::string &property); // of the state object
  void set(const std::string &property, const std::string &value);

  // Whether a call is answered: no answer has come once a later call is answered.
  bool is_answered(const char *method, const std::string &arguments);

  int schedule(const timer &timer); // the reply

  // The integer of an "iay" reply, then its bytes as words.
  words image(const char *method, const std::string &arguments);
  words timer_ids(); // in list order

  // The daemon's signals so far, oldest first, such as "dravel_expired(1,)"; they are forgotten.
  strings events();
  // Likewise, those of the state object up to the one with `last` in its text.
  strings state_signals(const std::string &last);
  void wait_event(const std::string &event);
  void wait_log(const std::string &text);
  int times_logged(const std::string &text);

private:
  static GDBusMessage *hear(GDBusConnection *, GDBusMessage *message, gboolean incoming,
                            void *self);
  std::string ask(const char *path, const char *interface, const char *method,
                  const std::string &arguments);
  void wait(const std::function<bool()> &condition, const std::string &what);

  GDBusConnection *bus_;
  guint filter_;
  pid_t pid_ = -1;
  std::thread reader_;

  std::mutex mutex_; // guards what the reader and the bus's thread write:
  std::condition_variable changed_;
  std::string log_;
  strings events_;
  strings state_signals_;
  std::vector<std::uint32_t> answered_; // serials
  bool ended_ = true;                   // its standard error is closed
  bool owned_ = false;                  // its name has an owner
};

// A property's value in that text form.
inline std::string u32(std::uint32_t value) { return "uint32 " + std::to_string(value); }
