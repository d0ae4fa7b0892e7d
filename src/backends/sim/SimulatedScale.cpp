// The public script handle of one simulated scale: a thin layer over the
// world's VirtualPeripheral and the firmware emulator behind it.

#include <PlenkKit/Simulator.h>

#include <stdexcept>

#include "backends/sim/VirtualPeripheral.h"
#include "wire/GattUuids.h"

namespace plenk {

namespace {

bt::Uuid serviceUuid(Simulator::Service service) {
    switch (service) {
        case Simulator::Service::Scale:
            return wire::kScaleService;
        case Simulator::Service::Battery:
            return wire::kBatteryService;
        case Simulator::Service::DeviceInformation:
            return wire::kDeviceInformationService;
    }
    throw std::invalid_argument("plenk::Simulator: unknown service");
}

struct CharacteristicEntry {
    Simulator::Characteristic role;
    Simulator::Service service;
    bt::Uuid uuid;
};

constexpr CharacteristicEntry kCharacteristics[] = {
    {Simulator::Characteristic::Command, Simulator::Service::Scale, wire::kCommandCharacteristic},
    {Simulator::Characteristic::Weight, Simulator::Service::Scale, wire::kDataCharacteristic},
    {Simulator::Characteristic::Button, Simulator::Service::Scale, wire::kControlCharacteristic},
    {Simulator::Characteristic::Configuration, Simulator::Service::Scale, wire::kInfoCharacteristic},
    {Simulator::Characteristic::BatteryLevel, Simulator::Service::Battery, wire::kBatteryLevel},
    {Simulator::Characteristic::ManufacturerName, Simulator::Service::DeviceInformation,
     wire::kManufacturerName},
    {Simulator::Characteristic::ModelNumber, Simulator::Service::DeviceInformation, wire::kModelNumber},
    {Simulator::Characteristic::HardwareRevision, Simulator::Service::DeviceInformation,
     wire::kHardwareRevision},
    {Simulator::Characteristic::FirmwareRevision, Simulator::Service::DeviceInformation,
     wire::kFirmwareRevision},
    {Simulator::Characteristic::SoftwareRevision, Simulator::Service::DeviceInformation,
     wire::kSoftwareRevision},
};

const CharacteristicEntry& entryFor(Simulator::Characteristic role) {
    for (const auto& entry : kCharacteristics) {
        if (entry.role == role) return entry;
    }
    throw std::invalid_argument("plenk::Simulator: unknown characteristic");
}

sim::ConnectResult connectResult(Simulator::ConnectOutcome outcome) {
    switch (outcome.kind) {
        case Simulator::ConnectOutcome::Kind::Succeed:
            return sim::ConnectResult::succeed();
        case Simulator::ConnectOutcome::Kind::Fail:
            return sim::ConnectResult::fail(std::move(outcome.error));
        case Simulator::ConnectOutcome::Kind::Hang:
            return sim::ConnectResult::hang();
    }
    throw std::invalid_argument("plenk::Simulator: unknown connect outcome");
}

}  // namespace

using Scale = Simulator::Scale;

std::string Scale::name() const {
    return device_ ? device_->name().value_or(std::string()) : std::string();
}

Uuid Scale::identifier() const {
    return device_ ? device_->identifier() : Uuid();
}

void Scale::setName(const std::string& name) {
    if (device_) device_->setName(name);
}

void Scale::setInRange(bool inRange) {
    if (device_) device_->setInRange(inRange);
}

void Scale::dropLink(ErrorPtr error) {
    if (device_) device_->dropLink(std::move(error));
}

bool Scale::isConnected() const {
    return device_ && device_->linkCount() > 0;
}

void Scale::setConnectOutcome(ConnectOutcome outcome) {
    if (device_) device_->setConnectResult(connectResult(std::move(outcome)));
}

void Scale::queueConnectOutcome(ConnectOutcome outcome) {
    if (device_) device_->queueConnectResult(connectResult(std::move(outcome)));
}

void Scale::failServiceDiscovery(ErrorPtr error) {
    if (device_) device_->failServiceDiscovery(std::move(error));
}

void Scale::failCharacteristicDiscovery(Service service, ErrorPtr error) {
    if (device_) device_->failCharacteristicDiscovery(serviceUuid(service), std::move(error));
}

void Scale::failReads(Characteristic characteristic, ErrorPtr error) {
    if (device_) device_->failReads(entryFor(characteristic).uuid, std::move(error));
}

void Scale::failWrites(Characteristic characteristic, ErrorPtr error) {
    if (device_) device_->failWrites(entryFor(characteristic).uuid, std::move(error));
}

void Scale::removeCharacteristic(Characteristic characteristic) {
    const auto& entry = entryFor(characteristic);
    if (device_) device_->removeCharacteristic(serviceUuid(entry.service), entry.uuid);
}

void Scale::pressButton(int button) {
    if (button != 0 && button != 1) {
        throw std::invalid_argument(
            "plenk::Simulator::Scale::pressButton: the scale has buttons 0 and 1, not " +
            std::to_string(button));
    }
    if (device_) device_->pressButton(button);
}

void Scale::setBatteryLevel(int percent) {
    if (device_) device_->setBatteryLevel(percent);
}

void Scale::startPour(double grams) {
    if (!device_) return;
    const auto now = device_->clock()->now();
    device_->withScale([&](emulator::ScaleEmulator& scale) { scale.startPour(now, grams); });
}

void Scale::stopPour() {
    if (!device_) return;
    const auto now = device_->clock()->now();
    device_->withScale([&](emulator::ScaleEmulator& scale) { scale.stopPour(now); });
}

void Scale::addLoad(double grams) {
    if (!device_) return;
    device_->withScale([&](emulator::ScaleEmulator& scale) { scale.addLoad(grams); });
}

double Scale::displayedGrams() const {
    if (!device_) return 0.0;
    const auto now = device_->clock()->now();
    double grams = 0.0;
    device_->withScale(
        [&](emulator::ScaleEmulator& scale) { grams = scale.grossAt(now) - scale.tareOffset(); });
    return grams;
}

std::size_t Scale::tareCount() const {
    std::size_t tares = 0;
    if (device_) device_->withScale([&](emulator::ScaleEmulator& scale) { tares = scale.counters().tares; });
    return tares;
}

std::vector<std::vector<std::uint8_t>> Scale::receivedCommands() const {
    std::vector<std::vector<std::uint8_t>> frames;
    if (!device_) return frames;
    for (const auto& write : device_->writes()) {
        if (write.characteristic == wire::kCommandCharacteristic) {
            const auto bytes = write.value.span();
            frames.emplace_back(bytes.begin(), bytes.end());
        }
    }
    return frames;
}

bool Scale::isConfigured() const {
    bool configured = false;
    if (device_) {
        device_->withScale([&](emulator::ScaleEmulator& scale) { configured = scale.isConfigured(); });
    }
    return configured;
}

void Scale::restartIntoUpdateMode() {
    if (device_) device_->restartIntoUpdateMode();
}

void Scale::finishFirmwareUpdate() {
    if (device_) device_->finishFirmwareUpdate();
}

bool Scale::inUpdateMode() const {
    return device_ && device_->inUpdateMode();
}

}  // namespace plenk
