// A machine for the platform: its clock stands still until a case moves it, its timers fire where a
// case says so, logind, timedated and systemd are simulated on the private bus, the real-time clock
// and the television are records. The platform's state lives as long as the process, so each case
// needs a process of its own, as ctest starts it.
#pragma once

#include "bus.h" // the platform's
#include "cec.h"
#include "process.h"
#include "rtc.h"

#include <IPowerControl.h>
#include <device_power.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

constexpr std::uint32_t kNow = 1'800'000'000; // 2027-01-15 08:00:00 UTC
constexpr std::uint32_t kHour = 3600;
constexpr const char *kConfigurationPath = "/tmp/machine.conf";

// Where the platform finds its files; for a test that does not start it.
void set_environment();

void set_now(std::uint32_t time);

// Operations that a device can refuse; one that refuses to keep its alarm forgets it.
enum rtc_operation {
  READ_CLOCK = 1,
  READ_ALARM = 2,
  SET_ALARM = 4,
  CLEAR_ALARM = 8,
  KEEP_ALARM = 16,
  ALL_OPERATIONS = 31
};

class fake_rtc final : public rtc_device {
public:
  bool exists() override { return is_there; }
  std::optional<std::int64_t> read_clock() override;
  bool read_alarm(std::optional<std::int64_t> &out) override;
  bool set_alarm(std::int64_t time) override;
  bool clear_alarm() override;

  bool is_there = true;
  unsigned refused = 0; // of rtc_operation
  int error = EBUSY;    // of what is refused
  std::int64_t ahead = 0;
  std::optional<std::int64_t> alarm;
  std::string cleared; // the device whose alarm was switched off last

private:
  bool does(unsigned operation) const;
};

class fake_cec final : public cec_adapter {
public:
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

std::string hex_of(std::span<const std::uint8_t> bytes);

class Machine : public testing::Test {
protected:
  void start(const char *configuration = "", bool with_services = true);
  void start_services();
  void TearDown() override;

  fake_rtc rtc;
  fake_cec cec;
  cec_adapter *adapter = &cec; // the one that is used
  int reason_at_first = 0;
  std::optional<process> services;
};

// Runs the main loop until `happened`; a case that waits longer than ten seconds fails.
void wait_until(const std::function<bool()> &happened);

// What was called, and what was delivered to the daemon, since the last time, once everything has
// happened that follows: as "Suspend; StopUnit x.target", "standby in time; wakeup 2".
std::string calls();
std::string events();

// Changes what the services say or answer; values in GVariant's text form.
void emit(const bus_service &service, const std::string &signal, const char *signature,
          const std::string &values);
void set_property(const bus_service &service, const char *property, const std::string &value);
void refuse(const bus_service &service, const char *method);

// "Sleep" or "Shutdown", as logind announces it; waits for what becomes of the inhibitor.
void prepare_for(const std::string &what, bool begins);
void begin_session();
void end_hooks(); // of dravel-off.target

void end_bus(); // nothing can be called then

void fire(double seconds); // the timer of so many seconds; fails when there is none
std::string timers();      // the seconds of all, as "1 120"

void step_clock();                     // as the kernel reports it
void reload(const std::string &lines); // of the key file's group [linux]

bool inhibitor_is_held();
std::string stderr_of(const std::function<void()> &action);

inline int set_wakeup(std::uint32_t type, std::uint32_t time) {
  return IPowerControl::getInstance()->set_wakeup_time(type, time);
}
inline int clear_wakeup() { return IPowerControl::getInstance()->clear_wakeup_time(); }
void television_says(std::initializer_list<std::uint8_t> bytes);
void television_stays(std::uint8_t status); // and says so every second, until an order is given up
