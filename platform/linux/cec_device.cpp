#include "cec_device.h"

#include "journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr std::uint16_t kTelevisionAddress = 0; // 0.0.0.0, the television's own end
static constexpr std::uint32_t kReplyMilliseconds = 1000;
static constexpr std::string_view kOurName = "dravel";

cec_device::cec_device(const std::string &path, const listener &told)
    : path_(path), told_(told), fd_(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
  if (fd_ < 0) {
    error_ = errno;
    return;
  }
  // Not exclusive: other programs may use the device. An exclusive follower among them gets all
  // messages but the replies to ours; the mode is refused then, and that is no failure.
  std::uint32_t mode = CEC_MODE_INITIATOR | CEC_MODE_FOLLOWER;
  ioctl(fd_, CEC_S_MODE, &mode);
  cec_caps caps{};
  needs_address_ =
      ioctl(fd_, CEC_ADAP_G_CAPS, &caps) == 0 && (caps.capabilities & CEC_CAP_PHYS_ADDR) != 0;
  error_ = -sd_event_add_io(bus_events(), &source_, fd_, EPOLLIN | EPOLLPRI, ready, this);
  read_addresses();
}

cec_device::~cec_device() {
  sd_event_source_disable_unref(source_);
  if (fd_ >= 0)
    close(fd_);
}

bool cec_device::has_television() const {
  return physical_ != CEC_PHYS_ADDR_INVALID && physical_ != kTelevisionAddress;
}

void cec_device::claim() {
  if (!has_television() || is_configured_)
    return;
  cec_log_addrs claimed{};
  claimed.num_log_addrs = 1;
  claimed.cec_version = CEC_OP_CEC_VERSION_1_4;
  claimed.vendor_id = CEC_VENDOR_ID_NONE;
  claimed.primary_device_type[0] = CEC_OP_PRIM_DEVTYPE_PLAYBACK;
  claimed.log_addr_type[0] = CEC_LOG_ADDR_TYPE_PLAYBACK;
  std::ranges::copy(kOurName, claimed.osd_name);
  is_configured_ = is_ours_ = ioctl(fd_, CEC_ADAP_S_LOG_ADDRS, &claimed) == 0;
  const int error = is_ours_ ? 0 : errno;
  if (error != 0 && error != claim_error_)
    report("%s: %s; it gets no logical address", path_.c_str(), std::strerror(error));
  claim_error_ = error;
}

void cec_device::read_addresses() {
  const std::uint16_t before = physical_;
  cec_log_addrs found{};
  if (ioctl(fd_, CEC_ADAP_G_PHYS_ADDR, &physical_) != 0 ||
      ioctl(fd_, CEC_ADAP_G_LOG_ADDRS, &found) != 0)
    return;
  is_configured_ = found.num_log_addrs > 0;
  // Its name shows an address that an earlier run has claimed.
  is_ours_ = is_configured_ && std::string_view(found.osd_name) == kOurName;
  logical_ = is_configured_ && found.log_addr_mask != 0 ? found.log_addr[0] : kNoLogicalAddress;
  // On an unchanged cable, the program that took its logical address away sets another one next.
  if (physical_ != before)
    claim();
}

void cec_device::prepare(std::optional<std::uint16_t> address) {
  if (needs_address_ && address && *address != physical_ &&
      ioctl(fd_, CEC_ADAP_S_PHYS_ADDR, &*address) == 0)
    read_addresses();
  claim();
}

int cec_device::transmit(std::uint8_t destination, std::span<const std::uint8_t> message) const {
  cec_msg sent{};
  sent.msg[0] = static_cast<std::uint8_t>(logical_ << 4 | destination);
  std::ranges::copy(message, sent.msg + 1);
  sent.len = static_cast<std::uint32_t>(message.size() + 1);
  if (message[0] == CEC_MSG_GIVE_DEVICE_POWER_STATUS) {
    sent.reply = CEC_MSG_REPORT_POWER_STATUS;
    sent.timeout = kReplyMilliseconds;
  }
  return ioctl(fd_, CEC_TRANSMIT, &sent) == 0 ? 0 : errno;
}

int cec_device::ready(sd_event_source *, int fd, std::uint32_t events, void *data) {
  auto *device = static_cast<cec_device *>(data);
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
    device->told_.gone(*device);
    return 0;
  }
  cec_event change{};
  while (ioctl(fd, CEC_DQEVENT, &change) == 0) {
    device->read_addresses();
    device->told_.changed();
  }
  cec_msg message{};
  while (ioctl(fd, CEC_RECEIVE, &message) == 0) {
    device->told_.received(*device, message);
    message = {};
  }
  return 0;
}
