#include "machine.h"

#include <algorithm>
#include <cstdarg>
#include <fcntl.h>
#include <linux/cec.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

// A device of the kernel's: a FIFO of messages, and the answers to the ioctls.
static struct {
  std::uint16_t physical = 0x1000;
  cec_log_addrs addresses{};
  bool has_event = false;
  std::string sent; // as "4004", with the header
  int claims = 0;
} device;

static void configure(std::uint8_t address) {
  device.addresses.num_log_addrs = 1;
  device.addresses.log_addr[0] = address;
  device.addresses.log_addr_mask = static_cast<std::uint16_t>(1U << address);
}

// The mode is refused, as where another program follows the device exclusively.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  const auto *transmitted = static_cast<const cec_msg *>(argument);
  switch (request) {
  case CEC_ADAP_G_PHYS_ADDR:
    *static_cast<std::uint16_t *>(argument) = device.physical;
    return 0;
  case CEC_ADAP_G_LOG_ADDRS:
    *static_cast<cec_log_addrs *>(argument) = device.addresses;
    return 0;
  case CEC_ADAP_S_LOG_ADDRS:
    ++device.claims;
    device.addresses = *static_cast<const cec_log_addrs *>(argument);
    configure(CEC_LOG_ADDR_PLAYBACK_1);
    return 0;
  case CEC_DQEVENT:
    return std::exchange(device.has_event, false) ? 0 : -1;
  case CEC_RECEIVE:
    return read(fd, argument, sizeof(cec_msg)) > 0 ? 0 : -1;
  case CEC_TRANSMIT:
    append(device.sent, hex_of({transmitted->msg, transmitted->len}), " ");
    return 0;
  default:
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
}

namespace {

class Adapter : public Machine {
protected:
  void start_device() {
    ASSERT_EQ(mkfifo("/tmp/cec7", 0600), 0);
    fifo_ = open("/tmp/cec7", O_RDWR | O_CLOEXEC);
    adapter = &machine_cec();
    start("cec=/tmp/cec7");
    change();
  }

  // With each message the kernel reports an event, as when the addresses have changed. Returns
  // what was sent then.
  std::string reply_to(std::initializer_list<std::uint8_t> bytes) const {
    cec_msg said{};
    std::ranges::copy(bytes, said.msg);
    said.len = static_cast<std::uint32_t>(bytes.size());
    said.rx_status = CEC_RX_STATUS_OK;
    device.has_event = true;
    EXPECT_EQ(write(fifo_, &said, sizeof said), sizeof said);
    wait_until([] { return !device.has_event; });
    return sent();
  }

  std::string change() const { return reply_to({}); }

  static std::string sent() { return std::exchange(device.sent, ""); }

private:
  int fifo_ = -1;
};

TEST_F(Adapter, ThatNobodyHasConfigured_IsClaimed_AndAnswers) {
  start_device();
  EXPECT_EQ(device.claims, 1);
  EXPECT_EQ(device.addresses.log_addr_type[0], CEC_LOG_ADDR_TYPE_PLAYBACK);
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f821000");
  EXPECT_EQ(reply_to({0x04, CEC_MSG_GIVE_DEVICE_POWER_STATUS}), "409000");
  EXPECT_EQ(reply_to({0x04, CEC_MSG_PLAY, 0x24}), "40004100");
  EXPECT_EQ(reply_to({0x04, CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON}), "");
  EXPECT_EQ(reply_to({0xf4, CEC_MSG_PLAY, 0x24}), ""); // from a device that cannot be answered
  EXPECT_EQ(reply_to({0x0f, CEC_MSG_PLAY, 0x24}), "");
  EXPECT_EQ(reply_to({0x0f, CEC_MSG_STANDBY}), "");
  EXPECT_EQ(reply_to({0x0f, CEC_MSG_STANDBY}), "");
  EXPECT_EQ(seen(), "state 2; RestartUnit dravel-on.target");
}

TEST_F(Adapter, ThatSomebodyElseConfigured_IsUsedAsItIs_AndLeftToAnswer) {
  configure(CEC_LOG_ADDR_PLAYBACK_2);
  start_device();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "8004 8f821000");
  EXPECT_EQ(reply_to({0x08, CEC_MSG_GIVE_DEVICE_POWER_STATUS}), "");
  device.addresses = {};
  change();
  EXPECT_EQ(device.claims, 0) << "it is about to be configured again";
  device_power_request_poweroff(1);
  EXPECT_EQ(device.claims, 1);
  EXPECT_EQ(sent(), "");
  EXPECT_EQ(change(), "4036") << "the order has waited for the address";
}

