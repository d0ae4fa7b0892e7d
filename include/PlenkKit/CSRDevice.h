#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/Peripheral.h>

namespace plenk {

class CSRDevice;

// Receiver of the generic device's reports. Called on the "Corebluetooth"
// queue; every method has an empty default (implementing one is responding).
class PLENK_EXPORT CSRDeviceDelegate {
public:
    virtual ~CSRDeviceDelegate();
    // Declared for owners; this layer never sends it.
    virtual void RSSIOnDevice(int rssi, CSRDevice& device);
    // After every battery-level read that carried at least one byte: the
    // first byte as a signed 8-bit number (0x64 → 100, 0xFF → -1).
    virtual void batteryLifeOnDevice(std::int64_t level, CSRDevice& device);
    // Declared for owners; this layer never sends it.
    virtual void updateDeviceCurrentStateOnDevice(std::int64_t state, CSRDevice& device);
};

// One linked peripheral with its Battery Service (level) and Device
// Information service (five texts; only the firmware revision is ever read, on
// request). The kit creates one RKDevice (this class's scale subclass) per
// linked scale; a host reaches it through RKRostaKit::currentDevice().
//
// Operations may be called from any thread; reports and completions run on
// the "Corebluetooth" queue, so a host moves them to its own thread itself.
class PLENK_EXPORT CSRDevice {
public:
    // (version, error): (the firmware revision text, null) once read, or
    // (nullopt, error) when it cannot be read.
    using FirmwareVersionCompletion = std::function<void(std::optional<std::string> version, ErrorPtr error)>;

    virtual ~CSRDevice();

    // Asks the peripheral for its signal strength; the result lands on the
    // peripheral handle (Peripheral::rssi()), no RSSIOnDevice follows.
    virtual void readRSSI() = 0;
    // Reads the battery level once its characteristic is known (batteryLifeOnDevice
    // follows); otherwise does nothing and nothing is reported.
    virtual void readBatteryState() = 0;
    // Reads the firmware revision text ("2A26").
    // - With the characteristic known: stores `completion` (dropping a pending
    //   one uncalled) and reads; `completion` runs once, on the "Corebluetooth"
    //   queue, with (text, null) once an error-free value arrives. A read the
    //   platform fails (an ATT error) leaves it pending until a later read
    //   succeeds: it is never called with a platform error.
    // - Without: runs `completion` at once, on the calling thread, with
    //   (nullopt, RKErrorDeviceNOCharacteristic): domain kDeviceDomain
    //   ("DeviceDomain"), code kDeviceCodeNoCharacteristic (1).
    // A text that is not valid UTF-8 arrives as nullopt with a null error.
    virtual void readFirmwareVersionWithCompletion(FirmwareVersionCompletion completion) = 0;

    // Accessors: plain loads and stores.
    // The peripheral's name when the device was created; not refreshed.
    virtual std::optional<std::string> deviceName() const = 0;
    virtual void setDeviceName(std::optional<std::string> name) = 0;
    // The linked peripheral.
    virtual PeripheralPtr peripheral() const = 0;
    // A state code kept for the device's owner; the library never sets or reads it.
    virtual std::uint64_t currentState() const = 0;
    virtual void setCurrentState(std::uint64_t state) = 0;
    // Non-owning. RKDevice hides these with its own delegate type; through a
    // CSRDevice reference they reach the same slot.
    std::shared_ptr<CSRDeviceDelegate> delegate() const { return reportDelegate(); }
    void setDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) { storeDelegate(std::move(delegate)); }
    // The last battery level read; 0 before any.
    virtual std::int64_t batteryLife() const = 0;
    // Device Information texts: empty until read, absent (nullopt) when the
    // value was not valid UTF-8. Only firmwareVersion is ever read.
    virtual std::optional<std::string> manufacturer() const = 0;
    virtual void setManufacturer(std::optional<std::string> text) = 0;
    virtual std::optional<std::string> model() const = 0;
    virtual void setModel(std::optional<std::string> text) = 0;
    virtual std::optional<std::string> hardwareVersion() const = 0;
    virtual void setHardwareVersion(std::optional<std::string> text) = 0;
    virtual std::optional<std::string> firmwareVersion() const = 0;
    virtual void setFirmwareVersion(std::optional<std::string> text) = 0;
    virtual std::optional<std::string> softwareVersion() const = 0;
    virtual void setSoftwareVersion(std::optional<std::string> text) = 0;
    // The pending firmware-version request, if any.
    virtual FirmwareVersionCompletion fwVersionBlock() const = 0;
    virtual void setFwVersionBlock(FirmwareVersionCompletion completion) = 0;

protected:
    CSRDevice() = default;
    CSRDevice(const CSRDevice&) = delete;
    CSRDevice& operator=(const CSRDevice&) = delete;

    // The delegate slot behind delegate()/setDelegate().
    virtual std::shared_ptr<CSRDeviceDelegate> reportDelegate() const = 0;
    virtual void storeDelegate(std::weak_ptr<CSRDeviceDelegate> delegate) = 0;
};

}  // namespace plenk
