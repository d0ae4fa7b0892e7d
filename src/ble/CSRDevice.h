#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <PlenkKit/Error.h>

#include "bt/Peripheral.h"
#include "bt/Uuid.h"

namespace plenk {

class CSRDevice;

// Receiver of the generic device's reports. Called on the "Corebluetooth"
// queue; every method has an empty default (implementing one is responding).
class CSRDeviceDelegate {
public:
    virtual ~CSRDeviceDelegate();
    // Declared for owners; this layer never sends it.
    virtual void RSSIOnDevice(int rssi, CSRDevice& device);
    // After every battery-level read that carried at least one byte.
    virtual void batteryLifeOnDevice(std::int64_t level, CSRDevice& device);
    // Declared for owners; this layer never sends it.
    virtual void updateDeviceCurrentStateOnDevice(std::int64_t state, CSRDevice& device);
};

// Wraps one connected peripheral and handles its Battery Service (level) and
// Device Information service (five texts; only the firmware revision is ever
// read, on request). It is the peripheral's delegate. Operations may be called
// from any thread; events arrive on the "Corebluetooth" queue. Fields are
// guarded by a mutex that is never held while calling a delegate or a
// completion.
class CSRDevice : public bt::PeripheralDelegate, public std::enable_shared_from_this<CSRDevice> {
public:
    using FirmwareVersionCompletion = std::function<void(std::optional<std::string> version, ErrorPtr error)>;

    // Holds the peripheral, becomes its delegate and takes its current name.
    // Starts no discovery. Null for a null peripheral.
    static std::shared_ptr<CSRDevice> create(const PeripheralPtr& peripheral);
    ~CSRDevice() override;
    CSRDevice(const CSRDevice&) = delete;
    CSRDevice& operator=(const CSRDevice&) = delete;

    // Adopts a new peripheral object for the same device and becomes its
    // delegate; the name, services, characteristics and texts keep their
    // values until a new discovery replaces them. A null peripheral is ignored.
    virtual void renewPeripheral(const PeripheralPtr& peripheral);
    // nullopt: every service.
    void discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs);
    // The result is not used; no RSSIOnDevice follows.
    void readRSSI();
    // Reads the battery level when its characteristic is known; otherwise nothing.
    void readBatteryState();
    // With a firmware-revision characteristic: stores the completion (dropping
    // a pending one uncalled) and reads the characteristic; the completion runs
    // on the "Corebluetooth" queue with the text once an error-free value
    // arrives. Without: calls it at once, on the caller's thread, with no text
    // and an RKErrorDeviceNOCharacteristic ("DeviceDomain", 1).
    void readFirmwareVersionWithCompletion(FirmwareVersionCompletion completion);

    // Accessors: plain loads and stores.
    std::optional<std::string> deviceName() const;  // the name at construction
    void setDeviceName(std::optional<std::string> name);
    bt::PeripheralPtr peripheral() const;
    std::uint64_t currentState() const;
    void setCurrentState(std::uint64_t state);
    // Non-owning. A subclass redeclares both with its own delegate type and
    // storage (see storeDelegate/reportDelegate); through a CSRDevice reference
    // they still reach that storage.
    std::shared_ptr<CSRDeviceDelegate> delegate() const { return reportDelegate(); }
    void setDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) { storeDelegate(std::move(delegate)); }
    std::int64_t batteryLife() const;
    // Texts: absent (null) when the value was not valid UTF-8.
    std::optional<std::string> manufacturer() const;
    void setManufacturer(std::optional<std::string> text);
    std::optional<std::string> model() const;
    void setModel(std::optional<std::string> text);
    std::optional<std::string> hardwareVersion() const;
    void setHardwareVersion(std::optional<std::string> text);
    std::optional<std::string> firmwareVersion() const;
    void setFirmwareVersion(std::optional<std::string> text);
    std::optional<std::string> softwareVersion() const;
    void setSoftwareVersion(std::optional<std::string> text);
    FirmwareVersionCompletion fwVersionBlock() const;
    void setFwVersionBlock(FirmwareVersionCompletion completion);

    // A Device Information value as text: up to the first zero byte, read as
    // UTF-8; invalid UTF-8 gives null, an empty value the empty text.
    static std::optional<std::string> textFromValue(std::span<const std::uint8_t> value);

    // bt::PeripheralDelegate. Subclasses call these first, then handle their
    // own service; every service and characteristic not handled here is
    // ignored, so subclasses see them all.
    void peripheralDidDiscoverServices(bt::Peripheral& peripheral, const ErrorPtr& error) override;
    void peripheralDidDiscoverCharacteristicsForServiceError(bt::Peripheral& peripheral,
                                                             const bt::ServicePtr& service,
                                                             const ErrorPtr& error) override;
    void peripheralDidUpdateValueForCharacteristicError(bt::Peripheral& peripheral,
                                                        const bt::CharacteristicPtr& characteristic,
                                                        const ErrorPtr& error) override;
    // Write results are not used at this layer.
    void peripheralDidWriteValueForCharacteristicError(bt::Peripheral& peripheral,
                                                       const bt::CharacteristicPtr& characteristic,
                                                       const ErrorPtr& error) override;

protected:
    // Two-phase construction: the constructor holds the peripheral and takes
    // its name; attach() (needs a shared owner) becomes its delegate.
    explicit CSRDevice(bt::PeripheralPtr peripheral);
    void attach();

    // The delegate storage. Fetched at each report, so a subclass that keeps
    // its own delegate receives batteryLifeOnDevice there.
    virtual std::shared_ptr<CSRDeviceDelegate> reportDelegate() const;
    virtual void storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate);

private:
    void becomeDelegateOf(const bt::PeripheralPtr& peripheral);

    mutable std::mutex mutex_;
    bt::ServicePtr batteryService_;
    bt::CharacteristicPtr batteryChar_;
    bt::ServicePtr deviceInfoService_;
    bt::CharacteristicPtr manufacturerChar_;
    bt::CharacteristicPtr modelChar_;
    bt::CharacteristicPtr hardwareChar_;
    bt::CharacteristicPtr firmwareChar_;
    bt::CharacteristicPtr softwareChar_;
    // The label of the device's work queue (its name at construction). No work
    // is ever submitted at this layer, so no thread is started for it.
    std::optional<std::string> queueLabel_;
    bt::ServicePtr testerService_;      // declared for a tester service; never used
    bt::CharacteristicPtr testerChar_;  // declared with it; never used
    std::optional<std::string> deviceName_;
    bt::PeripheralPtr peripheral_;
    std::uint64_t currentState_ = 0;
    std::weak_ptr<CSRDeviceDelegate> delegate_;
    std::int64_t batteryLife_ = 0;
    std::optional<std::string> manufacturer_;
    std::optional<std::string> model_;
    std::optional<std::string> hardwareVersion_;
    std::optional<std::string> firmwareVersion_;
    std::optional<std::string> softwareVersion_;
    FirmwareVersionCompletion fwVersionBlock_;
};

}  // namespace plenk
