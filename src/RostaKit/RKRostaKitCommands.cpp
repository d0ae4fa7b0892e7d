// The kit's commands to the scale, its configuration exchanges and battery
// read, and the weight, button and battery events coming back.

#include <utility>

#include "RostaKit/RKRostaKitCore.h"
#include "wire/Frames.h"

namespace plenk {

// --- Commands: forwarded to the current device, dropped without one ------------------------

void RKRostaKitCore::tare() {
    withDevice([](RKDevice& d) { d.tare(); });
}

void RKRostaKitCore::calibrate(std::uint8_t value) {
    withDevice([&](RKDevice& d) { d.calibrate(value); });
}

void RKRostaKitCore::sevenSegmentCommand(std::uint8_t command, std::uint8_t andData) {
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(command, andData); });
}

void RKRostaKitCore::sevenSegmentBlock(std::uint8_t block, std::uint8_t andValue) {
    const auto command = static_cast<std::uint8_t>(wire::kOpSegmentBlockBase | (block & 0x07));
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(command, andValue); });
}

void RKRostaKitCore::sevenSegmentPreset(std::uint8_t value) {
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(wire::kOpSegmentPreset, value); });
}

void RKRostaKitCore::sevenSegmentUpdate() {
    withDevice([](RKDevice& d) { d.sevenSegmentCommand(wire::kOpSegmentUpdate); });
}

void RKRostaKitCore::sevenSegmentReleaseControl() {
    withDevice([](RKDevice& d) { d.sevenSegmentCommand(wire::kOpSegmentRelease); });
}

void RKRostaKitCore::sevenSegmentSwitchOn(bool on) {
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(on ? wire::kOpSegmentOn : wire::kOpSegmentOff); });
}

void RKRostaKitCore::getFWVersion() {
    withDevice([](RKDevice& d) { d.sevenSegmentCommand(wire::kOpFirmwareVersion); });
}

// The indication LED and the engineering mode share display sub-command 0x01:
// the LED uses data 0/1, the engineering mode 0x10/0x11.
void RKRostaKitCore::indicationLEDSwitchOn(bool on) {
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(wire::kOpDisplayControl, on ? 0x01 : 0x00); });
}

void RKRostaKitCore::setEngineeringMode(bool on) {
    withDevice([&](RKDevice& d) { d.sevenSegmentCommand(wire::kOpDisplayControl, on ? 0x11 : 0x10); });
}

void RKRostaKitCore::setAdvertisingTime(std::int32_t time, std::int32_t mode) {
    withDevice([&](RKDevice& d) { d.setAdvertisingTime(time, mode); });
}

void RKRostaKitCore::setSleepTime(std::int32_t time, std::int32_t mode) {
    withDevice([&](RKDevice& d) { d.setSleepTime(time, mode); });
}

void RKRostaKitCore::setTimerOn(bool on, bool defaultOn) {
    withDevice([&](RKDevice& d) { d.setTimerOn(on, defaultOn); });
}

void RKRostaKitCore::setTimerAutoStart(bool autoStart) {
    withDevice([&](RKDevice& d) { d.setTimerAutoStart(autoStart); });
}

void RKRostaKitCore::setBLEPowerEnhanced(bool enhanced) {
    withDevice([&](RKDevice& d) { d.setBLEPowerEnhanced(enhanced); });
}

void RKRostaKitCore::setLEDDisplayOn(bool on) {
    withDevice([&](RKDevice& d) { d.setLEDDisplayOn(on); });
}

void RKRostaKitCore::setUnit(std::int32_t unit) {
    withDevice([&](RKDevice& d) { d.setUnit(unit != 0 ? 1 : 0); });
}

void RKRostaKitCore::setFWDisconnect() {
    withDevice([](RKDevice& d) { d.setFWDisconnect(); });
}

// --- Exchanges: the device's answer is handed to the host on the main queue ----------------

void RKRostaKitCore::initializeConfiguration(ResultCompletion completion) {
    withDevice([&](RKDevice& d) {
        d.initializeConfiguration(
            [queue = mainQueue_, completion = std::move(completion)](bool ok, ErrorPtr error) {
                queue.post([completion, ok, error = std::move(error)] {
                    if (completion) completion(ok, error);
                });
            });
    });
}

void RKRostaKitCore::synchronize(ResultCompletion completion) {
    withDevice([&](RKDevice& d) {
        d.synchronize([queue = mainQueue_, log = context_.log, completion = std::move(completion)](
                          bool ok, ErrorPtr error) {
            log->write("\n did sync in rosta");
            queue.post([completion, ok, error = std::move(error)] {
                if (completion) completion(ok, error);
            });
        });
    });
}

void RKRostaKitCore::readConfiguration(ConfigurationCompletion completion) {
    withDevice([&](RKDevice& d) {
        d.readConfiguration(
            [queue = mainQueue_, completion = std::move(completion)](RKConfiguration configuration) {
                queue.post([completion, configuration] {
                    if (completion) completion(configuration);
                });
            });
    });
}

void RKRostaKitCore::readRostaBatteryLifeWithCompletion(BatteryCompletion completion) {
    Scope scope(*this);
    if (!currentDevice_) return;
    currentDevice_->readBatteryState();
    // A pending request is replaced; its completion is never called.
    std::swap(batteryCompletion_, completion);
    later([replaced = std::move(completion)] {});
}

// --- Device events -----------------------------------------------------------------------------

void RKRostaKitCore::batteryLifeOnDevice(std::int64_t level, CSRDevice&) {
    mainQueue_.post([weak = weak_from_this(), level] {
        auto kit = weak.lock();
        if (!kit) return;
        BatteryCompletion completion;
        {
            Scope scope(*kit);
            std::swap(completion, kit->batteryCompletion_);
        }
        if (completion) completion(level);
    });
}

// The weight path: one task per reading, holding a weak pointer and the float.
void RKRostaKitCore::deviceDidUpdateWeight(RKDevice&, float weight) {
    auto task = toDelegate(weak_from_this(),
                           [weight](RKRostaDelegate& d, RKRostaKit&) { d.rostaWeightDidUpdate(weight); });
    static_assert(sizeof(task) <= Task::kInlineSize, "the weight path must not allocate");
    mainQueue_.post(std::move(task));
}

void RKRostaKitCore::deviceDidClickButton(RKDevice& device, std::uint64_t button) {
    // Every press also refreshes the battery level; the answer reaches a
    // pending battery completion, if any.
    device.readBatteryState();
    mainQueue_.post(toDelegate(weak_from_this(), [button](RKRostaDelegate& d, RKRostaKit&) {
        d.rostaDeviceDidClickButton(button);
    }));
}

}  // namespace plenk
