#include "RostaKit/RKDevice.h"

#include <string>
#include <string_view>
#include <utility>

#include "bt/Bytes.h"
#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk {

namespace {

const std::optional<std::vector<bt::Uuid>>& scaleCharacteristicList() {
    static const std::optional<std::vector<bt::Uuid>> list{
        std::vector<bt::Uuid>{wire::kCommandCharacteristic, wire::kDataCharacteristic,
                              wire::kControlCharacteristic, wire::kInfoCharacteristic}};
    return list;
}

}  // namespace

RKDeviceDelegate::~RKDeviceDelegate() = default;
void RKDeviceDelegate::deviceDidDiscoverAllCharacteristic(RKDevice&) {}
void RKDeviceDelegate::deviceDidUpdateWeight(RKDevice&, float) {}
void RKDeviceDelegate::deviceDidClickButton(RKDevice&, std::uint64_t) {}
void RKDeviceDelegate::deviceDidFailConfigureWithError(RKDevice&, const ErrorPtr&) {}

RKDevice::RKDevice(bt::PeripheralPtr peripheral, std::shared_ptr<LogSink> log)
    : CSRDevice(std::move(peripheral)), log_(log ? std::move(log) : LogSink::standardOutput()) {}

std::shared_ptr<RKDevice> RKDevice::create(const PeripheralPtr& handle, std::shared_ptr<LogSink> log,
                                           std::weak_ptr<RKDeviceDelegate> delegate) {
    auto peripheral = bt::portPeripheral(handle);
    if (!peripheral) return nullptr;
    std::shared_ptr<RKDevice> device(new RKDevice(peripheral, std::move(log)));
    device->setDelegate(std::move(delegate));
    device->attach();
    device->discoverServices(std::nullopt);
    return device;
}

RKDevice::~RKDevice() {
    // Leave the peripheral without a delegate, unless another object (a newer
    // device for the same peripheral) has already taken the slot.
    if (auto p = peripheral(); p && !p->delegate()) p->setDelegate({});
}

void RKDevice::renewPeripheral(const PeripheralPtr& peripheral) {
    if (!bt::portPeripheral(peripheral)) return;
    CSRDevice::renewPeripheral(peripheral);
    discoverServices(std::nullopt);
}

// Delegate: this class's own storage; the base class reaches it through
// reportDelegate()/storeDelegate().

std::shared_ptr<RKDeviceDelegate> RKDevice::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void RKDevice::setDelegate(std::weak_ptr<RKDeviceDelegate> delegate) {
    std::lock_guard lock(mutex_);
    baseDelegate_ = delegate;
    delegate_ = std::move(delegate);
}

std::shared_ptr<CSRDeviceDelegate> RKDevice::reportDelegate() const {
    std::lock_guard lock(mutex_);
    return baseDelegate_.lock();
}

void RKDevice::storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) {
    auto scaleDelegate = std::dynamic_pointer_cast<RKDeviceDelegate>(delegate.lock());
    std::lock_guard lock(mutex_);
    baseDelegate_ = std::move(delegate);
    delegate_ = scaleDelegate;
}

// Accessors.

bt::ServicePtr RKDevice::scaleService() const {
    std::lock_guard lock(mutex_);
    return scaleService_;
}
bt::CharacteristicPtr RKDevice::dataChar() const {
    std::lock_guard lock(mutex_);
    return dataChar_;
}
bt::CharacteristicPtr RKDevice::cmdChar() const {
    std::lock_guard lock(mutex_);
    return cmdChar_;
}
bt::CharacteristicPtr RKDevice::controlChar() const {
    std::lock_guard lock(mutex_);
    return controlChar_;
}
bt::CharacteristicPtr RKDevice::infoChar() const {
    std::lock_guard lock(mutex_);
    return infoChar_;
}
RKDevice::ResultCompletion RKDevice::dfuCompletion() const {
    std::lock_guard lock(mutex_);
    return dfuCompletion_;
}
void RKDevice::setDfuCompletion(ResultCompletion completion) {
    std::lock_guard lock(mutex_);
    dfuCompletion_ = std::move(completion);
}
RKDevice::ResultCompletion RKDevice::syncCompletion() const {
    std::lock_guard lock(mutex_);
    return syncCompletion_;
}
void RKDevice::setSyncCompletion(ResultCompletion completion) {
    std::lock_guard lock(mutex_);
    syncCompletion_ = std::move(completion);
}
RKDevice::ResultCompletion RKDevice::initCompletion() const {
    std::lock_guard lock(mutex_);
    return initCompletion_;
}
void RKDevice::setInitCompletion(ResultCompletion completion) {
    std::lock_guard lock(mutex_);
    initCompletion_ = std::move(completion);
}
RKDevice::RecordCompletion RKDevice::configValueCompletion() const {
    std::lock_guard lock(mutex_);
    return configValueCompletion_;
}
void RKDevice::setConfigValueCompletion(RecordCompletion completion) {
    std::lock_guard lock(mutex_);
    configValueCompletion_ = std::move(completion);
}
RKDevice::ConfigurationCompletion RKDevice::configCompletion() const {
    std::lock_guard lock(mutex_);
    return configCompletion_;
}
void RKDevice::setConfigCompletion(ConfigurationCompletion completion) {
    std::lock_guard lock(mutex_);
    configCompletion_ = std::move(completion);
}

