#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include <PlenkKit/LogSink.h>
#include <PlenkKit/RKConfiguration.h>
#include <PlenkKit/RKDevice.h>
#include <PlenkKit/RKErrors.h>

#include "ble/CSRDeviceCore.h"
#include "bt/Peripheral.h"

namespace plenk {

// The scale device's implementation: the generic device's, plus the scale
// service ("FF08") it discovers, the command frames it writes and the
// notifications it decodes.
class RKDeviceCore final : public RKDevice, public CSRDeviceCore {
public:
    // Holds the peripheral, becomes its delegate and starts discovering all
    // services. Diagnostics go to `log` (standard output when null). A
    // delegate given here is in place before any discovery result can arrive
    // (needed when creating the device off the "Corebluetooth" queue). Null
    // for a null peripheral or a handle the library did not hand out.
    static std::shared_ptr<RKDeviceCore> create(const PeripheralPtr& peripheral,
                                                std::shared_ptr<LogSink> log = nullptr,
                                                std::weak_ptr<RKDeviceDelegate> delegate = {});
    // The implementation behind a device the kit made.
    static RKDeviceCore& of(RKDevice& device) { return static_cast<RKDeviceCore&>(device); }
    // Clears the peripheral's delegate (unless another object has taken it).
    ~RKDeviceCore() override;

    // Adopts the new peripheral object and discovers again; the service and
    // characteristics found before stay until the new discovery replaces them.
    void renewPeripheral(const PeripheralPtr& peripheral) override;

    bt::ServicePtr scaleService() const;
    bt::CharacteristicPtr dataChar() const;
    bt::CharacteristicPtr cmdChar() const;
    bt::CharacteristicPtr controlChar() const;
    bt::CharacteristicPtr infoChar() const;

    // --- RKDevice -------------------------------------------------------------------
    std::shared_ptr<RKDeviceDelegate> delegate() const override;
    void setDelegate(std::weak_ptr<RKDeviceDelegate> delegate) override;

    ResultCompletion dfuCompletion() const override;
    void setDfuCompletion(ResultCompletion completion) override;
    ResultCompletion syncCompletion() const override;
    void setSyncCompletion(ResultCompletion completion) override;
    ResultCompletion initCompletion() const override;
    void setInitCompletion(ResultCompletion completion) override;
    RecordCompletion configValueCompletion() const override;
    void setConfigValueCompletion(RecordCompletion completion) override;
    ConfigurationCompletion configCompletion() const override;
    void setConfigCompletion(ConfigurationCompletion completion) override;

    void tare() override;
    void calibrate(std::uint8_t value) override;
    void setUnit(std::int32_t unit) override;
    void setLEDDisplayOn(bool on) override;
    void setTimerOn(bool on, bool defaultOn) override;
    void setTimerAutoStart(bool autoStart) override;
    void setBLEPowerEnhanced(bool enhanced) override;
    void setSleepTime(std::int32_t level, std::int32_t mode) override;
    void setAdvertisingTime(std::int32_t level, std::int32_t mode) override;
    void setFWDisconnect() override;
    void sevenSegmentCommand(std::uint8_t command) override;
    void sevenSegmentCommand(std::uint8_t command, std::uint8_t data) override;
    void synchronize(ResultCompletion completion) override;
    void setDeaultConfiguartion(ResultCompletion completion) override;
    void enableDFUMode(ResultCompletion completion) override;

    void startUpdate() override;
    void readRawData(RecordCompletion completion) override;
    void readConfiguration(ConfigurationCompletion completion) override;
    void initializeConfiguration(ResultCompletion completion) override;

    // bt::PeripheralDelegate: the generic device's handling first, then the
    // scale service's.
    void peripheralDidDiscoverServices(bt::Peripheral& peripheral, const ErrorPtr& error) override;
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral& peripheral,
                                                             const bt::ServicePtr& service,
                                                             const ErrorPtr& error) override;
    void peripheralDidWriteValueForCharacteristicError(bt::Peripheral& peripheral,
                                                       const bt::CharacteristicPtr& characteristic,
                                                       const ErrorPtr& error) override;
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral& peripheral,
                                                        const bt::CharacteristicPtr& characteristic,
                                                        const ErrorPtr& error) override;

private:
    RKDeviceCore(bt::PeripheralPtr peripheral, std::shared_ptr<LogSink> log);

    std::shared_ptr<CSRDeviceDelegate> reportDelegate() const override;
    void storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) override;

    void writeCommand(std::span<const std::uint8_t> frame);
    void report(std::int64_t code);

    const std::shared_ptr<LogSink> log_;
    mutable std::mutex mutex_;
    std::weak_ptr<RKDeviceDelegate> delegate_;
    std::weak_ptr<CSRDeviceDelegate> baseDelegate_;  // the same object, seen as the base type
    bt::ServicePtr scaleService_;
    bt::CharacteristicPtr dataChar_;
    bt::CharacteristicPtr cmdChar_;
    bt::CharacteristicPtr controlChar_;
    bt::CharacteristicPtr infoChar_;
    ResultCompletion dfuCompletion_;
    ResultCompletion syncCompletion_;
    ResultCompletion initCompletion_;
    RecordCompletion configValueCompletion_;
    ConfigurationCompletion configCompletion_;
};

}  // namespace plenk
