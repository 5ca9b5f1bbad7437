// The physical address that a television gives the output it is connected to.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

// Of the first connected output that has one.
std::optional<std::uint16_t> physical_address_of_output();

// From the block that HDMI defines.
std::optional<std::uint16_t> physical_address_in(std::span<const std::uint8_t> edid);
