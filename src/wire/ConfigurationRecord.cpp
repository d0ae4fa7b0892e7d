#include "wire/ConfigurationRecord.h"

#include <algorithm>
#include <cstring>

namespace plenk::wire {

RKConfigurationRecord recordFromBytes(std::span<const std::uint8_t> value) noexcept {
    RKConfigurationRecord record{};
    if (!value.empty()) std::memcpy(&record, value.data(), std::min(value.size(), sizeof record));
    return record;
}

bool isUnconfigured(const RKConfigurationRecord& record) noexcept {
    return static_cast<std::uint8_t>(record.byte10) == 0xFF &&
           static_cast<std::uint8_t>(record.byte11) == 0xFF &&
           static_cast<std::uint8_t>(record.byte12) == 0xFF;
}

RKConfiguration decodeConfiguration(const RKConfigurationRecord& record) noexcept {
    // Bytes are taken as signed chars and shifted arithmetically; only the timer's
    // high nibble is left unmasked to 4 bits, so 0x90 gives 0xF9 (249) there.
    const int timer = static_cast<signed char>(record.timerByte);
    const int b10 = static_cast<signed char>(record.byte10);
    const int b11 = static_cast<signed char>(record.byte11);
    const int b12 = static_cast<signed char>(record.byte12);
    const auto high = [](int b) { return (b >> 4) & 0x0F; };
    const auto low = [](int b) { return b & 0x0F; };

    RKConfiguration c{};
    c.timerOn = timer & 1;
    c.timerDefaultOn = ((timer >> 1) & 1) != 0;
    c.timerBit2 = (timer >> 2) & 1;
    c.timerHighNibble = (timer >> 4) & 0xFF;
    c.timerAutoStart = c.timerHighNibble != 3;
    c.byte12HighSet = high(b12) != 0;
    c.byte10High = high(b10);
    c.byte10Low = low(b10);
    c.byte11High = high(b11);
    c.byte11Low = low(b11);
    c.byte12Low = low(b12);
    return c;
}

}  // namespace plenk::wire
