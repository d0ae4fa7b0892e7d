#pragma once

#include <cstdint>

namespace plenk {

// The scale's 15-byte configuration record, as read from its info characteristic.
struct RKConfigurationRecord {
    char leadingBytes[9];
    char timerByte;
    char byte10;
    char byte11;
    char byte12;
    char trailingBytes[2];
};
static_assert(sizeof(RKConfigurationRecord) == 15);

// The record decoded field by field (BOOL fields hold 0 or 1).
struct RKConfiguration {
    std::int32_t timerOn;
    bool timerDefaultOn;
    std::int32_t timerBit2;
    bool timerAutoStart;
    bool byte12HighSet;
    std::int32_t timerHighNibble;
    std::int32_t byte10High;
    std::int32_t byte10Low;
    std::int32_t byte11High;
    std::int32_t byte11Low;
    std::int32_t byte12Low;

    friend bool operator==(const RKConfiguration&, const RKConfiguration&) = default;
};

}  // namespace plenk
