// The machine's adapter on a simulated device: a FIFO that is readable when there is something to
// read, and the kernel's answers to the ioctls.
#include "machine.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <deque>
#include <fcntl.h>
#include <linux/cec.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

struct played_device {
  std::uint16_t physical = 0x1000;
  cec_log_addrs addresses{};
  bool has_exclusive_follower = false;
  bool has_event = false;
  std::deque<cec_msg> messages;
  std::string sent; // as "4004", with the header
  int claims = 0;
};

} // namespace

static constexpr const char *kPath = "/tmp/cec7";

static played_device device;

static void configure(std::uint8_t address) {
  device.addresses.num_log_addrs = 1;
  device.addresses.log_addr[0] = address;
  device.addresses.log_addr_mask = static_cast<std::uint16_t>(1U << address);
}

// The FIFO is empty once the last message is taken.
static int receive(int fd, cec_msg *out) {
  char byte = 0;
  if (device.messages.empty())
    return read(fd, &byte, 1) < 0 ? -1 : receive(fd, out);
  *out = device.messages.front();
  device.messages.pop_front();
  return 0;
}

static int claim(const cec_log_addrs &wanted) {
  ++device.claims;
  device.addresses = wanted;
  configure(CEC_LOG_ADDR_PLAYBACK_1);
  return 0;
}

static int transmit(const cec_msg &sent) {
  device.sent += (device.sent.empty() ? "" : " ") + hex_of({sent.msg, sent.len});
  return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  errno = EBUSY;
  switch (request) {
  case CEC_S_MODE:
    return device.has_exclusive_follower ? -1 : 0;
  case CEC_ADAP_G_PHYS_ADDR:
    *static_cast<std::uint16_t *>(argument) = device.physical;
    return 0;
  case CEC_ADAP_G_LOG_ADDRS:
    *static_cast<cec_log_addrs *>(argument) = device.addresses;
    return 0;
  case CEC_ADAP_S_LOG_ADDRS:
    return claim(*static_cast<const cec_log_addrs *>(argument));
  case CEC_DQEVENT:
    return std::exchange(device.has_event, false) ? 0 : -1;
  case CEC_RECEIVE:
    return receive(fd, static_cast<cec_msg *>(argument));
  case CEC_TRANSMIT:
    return transmit(*static_cast<const cec_msg *>(argument));
  default:
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
}

namespace {

class Adapter : public Machine {
protected:
  void start_device() {
    ASSERT_EQ(mkfifo(kPath, 0600), 0);
    adapter = &machine_cec();
    start("cec=/tmp/cec7", false);
    change();
    sent();
  }

  // The kernel reports that the addresses have changed.
  static void change() {
    device.has_event = true;
    arrive();
  }

  static void television_sends(std::initializer_list<std::uint8_t> bytes) {
    cec_msg said{};
    std::ranges::copy(bytes, said.msg);
    said.len = static_cast<std::uint32_t>(bytes.size());
    said.rx_status = CEC_RX_STATUS_OK;
    device.messages.push_back(said);
    arrive();
  }

  static std::string sent() { return std::exchange(device.sent, ""); }

private:
  static void arrive() {
    const int fd = open(kPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(write(fd, "x", 1), 1);
    close(fd);
    wait_until([] { return !device.has_event && device.messages.empty(); });
  }
};

TEST_F(Adapter, ThatNobodyHasConfigured_IsClaimed_AndAnswers) {
  start_device();
  EXPECT_EQ(device.claims, 1);
  EXPECT_EQ(device.addresses.log_addr_type[0], CEC_LOG_ADDR_TYPE_PLAYBACK);
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f821000");
  television_sends({0x04, CEC_MSG_GIVE_DEVICE_POWER_STATUS});
  EXPECT_EQ(sent(), "409000");
  television_sends({0x04, CEC_MSG_PLAY, 0x24});
  EXPECT_EQ(sent(), "40004100");
  television_sends({0x04, CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON});
  television_sends({0xf4, CEC_MSG_PLAY, 0x24}); // from a device that cannot be answered
  television_sends({0x0f, CEC_MSG_STANDBY});
  EXPECT_EQ(sent(), "");
  EXPECT_EQ(device_power_get_state(), 2);
}

TEST_F(Adapter, ThatSomebodyElseConfigured_IsUsedAsItIs_AndLeftToAnswer) {
  device.has_exclusive_follower = true;
  configure(CEC_LOG_ADDR_PLAYBACK_2);
  start_device();
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "8004 8f821000");
  television_sends({0x08, CEC_MSG_GIVE_DEVICE_POWER_STATUS});
  EXPECT_EQ(sent(), "");
  device.addresses = {};
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
  change(); // the logical address that was claimed then
  EXPECT_EQ(sent(), "408f");
  device_power_set_state(0, 1);
  EXPECT_EQ(sent(), "4004 4f822000");
}

} // namespace
