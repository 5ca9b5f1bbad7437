// A machine for the platform: its wall clock stands still until a case moves it, its timers fire
// where a case says so, logind, timedated and systemd are simulated on the private bus, the devices
// are files of the sandbox with the kernel's answers to their ioctls, the journal is a socket. The
// platform's state lives as long as the process, so each case needs a process of its own, as ctest
// starts it.
#pragma once

// The platform's come first: a name of the kit's may be one of an enumerator, too.
#include "bus.h"
#include "sink.h"

#include "process.h"

#include <due_timers.h>
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <linux/cec.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

constexpr std::int64_t kNow = 1'800'000'000; // 2027-01-15 08:00:00 UTC
constexpr const char *kConfigurationPath = "/tmp/machine.conf";
constexpr const char *kAlarmPath = "/sys/class/rtc/rtc0/wakealarm";

// The real-time clock's answers; its alarm is kAlarmPath.
struct fake_rtc {
  int refuses = 0;      // errno
  bool forgets = false; // an alarm is set, and is gone
  bool minutes = false;
};
extern fake_rtc rtc;

// A CEC adapter's. Its messages come from a FIFO.
struct fake_cec {
  std::uint16_t physical = 0x1000;
  bool needs_address = false;
  cec_log_addrs addresses{};
  bool has_event = false;
  int refuses = 0; // errno, of a message
  int refuses_claim = 0;
  std::string sent; // as "4004", with the header; "?1000" behind what waits so long for a reply
  int claims = 0;
  std::uint32_t mode = 0; // that was asked for
};
extern fake_cec cec;
cec_msg received(std::initializer_list<std::uint8_t> bytes);

// What the daemon says has become due during a sleep.
extern std::vector<due_timer> late_timers;

class Machine : public testing::Test {
protected:
  Machine();
  ~Machine() override;
  void start_services(); // the platform's connection is open then
  std::optional<process> services;
};

void append(std::string &list, const std::string &entry, const char *separator = "; ");
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path); // without a newline at the end

void set_now(std::int64_t utc);
void pass(std::int64_t seconds);
void sleep_for(std::int64_t seconds); // the machine: both of its clocks move
std::string timers();                 // the seconds of all main-loop timers, as "1 120"
void fire();                          // the only one

void happened(const std::string &what);

// What happened, what is an error in the journal and what was called since the last time, once
// everything has happened that follows.
std::string seen();
void run_until_idle(); // the daemon's first pass ends
void wait_until(const std::function<bool()> &is_done);
std::string next_entry(); // of the journal, "" when there is none; `seen` takes all

// Calls a method of the simulation of `service`, with arguments in GVariant's text form.
void tell(const bus_service &service, const char *method, const std::string &arguments);
void set_property(const bus_service &service, const char *property, const std::string &value);
void refuse(const bus_service &service, const char *method, const char *types);
void emit(const bus_service &service, const char *signal, const char *types,
          const std::string &values);
bus_client &client(); // the case's own connection

void configure(const std::string &lines); // the key file's group [linux]
bool inhibitor_is_held();
