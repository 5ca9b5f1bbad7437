#include "cec.h"

#include "bus.h"
#include "configuration.h"
#include "journal.h"
#include "screen.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glob.h>
#include <linux/cec.h>
#include <memory>
#include <string>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

static constexpr std::uint16_t kTelevisionAddress = 0; // 0.0.0.0, the television's own end
static constexpr std::uint32_t kReplyMilliseconds = 1000;
static constexpr std::uint8_t kNoLogicalAddress = CEC_LOG_ADDR_UNREGISTERED;

namespace {

// One device, open and listened to.
struct cec_device {
  explicit cec_device(const char *device_path);
  ~cec_device();
  cec_device(const cec_device &) = delete;
  cec_device &operator=(const cec_device &) = delete;

  void look();  // reads its addresses, and claims a logical one when the physical one is new
  void claim(); // claims a logical address, unless another program has configured one
  bool has_television() const {
    return physical != CEC_PHYS_ADDR_INVALID && physical != kTelevisionAddress;
  }
  bool is_usable() const { return has_television() && logical != kNoLogicalAddress; }

  std::string path;
  int fd;
  std::uint16_t physical = CEC_PHYS_ADDR_INVALID;
  std::uint8_t logical = kNoLogicalAddress;
  bool is_configured = false; // the device has a logical address
  bool is_ours = false;       // and this program claimed it
  sd_event_source *source = nullptr;
};

class kernel_cec final : public cec_adapter {
public:
  void start() override;
  bool prepare() override;
  std::uint16_t physical_address() override;
  bool is_claiming() override;
  void send(std::uint8_t destination, std::span<const std::uint8_t> message) override;
};

} // namespace

static std::vector<std::unique_ptr<cec_device>> devices;

static int device_ready(sd_event_source *, int fd, std::uint32_t events, void *data);

cec_device::cec_device(const char *device_path)
    : path(device_path), fd(open(device_path, O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
  if (fd < 0) {
    report("%s: %s; the television is not reached by it", device_path, std::strerror(errno));
    return;
  }
  // Not exclusive: other programs may use the device. An exclusive follower among them gets all
  // messages but the replies to ours; the mode is refused then, and that is no failure.
  std::uint32_t mode = CEC_MODE_INITIATOR | CEC_MODE_FOLLOWER;
  ioctl(fd, CEC_S_MODE, &mode);
  const int result =
      sd_event_add_io(bus_events(), &source, fd, EPOLLIN | EPOLLPRI, device_ready, this);
  if (result < 0)
    report("%s: %s; the television's messages are not received", device_path,
           std::strerror(-result));
  look();
}

cec_device::~cec_device() {
  sd_event_source_disable_unref(source);
  if (fd >= 0)
    close(fd);
}

void cec_device::claim() {
  if (!has_television() || is_configured)
    return;
  cec_log_addrs claimed{};
  claimed.num_log_addrs = 1;
  claimed.cec_version = CEC_OP_CEC_VERSION_1_4;
  claimed.vendor_id = CEC_VENDOR_ID_NONE;
  claimed.primary_device_type[0] = CEC_OP_PRIM_DEVTYPE_PLAYBACK;
  claimed.log_addr_type[0] = CEC_LOG_ADDR_TYPE_PLAYBACK;
  std::strcpy(claimed.osd_name, "dravel");
  is_configured = is_ours = ioctl(fd, CEC_ADAP_S_LOG_ADDRS, &claimed) == 0;
  if (!is_ours)
    report("%s: %s; no logical address", path.c_str(), std::strerror(errno));
}

void cec_device::look() {
  const std::uint16_t before = physical;
  cec_log_addrs found{};
  if (ioctl(fd, CEC_ADAP_G_PHYS_ADDR, &physical) != 0 ||
      ioctl(fd, CEC_ADAP_G_LOG_ADDRS, &found) != 0)
    return;
  is_configured = found.num_log_addrs > 0;
  is_ours = is_ours && is_configured;
  logical = is_configured && found.log_addr_mask != 0 ? found.log_addr[0] : kNoLogicalAddress;
  // On an unchanged cable, the program that took its logical address away sets another one next.
  if (physical != before)
    claim();
}

static void transmit(const cec_device &device, std::uint8_t destination,
                     std::span<const std::uint8_t> message) {
  cec_msg sent{};
  sent.msg[0] = static_cast<std::uint8_t>(device.logical << 4 | destination);
  std::ranges::copy(message, sent.msg + 1);
  sent.len = static_cast<std::uint32_t>(message.size() + 1);
  if (message[0] == CEC_MSG_GIVE_DEVICE_POWER_STATUS) {
    sent.reply = CEC_MSG_REPORT_POWER_STATUS;
    sent.timeout = kReplyMilliseconds;
  }
  if (ioctl(device.fd, CEC_TRANSMIT, &sent) != 0)
    note("%s: message %#04x: %s", device.path.c_str(), message[0], std::strerror(errno));
}

// Called only when the logical address is ours: otherwise its owner answers. A sender without an
// address of its own cannot be answered.
static void answer(const cec_device &device, const cec_msg &message) {
  const auto sender = static_cast<std::uint8_t>(message.msg[0] >> 4);
  const std::uint8_t opcode = message.msg[1];
  const std::uint8_t on[] = {CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON};
  const std::uint8_t abort[] = {CEC_MSG_FEATURE_ABORT, opcode, CEC_OP_ABORT_UNRECOGNIZED_OP};
  if (opcode == CEC_MSG_GIVE_DEVICE_POWER_STATUS)
    transmit(device, sender, on);
  else if (opcode != CEC_MSG_FEATURE_ABORT && opcode != CEC_MSG_REPORT_POWER_STATUS &&
           opcode != CEC_MSG_STANDBY)
    transmit(device, sender, abort);
}

static void message_received(const cec_device &device, const cec_msg &message) {
  const bool is_reply = message.tx_status != 0; // to a message that was sent
  if ((message.rx_status & CEC_RX_STATUS_OK) == 0 || message.len < 2)
    return; // the status of a message that was sent
  const auto sender = static_cast<std::uint8_t>(message.msg[0] >> 4);
  const auto destination = static_cast<std::uint8_t>(message.msg[0] & 0xf);
  if (device.is_ours && !is_reply && destination != CEC_LOG_ADDR_BROADCAST &&
      sender != CEC_LOG_ADDR_UNREGISTERED)
    answer(device, message);
  screen_received(sender, std::span(message.msg + 1, message.len - 1));
}

static int device_ready(sd_event_source *, int fd, std::uint32_t events, void *data) {
  auto *device = static_cast<cec_device *>(data);
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
    note("%s is gone", device->path.c_str());
    std::erase_if(devices, [=](const auto &held) { return held.get() == device; });
    return 0;
  }
  const bool was_usable = device->is_usable();
  cec_event event{};
  while (ioctl(fd, CEC_DQEVENT, &event) == 0)
    device->look();
  if (!was_usable && device->is_usable())
    screen_is_reachable();
  cec_msg message{};
  while (ioctl(fd, CEC_RECEIVE, &message) == 0) {
    message_received(*device, message);
    message = {};
  }
  return 0;
}

