#include "ble/CSRDeviceCore.h"

#include <PlenkKit/RKErrors.h>

#include "dispatch/Guarded.h"
#include "wire/GattUuids.h"
#include "wire/Utf8.h"

#include <algorithm>
#include <utility>

namespace plenk {

namespace {

const std::optional<std::vector<bt::Uuid>>& batteryCharacteristicList() {
    static const std::optional<std::vector<bt::Uuid>> list{std::vector<bt::Uuid>{wire::kBatteryLevel}};
    return list;
}

const std::optional<std::vector<bt::Uuid>>& deviceInformationCharacteristicList() {
    static const std::optional<std::vector<bt::Uuid>> list{
        std::vector<bt::Uuid>{wire::kManufacturerName, wire::kModelNumber, wire::kHardwareRevision,
                              wire::kFirmwareRevision, wire::kSoftwareRevision}};
    return list;
}

}  // namespace

CSRDeviceDelegate::~CSRDeviceDelegate() = default;
void CSRDeviceDelegate::RSSIOnDevice(int, CSRDevice&) {}
void CSRDeviceDelegate::batteryLifeOnDevice(std::int64_t, CSRDevice&) {}
void CSRDeviceDelegate::updateDeviceCurrentStateOnDevice(std::int64_t, CSRDevice&) {}

CSRDevice::~CSRDevice() = default;

CSRDeviceCore::CSRDeviceCore(bt::PeripheralPtr peripheral) : peripheral_(std::move(peripheral)) {
    deviceName_ = peripheral_->name();
    queueLabel_ = deviceName_;
}

CSRDeviceCore::~CSRDeviceCore() = default;

std::shared_ptr<CSRDeviceCore> CSRDeviceCore::create(const PeripheralPtr& handle) {
    auto peripheral = bt::portPeripheral(handle);
    if (!peripheral) return nullptr;
    std::shared_ptr<CSRDeviceCore> device(new CSRDeviceCore(peripheral));
    device->attach();
    return device;
}

void CSRDeviceCore::attach() {
    becomeDelegateOf(portPeripheral());
}

void CSRDeviceCore::becomeDelegateOf(const bt::PeripheralPtr& peripheral) {
    if (peripheral) peripheral->setDelegate(std::weak_ptr<bt::PeripheralDelegate>(weak_from_this()));
}

void CSRDeviceCore::renewPeripheral(const PeripheralPtr& handle) {
    auto peripheral = bt::portPeripheral(handle);
    if (!peripheral) return;
    {
        std::lock_guard lock(mutex_);
        peripheral_ = peripheral;
    }
    becomeDelegateOf(peripheral);
}

void CSRDeviceCore::discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs) {
    if (auto p = portPeripheral()) p->discoverServices(serviceUUIDs);
}

void CSRDeviceCore::readRSSI() {
    if (auto p = portPeripheral()) p->readRSSI();
}

void CSRDeviceCore::readBatteryState() {
    bt::PeripheralPtr p;
    bt::CharacteristicPtr battery;
    {
        std::lock_guard lock(mutex_);
        p = peripheral_;
        battery = batteryChar_;
    }
    if (p && battery) p->readValueForCharacteristic(battery);
}

void CSRDeviceCore::readFirmwareVersionWithCompletion(FirmwareVersionCompletion completion) {
    bt::PeripheralPtr p;
    bt::CharacteristicPtr firmware;
    {
        std::lock_guard lock(mutex_);
        p = peripheral_;
        firmware = firmwareChar_;
        if (firmware) fwVersionBlock_ = std::move(completion);
    }
    if (firmware) {
        p->readValueForCharacteristic(firmware);
    } else if (completion) {  // NOLINT(bugprone-use-after-move): moved only when firmware is set
        completion(std::nullopt, Error::make<RKErrorDeviceNOCharacteristic>(std::string(kDeviceDomain),
                                                                            kDeviceCodeNoCharacteristic));
    }
}