// Commands.

void RKDevice::writeCommand(std::span<const std::uint8_t> frame) {
    bt::CharacteristicPtr command = cmdChar();
    if (!command) return;
    if (auto p = peripheral()) p->writeValue(bt::Bytes(frame), command, bt::WriteType::WithResponse);
}

void RKDevice::tare() {
    writeCommand(wire::tareFrame().span());
}
void RKDevice::calibrate(std::uint8_t value) {
    writeCommand(wire::calibrateFrame(value).span());
}
void RKDevice::setUnit(std::int32_t unit) {
    writeCommand(wire::unitFrame(unit).span());
}
void RKDevice::setLEDDisplayOn(bool on) {
    const auto frames = wire::ledDisplayFrames(on);
    for (const auto& frame : frames.span()) writeCommand(frame.span());
}
void RKDevice::setTimerOn(bool on, bool defaultOn) {
    writeCommand(wire::timerFrame(on, defaultOn).span());
}
void RKDevice::setTimerAutoStart(bool autoStart) {
    writeCommand(wire::timerAutoStartFrame(autoStart).span());
}
void RKDevice::setBLEPowerEnhanced(bool enhanced) {
    writeCommand(wire::powerEnhancedFrame(enhanced).span());
}
void RKDevice::setSleepTime(std::int32_t level, std::int32_t mode) {
    writeCommand(wire::sleepTimeFrame(level, mode).span());
}
void RKDevice::setAdvertisingTime(std::int32_t level, std::int32_t mode) {
    writeCommand(wire::advertisingTimeFrame(level, mode).span());
}
void RKDevice::setFWDisconnect() {
    writeCommand(wire::firmwareDisconnectFrame().span());
}
void RKDevice::sevenSegmentCommand(std::uint8_t command) {
    writeCommand(wire::frame(command).span());
}
void RKDevice::sevenSegmentCommand(std::uint8_t command, std::uint8_t data) {
    writeCommand(wire::frame(command, data).span());
}

void RKDevice::synchronize(ResultCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        if (!cmdChar_) return;
        syncCompletion_ = std::move(completion);
    }
    writeCommand(wire::synchronizeFrame().span());
}

void RKDevice::setDeaultConfiguartion(ResultCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        if (!cmdChar_) return;
        // Both slots are armed before the first write goes out: results are
        // fed to slots in priority order (sync before init), not matched to
        // frames, so the first result lands in syncCompletion and the second
        // in initCompletion, wherever the writes are issued from.
        initCompletion_ = completion;
        syncCompletion_ = std::move(completion);
    }
    const auto frames = wire::defaultConfigurationFrames();
    for (const auto& frame : frames.span()) writeCommand(frame.span());
}

void RKDevice::enableDFUMode(ResultCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        if (!cmdChar_) return;
        dfuCompletion_ = std::move(completion);
    }
    writeCommand(wire::dfuFrame().span());
}

// Reads and exchanges.

void RKDevice::startUpdate() {
    bt::CharacteristicPtr data, control;
    {
        std::lock_guard lock(mutex_);
        data = dataChar_;
        control = controlChar_;
    }
    auto p = peripheral();
    if (!p) return;
    if (data) p->setNotifyValue(true, data);
    if (control) p->setNotifyValue(true, control);
}

void RKDevice::readRawData(RecordCompletion completion) {
    bt::CharacteristicPtr info;
    {
        std::lock_guard lock(mutex_);
        if (!infoChar_) return;
        info = infoChar_;
        configValueCompletion_ = std::move(completion);
    }
    if (auto p = peripheral()) p->readValueForCharacteristic(info);
}

void RKDevice::readConfiguration(ConfigurationCompletion completion) {
    bt::CharacteristicPtr info;
    {
        std::lock_guard lock(mutex_);
        if (!infoChar_) return;
        info = infoChar_;
        configCompletion_ = std::move(completion);
    }
    if (auto p = peripheral()) p->readValueForCharacteristic(info);
}

void RKDevice::initializeConfiguration(ResultCompletion completion) {
    // Weak: the receiver sits in this device's own slot.
    std::weak_ptr<RKDevice> weak = std::static_pointer_cast<RKDevice>(shared_from_this());
    readRawData([weak, completion = std::move(completion)](RKConfigurationRecord record) {
        auto self = weak.lock();
        if (!self) return;
        if (wire::isUnconfigured(record)) {
            self->log_->write("\n setting default");
            self->setDeaultConfiguartion(completion);
        } else if (completion) {
            completion(true, nullptr);
        }
    });
}

void RKDevice::report(std::int64_t code) {
    if (auto d = delegate())
        d->deviceDidFailConfigureWithError(*this, Error::make(LEDeviceErrorDomain, code));
}

// Events, on the "Corebluetooth" queue.