TEST_F(Adapter, WithoutATelevision_IsWokenBlindly_AndItsOtherEndNotUsed) {
  device.physical = CEC_PHYS_ADDR_INVALID;
  start_device();
  device_power_set_state(0, 1);
  fire(1);
  EXPECT_EQ(sent(), "f004");
  device_power_request_poweroff(1);
  device.physical = 0;
  change();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "");
  EXPECT_EQ(timers(), "");
  EXPECT_EQ(device_power_get_state(), 0);
  device.physical = 0x2000;
  change();
  EXPECT_EQ(change(), "408f"); // the logical address that was claimed then
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f822000");
}

constexpr std::uint8_t kAbort = 0x00, kStandby = 0x36, kReport = 0x90;
constexpr const char *kView = "0:04 f:821000"; // Image View On, Active Source
constexpr const char *kAsk = "0:8f";

class Screen : public Machine {};

TEST_F(Screen, IsTurnedOn_AskedEverySecond_ToldAgainTwice_AndGivenUpWithOneLine) {
  start();
  sent();
  EXPECT_EQ(device_power_set_state(0, 1), 0);
  EXPECT_EQ(sent(), kView);
  for (int second = 1; second < 15; ++second) {
    const bool again = second == 4 || second == 8;
    fire(1);
    EXPECT_EQ(sent(), (again ? std::string(kView) + " " : "") + kAsk);
    if (second == 5)
      television_reports(TURNS_ON);
  }
  EXPECT_EQ(seen(), "RestartUnit dravel-on.target | 1");
  EXPECT_EQ(seen_after(1), "the television does not say it is on after 15 seconds");
  EXPECT_EQ(device_power_get_state(), 0);
}

TEST_F(Screen, HasObeyed_WhenItSaysSo_OrDoesNotKnowTheQuestion) {
  static constexpr struct {
    bool on;
    std::initializer_list<std::uint8_t> said;
    bool settled;
  } kCases[] = {{true, {kReport, IS_ON}, true},   {true, {kReport, TURNS_ON}, false},
                {true, {kReport, IS_OFF}, false}, {true, {kAbort, 0x8f, 0}, true},
                {true, {kStandby}, false},        {false, {kReport, IS_OFF}, true},
                {false, {kReport, IS_ON}, false}, {false, {kAbort, 0x36, 4}, true},
                {false, {kReport}, false},        {true, {kAbort, 0x36, 4}, false},
                {false, {kAbort, 0x04, 0}, false}};
  start("cec-standby=all", false);
  for (const auto &[on, said, settled] : kCases) {
    cec.sent.clear();
    on ? device_power_set_state(0, 1) : device_power_request_poweroff(1);
    EXPECT_EQ(sent(), on ? kView : "f:36");
    television_says(said);
    seen(); // there are no hooks to wait for
    EXPECT_EQ(timers(), settled ? "" : "1");
    EXPECT_EQ(device_power_get_state(), on ? 0 : 2);
  }
}

TEST_F(Screen, IsAskedAtTheStart_AndTenSecondsBeforeTheOnTime) {
  start("", false);
  EXPECT_EQ(sent(), kAsk);
  set_wakeup(0, kNow + kHour);
  set_wakeup(0, kNow + 100);
  EXPECT_EQ(timers(), "90");
  fire(90);
  EXPECT_EQ(sent(), kAsk);
  set_wakeup(0, kNow + 100);
  clear_wakeup();
  EXPECT_EQ(timers(), "");
  set_wakeup(0, kNow + 10);
  EXPECT_EQ(timers(), "");
}

} // namespace
