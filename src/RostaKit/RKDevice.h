#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>

#include <PlenkKit/LogSink.h>
#include <PlenkKit/RKConfiguration.h>
#include <PlenkKit/RKErrors.h>

#include "ble/CSRDevice.h"
#include "bt/Peripheral.h"

namespace plenk {

class RKDevice;

// Codes of the scale device's failures, domain LEDeviceErrorDomain
// ("DeviceErrorDomain"), kindless errors.
enum RKDeviceErrorCode : std::int64_t {
    kRKDeviceNoScaleService = 1000,                 // service discovery ended without "FF08"
    kRKDeviceMissingCharacteristic = 1001,          // "FF08" lacks "EF80" or "EF81"
    kRKDeviceServiceDiscoveryFailed = 1002,         // service discovery reported an error
    kRKDeviceCharacteristicDiscoveryFailed = 1003,  // characteristic discovery reported an error
    kRKDeviceWriteFailed = 1004,                    // a write failed and no completion took it
    kRKDeviceValueUpdateFailed = 1005,              // a read or notification reported an error
};

// Receiver of the scale device's reports: the generic device's three plus four
// of its own. Called on the "Corebluetooth" queue; empty defaults.
class RKDeviceDelegate : public CSRDeviceDelegate {
public:
    ~RKDeviceDelegate() override;
    // "FF08"'s characteristics are known with "EF80" and "EF81" present; sent
    // once per discovery of that service, before notifications are switched on.
    virtual void deviceDidDiscoverAllCharacteristic(RKDevice& device);
    // Every value on "EF81", decoded by the peripheral's current name.
    virtual void deviceDidUpdateWeight(RKDevice& device, float weight);
    // A value on "EF82" starting with 01 (button 0) or 02 (button 1).
    virtual void deviceDidClickButton(RKDevice& device, std::uint64_t button);
    // Codes 1000..1005 in LEDeviceErrorDomain.
    virtual void deviceDidFailConfigureWithError(RKDevice& device, const ErrorPtr& error);
};

// One connected scale: finds "FF08" and its characteristics "EF80".."EF83",
// switches weight and button notifications on, writes command frames, reads
// the configuration record, runs the initialisation, default-configuration and
// synchronisation exchanges and decodes notifications for its delegate.
//
// Commands may come from any thread; every event and completion runs on the
// "Corebluetooth" queue. Commands issued before "EF80" is known (reads before
// "EF83") are dropped silently and their completions never called.
class RKDevice : public CSRDevice {
public:
    // (success, error): (true, null) or (false, the platform's error).
    using ResultCompletion = std::function<void(bool success, ErrorPtr error)>;
    using RecordCompletion = std::function<void(RKConfigurationRecord record)>;
    using ConfigurationCompletion = std::function<void(RKConfiguration configuration)>;

    // Holds the peripheral, becomes its delegate and starts discovering all
    // services. Diagnostics go to `log` (standard output when null). A
    // delegate given here is in place before any discovery result can arrive
    // (needed when creating the device off the "Corebluetooth" queue). Null
    // for a null peripheral.
    static std::shared_ptr<RKDevice> create(const PeripheralPtr& peripheral,
                                            std::shared_ptr<LogSink> log = nullptr,
                                            std::weak_ptr<RKDeviceDelegate> delegate = {});
    // Clears the peripheral's delegate (unless another object has taken it).
    ~RKDevice() override;

    // Adopts the new peripheral object and discovers again; the service and
    // characteristics found before stay until the new discovery replaces them.
    void renewPeripheral(const PeripheralPtr& peripheral) override;

    std::shared_ptr<RKDeviceDelegate> delegate() const;
    void setDelegate(std::weak_ptr<RKDeviceDelegate> delegate);

    bt::ServicePtr scaleService() const;
    bt::CharacteristicPtr dataChar() const;
    bt::CharacteristicPtr cmdChar() const;
    bt::CharacteristicPtr controlChar() const;
    bt::CharacteristicPtr infoChar() const;

    // Completion slots: each holds at most one; storing replaces (and drops,
    // uncalled) the pending one. configCompletion stays set after it fires.
    ResultCompletion dfuCompletion() const;
    void setDfuCompletion(ResultCompletion completion);
    ResultCompletion syncCompletion() const;
    void setSyncCompletion(ResultCompletion completion);
    ResultCompletion initCompletion() const;
    void setInitCompletion(ResultCompletion completion);
    RecordCompletion configValueCompletion() const;
    void setConfigValueCompletion(RecordCompletion completion);
    ConfigurationCompletion configCompletion() const;
    void setConfigCompletion(ConfigurationCompletion completion);

    // Commands: one write with response on "EF80" each (two for LED on).
    void tare();
    void calibrate(std::uint8_t value);
    void setUnit(std::int32_t unit);
    void setLEDDisplayOn(bool on);
    void setTimerOn(bool on, bool defaultOn);
    void setTimerAutoStart(bool autoStart);
    void setBLEPowerEnhanced(bool enhanced);
    void setSleepTime(std::int32_t level, std::int32_t mode);
    void setAdvertisingTime(std::int32_t level, std::int32_t mode);
    void setFWDisconnect();
    void sevenSegmentCommand(std::uint8_t command);
    void sevenSegmentCommand(std::uint8_t command, std::uint8_t data);
    // Arms syncCompletion, writes 04.
    void synchronize(ResultCompletion completion);
    // Arms initCompletion and syncCompletion, then writes the eight default
    // frames at once. Write results are not matched to frames: the first goes
    // to syncCompletion, the second to initCompletion, so `completion` is
    // called twice.
    void setDeaultConfiguartion(ResultCompletion completion);
    // Arms dfuCompletion, writes AA 55. The scale then restarts as "DfuTarg".
    void enableDFUMode(ResultCompletion completion);

    // Switches notifications on for "EF81", then "EF82" (skipping an absent one).
    void startUpdate();
    // Arms configValueCompletion (one raw record) and reads "EF83".
    void readRawData(RecordCompletion completion);
    // Arms configCompletion (every later decoded record) and reads "EF83".
    void readConfiguration(ConfigurationCompletion completion);
    // Reads the record; an unconfigured scale gets the default configuration
    // (completion called as setDeaultConfiguartion calls it), a configured one
    // completes with (true, null) at once.
    void initializeConfiguration(ResultCompletion completion);

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

protected:
    RKDevice(bt::PeripheralPtr peripheral, std::shared_ptr<LogSink> log);

    std::shared_ptr<CSRDeviceDelegate> reportDelegate() const override;
    void storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) override;

private:
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
