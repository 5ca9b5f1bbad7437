#include "cec.h"

#include "cec_device.h"
#include "configuration.h"
#include "edid.h"
#include "milliseconds.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <glob.h>
#include <iterator>
#include <memory>
#include <sys/inotify.h>
#include <utility>
#include <vector>

static std::vector<std::unique_ptr<cec_device>> devices;
// Until then Standby is sent as soon as there is a logical address; boot. Later somebody else may
// have turned the television on.
static std::int64_t off_due_until;
static constexpr std::int64_t kOffWaitsMs = 15 * kSecondMs;

// --- the adapter that is used ---

static cec_device *first(bool (cec_device::*is_wanted)() const) {
  const auto found =
      std::ranges::find_if(devices, [=](const auto &device) { return (*device.*is_wanted)(); });
  return found == devices.end() ? nullptr : found->get();
}

static cec_device *usable_device() { return first(&cec_device::is_usable); }

std::string cec_description() {
  const cec_device *device = usable_device();
  if (device == nullptr)
    device = first(&cec_device::is_unaddressed);
  if (device == nullptr)
    return "";
  const unsigned address = device->physical();
  char text[16];
  std::snprintf(text, sizeof text, " %x.%x.%x.%x", address >> 12, address >> 8 & 0xf,
                address >> 4 & 0xf, address & 0xf);
  return device->path() + (device->is_unaddressed() ? "" : text);
}

// A television that boots may drop the cable for a moment: the order to it waits.
static void tell_reachable() {
  const bool adapter = usable_device() != nullptr ||
                       first(&cec_device::is_unaddressed) != nullptr ||
                       first(&cec_device::is_claiming) != nullptr;
  happens(event::tv_reachable{adapter});
}

// --- messages to the television ---

// The television that has dropped its address may be behind any of those without one.
static bool send_blindly(std::uint8_t destination, std::span<const std::uint8_t> message) {
  return std::ranges::count_if(devices, [=](const auto &device) {
           return device->is_unaddressed() && device->transmit(destination, message) == 0;
         }) > 0;
}

static bool send(std::uint8_t destination, std::span<const std::uint8_t> message) {
  if (const cec_device *device = usable_device(); device != nullptr)
    return device->transmit(destination, message) == 0;
  return message[0] == CEC_MSG_IMAGE_VIEW_ON && send_blindly(destination, message);
}

static bool send(std::uint8_t destination, std::uint8_t opcode) {
  return send(destination, {&opcode, 1});
}

void answer_television() {
  const cec_device *device = usable_device();
  if (device == nullptr)
    return;
  const std::uint16_t address = device->physical();
  const std::array<std::uint8_t, 3> active = {CEC_MSG_ACTIVE_SOURCE,
                                              static_cast<std::uint8_t>(address >> 8),
                                              static_cast<std::uint8_t>(address & 0xff)};
  send(CEC_LOG_ADDR_BROADCAST, active);
}

static void prepare() {
  const auto &configured = configuration().cec_physical_address;
  const auto address = configured ? configured : physical_address_of_output();
  for (const auto &device : devices)
    device->prepare(address);
}

static bool send_standby() {
  return send(configuration().cec_standby_all ? CEC_LOG_ADDR_BROADCAST : CEC_LOG_ADDR_TV,
              CEC_MSG_STANDBY);
}

void turn_television(bool on) {
  prepare();
  const bool is_off_due = !on && first(&cec_device::is_claiming) != nullptr;
  off_due_until = is_off_due ? milliseconds_of(CLOCK_BOOTTIME) + kOffWaitsMs : 0;
  const bool sent = on ? send(CEC_LOG_ADDR_TV, CEC_MSG_IMAGE_VIEW_ON) : send_standby();
  if (!sent && !is_off_due)
    happens(event::tv_silent{});
  if (on)
    answer_television();
}

void ask_television() {
  prepare(); // without an address, as another program may have left the adapter, nothing is asked
  if (!send(CEC_LOG_ADDR_TV, CEC_MSG_GIVE_DEVICE_POWER_STATUS))
    happens(event::tv_silent{});
}

// --- messages from it ---

static bool asks_for(const cec_device &device, std::span<const std::uint8_t> message) {
  return message[0] == CEC_MSG_REQUEST_ACTIVE_SOURCE ||
         (message[0] == CEC_MSG_SET_STREAM_PATH && message.size() > 2 &&
          (message[1] << 8 | message[2]) == device.physical());
}

// A television that starts, or is in standby, refuses for the moment what it does know.
static bool is_unknown_to_it(std::span<const std::uint8_t> abort) {
  return abort.size() > 2 && abort[2] == CEC_OP_ABORT_UNRECOGNIZED_OP;
}

