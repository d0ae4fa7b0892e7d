#include "RostaKit/RKDeviceCore.h"

#include <string>
#include <string_view>
#include <utility>

#include "bt/Bytes.h"
#include "dispatch/Guarded.h"
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

RKDevice::~RKDevice() = default;

RKDeviceCore::RKDeviceCore(bt::PeripheralPtr peripheral, std::shared_ptr<LogSink> log)
    : CSRDeviceCore(std::move(peripheral)), log_(log ? std::move(log) : LogSink::standardOutput()) {}

std::shared_ptr<RKDeviceCore> RKDeviceCore::create(const PeripheralPtr& handle, std::shared_ptr<LogSink> log,
                                                   std::weak_ptr<RKDeviceDelegate> delegate) {
    auto peripheral = bt::portPeripheral(handle);
    if (!peripheral) return nullptr;
    std::shared_ptr<RKDeviceCore> device(new RKDeviceCore(peripheral, std::move(log)));
    device->setDelegate(std::move(delegate));
    device->attach();
    device->discoverServices(std::nullopt);
    return device;
}

RKDeviceCore::~RKDeviceCore() {
    // Leave the peripheral without a delegate, unless another object (a newer
    // device for the same peripheral) has already taken the slot.
    if (auto p = portPeripheral(); p && !p->delegate()) p->setDelegate({});
}

void RKDeviceCore::renewPeripheral(const PeripheralPtr& peripheral) {
    if (!bt::portPeripheral(peripheral)) return;
    CSRDeviceCore::renewPeripheral(peripheral);
    discoverServices(std::nullopt);
}

// Delegate: this class's own storage; the base class reaches it through
// reportDelegate()/storeDelegate().

std::shared_ptr<RKDeviceDelegate> RKDeviceCore::delegate() const {
    return dispatch::loadLocked(mutex_, delegate_).lock();
}

void RKDeviceCore::setDelegate(std::weak_ptr<RKDeviceDelegate> delegate) {
    std::lock_guard lock(mutex_);
    baseDelegate_ = delegate;
    delegate_ = std::move(delegate);
}

std::shared_ptr<CSRDeviceDelegate> RKDeviceCore::reportDelegate() const {
    return dispatch::loadLocked(mutex_, baseDelegate_).lock();
}

void RKDeviceCore::storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) {
    auto scaleDelegate = std::dynamic_pointer_cast<RKDeviceDelegate>(delegate.lock());
    std::lock_guard lock(mutex_);
    baseDelegate_ = std::move(delegate);
    delegate_ = scaleDelegate;
}

// Accessors.

bt::ServicePtr RKDeviceCore::scaleService() const {
    return dispatch::loadLocked(mutex_, scaleService_);
}
bt::CharacteristicPtr RKDeviceCore::dataChar() const {
    return dispatch::loadLocked(mutex_, dataChar_);
}
bt::CharacteristicPtr RKDeviceCore::cmdChar() const {
    return dispatch::loadLocked(mutex_, cmdChar_);
}
bt::CharacteristicPtr RKDeviceCore::controlChar() const {
    return dispatch::loadLocked(mutex_, controlChar_);
}
bt::CharacteristicPtr RKDeviceCore::infoChar() const {
    return dispatch::loadLocked(mutex_, infoChar_);
}
RKDeviceCore::ResultCompletion RKDeviceCore::dfuCompletion() const {
    return dispatch::loadLocked(mutex_, dfuCompletion_);
}
void RKDeviceCore::setDfuCompletion(ResultCompletion completion) {
    dispatch::storeLocked(mutex_, dfuCompletion_, std::move(completion));
}
RKDeviceCore::ResultCompletion RKDeviceCore::syncCompletion() const {
    return dispatch::loadLocked(mutex_, syncCompletion_);
}
void RKDeviceCore::setSyncCompletion(ResultCompletion completion) {
    dispatch::storeLocked(mutex_, syncCompletion_, std::move(completion));
}
RKDeviceCore::ResultCompletion RKDeviceCore::initCompletion() const {
    return dispatch::loadLocked(mutex_, initCompletion_);
}
void RKDeviceCore::setInitCompletion(ResultCompletion completion) {
    dispatch::storeLocked(mutex_, initCompletion_, std::move(completion));
}
RKDeviceCore::RecordCompletion RKDeviceCore::configValueCompletion() const {
    return dispatch::loadLocked(mutex_, configValueCompletion_);
}
void RKDeviceCore::setConfigValueCompletion(RecordCompletion completion) {
    dispatch::storeLocked(mutex_, configValueCompletion_, std::move(completion));
}
RKDeviceCore::ConfigurationCompletion RKDeviceCore::configCompletion() const {
    return dispatch::loadLocked(mutex_, configCompletion_);
}
void RKDeviceCore::setConfigCompletion(ConfigurationCompletion completion) {
    dispatch::storeLocked(mutex_, configCompletion_, std::move(completion));
}

// Commands.

void RKDeviceCore::writeCommand(std::span<const std::uint8_t> frame) {
    bt::CharacteristicPtr command = cmdChar();
    if (!command) return;
    if (auto p = portPeripheral()) p->writeValue(bt::Bytes(frame), command, bt::WriteType::WithResponse);
}

