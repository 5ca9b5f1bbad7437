// The machine's adapter on a simulated device: a FIFO that is readable when there is something to
// read, and the kernel's answers to the ioctls.
#include "machine.h"

#include <algorithm>
#include <cstdarg>
#include <deque>
#include <fcntl.h>
#include <linux/cec.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct played_device {
  std::uint16_t physical = 0x1000;
  cec_log_addrs addresses{};
  bool has_exclusive_follower = false;
  std::deque<cec_event> events;
  std::deque<cec_msg> messages;
  std::string sent; // as "40:04", with the header
  int claims = 0;
};

} // namespace

static played_device device;

template <class Queue> static int fetch(int fd, Queue &queue, void *out) {
  if (queue.empty()) {
    char byte = 0;
    errno = read(fd, &byte, 1) < 0 ? errno : EAGAIN;
    return -1;
  }
  *static_cast<typename Queue::value_type *>(out) = queue.front();
  queue.pop_front();
  return 0;
}

static int transmit(const cec_msg &message) {
  char text[4];
  device.sent += device.sent.empty() ? "" : " ";
  for (const std::uint8_t byte : std::span(message.msg, message.len)) {
    std::snprintf(text, sizeof text, "%02x", byte);
    device.sent += text;
  }
  return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  switch (request) {
  case CEC_S_MODE:
    errno = EBUSY;
    return device.has_exclusive_follower ? -1 : 0;
  case CEC_ADAP_G_PHYS_ADDR:
    *static_cast<std::uint16_t *>(argument) = device.physical;
    return 0;
  case CEC_ADAP_G_LOG_ADDRS:
    *static_cast<cec_log_addrs *>(argument) = device.addresses;
    return 0;
  case CEC_ADAP_S_LOG_ADDRS:
    ++device.claims;
    device.addresses = *static_cast<cec_log_addrs *>(argument);
    device.addresses.log_addr[0] = CEC_LOG_ADDR_PLAYBACK_1;
    device.addresses.log_addr_mask = CEC_LOG_ADDR_MASK_PLAYBACK;
    return 0;
  case CEC_DQEVENT:
    return fetch(fd, device.events, argument);
  case CEC_RECEIVE:
    return fetch(fd, device.messages, argument);
  case CEC_TRANSMIT:
    return transmit(*static_cast<cec_msg *>(argument));
  default:
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
}

namespace {

class Adapter : public Machine {
protected:
  void start_device() {
    ASSERT_EQ(mkfifo("/tmp/cec7", 0600), 0);
    adapter = &machine_cec();
    start("cec=/tmp/cec7", "");
    change();
    device.sent.clear();
  }

  // The kernel reports that the addresses have changed.
  static void change() {
    device.events.push_back({.ts = 0, .event = CEC_EVENT_STATE_CHANGE, .flags = 0, .raw = {}});
    arrive();
  }

  static void receive(std::initializer_list<std::uint8_t> bytes) {
    cec_msg message{};
    std::ranges::copy(bytes, message.msg);
    message.len = static_cast<std::uint32_t>(bytes.size());
    message.rx_status = CEC_RX_STATUS_OK;
    device.messages.push_back(message);
    arrive();
  }

  static std::string sent() { return std::exchange(device.sent, ""); }

  static void configure(std::uint8_t address) { // somebody else does
    device.addresses = {};
    device.addresses.num_log_addrs = address == 0 ? 0 : 1;
    device.addresses.log_addr[0] = address;
    device.addresses.log_addr_mask = static_cast<std::uint16_t>(address == 0 ? 0 : 1U << address);
  }

private:
  static void arrive() {
    const int fd = open("/tmp/cec7", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(write(fd, "x", 1), 1);
    close(fd);
    wait_until([] { return device.events.empty() && device.messages.empty(); });
  }
};

TEST_F(Adapter, ThatNobodyHasConfigured_IsClaimed_AndAnswers) {
  start_device();
  EXPECT_EQ(device.claims, 1);
  EXPECT_EQ(device.addresses.log_addr_type[0], CEC_LOG_ADDR_TYPE_PLAYBACK);
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f821000");
  receive({0x04, CEC_MSG_GIVE_DEVICE_POWER_STATUS});
  EXPECT_EQ(sent(), "409000");
  receive({0x04, CEC_MSG_PLAY, 0x24});
  EXPECT_EQ(sent(), "40004100");
  receive({0x04, CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON});
  receive({0xf4, CEC_MSG_PLAY, 0x24}); // from a device that cannot be answered
  receive({0x0f, CEC_MSG_STANDBY});
  EXPECT_EQ(sent(), "");
  EXPECT_EQ(device_power_get_state(), 2);
}

TEST_F(Adapter, ThatSomebodyElseConfigured_IsUsedAsItIs_AndLeftToAnswer) {
  device.has_exclusive_follower = true;
  configure(CEC_LOG_ADDR_PLAYBACK_2);
  start_device();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "8004 8f821000");
  receive({0x08, CEC_MSG_GIVE_DEVICE_POWER_STATUS});
  EXPECT_EQ(sent(), "");
  configure(0);
  change();
  EXPECT_EQ(device.claims, 0) << "it is about to be configured again";
  device_power_request_poweroff(1);
  EXPECT_EQ(device.claims, 1);
  EXPECT_EQ(sent(), "");
  change();
  EXPECT_EQ(sent(), "4036") << "the order has waited for the address";
}

TEST_F(Adapter, WithoutATelevision_IsWokenBlindly_AndItsOtherEndNotUsed) {
  device.physical = CEC_PHYS_ADDR_INVALID;
  start_device();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "f004");
  device.physical = 0;
  change();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "");
  device.physical = 0x2000;
  change();
  change(); // the logical address that was claimed then
  EXPECT_EQ(sent(), "408f");
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f822000");
}

} // namespace