std::optional<std::string> CSRDeviceCore::textFromValue(std::span<const std::uint8_t> value) {
    const auto end = std::find(value.begin(), value.end(), std::uint8_t{0});
    const auto text = value.first(static_cast<std::size_t>(end - value.begin()));
    if (!wire::isValidUtf8(text)) return std::nullopt;
    return std::string(text.begin(), text.end());
}

// Accessors.

std::optional<std::string> CSRDeviceCore::deviceName() const {
    return dispatch::loadLocked(mutex_, deviceName_);
}
void CSRDeviceCore::setDeviceName(std::optional<std::string> name) {
    dispatch::storeLocked(mutex_, deviceName_, std::move(name));
}
PeripheralPtr CSRDeviceCore::peripheral() const {
    return portPeripheral();
}
bt::PeripheralPtr CSRDeviceCore::portPeripheral() const {
    return dispatch::loadLocked(mutex_, peripheral_);
}
std::uint64_t CSRDeviceCore::currentState() const {
    return dispatch::loadLocked(mutex_, currentState_);
}
void CSRDeviceCore::setCurrentState(std::uint64_t state) {
    dispatch::storeLocked(mutex_, currentState_, state);
}
std::shared_ptr<CSRDeviceDelegate> CSRDeviceCore::reportDelegate() const {
    return dispatch::loadLocked(mutex_, delegate_).lock();
}
void CSRDeviceCore::storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) {
    dispatch::storeLocked(mutex_, delegate_, std::move(delegate));
}
std::int64_t CSRDeviceCore::batteryLife() const {
    return dispatch::loadLocked(mutex_, batteryLife_);
}
std::optional<std::string> CSRDeviceCore::manufacturer() const {
    return dispatch::loadLocked(mutex_, manufacturer_);
}
void CSRDeviceCore::setManufacturer(std::optional<std::string> text) {
    dispatch::storeLocked(mutex_, manufacturer_, std::move(text));
}
std::optional<std::string> CSRDeviceCore::model() const {
    return dispatch::loadLocked(mutex_, model_);
}
void CSRDeviceCore::setModel(std::optional<std::string> text) {
    dispatch::storeLocked(mutex_, model_, std::move(text));
}
std::optional<std::string> CSRDeviceCore::hardwareVersion() const {
    return dispatch::loadLocked(mutex_, hardwareVersion_);
}
void CSRDeviceCore::setHardwareVersion(std::optional<std::string> text) {
    dispatch::storeLocked(mutex_, hardwareVersion_, std::move(text));
}
std::optional<std::string> CSRDeviceCore::firmwareVersion() const {
    return dispatch::loadLocked(mutex_, firmwareVersion_);
}
void CSRDeviceCore::setFirmwareVersion(std::optional<std::string> text) {
    dispatch::storeLocked(mutex_, firmwareVersion_, std::move(text));
}
std::optional<std::string> CSRDeviceCore::softwareVersion() const {
    return dispatch::loadLocked(mutex_, softwareVersion_);
}
void CSRDeviceCore::setSoftwareVersion(std::optional<std::string> text) {
    dispatch::storeLocked(mutex_, softwareVersion_, std::move(text));
}
CSRDeviceCore::FirmwareVersionCompletion CSRDeviceCore::fwVersionBlock() const {
    return dispatch::loadLocked(mutex_, fwVersionBlock_);
}
void CSRDeviceCore::setFwVersionBlock(FirmwareVersionCompletion completion) {
    dispatch::storeLocked(mutex_, fwVersionBlock_, std::move(completion));
}

// Events, on the "Corebluetooth" queue.

