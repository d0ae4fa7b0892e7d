#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/CSRSelectDeviceViewController.h>
#include <PlenkKit/Context.h>
#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/RKRostaKit.h>

#include "RostaKit/RKDeviceCore.h"
#include "ble/BLEConnecterCore.h"
#include "dispatch/Guarded.h"
#include "dispatch/HostQueue.h"

namespace plenk {

// The kit's implementation: the public RKRostaKit plus the receiver roles it
// plays for the layers below (connecter, device, picker).
//
// Locking: one recursive mutex guards every field. It is held only while
// calling down (connecter, device, picker model); calls up (completions,
// notification observers, the log sink, the presenter, picker views) and posts
// to the host's main queue are collected while it is held and made once it is
// released. Delegate calls are always posted to the main queue, each task
// holding a weak reference to the kit and reading the delegate when it runs.
//
// The lifecycle is in RKRostaKit.cpp, link events in RKRostaKitLink.cpp,
// commands and exchanges in RKRostaKitCommands.cpp, failures in
// RKRostaKitFailures.cpp and the picker in RKRostaKitPicker.cpp.
class RKRostaKitCore final : public RKRostaKit,
                             public BLEConnecterDelegate,
                             public RKDeviceDelegate,
                             public CSRSelectDeviceViewControllerDataSource,
                             public CSRSelectDeviceViewControllerDelegate,
                             public std::enable_shared_from_this<RKRostaKitCore> {
private:
    struct Token {};

public:
    // The scale service every system-connected lookup asks for.
    static const bt::Uuid& scaleServiceUuid();

    RKRostaKitCore(Token, const Context& resolvedContext);
    ~RKRostaKitCore() override;

    static std::shared_ptr<RKRostaKitCore> make(const Context& context);
    // The implementation behind a kit made by RKRostaKit::create().
    static RKRostaKitCore& of(RKRostaKit& kit) { return static_cast<RKRostaKitCore&>(kit); }

    const Context& context() const { return context_; }

    // True while a kit's main-queue task is calling `delegate` on this thread.
    // The facade, a kit's delegate, then passes the event to the host in the
    // same task: every host callback, delegate event or completion, takes
    // exactly one main-queue hop, so all arrive in event order.
    static bool isDeliveringTo(const RKRostaDelegate* delegate);

    // --- RKRostaKit ---------------------------------------------------------------
    bool isAutoConnectEnabled() const override;
    void setIsAutoConnectEnabled(bool enabled) override;
    bool isContinuousConnectionEnabled() const override;
    void setIsContinuousConnectionEnabled(bool enabled) override;
    bool isConnected() const override;
    std::uint64_t leState() const override;
    std::shared_ptr<RKRostaDelegate> delegate() const override;
    void setDelegate(std::weak_ptr<RKRostaDelegate> delegate) override;
    std::shared_ptr<RKRostaDataSource> dataSource() const override;
    void setDataSource(std::weak_ptr<RKRostaDataSource> dataSource) override;

    void scanDeivces() override;
    void connectPeripheral(const PeripheralPtr& peripheral) override;
    void disconnect() override;
    void actDisconnect() override;
    void didActive(const Notification& notification) override;
    void didEnterInBackground(const Notification& notification) override;

    void tare() override;
    void calibrate(std::uint8_t value) override;
    void sevenSegmentCommand(std::uint8_t command, std::uint8_t andData) override;
    void sevenSegmentBlock(std::uint8_t block, std::uint8_t andValue) override;
    void sevenSegmentPreset(std::uint8_t value) override;
    void sevenSegmentUpdate() override;
    void sevenSegmentReleaseControl() override;
    void sevenSegmentSwitchOn(bool on) override;
    void getFWVersion() override;
    void indicationLEDSwitchOn(bool on) override;
    void setEngineeringMode(bool on) override;
    void setAdvertisingTime(std::int32_t time, std::int32_t mode) override;
    void setSleepTime(std::int32_t time, std::int32_t mode) override;
    void setTimerOn(bool on, bool defaultOn) override;
    void setTimerAutoStart(bool autoStart) override;
    void setBLEPowerEnhanced(bool enhanced) override;
    void setLEDDisplayOn(bool on) override;
    void setUnit(std::int32_t unit) override;
    void setFWDisconnect() override;

    void initializeConfiguration(ResultCompletion completion) override;
    void synchronize(ResultCompletion completion) override;
    void readConfiguration(ConfigurationCompletion completion) override;
    void readRostaBatteryLifeWithCompletion(BatteryCompletion completion) override;

    void showDevicePickerOnViewContoller(const std::shared_ptr<PickerPresenter>& viewController,
                                         PickerCompletion completion) override;

    std::shared_ptr<BLEConnecter> connecter() const override;
    std::vector<PeripheralPtr> discoveredResults() const override;
    std::shared_ptr<CSRSelectDeviceViewController> scanViewController() const override;
    std::shared_ptr<RKDevice> currentDevice() const override;
    PeripheralPtr connectingPeripheral() const override;
    PickerCompletion pickerCompletion() const override;
    void setPickerCompletion(PickerCompletion completion) override;
    BatteryCompletion batteryCompletion() const override;
    void setBatteryCompletion(BatteryCompletion completion) override;

    std::function<void()> discoeredBlock() const override;
    void setDiscoeredBlock(std::function<void()> block) override;
    ConnectedBlock connectedBlock() const override;
    void setConnectedBlock(ConnectedBlock block) override;
    PeripheralPtr dfuPeripheral() const override;
    std::function<void()> waitBlock() const override;
    void setWaitBlock(std::function<void()> block) override;
    std::function<void(std::int32_t percent)> progressBlock() const override;
    void setProgressBlock(std::function<void(std::int32_t percent)> block) override;
    ResultCompletion completionBlock() const override;
    void setCompletionBlock(ResultCompletion block) override;

    // --- BLEConnecterDelegate (Bluetooth queue) -------------------------------------
    void connecterDidDiscoverPeripheral(BLEConnecter& connecter, const PeripheralPtr& peripheral) override;
    void connecterDidConnectPeripheralUserInfo(BLEConnecter& connecter, const PeripheralPtr& peripheral,
                                               const ConnecterUserInfo& userInfo) override;
    void connecterDidDisconnectPeripheralUserInfo(BLEConnecter& connecter, const PeripheralPtr& peripheral,
                                                  const ConnecterUserInfo& userInfo) override;
    void connecterDidFailToConnectPeripheralUserInfo(
        BLEConnecter& connecter, const PeripheralPtr& peripheral,
        const std::optional<ConnecterUserInfo>& userInfo) override;
    void connecterDidDidUpdateStateWithUserInfo(BLEConnecter& connecter,
                                                const std::optional<ConnecterUserInfo>& userInfo) override;

    // --- RKDeviceDelegate (Bluetooth queue) -----------------------------------------
    void batteryLifeOnDevice(std::int64_t level, CSRDevice& device) override;
    void deviceDidDiscoverAllCharacteristic(RKDevice& device) override;
    void deviceDidUpdateWeight(RKDevice& device, float weight) override;
    void deviceDidClickButton(RKDevice& device, std::uint64_t button) override;
    void deviceDidFailConfigureWithError(RKDevice& device, const ErrorPtr& error) override;

    // --- Picker data source and delegate (main thread) ------------------------------
    std::int64_t viewControllerNumberOfRowsInSection(CSRSelectDeviceViewController& viewController,
                                                     std::int64_t section) override;
    std::string viewControllerTitleForRowAtIndexPath(CSRSelectDeviceViewController& viewController,
                                                     const IndexPath& indexPath) override;
    std::optional<std::string> titleForViewController(CSRSelectDeviceViewController& viewController) override;
    std::optional<std::string> deviceStringForViewController(
        CSRSelectDeviceViewController& viewController) override;
    std::optional<Color> backgroundColorViewController(
        CSRSelectDeviceViewController& viewController) override;
    std::optional<Color> navigationBarColorViewController(
        CSRSelectDeviceViewController& viewController) override;
    void viewControllerDidSelectRowAtIndexPath(CSRSelectDeviceViewController& viewController,
                                               const IndexPath& indexPath) override;
    void viewControllerDidDismiss(CSRSelectDeviceViewController& viewController) override;

private:
    // Holds the kit's lock. Calls queued with later() run, in order, once the
    // outermost scope on this thread has released the lock.
    class Scope {
    public:
        explicit Scope(const RKRostaKitCore& kit);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        const RKRostaKitCore& kit_;
        std::unique_lock<std::recursive_mutex> lock_;
        std::vector<Task> own_;
    };

    // Marks this thread as delivering to a delegate for the task's duration.
    class Delivery {
    public:
        explicit Delivery(const RKRostaDelegate* delegate);
        ~Delivery();
        Delivery(const Delivery&) = delete;
        Delivery& operator=(const Delivery&) = delete;

    private:
        const RKRostaDelegate* previous_;
    };

    // A main-queue task calling the delegate, if the kit and its delegate are
    // still there when it runs.
    template <typename F>
    static auto toDelegate(std::weak_ptr<RKRostaKitCore> weak, F call) {
        return [weak = std::move(weak), call = std::move(call)] {
            auto kit = weak.lock();
            if (!kit) return;
            auto delegate = kit->delegate();
            if (!delegate) return;
            Delivery marker(delegate.get());
            call(*delegate, *kit);
        };
    }

    // Field access under the lock; a replaced value (a host closure, say) is
    // released once the lock is let go.
    template <typename T>
    T locked(const T& field) const {
        return dispatch::loadLocked(mutex_, field);
    }
    template <typename T>
    void replace(T& field, T value) {
        Scope scope(*this);
        std::swap(field, value);
        later([old = std::move(value)] {});
    }

    void start();
    // Only inside a Scope.
    void later(Task call) const;
    // Posts to the host's main queue once the lock is released. Only inside a Scope.
    void postLater(Task task) const;
    void postNotification(std::string_view name, std::optional<std::string> object = std::nullopt) const;
    void writeLog(std::string text) const;

    // Delegate calls: posted to the main queue, delegate read when they run.
    void sendConnected();
    void sendDisconnected();
    void sendError(ErrorPtr error);
    // A failure by the current mode: delegate (auto-connect) or picker completion.
    void reportFailure(ErrorPtr error);

    // Pieces of the lifecycle, all called inside a Scope.
    void scanDevicesLocked();
    void stopScanLocked();
    void connectLocked(const PeripheralPtr& peripheral);
    void actDisconnectLocked();
    void tearDownAfterLinkLoss();
    bool reconnectHeldDevice();
    void reconnectHeld(const PeripheralPtr& peripheral);
    // Ends a hold that did not relink: the pending reconnect is cancelled and
    // the kit tears down (one rostaDidDisconnected).
    void abandonHoldLocked();
    bool holdingLocked() const { return holdTarget_ != nullptr; }
    bool isHeldPeripheralLocked(const PeripheralPtr& peripheral) const;
    // A late event of a link the kit gave up is swallowed once.
    bool consumeAbandonedLocked(const PeripheralPtr& peripheral);
    void armWatchdog(const PeripheralPtr& peripheral, std::uint64_t hold);
    void runWatchdog(const PeripheralPtr& peripheral, std::uint64_t hold);
    void reloadPickerLater();
    void dismissPickerAfterConnection();
    std::vector<PeripheralPtr> systemConnectedScales() const;

    // Runs `command` on the current device, if there is one.
    template <typename F>
    void withDevice(F&& command) const;

    const Context context_;  // resolved, without the main queue (held weakly below)
    const dispatch::HostQueue mainQueue_;

    mutable std::recursive_mutex mutex_;
    mutable int depth_ = 0;                        // nesting of Scope on the owning thread
    mutable std::vector<Task>* outbox_ = nullptr;  // the outermost Scope's calls

    bool isAutoConnectEnabled_ = true;
    bool isContinuousConnectionEnabled_ = true;
    bool isConnected_ = false;
    std::weak_ptr<RKRostaDataSource> dataSource_;
    std::weak_ptr<RKRostaDelegate> delegate_;
    std::shared_ptr<BLEConnecterCore> connecter_;
    std::vector<PeripheralPtr> discoveredResults_;
    std::shared_ptr<CSRSelectDeviceViewController> scanViewController_;
    std::shared_ptr<RKDeviceCore> currentDevice_;
    PeripheralPtr connectingPeripheral_;
    std::uint64_t leState_ = 0;
    PickerCompletion pickerCompletion_;
    BatteryCompletion batteryCompletion_;
    PeripheralPtr dfuPeripheral_;
    std::function<void()> waitBlock_;
    std::function<void(std::int32_t)> progressBlock_;
    ResultCompletion completionBlock_;
    std::function<void()> discoeredBlock_;
    ConnectedBlock connectedBlock_;

    // A held link's reconnect in flight: the peripheral being reconnected, from
    // the link loss until the device has found its characteristics again.
    PeripheralPtr holdTarget_;
    std::uint64_t holdGeneration_ = 0;  // tells a stale watchdog from the current hold's
    // The peripheral of a hold the kit gave up while its link might still report.
    PeripheralPtr abandoned_;

    NotificationCenter::Token didBecomeActiveToken_ = 0;
    NotificationCenter::Token didEnterBackgroundToken_ = 0;
};

template <typename F>
void RKRostaKitCore::withDevice(F&& command) const {
    Scope scope(*this);
    if (currentDevice_) command(*currentDevice_);
}

}  // namespace plenk
