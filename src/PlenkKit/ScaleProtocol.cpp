// The public face of the wire format: each function hands the internal
// builder's or decoder's answer over in the host's value types.
#include <PlenkKit/ScaleProtocol.h>

#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
#include "wire/Notifications.h"

namespace plenk::protocol {

namespace {

Frame of(const wire::Frame& frame) {
    const auto bytes = frame.span();
    return Frame{{bytes.begin(), bytes.end()}};
}

std::vector<Frame> of(const wire::FrameList& list) {
    std::vector<Frame> frames;
    frames.reserve(list.count);
    for (const wire::Frame& frame : list.span()) frames.push_back(of(frame));
    return frames;
}

}  // namespace

Frame tareFrame() {
    return of(wire::tareFrame());
}
Frame calibrateFrame(std::uint8_t value) {
    return of(wire::calibrateFrame(value));
}
Frame unitFrame(std::int32_t unit) {
    return of(wire::unitFrame(unit));
}
Frame timerFrame(bool on, bool defaultOn) {
    return of(wire::timerFrame(on, defaultOn));
}
Frame timerAutoStartFrame(bool autoStart) {
    return of(wire::timerAutoStartFrame(autoStart));
}
Frame powerEnhancedFrame(bool enhanced) {
    return of(wire::powerEnhancedFrame(enhanced));
}
Frame sleepTimeFrame(std::int32_t level, std::int32_t mode) {
    return of(wire::sleepTimeFrame(level, mode));
}
Frame advertisingTimeFrame(std::int32_t level, std::int32_t mode) {
    return of(wire::advertisingTimeFrame(level, mode));
}
Frame firmwareDisconnectFrame() {
    return of(wire::firmwareDisconnectFrame());
}
Frame synchronizeFrame() {
    return of(wire::synchronizeFrame());
}
Frame dfuFrame() {
    return of(wire::dfuFrame());
}
Frame firmwareVersionFrame() {
    return of(wire::firmwareVersionFrame());
}
Frame indicationLedFrame(bool on) {
    return of(wire::indicationLedFrame(on));
}
Frame engineeringModeFrame(bool on) {
    return of(wire::engineeringModeFrame(on));
}
Frame segmentBlockFrame(std::uint8_t block, std::uint8_t value) {
    return of(wire::segmentBlockFrame(block, value));
}
Frame segmentPresetFrame(std::uint8_t preset) {
    return of(wire::segmentPresetFrame(preset));
}
Frame segmentUpdateFrame() {
    return of(wire::segmentUpdateFrame());
}
Frame segmentReleaseFrame() {
    return of(wire::segmentReleaseFrame());
}
Frame segmentSwitchFrame(bool on) {
    return of(wire::segmentSwitchFrame(on));
}
Frame rawFrame(std::uint8_t opcode) {
    return of(wire::frame(opcode));
}
Frame rawFrame(std::uint8_t opcode, std::uint8_t data) {
    return of(wire::frame(opcode, data));
}

std::vector<Frame> ledDisplayFrames(bool on) {
    return of(wire::ledDisplayFrames(on));
}
std::vector<Frame> defaultConfigurationFrames() {
    return of(wire::defaultConfigurationFrames());
}

float decodeWeight(std::optional<std::string_view> advertisedName, std::span<const std::uint8_t> value) {
    return wire::decodeWeight(advertisedName, value);
}
std::optional<std::uint64_t> decodeButton(std::span<const std::uint8_t> value) {
    return wire::decodeButton(value);
}

RKConfigurationRecord configurationRecord(std::span<const std::uint8_t> value) {
    return wire::recordFromBytes(value);
}
bool isUnconfigured(const RKConfigurationRecord& record) {
    return wire::isUnconfigured(record);
}
RKConfiguration decodeConfiguration(const RKConfigurationRecord& record) {
    return wire::decodeConfiguration(record);
}

}  // namespace plenk::protocol
