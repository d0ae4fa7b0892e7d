#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/BLEConnecter.h>
#include <PlenkKit/CSRSelectDeviceViewController.h>
#include <PlenkKit/Color.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/Export.h>
#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/Peripheral.h>
#include <PlenkKit/RKConfiguration.h>
#include <PlenkKit/RKDevice.h>
#include <PlenkKit/RKErrors.h>

// Kept for firmware-update code: a 4-byte integer, zero at start, that the
// library itself never reads or writes.
extern "C" {
PLENK_EXPORT extern std::int32_t dfu;
}

namespace plenk {

class RKRostaKit;

// Receiver of the kit's events. Every call arrives on the main queue, in the
// order the events happened. Every method has an empty default: overriding
// one is responding to it.
class PLENK_EXPORT RKRostaDelegate {
public:
    virtual ~RKRostaDelegate();
    virtual void rostaDidConnected(RKRostaKit& kit);
    virtual void rostaDidDisconnected(RKRostaKit& kit);
    // Every error is in RKErrorDomain. With auto-connect on:
    // - a failed connection: RKErrorLEConnectionUnknownC (103), ...InvalidParametersC
    //   (104), ...InvalidHandleC (105), ...TimeoutC (106) for the platform codes 11,
    //   12, 13, 14 (kPlatformConnectionLimitReached .. kPlatformPeerRemovedPairingInformation);
    //   ...InvalidHandleC (105) also when the platform gave no error; any other
    //   platform code is reported as nothing;
    // - a scale that fails its set-up: RKErrorLEValidationC (107, a discovery
    //   reported an error), RKErrorLEInvalidDeviceC (108, not a scale: no "FF08",
    //   "EF80" or "EF81"); a kindless Error (110) when the device gave no error.
    // In either mode, the link kept: RKErrorLEWriteC (109, a command write failed)
    // and RKErrorLEReadC (109, a read or notification failed).
    virtual void rostaDidErrorOccur(RKRostaKit& kit, const ErrorPtr& error);
    virtual void rostaWeightDidUpdate(float weight);
    virtual void rostaDeviceDidClickButton(std::uint64_t button);
    // Declared for firmware-update code; the kit never sends them.
    virtual void firmwareUpdateDidStart();
    virtual void firmwareUpdateProgress(std::int32_t percent);
    virtual void firmwareUpdateDidComplete();
};

// The host's texts and colours for the device picker. Every question may go
// unanswered (nullopt): the picker then uses its own default.
class PLENK_EXPORT RKRostaDataSource {
public:
    virtual ~RKRostaDataSource();
    virtual std::optional<std::string> titleForSelectAccessoryModalViewController();
    virtual std::optional<std::string> deviceStringForSelectAccessoryModalViewController();
    virtual std::optional<Color> backgroundColorForSelectAccessoryModalViewController();
    virtual std::optional<Color> navigationBarColorForSelectAccessoryModalViewController();
};

// What a modal device picker is presented on: a window of the host's toolkit,
// the terminal, or nothing visible at all in a headless host. The kit calls it
// on the thread that asked for the picker (the main thread).
class PLENK_EXPORT PickerPresenter {
public:
    virtual ~PickerPresenter();
    // User input is ignored from just before the presentation until it has finished.
    virtual void beginIgnoringInteractionEvents();
    virtual void endIgnoringInteractionEvents();
    // Shows `picker` modally; calls `completion` once it is on screen.
    virtual void presentViewController(const std::shared_ptr<CSRSelectDeviceViewController>& picker,
                                       bool animated, std::function<void()> completion) = 0;
};

// The controller between the public facade and the Bluetooth layers: it owns
// the connecter and, while a scale is linked, its device object; it finds
// scales, connects by itself (auto-connect) or from the picker, holds a dropped
// link when asked to (continuous connection), forwards commands and reports
// connection, weight, button and failures to its delegate on the main queue.
//
// Every operation may be called from any thread, also from inside any callback.
class PLENK_EXPORT RKRostaKit {
public:
    using PeripheralPtr = plenk::PeripheralPtr;
    // The picker's outcome, called possibly more than once (see
    // showDevicePickerOnViewContoller for what arrives where).
    using PickerCompletion = std::function<void(const ErrorPtr& error)>;
    using BatteryCompletion = std::function<void(std::int64_t level)>;
    // (true, null) once the scale accepted the write, or (false, the platform's
    // error passed through as the backend reported it: usually kAttErrorDomain
    // with an AttCode, or kPlatformErrorDomain with a PlatformCode).
    using ResultCompletion = std::function<void(bool success, const ErrorPtr& error)>;
    using ConfigurationCompletion = std::function<void(RKConfiguration configuration)>;
    using ConnectedBlock = std::function<void(const PeripheralPtr& peripheral, const ErrorPtr& error)>;

