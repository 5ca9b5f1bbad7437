// A machine for the platform: its clock stands still until a case moves it, its timers fire where a
// case says so, logind, timedated and systemd are simulated on the private bus, the real-time clock
// and the television are records, the journal is a socket. The platform's state lives as long as
// the process, so each case needs a process of its own, as ctest starts it.
#pragma once

#include "bus.h" // the platform's
#include "cec.h"
#include "configuration.h"
#include "process.h"
#include "rtc.h"

#include <IPowerControl.h>
#include <device_power.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <utility>

constexpr std::uint32_t kNow = 1'800'000'000; // 2027-01-15 08:00:00 UTC
constexpr std::uint32_t kHour = 3600;
constexpr const char *kConfigurationPath = "/tmp/machine.conf";

// What a television's device reports of its power.
enum power_status : std::uint8_t { IS_ON, IS_OFF, TURNS_ON };

// Operations that a device can refuse; one that refuses to keep its alarm forgets it.
enum refusal { READ_CLOCK = 1, READ_ALARM = 2, SET_ALARM = 4, CLEAR_ALARM = 8, KEEP_ALARM = 16 };
constexpr unsigned kAllOperations = 31;

struct fake_rtc final : rtc_device {
  bool exists() override { return is_there; }
  std::optional<std::int64_t> read_clock() override {
    return does(READ_CLOCK) ? std::optional(std::time(nullptr) + ahead) : std::nullopt;
  }
  bool read_alarm(std::optional<std::int64_t> &out) override {
    out = alarm;
    return does(READ_ALARM);
  }
  bool set_alarm(std::int64_t time) override {
    if (does(SET_ALARM))
      alarm = does(KEEP_ALARM) ? std::optional(time) : std::nullopt;
    return does(SET_ALARM);
  }
  bool clear_alarm() override {
    if (!does(CLEAR_ALARM))
      return false;
    cleared = configuration().rtc;
    alarm.reset();
    return true;
  }
  bool does(unsigned operation) const {
    errno = error;
    return (refused & operation) == 0;
  }

  bool is_there = true;
  unsigned refused = 0; // refusals
  int error = EBUSY;    // of what is refused
  std::int64_t ahead = 0;
  std::optional<std::int64_t> alarm;
  std::string cleared; // the device whose alarm was switched off last
};

struct fake_cec final : cec_adapter {
  void start() override {}
  bool prepare() override { return is_there; }
  std::uint16_t physical_address() override { return address; }
  bool is_claiming() override { return claims; }
  void send(std::uint8_t destination, std::span<const std::uint8_t> bytes) override;

  bool is_there = true;
  bool claims = false;
  std::uint16_t address = 0x1000;
  std::string sent; // since `sent` was emptied, as "0:04 f:821000"
};

class Machine : public testing::Test {
protected:
  Machine();
  ~Machine() override;
  // Returns what was seen.
  std::string start(const char *configuration = "", bool with_services = true);
  void start_services();
  std::string sent() { return std::exchange(cec.sent, ""); }

  fake_rtc rtc;
  fake_cec cec;
  cec_adapter *adapter = &cec; // the one that is used
  int reason_at_first = 0;
  std::optional<process> services;
};

// Where the platform finds its files; for a test that does not start it.
void set_environment();

void append(std::string &list, const std::string &entry, const char *separator = "; ");
std::string hex_of(std::span<const std::uint8_t> bytes);

void set_now(std::uint32_t time);
void fire(double seconds); // the timer of so many seconds; fails when there is none
std::string timers();      // the seconds of all, as "1 120"

// Runs the main loop until `is_done`; a case that waits longer than ten seconds fails.
void wait_until(const std::function<bool()> &is_done);

// What was delivered to the daemon, the errors in the journal and what was called since the last
// time, once everything has happened that follows; then the timers: "wakeup 2; StopUnit x | 120".
std::string seen();
std::string seen_after(double seconds); // fires that timer

// The journal's next entry, "" when there is none; `seen` takes all. Only ten are held for it.
std::string next_entry();

// Calls a method of the simulation of `service`, with arguments in GVariant's text form.
void tell(const bus_service &service, const char *method, const std::string &arguments);
void set_property(const bus_service &service, const char *property, const std::string &value);

void end_bus(); // nothing can be called then

void step_clock();                     // as the kernel reports it
void reload(const std::string &lines); // of the key file's group [linux]
bool inhibitor_is_held();

inline int set_wakeup(std::uint32_t type, std::uint32_t time) {
  return IPowerControl::getInstance()->set_wakeup_time(type, time);
}
inline int clear_wakeup() { return IPowerControl::getInstance()->clear_wakeup_time(); }

void television_says(std::initializer_list<std::uint8_t> bytes);
inline void television_reports(power_status status) { television_says({0x90, status}); }
void television_stays(power_status status); // and says so every second, until an order is given up