void RKDevice::peripheralDidDiscoverServices(bt::Peripheral& peripheral, const ErrorPtr& error) {
    CSRDevice::peripheralDidDiscoverServices(peripheral, error);
    if (error) {
        report(kRKDeviceServiceDiscoveryFailed);
        return;
    }
    for (const auto& service : peripheral.services()) {
        if (service && service->uuid() == wire::kScaleService) {
            {
                std::lock_guard lock(mutex_);
                scaleService_ = service;
            }
            peripheral.discoverCharacteristics(scaleCharacteristicList(), service);
            break;
        }
    }
    // A service kept from before a renewPeripheral counts as found.
    if (!scaleService()) report(kRKDeviceNoScaleService);
}

void RKDevice::peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral& peripheral,
                                                                   const bt::ServicePtr& service,
                                                                   const ErrorPtr& error) {
    CSRDevice::peripheralDidDiscoverCharacteristicsForServiceError(peripheral, service, error);
    if (error) {
        report(kRKDeviceCharacteristicDiscoveryFailed);
        return;
    }
    if (!service) return;
    const auto characteristics = service->characteristics();
    bool isScaleService = false;
    bool ready = false;
    std::shared_ptr<RKDeviceDelegate> d;
    {
        // Stored by UUID whatever the service; only the scale service's
        // discovery decides readiness.
        std::lock_guard lock(mutex_);
        for (const auto& c : characteristics) {
            if (!c) continue;
            const auto uuid = c->uuid();
            if (uuid == wire::kCommandCharacteristic) {
                cmdChar_ = c;
            } else if (uuid == wire::kDataCharacteristic) {
                dataChar_ = c;
            } else if (uuid == wire::kControlCharacteristic) {
                controlChar_ = c;
            } else if (uuid == wire::kInfoCharacteristic) {
                infoChar_ = c;
            }
        }
        isScaleService = service == scaleService_;
        ready = cmdChar_ && dataChar_;
        d = delegate_.lock();
    }
    if (!isScaleService) return;
    if (!ready) {
        report(kRKDeviceMissingCharacteristic);
        return;
    }
    if (d) d->deviceDidDiscoverAllCharacteristic(*this);
    startUpdate();
}

void RKDevice::peripheralDidWriteValueForCharacteristicError(bt::Peripheral& peripheral,
                                                             const bt::CharacteristicPtr& characteristic,
                                                             const ErrorPtr& error) {
    CSRDevice::peripheralDidWriteValueForCharacteristicError(peripheral, characteristic, error);
    ResultCompletion completion;
    bool fromInit = false;
    {
        // A result on the command characteristic feeds the first pending slot
        // in fixed priority order, whichever frame caused it.
        std::lock_guard lock(mutex_);
        if (characteristic && characteristic == cmdChar_) {
            if (dfuCompletion_) {
                completion = std::exchange(dfuCompletion_, nullptr);
            } else if (syncCompletion_) {
                completion = std::exchange(syncCompletion_, nullptr);
            } else if (initCompletion_) {
                completion = std::exchange(initCompletion_, nullptr);
                fromInit = true;
            }
        }
    }
    if (completion) {
        completion(error == nullptr, error);
        if (fromInit) log_->write("\n init completaion ");
        return;
    }
    if (error) {
        log_->write("\n write error -> " + error->localizedDescription());
        report(kRKDeviceWriteFailed);
    }
}

void RKDevice::peripheralDidUpdateValueForCharacteristicError(bt::Peripheral& peripheral,
                                                              const bt::CharacteristicPtr& characteristic,
                                                              const ErrorPtr& error) {
    CSRDevice::peripheralDidUpdateValueForCharacteristicError(peripheral, characteristic, error);
    if (error) {
        report(kRKDeviceValueUpdateFailed);
        return;
    }
    if (!characteristic) return;
    // This is the weight path: no allocation beyond a peripheral name longer
    // than the small-string buffer.
    bool isControl = false, isData = false;
    RecordCompletion raw;
    ConfigurationCompletion decoded;
    std::shared_ptr<RKDeviceDelegate> d;
    {
        std::lock_guard lock(mutex_);
        const auto* c = characteristic.get();
        isControl = c == controlChar_.get();
        isData = c == dataChar_.get();
        if (c == infoChar_.get()) {
            // A pending raw read takes precedence; the decoded receiver stays set.
            raw = std::exchange(configValueCompletion_, nullptr);
            if (!raw) decoded = configCompletion_;
        }
        if (isControl || isData) d = delegate_.lock();
    }
    if (isControl && d) {
        const auto value = characteristic->value();
        if (auto button = wire::decodeButton(value.span())) d->deviceDidClickButton(*this, *button);
    }
    if (isData && d) {
        const auto value = characteristic->value();
        // The current name decides the packet format, read anew per packet.
        const auto name = peripheral.name();
        const auto weight = wire::decodeWeight(
            name ? std::optional<std::string_view>(*name) : std::optional<std::string_view>{}, value.span());
        d->deviceDidUpdateWeight(*this, weight);
    }
    if (raw || decoded) {
        const auto record = wire::recordFromBytes(characteristic->value().span());
        if (raw) {
            raw(record);
        } else {
            decoded(wire::decodeConfiguration(record));
        }
    }
}

}  // namespace plenk