void RKDeviceCore::tare() {
    writeCommand(wire::tareFrame().span());
}
void RKDeviceCore::calibrate(std::uint8_t value) {
    writeCommand(wire::calibrateFrame(value).span());
}
void RKDeviceCore::setUnit(std::int32_t unit) {
    writeCommand(wire::unitFrame(unit).span());
}
void RKDeviceCore::setLEDDisplayOn(bool on) {
    const auto frames = wire::ledDisplayFrames(on);
    for (const auto& frame : frames.span()) writeCommand(frame.span());
}
void RKDeviceCore::setTimerOn(bool on, bool defaultOn) {
    writeCommand(wire::timerFrame(on, defaultOn).span());
}
void RKDeviceCore::setTimerAutoStart(bool autoStart) {
    writeCommand(wire::timerAutoStartFrame(autoStart).span());
}
void RKDeviceCore::setBLEPowerEnhanced(bool enhanced) {
    writeCommand(wire::powerEnhancedFrame(enhanced).span());
}
void RKDeviceCore::setSleepTime(std::int32_t level, std::int32_t mode) {
    writeCommand(wire::sleepTimeFrame(level, mode).span());
}
void RKDeviceCore::setAdvertisingTime(std::int32_t level, std::int32_t mode) {
    writeCommand(wire::advertisingTimeFrame(level, mode).span());
}
void RKDeviceCore::setFWDisconnect() {
    writeCommand(wire::firmwareDisconnectFrame().span());
}
void RKDeviceCore::sevenSegmentCommand(std::uint8_t command) {
    writeCommand(wire::frame(command).span());
}
void RKDeviceCore::sevenSegmentCommand(std::uint8_t command, std::uint8_t data) {
    writeCommand(wire::frame(command, data).span());
}

void RKDeviceCore::synchronize(ResultCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        if (!cmdChar_) return;
        syncCompletion_ = std::move(completion);
    }
    writeCommand(wire::synchronizeFrame().span());
}

void RKDeviceCore::setDeaultConfiguartion(ResultCompletion completion) {
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

void RKDeviceCore::enableDFUMode(ResultCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        if (!cmdChar_) return;
        dfuCompletion_ = std::move(completion);
    }
    writeCommand(wire::dfuFrame().span());
}

// Reads and exchanges.

void RKDeviceCore::startUpdate() {
    bt::CharacteristicPtr data, control;
    {
        std::lock_guard lock(mutex_);
        data = dataChar_;
        control = controlChar_;
    }
    auto p = portPeripheral();
    if (!p) return;
    if (data) p->setNotifyValue(true, data);
    if (control) p->setNotifyValue(true, control);
}

void RKDeviceCore::readRawData(RecordCompletion completion) {
    bt::CharacteristicPtr info;
    {
        std::lock_guard lock(mutex_);
        if (!infoChar_) return;
        info = infoChar_;
        configValueCompletion_ = std::move(completion);
    }
    if (auto p = portPeripheral()) p->readValueForCharacteristic(info);
}

void RKDeviceCore::readConfiguration(ConfigurationCompletion completion) {
    bt::CharacteristicPtr info;
    {
        std::lock_guard lock(mutex_);
        if (!infoChar_) return;
        info = infoChar_;
        configCompletion_ = std::move(completion);
    }
    if (auto p = portPeripheral()) p->readValueForCharacteristic(info);
}

void RKDeviceCore::initializeConfiguration(ResultCompletion completion) {
    // Weak: the receiver sits in this device's own slot.
    std::weak_ptr<RKDeviceCore> weak = std::static_pointer_cast<RKDeviceCore>(shared_from_this());
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

void RKDeviceCore::report(std::int64_t code) {
    if (auto d = delegate())
        d->deviceDidFailConfigureWithError(*this, Error::make(LEDeviceErrorDomain, code));
}

// Events, on the "Corebluetooth" queue.

void RKDeviceCore::peripheralDidDiscoverServices(bt::Peripheral& peripheral, const ErrorPtr& error) {
    CSRDeviceCore::peripheralDidDiscoverServices(peripheral, error);
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

void RKDeviceCore::peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral& peripheral,
                                                                       const bt::ServicePtr& service,
                                                                       const ErrorPtr& error) {
    CSRDeviceCore::peripheralDidDiscoverCharacteristicsForServiceError(peripheral, service, error);
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

void RKDeviceCore::peripheralDidWriteValueForCharacteristicError(bt::Peripheral& peripheral,
                                                                 const bt::CharacteristicPtr& characteristic,
                                                                 const ErrorPtr& error) {
    CSRDeviceCore::peripheralDidWriteValueForCharacteristicError(peripheral, characteristic, error);
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

void RKDeviceCore::peripheralDidUpdateValueForCharacteristicError(bt::Peripheral& peripheral,
                                                                  const bt::CharacteristicPtr& characteristic,
                                                                  const ErrorPtr& error) {
    CSRDeviceCore::peripheralDidUpdateValueForCharacteristicError(peripheral, characteristic, error);
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
