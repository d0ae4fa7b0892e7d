#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include <PlenkKit/RKConfiguration.h>

#include "bt/Uuid.h"

// The scale's own GATT service: identifiers, command frames, weight and button
// packets and the configuration record. Pure functions, no allocation; every
// decoder reads only the bytes it is given (missing bytes count as 0x00).
namespace plenk::wire {

inline const bt::Uuid kScaleService = bt::Uuid::from16(0xFF08);
inline const bt::Uuid kCommandCharacteristic = bt::Uuid::from16(0xEF80);  // write with response
inline const bt::Uuid kDataCharacteristic = bt::Uuid::from16(0xEF81);     // weight notifications
inline const bt::Uuid kControlCharacteristic = bt::Uuid::from16(0xEF82);  // button notifications
inline const bt::Uuid kInfoCharacteristic = bt::Uuid::from16(0xEF83);     // configuration record
// Firmware-update bootloader service, and the name it advertises.
// 00001530-1212-EFDE-1523-785FEABCD123, spelled out: static initialisation must not throw.
inline constexpr bt::Uuid kDfuService{std::array<std::uint8_t, 16>{
    0x00, 0x00, 0x15, 0x30, 0x12, 0x12, 0xEF, 0xDE, 0x15, 0x23, 0x78, 0x5F, 0xEA, 0xBC, 0xD1, 0x23}};
inline constexpr std::string_view kDfuTargetName = "DfuTarg";

// Opcodes.
enum Opcode : std::uint8_t {
    kOpFirmwareVersion = 0x00,
    kOpDisplayControl = 0x01,  // LED 00/01, engineering mode 10/11
    kOpUnit2 = 0x02,
    kOpUnit3 = 0x03,
    kOpSynchronize = 0x04,
    kOpSleepMode0 = 0x05,
    kOpSleepMode1 = 0x06,
    kOpAdvertisingMode0 = 0x07,
    kOpAdvertisingMode1 = 0x08,
    kOpDefaultConfig09 = 0x09,
    kOpTimer = 0x0A,
    kOpPowerEnhanced = 0x0B,
    kOpTare = 0x10,
    kOpDfu = 0xAA,
    kOpCalibrate = 0xCA,
    kOpSegmentBlockBase = 0xE0,  // E0..E7
    kOpSegmentUpdate = 0xEA,
    kOpSegmentPreset = 0xEB,
    kOpSegmentRelease = 0xEC,
    kOpSegmentOn = 0xED,
    kOpSegmentOff = 0xEE,
    kOpFirmwareDisconnect = 0xF1,
};
inline constexpr std::uint8_t kDfuMagic = 0x55;

// One command frame: an opcode, optionally followed by one data byte.
struct Frame {
    std::array<std::uint8_t, 2> bytes{};
    std::uint8_t size = 0;

    std::span<const std::uint8_t> span() const noexcept { return {bytes.data(), size}; }
    friend bool operator==(const Frame&, const Frame&) = default;
};

constexpr Frame frame(std::uint8_t opcode) noexcept {
    return Frame{{opcode, 0}, 1};
}
constexpr Frame frame(std::uint8_t opcode, std::uint8_t data) noexcept {
    return Frame{{opcode, data}, 2};
}

// Frame builders, one per command the scale knows.
Frame tareFrame() noexcept;
Frame calibrateFrame(std::uint8_t value) noexcept;
Frame unitFrame(std::int32_t unit) noexcept;                                 // 03 for exactly 1, else 02
Frame timerFrame(bool on, bool defaultOn) noexcept;                          // 0A 00 / 0A 01 / 0A 03
Frame timerAutoStartFrame(bool autoStart) noexcept;                          // 0A 01 / 0A 31
Frame powerEnhancedFrame(bool enhanced) noexcept;                            // 0B 01 / 0B 00
Frame sleepTimeFrame(std::int32_t level, std::int32_t mode) noexcept;        // 05 L (mode 0) / 06 L
Frame advertisingTimeFrame(std::int32_t level, std::int32_t mode) noexcept;  // 07 L (mode 0) / 08 L
Frame firmwareDisconnectFrame() noexcept;                                    // F1
Frame synchronizeFrame() noexcept;                                           // 04
Frame dfuFrame() noexcept;                                                   // AA 55
Frame firmwareVersionFrame() noexcept;                                       // 00
Frame indicationLedFrame(bool on) noexcept;                                  // 01 01 / 01 00
Frame engineeringModeFrame(bool on) noexcept;                                // 01 11 / 01 10
Frame segmentBlockFrame(std::uint8_t block, std::uint8_t value) noexcept;    // (E0 | block&7) V
Frame segmentPresetFrame(std::uint8_t preset) noexcept;                      // EB P
Frame segmentUpdateFrame() noexcept;                                         // EA
Frame segmentReleaseFrame() noexcept;                                        // EC
Frame segmentSwitchFrame(bool on) noexcept;                                  // ED / EE
// The LED display switch: on is EC then ED (two writes), off is EE.
struct FrameList {
    std::array<Frame, 8> frames{};
    std::size_t count = 0;
    std::span<const Frame> span() const noexcept { return {frames.data(), count}; }
};
FrameList ledDisplayFrames(bool on) noexcept;
// Sent when the scale reports an unconfigured record: 03; 0A 00; 06 00; 05 00;
// 08 00; 07 00; 09 01; 04.
FrameList defaultConfigurationFrames() noexcept;

// Level byte of opcodes 05..08: 1, 2 and 3 as themselves, anything else 0.
std::uint8_t clampLevel(std::int32_t level) noexcept;

// Weight from a value of the data characteristic, by the peripheral's name:
// "Coffee" → decimal text / 10; else "Plenk" → binary mantissa × 10^exponent;
// else 0.0.
float decodeWeight(std::optional<std::string_view> peripheralName,
                   std::span<const std::uint8_t> value) noexcept;
float decodeTextWeight(std::span<const std::uint8_t> value) noexcept;
float decodeBinaryWeight(std::span<const std::uint8_t> value) noexcept;
// The lenient text-to-float rule: leading white space, optional sign, digits,
// optional point and exponent; stops at the first misfit; nothing parsed or
// invalid UTF-8 gives 0. Reads up to a NUL byte or the end of the value.
float lenientTextToFloat(std::span<const std::uint8_t> text) noexcept;

// Button number from a value of the control characteristic: 01 → 0, 02 → 1,
// anything else (or an empty value) → none.
std::optional<std::uint64_t> decodeButton(std::span<const std::uint8_t> value) noexcept;

// The first 15 bytes of an info value (missing bytes 0x00).
RKConfigurationRecord recordFromBytes(std::span<const std::uint8_t> value) noexcept;
// Bytes 10, 11 and 12 all 0xFF.
bool isUnconfigured(const RKConfigurationRecord& record) noexcept;
RKConfiguration decodeConfiguration(const RKConfigurationRecord& record) noexcept;

// Encoders, the scale's side (used by the emulator and by tests).
// Binary weight packet: byte 0 (flags), mantissa/exponent, second value.
std::array<std::uint8_t, 9> encodeBinaryWeight(std::int32_t mantissa, std::int8_t exponent,
                                               std::int32_t secondMantissa = 0,
                                               std::int8_t secondExponent = 0) noexcept;

}  // namespace plenk::wire
