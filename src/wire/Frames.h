#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// The scale's command frames, written to its command characteristic: an opcode,
// optionally followed by one data byte. Pure functions, no allocation.
namespace plenk::wire {

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

}  // namespace plenk::wire