    // Radio state codes held in leState(); 0 before the first report.
    static constexpr std::uint64_t kLEStateUnknown = 100;
    static constexpr std::uint64_t kLEStatePoweredOff = 101;
    static constexpr std::uint64_t kLEStateNotSupported = 102;
    static constexpr std::uint64_t kLEStateUnauthorized = 103;
    static constexpr std::uint64_t kLEStatePoweredOn = 104;

    // A kit with auto-connect and continuous connection on, observing the two
    // application-state notifications on the context's notification centre.
    // Throws std::invalid_argument for an unknown backend name.
    static std::shared_ptr<RKRostaKit> create(const Context& context = {});
    virtual ~RKRostaKit();

    // --- Connection (properties and lifecycle) ---------------------------------
    virtual bool isAutoConnectEnabled() const = 0;
    // Stores the flag; off stops scanning, on scans unless a device exists or
    // the system already holds a connected scale.
    virtual void setIsAutoConnectEnabled(bool enabled) = 0;
    virtual bool isContinuousConnectionEnabled() const = 0;
    // Stores the flag only. Every connectPeripheral() overwrites it.
    virtual void setIsContinuousConnectionEnabled(bool enabled) = 0;
    virtual bool isConnected() const = 0;
    virtual std::uint64_t leState() const = 0;

    virtual std::shared_ptr<RKRostaDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<RKRostaDelegate> delegate) = 0;
    virtual std::shared_ptr<RKRostaDataSource> dataSource() const = 0;
    virtual void setDataSource(std::weak_ptr<RKRostaDataSource> dataSource) = 0;

    // Empties the picker list and starts an unfiltered scan.
    virtual void scanDeivces() = 0;
    // Connects a peripheral this library handed out (discoveredResults, the
    // connecter's events); null or any other handle is ignored.
    virtual void connectPeripheral(const PeripheralPtr& peripheral) = 0;
    // Drops the current device's link; the teardown follows the link-loss event.
    virtual void disconnect() = 0;
    // The kit's own teardown after a link loss: not connected, device released,
    // rostaDidDisconnected to the delegate.
    virtual void actDisconnect() = 0;
    // Application-state observers (also reached through the notification centre).
    virtual void didActive(const Notification& notification) = 0;
    virtual void didEnterInBackground(const Notification& notification) = 0;

    // --- Commands to the scale (each does nothing without a device) -------------
    virtual void tare() = 0;
    virtual void calibrate(std::uint8_t value) = 0;
    virtual void sevenSegmentCommand(std::uint8_t command, std::uint8_t andData) = 0;
    // Command 0xE0 | (block & 7): blocks 0-7, a block of 9 addresses block 1.
    virtual void sevenSegmentBlock(std::uint8_t block, std::uint8_t andValue) = 0;
    virtual void sevenSegmentPreset(std::uint8_t value) = 0;
    virtual void sevenSegmentUpdate() = 0;
    virtual void sevenSegmentReleaseControl() = 0;
    virtual void sevenSegmentSwitchOn(bool on) = 0;
    virtual void getFWVersion() = 0;
    virtual void indicationLEDSwitchOn(bool on) = 0;
    virtual void setEngineeringMode(bool on) = 0;
    virtual void setAdvertisingTime(std::int32_t time, std::int32_t mode) = 0;
    virtual void setSleepTime(std::int32_t time, std::int32_t mode) = 0;
    virtual void setTimerOn(bool on, bool defaultOn) = 0;
    virtual void setTimerAutoStart(bool autoStart) = 0;
    virtual void setBLEPowerEnhanced(bool enhanced) = 0;
    virtual void setLEDDisplayOn(bool on) = 0;
    // Any non-zero unit is sent as 1.
    virtual void setUnit(std::int32_t unit) = 0;
    virtual void setFWDisconnect() = 0;

