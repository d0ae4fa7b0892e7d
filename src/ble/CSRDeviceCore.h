#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <PlenkKit/CSRDevice.h>
#include <PlenkKit/Error.h>

#include "bt/Peripheral.h"
#include "bt/Uuid.h"

namespace plenk {

// The generic device's implementation: the public CSRDevice plus the
// peripheral-delegate role it plays for the port. The scale device's
// implementation (RKDeviceCore) derives from it. Fields are guarded by a mutex
// that is never held while calling a delegate or a completion.
class CSRDeviceCore : public virtual CSRDevice,
                      public bt::PeripheralDelegate,
                      public std::enable_shared_from_this<CSRDeviceCore> {
public:
    // Holds the peripheral, becomes its delegate and takes its current name.
    // Starts no discovery. Null for a null peripheral or a handle the library
    // did not hand out.
    static std::shared_ptr<CSRDeviceCore> create(const PeripheralPtr& peripheral);
    ~CSRDeviceCore() override;

    // Adopts a new peripheral object for the same device and becomes its
    // delegate; the name, services, characteristics and texts keep their
    // values until a new discovery replaces them. A null or foreign handle is
    // ignored.
    virtual void renewPeripheral(const PeripheralPtr& peripheral);
    // nullopt: every service.
    void discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs);
    // The port's side of peripheral().
    bt::PeripheralPtr portPeripheral() const;

    // --- CSRDevice ----------------------------------------------------------------
    void readRSSI() override;
    void readBatteryState() override;
    void readFirmwareVersionWithCompletion(FirmwareVersionCompletion completion) override;
    std::optional<std::string> deviceName() const override;
    void setDeviceName(std::optional<std::string> name) override;
    PeripheralPtr peripheral() const override;
    std::uint64_t currentState() const override;
    void setCurrentState(std::uint64_t state) override;
    std::int64_t batteryLife() const override;
    std::optional<std::string> manufacturer() const override;
    void setManufacturer(std::optional<std::string> text) override;
    std::optional<std::string> model() const override;
    void setModel(std::optional<std::string> text) override;
    std::optional<std::string> hardwareVersion() const override;
    void setHardwareVersion(std::optional<std::string> text) override;
    std::optional<std::string> firmwareVersion() const override;
    void setFirmwareVersion(std::optional<std::string> text) override;
    std::optional<std::string> softwareVersion() const override;
    void setSoftwareVersion(std::optional<std::string> text) override;
    FirmwareVersionCompletion fwVersionBlock() const override;
    void setFwVersionBlock(FirmwareVersionCompletion completion) override;

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
    explicit CSRDeviceCore(bt::PeripheralPtr peripheral);
    void attach();

    // The delegate storage. Fetched at each report, so a subclass that keeps
    // its own delegate receives batteryLifeOnDevice there.
    std::shared_ptr<CSRDeviceDelegate> reportDelegate() const override;
    void storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) override;

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