// --- the adapter that is used ---

static void open_device(const char *path) {
  const bool is_open =
      std::ranges::any_of(devices, [=](const auto &device) { return device->path == path; });
  if (is_open)
    return;
  auto device = std::make_unique<cec_device>(path);
  if (device->fd >= 0)
    devices.push_back(std::move(device));
}

static void open_devices() {
  const std::string &wanted = configuration().cec;
  if (wanted == "off")
    return;
  glob_t found{};
  glob(wanted == "auto" ? "/dev/cec*" : wanted.c_str(), 0, nullptr, &found);
  for (std::size_t i = 0; i < found.gl_pathc; ++i)
    open_device(found.gl_pathv[i]);
  globfree(&found);
}

static int dev_changed(sd_event_source *, const struct inotify_event *event, void *) {
  if (event->len > 0 && std::strncmp(event->name, "cec", 3) == 0) {
    open_devices();
    ask_screen();
  }
  return 0;
}

static cec_device *usable_device() {
  const auto found =
      std::ranges::find_if(devices, [](const auto &device) { return device->is_usable(); });
  return found == devices.end() ? nullptr : found->get();
}

// The device without a physical address: some televisions switch off the cable's power in standby.
static cec_device *unaddressed_device() {
  const auto found = std::ranges::find_if(
      devices, [](const auto &device) { return device->physical == CEC_PHYS_ADDR_INVALID; });
  return found == devices.end() ? nullptr : found->get();
}

static void watch_dev() {
  static sd_event_source *watch = nullptr;
  if (watch != nullptr)
    return;
  const int result = sd_event_add_inotify(bus_events(), &watch, "/dev", IN_CREATE | IN_ATTRIB,
                                          dev_changed, nullptr);
  if (result < 0)
    report("/dev: %s; a CEC adapter that appears later is not used", std::strerror(-result));
}

void kernel_cec::start() {
  watch_dev();
  devices.clear();
  open_devices();
}

bool kernel_cec::prepare() {
  for (const auto &device : devices)
    device->claim();
  return std::ranges::any_of(devices,
                             [](const auto &device) { return device->has_television(); }) ||
         unaddressed_device() != nullptr;
}

std::uint16_t kernel_cec::physical_address() {
  const cec_device *device = usable_device();
  return device == nullptr ? kNoPhysicalAddress : device->physical;
}

bool kernel_cec::is_claiming() {
  return std::ranges::any_of(devices, [](const auto &device) {
    return device->has_television() && device->is_configured && !device->is_usable();
  });
}

void kernel_cec::send(std::uint8_t destination, std::span<const std::uint8_t> message) {
  const cec_device *device = usable_device();
  if (device == nullptr)
    device = unaddressed_device();
  if (device != nullptr)
    transmit(*device, destination, message);
}

cec_adapter &machine_cec() {
  static kernel_cec adapter;
  return adapter;
}
