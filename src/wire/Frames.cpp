#include "wire/Frames.h"

namespace plenk::wire {

namespace {

constexpr std::uint8_t kTimerOff = 0x00;
constexpr std::uint8_t kTimerOn = 0x01;
constexpr std::uint8_t kTimerOnDefaultOn = 0x03;
constexpr std::uint8_t kTimerAutoStartOn = 0x01;
// High nibble 3 is what the record reports as "auto-start off"; bit 0 keeps the timer on.
constexpr std::uint8_t kTimerAutoStartOff = 0x31;
constexpr std::uint8_t kDefaultConfig09Data = 0x01;

}  // namespace

Frame tareFrame() noexcept {
    return frame(kOpTare);
}
Frame calibrateFrame(std::uint8_t value) noexcept {
    return frame(kOpCalibrate, value);
}
Frame unitFrame(std::int32_t unit) noexcept {
    return frame(unit == 1 ? kOpUnit3 : kOpUnit2);
}

Frame timerFrame(bool on, bool defaultOn) noexcept {
    return frame(kOpTimer, !on ? kTimerOff : (defaultOn ? kTimerOnDefaultOn : kTimerOn));
}

Frame timerAutoStartFrame(bool autoStart) noexcept {
    return frame(kOpTimer, autoStart ? kTimerAutoStartOn : kTimerAutoStartOff);
}

Frame powerEnhancedFrame(bool enhanced) noexcept {
    return frame(kOpPowerEnhanced, enhanced ? 0x01 : 0x00);
}

Frame sleepTimeFrame(std::int32_t level, std::int32_t mode) noexcept {
    return frame(mode == 0 ? kOpSleepMode0 : kOpSleepMode1, clampLevel(level));
}

Frame advertisingTimeFrame(std::int32_t level, std::int32_t mode) noexcept {
    return frame(mode == 0 ? kOpAdvertisingMode0 : kOpAdvertisingMode1, clampLevel(level));
}

Frame firmwareDisconnectFrame() noexcept {
    return frame(kOpFirmwareDisconnect);
}
Frame synchronizeFrame() noexcept {
    return frame(kOpSynchronize);
}
Frame dfuFrame() noexcept {
    return frame(kOpDfu, kDfuMagic);
}
Frame firmwareVersionFrame() noexcept {
    return frame(kOpFirmwareVersion);
}
Frame indicationLedFrame(bool on) noexcept {
    return frame(kOpDisplayControl, on ? 0x01 : 0x00);
}
Frame engineeringModeFrame(bool on) noexcept {
    return frame(kOpDisplayControl, on ? 0x11 : 0x10);
}

Frame segmentBlockFrame(std::uint8_t block, std::uint8_t value) noexcept {
    return frame(static_cast<std::uint8_t>(kOpSegmentBlockBase | (block & 0x07)), value);
}

Frame segmentPresetFrame(std::uint8_t preset) noexcept {
    return frame(kOpSegmentPreset, preset);
}
Frame segmentUpdateFrame() noexcept {
    return frame(kOpSegmentUpdate);
}
Frame segmentReleaseFrame() noexcept {
    return frame(kOpSegmentRelease);
}
Frame segmentSwitchFrame(bool on) noexcept {
    return frame(on ? kOpSegmentOn : kOpSegmentOff);
}

FrameList ledDisplayFrames(bool on) noexcept {
    FrameList list;
    if (on) {
        // The display is handed back to the scale before it is switched on.
        list.frames[list.count++] = segmentReleaseFrame();
        list.frames[list.count++] = segmentSwitchFrame(true);
    } else {
        list.frames[list.count++] = segmentSwitchFrame(false);
    }
    return list;
}

FrameList defaultConfigurationFrames() noexcept {
    FrameList list;
    for (const Frame& f : {unitFrame(1), timerFrame(false, false), sleepTimeFrame(0, 1), sleepTimeFrame(0, 0),
                           advertisingTimeFrame(0, 1), advertisingTimeFrame(0, 0),
                           frame(kOpDefaultConfig09, kDefaultConfig09Data), synchronizeFrame()}) {
        list.frames[list.count++] = f;
    }
    return list;
}

std::uint8_t clampLevel(std::int32_t level) noexcept {
    return (level >= 1 && level <= 3) ? static_cast<std::uint8_t>(level) : std::uint8_t{0};
}

}  // namespace plenk::wire
