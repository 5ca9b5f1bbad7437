// The platform of a Linux machine: an input is its key file, what the last run has left, then
// readings of the real-time clock, messages of the television, orders of the daemon and events of
// the machine. There is no bus; no call on it is answered.
#include "machine.h"

#include "alarm.h"
#include "configuration.h"
#include "input.h"
#include "power.h"
#include "screen.h"
#include "start.h"

#include <Ecore.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

static constexpr int kMaxSteps = 100;

static fake_rtc rtc;
static fake_cec cec;
static int settled; // orders

static std::uint32_t now() { return static_cast<std::uint32_t>(std::time(nullptr)); }

// --- files ---

static std::string draw_value(input &in) {
  if (in.seldom(64))
    return in.ConsumeRandomLengthString(40);
  if (in.seldom(8))
    return std::string(5000, '9');
  return in.PickValueInArray({"0", "15", "86400", "86401", "-1", "4294967296", "1800000100", "auto",
                              "off", "tv", "all", "/dev/cec0", "poweroff", "none", "true",
                              "suspend", "\xff\xfe", "", " 7 "});
}

static void write_file(const std::string &path, const char *group,
                       const std::vector<std::string> &keys, input &in) {
  std::ofstream file(path);
  if (!in.seldom(16))
    file << '[' << group << "]\n";
  for (int lines = in.below(8); lines > 0; --lines)
    file << (in.seldom(32) ? in.ConsumeRandomLengthString(20) : keys[in.below(keys.size())]) << '='
         << draw_value(in) << '\n';
  if (in.seldom(8))
    file << in.ConsumeRandomLengthString(200);
}

static void write_configuration(input &in) {
  write_file(kConfigurationPath, "linux",
             {"rtc", "cec", "cec-standby", "off-action", "lead-suspend", "lead-poweroff",
              "return-to-sleep", "keep-timers", "rtc[de]"},
             in);
  read_configuration();
  const linux_configuration &read = configuration();
  EXPECT_TRUE(read.rtc.starts_with('/'));
  EXPECT_TRUE(read.cec == "auto" || read.cec == "off" || read.cec.starts_with('/'));
  EXPECT_LE(read.off, off_action::kNone);
  EXPECT_LE(std::max({read.lead_suspend, read.lead_poweroff, read.return_to_sleep}), 86400U);
}

static void start_after_another_run(input &in) {
  write_file("/tmp/state/wake-up", "wake-up", {"type", "on-time", "alarm"}, in);
  write_file("/tmp/run/power", "power", {"state", "wakeup-reason", "was-booted", "returns"}, in);
  if (in.ConsumeBool())
    std::remove("/tmp/run/power");
  start_power(start_alarm(rtc));
}

// --- steps ---

// The kernel's year has 32 bits: a device shows at most 2^56 seconds.
static void change_clocks(input &in) {
  const std::uint32_t unit = in.PickValueInArray({1U, 60U, 3600U, 86400U * 365});
  set_now(in.seldom(16) ? in.word() >> in.below(32) : now() + in.below(256U) * unit);
  rtc.ahead = in.seldom(32) ? (std::int64_t{in.word()} << in.below(25)) - now() : 0;
}

static void change_devices(input &in) {
  rtc.is_there = !in.seldom(32);
  rtc.refused = in.seldom(128) ? in.below(kAllOperations + 1U) : 0;
  rtc.error = in.PickValueInArray({EBUSY, EIO, EINVAL});
  cec.is_there = !in.seldom(32);
  cec.claims = in.seldom(32);
  cec.address = in.seldom(64) ? kNoPhysicalAddress : 0x1000;
}

// An alarm that counts as set is the device's, as far ahead as it is meant to be.
static void check_alarm(std::uint32_t on_time) {
  const wake_up &wake = programmed_wake_up();
  EXPECT_EQ(wake.on_time, on_time > now() ? on_time : 0);
  if (wake.alarm == 0)
    return;
  EXPECT_TRUE(rtc.is_there && rtc.alarm == rtc.ahead + wake.alarm);
  EXPECT_GE(wake.alarm, now() + 5);
  EXPECT_LE(wake.alarm, std::max(wake.on_time, now() + 60));
}

static void order_wake_up(input &in) {
  const std::uint32_t on_time = in.seldom(32) ? in.word() : now() + in.below(256U) - 8;
  const bool refuses = rtc.is_there && rtc.refused != 0;
  if (in.seldom(16))
    EXPECT_TRUE(clear_alarm() == 0 || refuses);
  else if (set_alarm(in.below(16U), on_time) == 0 || !refuses)
    check_alarm(on_time);
}

static void receive_message(input &in) {
  static constexpr std::uint8_t kOpcodes[] = {0x90, 0x36, 0x00, 0x04, 0x82, 0x8f};
  std::vector<std::uint8_t> bytes;
  if (!in.seldom(16))
    bytes.push_back(in.PickValueInArray(kOpcodes));
  for (int operands = in.below(4); operands > 0; --operands)
    bytes.push_back(in.seldom(128) ? in.PickValueInArray(kOpcodes) : in.below(std::uint8_t{5}));
  screen_received(in.seldom(32) ? 15 : 0, bytes);
}

static void order_screen(input &in) {
  settled = 0;
  turn_screen(in.ConsumeBool(), [] { ++settled; });
}

static void fire_one(input &in) {
  std::istringstream text(timers());
  const std::vector<double> seconds{std::istream_iterator<double>(text), {}};
  if (!seconds.empty())
    fire(seconds[in.below(seconds.size())]);
}

static void start_again(input &in) {
  release_device();
  write_configuration(in);
  start_screen(cec);
  take_device();
}

static void read_clock() {
  rtc_time time{};
  IPowerControl::getInstance()->read_rtc(&time);
}

static void change_power(input &in) {
  using event = void (*)();
  const auto give_reason = [] { device_power_set_wakeup_reason(20); };
  in.PickValueInArray<event>({machine_goes_to_sleep, machine_woke_up, machine_shuts_down,
                              machine_stays_up, user_is_active, screen_is_reachable, ask_screen,
                              leave_screen, give_reason, read_clock})();
}

static constexpr void (*kSteps[])(input &) = {order_wake_up,  order_wake_up, receive_message,
                                              order_screen,   fire_one,      change_clocks,
                                              change_devices, change_power,  start_again};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  input in(data, size);
  rtc = {};
  cec = {};
  set_now(kNow);
  write_configuration(in);
  start_screen(cec);
  start_after_another_run(in);
  for (int step = 0; step < kMaxSteps && !in.empty(); ++step) {
    in.PickValueInArray(kSteps)(in);
    EXPECT_LE(settled, 1);
  }
  machine_goes_to_sleep(); // ends every order
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  GTEST_FLAG_SET(throw_on_failure, true);
  set_environment();
  unsetenv("DRAVEL_LOG_STDERR");
  ecore_init();
  for (const char *directory : {"/tmp/state", "/tmp/run"})
    std::filesystem::create_directory(directory);
  return 0;
}