    // --- Exchanges (completions run on the main queue; dropped without a device) -
    // Both complete with a ResultCompletion's answers (a write's result).
    // On an unconfigured scale the completion runs twice, with the results of
    // the first two writes of the default configuration; on a configured one
    // once, with (true, null). A failed record read never completes
    // (rostaDidErrorOccur hears RKErrorLEReadC).
    virtual void initializeConfiguration(ResultCompletion completion) = 0;
    virtual void synchronize(ResultCompletion completion) = 0;
    // Every record read from then on, decoded; no error is ever delivered (a
    // failed read reaches rostaDidErrorOccur as RKErrorLEReadC instead).
    virtual void readConfiguration(ConfigurationCompletion completion) = 0;
    // A later request replaces a pending one, which is then never called.
    virtual void readRostaBatteryLifeWithCompletion(BatteryCompletion completion) = 0;

    // --- Device picker (auto-connect off) ----------------------------------------
    // Lets the user pick a scale; `completion` hears, all in RKErrorDomain:
    // - at once, on the calling thread, and no picker opens:
    //   RKErrorLENotAvailableCUnknown / ...COff / ...CNotSupport /
    //   ...CUnauthorized (101, all kinds of RKErrorLENotAvailableC) when the
    //   radio is not powered on; RKErrorLEDeviceAllreadyConnectedC (102) when a
    //   scale is linked. Nothing at all before the radio's first report or with
    //   auto-connect on.
    // - on the main queue: null once the chosen scale is linked (the picker is
    //   dismissed first), RKErrorLECancelC (100) when the user cancelled.
    // - on the Bluetooth queue, while the picker mode is on (the picker stays
    //   open, the completion is kept and may be called again): a failed
    //   connection, 103 to 106 as for rostaDidErrorOccur, or a kindless Error
    //   (110) when the platform gave no error; a failed scale set-up,
    //   RKErrorLEValidationC (107), RKErrorLEInvalidDeviceC (108), or 110.
    virtual void showDevicePickerOnViewContoller(const std::shared_ptr<PickerPresenter>& viewController,
                                                 PickerCompletion completion) = 0;

    // --- Owned objects and completion slots ----------------------------------------
    virtual std::shared_ptr<BLEConnecter> connecter() const = 0;
    virtual std::vector<PeripheralPtr> discoveredResults() const = 0;
    virtual std::shared_ptr<CSRSelectDeviceViewController> scanViewController() const = 0;
    virtual std::shared_ptr<RKDevice> currentDevice() const = 0;
    virtual PeripheralPtr connectingPeripheral() const = 0;
    virtual PickerCompletion pickerCompletion() const = 0;
    virtual void setPickerCompletion(PickerCompletion completion) = 0;
    virtual BatteryCompletion batteryCompletion() const = 0;
    virtual void setBatteryCompletion(BatteryCompletion completion) = 0;

    // --- Firmware-update hooks ------------------------------------------------------
    // Arms the connection of the first discovered peripheral whose name contains
    // "DfuTarg" (the block itself is not called); connectedBlock then receives
    // that peripheral once linked (on the Bluetooth queue, with a null error:
    // a failed bootloader connection does not reach it), and dfuPeripheral()
    // holds it until it drops.
    virtual std::function<void()> discoeredBlock() const = 0;
    virtual void setDiscoeredBlock(std::function<void()> block) = 0;
    virtual ConnectedBlock connectedBlock() const = 0;
    virtual void setConnectedBlock(ConnectedBlock block) = 0;
    virtual PeripheralPtr dfuPeripheral() const = 0;
    // Kept for firmware-update code; the kit never reads them.
    virtual std::function<void()> waitBlock() const = 0;
    virtual void setWaitBlock(std::function<void()> block) = 0;
    virtual std::function<void(std::int32_t percent)> progressBlock() const = 0;
    virtual void setProgressBlock(std::function<void(std::int32_t percent)> block) = 0;
    virtual ResultCompletion completionBlock() const = 0;
    virtual void setCompletionBlock(ResultCompletion block) = 0;

protected:
    RKRostaKit() = default;
    RKRostaKit(const RKRostaKit&) = delete;
    RKRostaKit& operator=(const RKRostaKit&) = delete;
};

}  // namespace plenk
