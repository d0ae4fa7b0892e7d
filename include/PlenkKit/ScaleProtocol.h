#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <PlenkKit/Export.h>
#include <PlenkKit/RKConfiguration.h>

// The scale's wire format for hosts that speak to it themselves (a logger, a
// test rig, a command-line tool): the command frames the library writes, and the
// decoders it applies to what the scale notifies. The library's own code, as a
// value API: every function is pure and gives the same bytes the kit sends.
namespace plenk::protocol {

// One write to the command characteristic: an opcode, optionally followed by
// one data byte.
struct Frame {
    std::vector<std::uint8_t> bytes;
    friend bool operator==(const Frame&, const Frame&) = default;
};

// Command frames, one per command the scale knows (bytes in hex).
PLENK_EXPORT Frame tareFrame();                                                  // 10
PLENK_EXPORT Frame calibrateFrame(std::uint8_t value);                           // CA V
PLENK_EXPORT Frame unitFrame(std::int32_t unit);                                 // 03 for exactly 1, else 02
PLENK_EXPORT Frame timerFrame(bool on, bool defaultOn);                          // 0A 00 / 0A 01 / 0A 03
PLENK_EXPORT Frame timerAutoStartFrame(bool autoStart);                          // 0A 01 / 0A 31
PLENK_EXPORT Frame powerEnhancedFrame(bool enhanced);                            // 0B 01 / 0B 00
PLENK_EXPORT Frame sleepTimeFrame(std::int32_t level, std::int32_t mode);        // 05 L (mode 0) / 06 L
PLENK_EXPORT Frame advertisingTimeFrame(std::int32_t level, std::int32_t mode);  // 07 L (mode 0) / 08 L
PLENK_EXPORT Frame firmwareDisconnectFrame();                                    // F1
PLENK_EXPORT Frame synchronizeFrame();                                           // 04
PLENK_EXPORT Frame dfuFrame();                                                   // AA 55
PLENK_EXPORT Frame firmwareVersionFrame();                                       // 00
PLENK_EXPORT Frame indicationLedFrame(bool on);                                  // 01 01 / 01 00
PLENK_EXPORT Frame engineeringModeFrame(bool on);                                // 01 11 / 01 10
PLENK_EXPORT Frame segmentBlockFrame(std::uint8_t block, std::uint8_t value);    // (E0 | block&7) V
PLENK_EXPORT Frame segmentPresetFrame(std::uint8_t preset);                      // EB P
PLENK_EXPORT Frame segmentUpdateFrame();                                         // EA
PLENK_EXPORT Frame segmentReleaseFrame();                                        // EC
PLENK_EXPORT Frame segmentSwitchFrame(bool on);                                  // ED / EE
PLENK_EXPORT Frame rawFrame(std::uint8_t opcode);                                // C
PLENK_EXPORT Frame rawFrame(std::uint8_t opcode, std::uint8_t data);             // C D
// Level L of opcodes 05..08: 1, 2 and 3 as themselves, anything else 00.

// Commands written as several frames, in order.
PLENK_EXPORT std::vector<Frame> ledDisplayFrames(bool on);  // on: EC, ED; off: EE
// Written to a scale that reports an unconfigured record: 03; 0A 00; 06 00;
// 05 00; 08 00; 07 00; 09 01; 04.
PLENK_EXPORT std::vector<Frame> defaultConfigurationFrames();

// Weight from a value of the data characteristic, by the scale's advertised
// name: a name containing "Coffee" → decimal text / 10; else one containing
// "Plenk" → binary 24-bit mantissa (bytes 1..3) × 10^exponent (byte 4); no name
// or any other → 0.0. Missing bytes count as 00.
PLENK_EXPORT float decodeWeight(std::optional<std::string_view> advertisedName,
                                std::span<const std::uint8_t> value);
// Button number from a value of the control characteristic: 01 → 0, 02 → 1,
// anything else (or an empty value) → none.
PLENK_EXPORT std::optional<std::uint64_t> decodeButton(std::span<const std::uint8_t> value);

// The record from the first 15 bytes of an info value (missing bytes 00,
// extra bytes ignored).
PLENK_EXPORT RKConfigurationRecord configurationRecord(std::span<const std::uint8_t> value);
// Bytes 10, 11 and 12 all FF: the scale wants the default configuration.
PLENK_EXPORT bool isUnconfigured(const RKConfigurationRecord& record);
PLENK_EXPORT RKConfiguration decodeConfiguration(const RKConfigurationRecord& record);

}  // namespace plenk::protocol
