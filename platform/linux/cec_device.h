// One CEC adapter, open and listened to.
#pragma once

#include "bus.h"

#include <cstdint>
#include <linux/cec.h>
#include <optional>
#include <span>
#include <string>

inline constexpr std::uint8_t kNoLogicalAddress = CEC_LOG_ADDR_UNREGISTERED;

class cec_device {
public:
  // What the owner is told. `gone`: it must be destroyed.
  struct listener {
    void (*received)(cec_device &device, const cec_msg &message); // also of what became of ours
    void (*changed)();                                            // an address
    void (*gone)(cec_device &device);
  };

  explicit cec_device(const std::string &path, const listener &told);
  ~cec_device();
  cec_device(const cec_device &) = delete;
  cec_device &operator=(const cec_device &) = delete;

  int error() const { return error_; } // errno of the opening
  const std::string &path() const { return path_; }
  std::uint16_t physical() const { return physical_; }
  std::uint8_t logical() const { return logical_; }
  bool is_ours() const { return is_ours_; } // this daemon, or an earlier run, claimed its address
  bool has_television() const;
  bool is_usable() const { return has_television() && logical_ != kNoLogicalAddress; }
  // It gets one as soon as the cable is quiet, or an order claims one.
  bool is_claiming() const {
    return has_television() && !is_usable() && (is_configured_ || claim_error_ == 0);
  }

  // Some televisions switch the power of the cable off in standby: then there is no address.
  bool is_unaddressed() const { return physical_ == CEC_PHYS_ADDR_INVALID; }

  // Gives an adapter that knows no physical address the `address` of its output, and claims a
  // logical one, unless another program has configured one.
  void prepare(std::optional<std::uint16_t> address);

  // Queues opcode and operands; what becomes of it is received. An errno.
  int transmit(std::uint8_t destination, std::span<const std::uint8_t> message) const;

private:
  static int ready(sd_event_source *, int fd, std::uint32_t events, void *data);
  void read_addresses();
  void claim();

  std::string path_;
  listener told_;
  int fd_;
  int error_ = 0;
  std::uint16_t physical_ = CEC_PHYS_ADDR_INVALID;
  std::uint8_t logical_ = kNoLogicalAddress;
  bool is_configured_ = false; // it has a logical address
  bool is_ours_ = false;
  bool needs_address_ = false; // a physical one, from us
  int claim_error_ = 0;
  sd_event_source *source_ = nullptr;
};
