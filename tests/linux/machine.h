// A machine for the platform: its clock stands still until a case moves it, its timers fire where a
// case says so, logind, timedated and systemd are simulated on the private bus, the real-time clock
// and the television are records. The platform's state lives as long as the process, so each case
// needs a process of its own, as ctest starts it.
#pragma once

#include "cec.h"
#include "rtc.h"

#include <IPowerControl.h>
#include <device_power.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <variant>

constexpr std::uint32_t kNow = 1'800'000'000; // 2027-01-15 08:00:00 UTC
constexpr std::uint32_t kHour = 3600;

void set_now(std::uint32_t time);
std::uint32_t uptime();

class fake_rtc final : public rtc_device {
public:
  bool exists() override { return is_there; }
  std::optional<std::int64_t> read_clock() override;
  bool read_alarm(std::optional<std::int64_t> &out) override;
  bool set_alarm(std::int64_t time) override;
  bool clear_alarm() override;

  bool is_there = true;
  bool is_busy = false; // another program has it open
  bool forgets = false; // it reports no alarm after one was set
  std::int64_t ahead = 0;
  std::optional<std::int64_t> alarm;
  std::string cleared; // the device whose alarm was switched off last
};

class fake_cec final : public cec_adapter {
public:
  void start() override {}
  bool prepare() override { return is_there; }
  std::uint16_t physical_address() override { return address; }
  bool is_claiming() override { return false; }
  void send(std::uint8_t destination, std::span<const std::uint8_t> message) override;

  bool is_there = true;
  std::uint16_t address = 0x1000;
  std::string sent; // since `sent` was emptied, as "0:04 f:821000"
};

// The services that are named, as "login1 timedate1 systemd1", until the end of the object.
class played_services {
public:
  explicit played_services(const char *names);
  ~played_services();
  played_services(const played_services &) = delete;
  played_services &operator=(const played_services &) = delete;

private:
  pid_t pid_;
};

class Machine : public testing::Test {
protected:
  void start(const char *configuration = "", const char *names = "login1 timedate1 systemd1");
  void TearDown() override;

  fake_rtc rtc;
  fake_cec cec;
  cec_adapter *adapter = &cec; // the one that is used
  int reason_at_first = 0;
  std::optional<played_services> services;
};

// Runs the main loop until `happened`; a case that waits longer than ten seconds is aborted.
void wait_until(const std::function<bool()> &happened);

// Waits for the call, as "Suspend false" or "RestartUnit dravel-on.target".
void wait_for_call(const std::string &call);

// What else was called since the last time, in order, as "Suspend false; StopUnit x.target".
std::string calls();

struct object_path {
  const char *text;
};
using bus_value = std::variant<bool, std::uint32_t, std::uint64_t, const char *, object_path>;

// Changes what the services say or answer.
void emit(const char *service, const char *signal, std::initializer_list<bus_value> values);
void set_property(const char *service, const char *property, const bus_value &value);
void refuse(const char *service, const char *method);

void end_bus(); // nothing can be called then

// Lets the timer of so many seconds fire; fails when there is none.
void fire(double seconds);
std::string timers(); // the seconds of all, as "1 120"

void step_clock(); // as the kernel reports it

bool inhibitor_is_held();
std::string events(); // what was delivered since the last time, as "standby in time; wakeup 2"

inline int set_wakeup(std::uint32_t type, std::uint32_t time) {
  return IPowerControl::getInstance()->set_wakeup_time(type, time);
}
inline int clear_wakeup() { return IPowerControl::getInstance()->clear_wakeup_time(); }
void television_says(std::initializer_list<std::uint8_t> message);
