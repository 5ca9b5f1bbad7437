// The HDMI-CEC adapter. Messages of the television are passed to screen_received (screen.h).
#pragma once

#include <cstdint>
#include <span>

class cec_adapter {
public:
  // Closes the open devices and opens those that the configuration names.
  virtual void start() = 0;

  // Makes ready for messages. False when there is no way to the television at all.
  virtual bool prepare() = 0;

  // Its physical address on the HDMI cable, or kNoPhysicalAddress: then only a message without an
  // address of our own may be sent, as Image View On is.
  virtual std::uint16_t physical_address() = 0;

  // True until the kernel has claimed a logical address; screen_is_reachable (screen.h) follows.
  virtual bool is_claiming() = 0;

  // Queues opcode and operands. A failed transmission is not reported.
  virtual void send(std::uint8_t destination, std::span<const std::uint8_t> message) = 0;

protected:
  ~cec_adapter() = default;
};

inline constexpr std::uint16_t kNoPhysicalAddress = 0xffff;

// The machine's: of several adapters the first that has a television.
cec_adapter &machine_cec();
