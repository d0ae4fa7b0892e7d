// Configuration records of any length: decoded fields stay in their ranges.
#include <cstddef>
#include <cstdint>
#include <span>

#include "wire/ConfigurationRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto record = plenk::wire::recordFromBytes(std::span<const std::uint8_t>(data, size));
    const auto c = plenk::wire::decodeConfiguration(record);
    const bool unconfigured = plenk::wire::isUnconfigured(record);
    const auto nibble = [](std::int32_t v) { return v >= 0 && v <= 15; };
    if (!nibble(c.byte10High) || !nibble(c.byte10Low) || !nibble(c.byte11High) || !nibble(c.byte11Low) ||
        !nibble(c.byte12Low) || c.timerOn < 0 || c.timerOn > 1 || c.timerBit2 < 0 || c.timerBit2 > 1 ||
        c.timerHighNibble < 0 || c.timerHighNibble > 255) {
        __builtin_trap();
    }
    if (unconfigured && (size < 13 || data[10] != 0xFF || data[11] != 0xFF || data[12] != 0xFF))
        __builtin_trap();
    return 0;
}
