#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <PlenkKit/CSRDevice.h>
#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/RKConfiguration.h>

namespace plenk {

class RKDevice;

// Codes of the scale device's failures: kindless errors of domain
// LEDeviceErrorDomain ("DeviceErrorDomain"), handed to the device's delegate
// (the kit, which turns them into its own kinds).
enum RKDeviceErrorCode : std::int64_t {
    kRKDeviceNoScaleService = 1000,                 // service discovery ended without "FF08"
    kRKDeviceMissingCharacteristic = 1001,          // "FF08" lacks "EF80" or "EF81"
    kRKDeviceServiceDiscoveryFailed = 1002,         // service discovery reported an error
    kRKDeviceCharacteristicDiscoveryFailed = 1003,  // characteristic discovery reported an error
    kRKDeviceWriteFailed = 1004,                    // a write failed and no completion took it
    kRKDeviceValueUpdateFailed = 1005,              // a read or notification reported an error
};

// Receiver of the scale device's reports: the generic device's three plus four
// of its own. Called on the "Corebluetooth" queue; empty defaults. The kit is
// the delegate of the device it owns.
class PLENK_EXPORT RKDeviceDelegate : public CSRDeviceDelegate {
public:
    ~RKDeviceDelegate() override;
    // "FF08"'s characteristics are known with "EF80" and "EF81" present; sent
    // once per discovery of that service, before notifications are switched on.
    virtual void deviceDidDiscoverAllCharacteristic(RKDevice& device);
    // Every value on "EF81", decoded by the peripheral's current name.
    virtual void deviceDidUpdateWeight(RKDevice& device, float weight);
    // A value on "EF82" starting with 01 (button 0) or 02 (button 1).
    virtual void deviceDidClickButton(RKDevice& device, std::uint64_t button);
    // A kindless error, domain LEDeviceErrorDomain ("DeviceErrorDomain"), code
    // an RKDeviceErrorCode (1000 to 1005). The platform's own error behind it
    // (1002 to 1005) is not passed on.
    virtual void deviceDidFailConfigureWithError(RKDevice& device, const ErrorPtr& error);
};

// One linked scale: finds "FF08" and its characteristics "EF80".."EF83",
// switches weight and button notifications on, writes command frames, reads
// the configuration record, runs the initialisation, default-configuration and
// synchronisation exchanges, switches the scale into firmware-update mode and
// decodes notifications for its delegate. The kit creates one per link; a host
// reaches it through RKRostaKit::currentDevice() (while linked).
//
// Commands may come from any thread; every report and completion runs on the
// "Corebluetooth" queue. Commands issued before "EF80" is known (reads before
// "EF83") are dropped silently and their completions never called; so are the
// completions of a device whose link is gone.
class PLENK_EXPORT RKDevice : public virtual CSRDevice {
public:
    // The result of a write on "EF80": (true, null) once the scale accepted it,
    // or (false, the platform's error) when the write failed: a kindless error
    // as the backend reported it, usually domain kAttErrorDomain
    // ("CBATTErrorDomain") with an AttCode the scale answered (e.g. 3, write
    // not permitted), or kPlatformErrorDomain with a PlatformCode for a link
    // failure. Results are handed to the pending slots in a fixed order
    // (dfuCompletion, then syncCompletion, then initCompletion), not matched to
    // the frame that caused them.
    using ResultCompletion = std::function<void(bool success, ErrorPtr error)>;
    // The raw 15-byte record read from "EF83" (a shorter value is zero-filled).
    using RecordCompletion = std::function<void(RKConfigurationRecord record)>;
    using ConfigurationCompletion = std::function<void(RKConfiguration configuration)>;

    ~RKDevice() override;

    // Non-owning: the kit, for a device the kit owns. Replacing it takes the
    // device's reports away from the kit.
    virtual std::shared_ptr<RKDeviceDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<RKDeviceDelegate> delegate) = 0;

    // Completion slots: each holds at most one; storing replaces (and drops,
    // uncalled) the pending one. configCompletion stays set after it fires.
    virtual ResultCompletion dfuCompletion() const = 0;
    virtual void setDfuCompletion(ResultCompletion completion) = 0;
    virtual ResultCompletion syncCompletion() const = 0;
    virtual void setSyncCompletion(ResultCompletion completion) = 0;
    virtual ResultCompletion initCompletion() const = 0;
    virtual void setInitCompletion(ResultCompletion completion) = 0;
    virtual RecordCompletion configValueCompletion() const = 0;
    virtual void setConfigValueCompletion(RecordCompletion completion) = 0;
    virtual ConfigurationCompletion configCompletion() const = 0;
    virtual void setConfigCompletion(ConfigurationCompletion completion) = 0;

    // Commands: one write with response on "EF80" each (two for LED on). A
    // failed write with no completion pending reaches the delegate as 1004.
    virtual void tare() = 0;
    virtual void calibrate(std::uint8_t value) = 0;
    // 1 selects the second unit, anything else the first.
    virtual void setUnit(std::int32_t unit) = 0;
    virtual void setLEDDisplayOn(bool on) = 0;
    virtual void setTimerOn(bool on, bool defaultOn) = 0;
    virtual void setTimerAutoStart(bool autoStart) = 0;
    virtual void setBLEPowerEnhanced(bool enhanced) = 0;
    virtual void setSleepTime(std::int32_t level, std::int32_t mode) = 0;
    virtual void setAdvertisingTime(std::int32_t level, std::int32_t mode) = 0;
    virtual void setFWDisconnect() = 0;
    virtual void sevenSegmentCommand(std::uint8_t command) = 0;
    virtual void sevenSegmentCommand(std::uint8_t command, std::uint8_t data) = 0;

    // Exchanges. Each completion gets a ResultCompletion's answers.
    // Arms syncCompletion, writes 04.
    virtual void synchronize(ResultCompletion completion) = 0;
    // Arms initCompletion and syncCompletion, then writes the eight default
    // frames at once: the first write's result goes to syncCompletion, the
    // second's to initCompletion, so `completion` is called twice.
    virtual void setDeaultConfiguartion(ResultCompletion completion) = 0;
    // Arms dfuCompletion, writes AA 55: the scale acknowledges the write
    // (`completion` with (true, null), or the platform's error), then drops
    // the link and restarts as "DfuTarg" for a firmware update.
    virtual void enableDFUMode(ResultCompletion completion) = 0;

    // Reads.
    // Switches notifications on for "EF81", then "EF82" (skipping an absent one).
    virtual void startUpdate() = 0;
    // Arms configValueCompletion (one raw record) and reads "EF83".
    virtual void readRawData(RecordCompletion completion) = 0;
    // Arms configCompletion (every later decoded record) and reads "EF83".
    virtual void readConfiguration(ConfigurationCompletion completion) = 0;
    // Reads the record; an unconfigured scale gets the default configuration
    // (`completion` called twice, as setDeaultConfiguartion calls it), a
    // configured one completes with (true, null) at once. A failed read never
    // completes (the delegate hears 1005).
    virtual void initializeConfiguration(ResultCompletion completion) = 0;

protected:
    RKDevice() = default;
};

}  // namespace plenk