static void heard_television(const cec_device &device, std::span<const std::uint8_t> message) {
  static constexpr event::tv_state kStates[] = {event::tv_state::kOn, event::tv_state::kOff,
                                                event::tv_state::kTurningOn,
                                                event::tv_state::kTurningOff};
  if (message[0] == CEC_MSG_REPORT_POWER_STATUS && message.size() > 1 &&
      message[1] < std::size(kStates))
    happens(event::tv_reports{kStates[message[1]]});
  else if (message[0] == CEC_MSG_FEATURE_ABORT && message.size() > 1)
    happens(event::tv_denies{message[1], is_unknown_to_it(message)});
  else if (message[0] == CEC_MSG_STANDBY)
    happens(event::tv_standby{});
  else if (asks_for(device, message))
    happens(event::tv_asks_source{});
}

// Called only when the logical address is ours: otherwise its owner answers. A sender without an
// address of its own cannot be answered.
static void answer(const cec_device &device, std::uint8_t sender, std::uint8_t opcode) {
  const std::uint8_t on[] = {CEC_MSG_REPORT_POWER_STATUS, CEC_OP_POWER_STATUS_ON};
  const std::uint8_t abort[] = {CEC_MSG_FEATURE_ABORT, opcode, CEC_OP_ABORT_UNRECOGNIZED_OP};
  if (opcode == CEC_MSG_GIVE_DEVICE_POWER_STATUS)
    device.transmit(sender, on);
  else if (opcode != CEC_MSG_FEATURE_ABORT && opcode != CEC_MSG_REPORT_POWER_STATUS &&
           opcode != CEC_MSG_STANDBY)
    device.transmit(sender, abort);
}

// What became of a message of ours: only those for the television show whether it is there.
static void sent_message_ended(const cec_msg &message) {
  const bool failed = message.tx_status != 0 && (message.tx_status & CEC_TX_STATUS_OK) == 0;
  const bool unanswered = (message.rx_status & CEC_RX_STATUS_TIMEOUT) != 0;
  if ((failed || unanswered) && (message.msg[0] & 0xf) == CEC_LOG_ADDR_TV)
    happens(event::tv_silent{});
}

static void received(cec_device &device, const cec_msg &message) {
  const bool is_reply = message.tx_status != 0; // to a message of ours
  if ((message.rx_status & CEC_RX_STATUS_OK) == 0)
    sent_message_ended(message);
  if ((message.rx_status & CEC_RX_STATUS_OK) == 0 || message.len < 2)
    return;
  const auto sender = static_cast<std::uint8_t>(message.msg[0] >> 4);
  const auto destination = static_cast<std::uint8_t>(message.msg[0] & 0xf);
  if (device.is_ours() && !is_reply && destination != CEC_LOG_ADDR_BROADCAST &&
      sender != CEC_LOG_ADDR_UNREGISTERED)
    answer(device, sender, message.msg[1]);
  if (sender == CEC_LOG_ADDR_TV)
    heard_television(device, std::span(message.msg + 1, message.len - 1));
}

static void address_changed() {
  if (usable_device() != nullptr &&
      milliseconds_of(CLOCK_BOOTTIME) < std::exchange(off_due_until, 0))
    send_standby();
  tell_reachable();
}

static void device_gone(cec_device &device) {
  if (device.path() == configuration().cec)
    happens(event::refused{problem::kScreen, ENODEV});
  std::erase_if(devices, [&](const auto &held) { return held.get() == &device; });
  if (first(&cec_device::is_claiming) == nullptr)
    off_due_until = 0;
  tell_reachable();
}

// --- the devices ---

// An errno, 0 when it is open.
static int open_device(const char *path) {
  const auto is_same = [=](const auto &device) { return device->path() == path; };
  if (std::ranges::any_of(devices, is_same))
    return 0;
  auto device = std::make_unique<cec_device>(
      path, cec_device::listener{received, address_changed, device_gone});
  const int error = device->error();
  if (error == 0)
    devices.push_back(std::move(device));
  return error;
}

static void open_missing() {
  const std::string &wanted = configuration().cec;
  int error = 0;
  glob_t found{};
  if (wanted == "auto")
    glob("/dev/cec*", 0, nullptr, &found);
  else if (wanted != "off")
    error = open_device(wanted.c_str());
  for (std::size_t i = 0; i < found.gl_pathc; ++i)
    if (const int result = open_device(found.gl_pathv[i]); result != 0)
      error = result;
  globfree(&found);
  if (error != 0)
    happens(event::refused{problem::kScreen, error});
  else
    happens(event::works{problem::kScreen});
  prepare();
}

static int dev_changed(sd_event_source *, const struct inotify_event *change, void *) {
  if (change->len > 0 && std::strncmp(change->name, "cec", 3) == 0) {
    open_missing();
    tell_reachable();
  }
  return 0;
}

void open_cec() {
  devices.clear();
  open_missing();
  tell_reachable();
}

void start_cec() {
  sd_event_add_inotify(bus_events(), nullptr, "/dev", IN_CREATE | IN_ATTRIB, dev_changed, nullptr);
}