void CSRDeviceCore::peripheralDidDiscoverServices(bt::Peripheral& peripheral, const ErrorPtr& error) {
    if (error) return;
    for (const auto& service : peripheral.services()) {
        if (!service) continue;
        const auto uuid = service->uuid();
        if (uuid == wire::kBatteryService) {
            {
                std::lock_guard lock(mutex_);
                batteryService_ = service;
            }
            peripheral.discoverCharacteristics(batteryCharacteristicList(), service);
        } else if (uuid == wire::kDeviceInformationService) {
            {
                std::lock_guard lock(mutex_);
                deviceInfoService_ = service;
            }
            peripheral.discoverCharacteristics(deviceInformationCharacteristicList(), service);
        }
    }
}

void CSRDeviceCore::peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral&,
                                                                        const bt::ServicePtr& service,
                                                                        const ErrorPtr& error) {
    if (error || !service) return;
    const auto serviceUuid = service->uuid();
    if (serviceUuid == wire::kBatteryService) {
        for (const auto& c : service->characteristics()) {
            if (c && c->uuid() == wire::kBatteryLevel) {
                std::lock_guard lock(mutex_);
                batteryChar_ = c;
            }
        }
    } else if (serviceUuid == wire::kDeviceInformationService) {
        // Texts come from whatever value is already cached at discovery
        // (normally none, so empty texts); only the firmware revision is ever
        // read from the peripheral, on request.
        for (const auto& c : service->characteristics()) {
            if (!c) continue;
            const auto uuid = c->uuid();
            auto text = textFromValue(c->value().span());
            std::lock_guard lock(mutex_);
            if (uuid == wire::kManufacturerName) {
                manufacturerChar_ = c;
                manufacturer_ = std::move(text);
            } else if (uuid == wire::kModelNumber) {
                modelChar_ = c;
                model_ = std::move(text);
            } else if (uuid == wire::kHardwareRevision) {
                hardwareChar_ = c;
                hardwareVersion_ = std::move(text);
            } else if (uuid == wire::kFirmwareRevision) {
                firmwareChar_ = c;
                firmwareVersion_ = std::move(text);
            } else if (uuid == wire::kSoftwareRevision) {
                softwareChar_ = c;
                softwareVersion_ = std::move(text);
            }
        }
    }
}

void CSRDeviceCore::peripheralDidUpdateValueForCharacteristicError(
    bt::Peripheral&, const bt::CharacteristicPtr& characteristic, const ErrorPtr& error) {
    // A failed read leaves a pending firmware request pending.
    if (error || !characteristic) return;
    enum class Match { None, Battery, Firmware } match = Match::None;
    {
        // Identity, not UUID, and the first match decides.
        std::lock_guard lock(mutex_);
        const auto* c = characteristic.get();
        if (c == batteryChar_.get()) {
            match = Match::Battery;
        } else if (c == manufacturerChar_.get() || c == modelChar_.get() || c == hardwareChar_.get()) {
            match = Match::None;  // those texts are not refreshed by later reads
        } else if (c == firmwareChar_.get()) {
            match = Match::Firmware;
        }
    }
    if (match == Match::Battery) {
        const auto value = characteristic->value();
        // An empty level value carries no level: the update is ignored.
        if (value.empty()) return;
        const std::int64_t level = static_cast<std::int8_t>(value[0]);
        {
            std::lock_guard lock(mutex_);
            batteryLife_ = level;
        }
        if (auto d = reportDelegate()) d->batteryLifeOnDevice(level, *this);
    } else if (match == Match::Firmware) {
        auto text = textFromValue(characteristic->value().span());
        FirmwareVersionCompletion completion;
        {
            std::lock_guard lock(mutex_);
            firmwareVersion_ = text;
            completion = std::exchange(fwVersionBlock_, nullptr);
        }
        if (completion) completion(std::move(text), nullptr);
    }
}

void CSRDeviceCore::peripheralDidWriteValueForCharacteristicError(bt::Peripheral&,
                                                                  const bt::CharacteristicPtr&,
                                                                  const ErrorPtr&) {}

}  // namespace plenk
