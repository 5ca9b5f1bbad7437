#include "edid.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

static constexpr const char *kOutputs = "/sys/class/drm";

static constexpr std::size_t kBlockSize = 128;
static constexpr std::uint8_t kCtaExtension = 2;
static constexpr std::size_t kCtaDataStart = 4;
static constexpr std::uint8_t kVendorBlock = 3;
static constexpr std::uint8_t kHdmi[] = {0x03, 0x0c, 0x00};
static constexpr std::size_t kAddressAt = 4; // in the vendor block, behind its header

// Nothing in a block that is not HDMI's. `block` begins with its header.
static std::optional<std::uint16_t> address_in_block(std::span<const std::uint8_t> block) {
  if (block[0] >> 5 != kVendorBlock || block.size() < kAddressAt + 2 ||
      !std::ranges::equal(block.subspan(1, std::size(kHdmi)), kHdmi))
    return std::nullopt;
  return static_cast<std::uint16_t>(block[kAddressAt] << 8 | block[kAddressAt + 1]);
}

static std::optional<std::uint16_t> address_in_extension(std::span<const std::uint8_t> extension) {
  if (extension[0] != kCtaExtension)
    return std::nullopt;
  const std::size_t end = std::min<std::size_t>(extension[2], kBlockSize);
  for (std::size_t at = kCtaDataStart; at < end;) {
    const std::size_t size = (extension[at] & 0x1fU) + 1U;
    if (at + size > end)
      break;
    if (const auto address = address_in_block(extension.subspan(at, size)))
      return address;
    at += size;
  }
  return std::nullopt;
}

std::optional<std::uint16_t> physical_address_in(std::span<const std::uint8_t> edid) {
  for (std::size_t at = kBlockSize; at + kBlockSize <= edid.size(); at += kBlockSize)
    if (const auto address = address_in_extension(edid.subspan(at, kBlockSize)))
      return address;
  return std::nullopt;
}

static bool is_connected(const fs::path &output) {
  std::string status;
  return (std::ifstream(output / "status") >> status) && status == "connected";
}

std::optional<std::uint16_t> physical_address_of_output() {
  std::error_code none;
  std::vector<fs::path> outputs;
  for (const auto &entry : fs::directory_iterator(kOutputs, none))
    outputs.push_back(entry.path());
  std::ranges::sort(outputs);
  for (const fs::path &output : outputs) {
    if (!is_connected(output))
      continue;
    std::ifstream file(output / "edid", std::ios::binary);
    const std::vector<std::uint8_t> edid{std::istreambuf_iterator<char>(file), {}};
    if (const auto address = physical_address_in(edid))
      return address;
  }
  return std::nullopt;
}
