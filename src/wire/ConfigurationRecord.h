#pragma once

#include <cstdint>
#include <span>

#include <PlenkKit/RKConfiguration.h>

// The configuration record the scale serves on its info characteristic.
namespace plenk::wire {

// The first 15 bytes of an info value (missing bytes 0x00).
RKConfigurationRecord recordFromBytes(std::span<const std::uint8_t> value) noexcept;
// Bytes 10, 11 and 12 all 0xFF.
bool isUnconfigured(const RKConfigurationRecord& record) noexcept;
RKConfiguration decodeConfiguration(const RKConfigurationRecord& record) noexcept;

}  // namespace plenk::wire
