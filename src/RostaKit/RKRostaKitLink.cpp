// The kit's connection lifecycle: radio state, discovery and name filtering,
// connecting, link up, "all characteristics found", disconnection and the
// continuous-connection reconnect with its watchdog.

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "RostaKit/RKRostaKitCore.h"
#include "wire/GattUuids.h"

namespace plenk {

namespace {

constexpr auto kReconnectWatchdogDelay = std::chrono::seconds(3);

bool nameContains(const std::optional<std::string>& name, std::string_view part) {
    return name && name->find(part) != std::string::npos;
}

// Scales advertise a name containing one of these (case-sensitive).
bool isScaleName(const std::optional<std::string>& name) {
    return nameContains(name, "Coffee") || nameContains(name, "Plenk");
}

std::string stateText(const PeripheralPtr& peripheral) {
    return std::to_string(static_cast<int>(peripheral->state()));
}

}  // namespace

// --- Host operations ------------------------------------------------------------------------

void RKRostaKitCore::setIsAutoConnectEnabled(bool enabled) {
    Scope scope(*this);
    isAutoConnectEnabled_ = enabled;
    if (!enabled) {
        stopScanLocked();
    } else if (!currentDevice_ && systemConnectedScales().empty()) {
        // A scale the system already holds is left alone.
        scanDevicesLocked();
    }
}

void RKRostaKitCore::scanDeivces() {
    Scope scope(*this);
    if (!discoveredResults_.empty()) {
        later([released = std::move(discoveredResults_)] {});
        discoveredResults_.clear();
        reloadPickerLater();
    }
    scanDevicesLocked();
}

void RKRostaKitCore::connectPeripheral(const PeripheralPtr& peripheral) {
    if (!bt::portPeripheral(peripheral)) return;  // none, or not a handle this library handed out
    Scope scope(*this);
    connectLocked(peripheral);
}

void RKRostaKitCore::disconnect() {
    Scope scope(*this);
    if (currentDevice_ && connecter_) {
        if (auto peripheral = currentDevice_->peripheral()) connecter_->disconnect(peripheral);
    }
}

void RKRostaKitCore::actDisconnect() {
    Scope scope(*this);
    actDisconnectLocked();
}

void RKRostaKitCore::didActive(const Notification&) {
    Scope scope(*this);
    if (currentDevice_) return;
    const auto connected = systemConnectedScales();
    if (connected.empty()) {
        if (isAutoConnectEnabled_) {
            scanDevicesLocked();
        } else {
            stopScanLocked();
        }
        return;
    }
    for (const auto& peripheral : connected) {
        if (peripheral && peripheral->state() == bt::PeripheralState::Disconnected) {
            connectLocked(peripheral);
            return;
        }
    }
}

void RKRostaKitCore::didEnterInBackground(const Notification&) {}

// --- Pieces used under the lock -----------------------------------------------------------------

void RKRostaKitCore::scanDevicesLocked() {
    if (connecter_) connecter_->scanDevices();
}

void RKRostaKitCore::stopScanLocked() {
    if (connecter_) connecter_->stopScan();
}

std::vector<RKRostaKit::PeripheralPtr> RKRostaKitCore::systemConnectedScales() const {
    if (!connecter_) return {};
    return connecter_->retrieveConnectedPeripheralWithServiceUUIDs({scaleServiceUuid()});
}

void RKRostaKitCore::connectLocked(const PeripheralPtr& peripheral) {
    if (!peripheral) return;
    // A scale picked by hand (auto-connect off) is always held through a link
    // loss; an auto-connected one never is.
    isContinuousConnectionEnabled_ = !isAutoConnectEnabled_;
    stopScanLocked();
    if (connecter_) connecter_->connectDeviceWithPeripheral(peripheral);
    later([released = std::move(connectingPeripheral_)] {});
    connectingPeripheral_ = peripheral;
}

void RKRostaKitCore::actDisconnectLocked() {
    writeLog(" $ normal disconnection ");
    isConnected_ = false;
    if (currentDevice_) {
        // Released once the lock is let go; its delegate link is left as is.
        later([device = std::move(currentDevice_)] {});
        currentDevice_ = nullptr;
    }
    sendDisconnected();
}

void RKRostaKitCore::reloadPickerLater() {
    if (auto picker = scanViewController_)
        mainQueue_->post([picker = std::move(picker)] { picker->reloadData(); });
}

// --- Connecter events ---------------------------------------------------------------------------

void RKRostaKitCore::connecterDidDidUpdateStateWithUserInfo(
    BLEConnecter&, const std::optional<ConnecterUserInfo>& userInfo) {
    const auto has = [&](std::string_view key) { return userInfo && userInfo->has(key); };
    Scope scope(*this);
    if (has(kBlePowerOn)) {
        leState_ = kLEStatePoweredOn;
        if (isAutoConnectEnabled_) scanDevicesLocked();
    } else if (has(kBleNotSupport)) {
        leState_ = kLEStateNotSupported;
    } else if (has(kBleUnauthorized)) {
        leState_ = kLEStateUnauthorized;
    } else if (has(kBlePowerOff)) {
        leState_ = kLEStatePoweredOff;
    } else {
        leState_ = kLEStateUnknown;
    }
}

void RKRostaKitCore::connecterDidDiscoverPeripheral(BLEConnecter&, const PeripheralPtr& peripheral) {
    if (!peripheral) return;
    Scope scope(*this);
    postNotification(kLogNotification, "didDiscoverPeripheral");
    const auto name = peripheral->name();

    // A scale restarted as a firmware-update target is connected only when armed.
    if (nameContains(name, wire::kDfuTargetName)) {
        if (discoeredBlock_) {
            connectLocked(peripheral);
            later([released = std::move(discoeredBlock_)] {});
            discoeredBlock_ = nullptr;
        }
        return;
    }

    const bool autoConnectPath =
        isAutoConnectEnabled_ || (!scanViewController_ && isContinuousConnectionEnabled_);
    if (autoConnectPath) {
        // The first acceptable advertisement wins.
        if (!isScaleName(name) || currentDevice_) return;
        connectLocked(peripheral);
        return;
    }

    for (const auto& listed : discoveredResults_) {
        if (listed->identifier() == peripheral->identifier()) return;
    }
    if (!isScaleName(name)) return;
    discoveredResults_.push_back(peripheral);
    reloadPickerLater();
}

void RKRostaKitCore::connecterDidConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& peripheral,
                                                           const ConnecterUserInfo&) {
    if (!peripheral) return;
    Scope scope(*this);

    const auto name = peripheral->name();
    if (connectedBlock_ && name && *name == wire::kDfuTargetName) {
        stopScanLocked();
        dfuPeripheral_ = peripheral;
        later([block = std::move(connectedBlock_), peripheral] { block(peripheral, nullptr); });
        connectedBlock_ = nullptr;
        return;
    }

    if (currentDevice_) {
        // A second link never replaces the device. A held scale coming back
        // hands its new peripheral object to the device it already has.
        const auto held = currentDevice_->peripheral();
        const bool sameScale = held && held->identifier() == peripheral->identifier();
        if (!isAutoConnectEnabled_ && isContinuousConnectionEnabled_ && sameScale) {
            stopScanLocked();
            currentDevice_->renewPeripheral(peripheral);
        } else if (connecter_) {
            connecter_->disconnect(peripheral);
        }
        return;
    }

    stopScanLocked();
    auto device = RKDeviceCore::create(peripheral, context_.log);
    if (!device) return;
    device->setDelegate(std::weak_ptr<RKDeviceDelegate>(weak_from_this()));
    currentDevice_ = std::move(device);
}

void RKRostaKitCore::deviceDidDiscoverAllCharacteristic(RKDevice& device) {
    Scope scope(*this);
    if (&device != currentDevice_.get()) return;  // a released device's late report
    stopScanLocked();
    postNotification(kConnectNotification);
    // A held connection coming back: the host hears nothing new.
    if (!isAutoConnectEnabled_ && isContinuousConnectionEnabled_ && isConnected_) return;
    isConnected_ = true;
    sendConnected();
    // Every fresh connection zeroes the scale.
    device.tare();
    if (!isAutoConnectEnabled_) dismissPickerAfterConnection();
}

void RKRostaKitCore::dismissPickerAfterConnection() {
    mainQueue_->post([weak = weak_from_this()] {
        auto kit = weak.lock();
        if (!kit) return;
        auto picker = kit->scanViewController();
        if (!picker) return;
        picker->dismiss(true, [weak, picker] {
            auto kit = weak.lock();
            if (!kit) return;
            PickerCompletion completion;
            {
                Scope scope(*kit);
                if (kit->scanViewController_ == picker) kit->scanViewController_ = nullptr;
                completion = kit->pickerCompletion_;
            }
            if (completion) completion(nullptr);
        });
    });
}

void RKRostaKitCore::connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& peripheral,
                                                              const ConnecterUserInfo&) {
    Scope scope(*this);
    if (peripheral && peripheral == dfuPeripheral_) {
        later([released = std::move(dfuPeripheral_)] {});
        dfuPeripheral_ = nullptr;
    }
    if (currentDevice_ && peripheral) {
        // A link the kit refused (a second scale linking up while it holds
        // one) going down leaves the device's own link alone.
        const auto held = currentDevice_->peripheral();
        if (held && held->identifier() != peripheral->identifier()) return;
    }
    const bool hold = !isAutoConnectEnabled_ && isContinuousConnectionEnabled_ && isConnected_;
    if (!hold || !reconnectHeldDevice()) tearDownAfterLinkLoss();
}

void RKRostaKitCore::tearDownAfterLinkLoss() {
    actDisconnectLocked();
    if (isAutoConnectEnabled_) scanDevicesLocked();
}

// Tries to get the held scale back: first among the peripherals the system
// holds connected, else among those it knows by the scale's identifier (then
// with a watchdog). False when nothing qualifies.
bool RKRostaKitCore::reconnectHeldDevice() {
    const auto connected = systemConnectedScales();
    postNotification(kLogNotification, "$  connectedDevices count " + std::to_string(connected.size()) + " ");
    postNotification(kReconnectNotification);

    const auto held = currentDevice_ ? currentDevice_->peripheral() : nullptr;
    const auto isHeldAndIdle = [&](const PeripheralPtr& candidate) {
        return held && candidate && candidate->identifier() == held->identifier() &&
               candidate->state() == bt::PeripheralState::Disconnected;
    };

    if (!connected.empty()) {
        for (const auto& candidate : connected) {
            if (isHeldAndIdle(candidate)) {
                connectLocked(candidate);
                return true;
            }
        }
        return false;
    }

    if (!held || !connecter_) return false;
    const auto known = connecter_->retrievePeripheralWithIdentifiers({held->identifier()});
    postNotification(kLogNotification, "$  retrieveDevices count " + std::to_string(known.size()) + " ");
    for (const auto& candidate : known) {
        if (!candidate) continue;
        postNotification(kLogNotification, "$  thePeripheral state " + stateText(candidate) + " ");
        if (isHeldAndIdle(candidate)) {
            connectLocked(candidate);
            armWatchdog(candidate);
            return true;
        }
    }
    return false;
}

// A reconnect still connecting after three seconds is given up. The timer
// holds the kit and the peripheral weakly: a pending watchdog keeps nothing
// alive, and with either gone there is nothing left to cancel.
void RKRostaKitCore::armWatchdog(const PeripheralPtr& peripheral) {
    mainQueue_->postAfter(kReconnectWatchdogDelay,
                          [weak = weak_from_this(), target = std::weak_ptr<Peripheral>(peripheral)] {
                              auto kit = weak.lock();
                              auto peripheral = target.lock();
                              if (kit && peripheral) kit->runWatchdog(peripheral);
                          });
}

void RKRostaKitCore::runWatchdog(const PeripheralPtr& peripheral) {
    Scope scope(*this);
    const auto state = peripheral->state();
    postNotification(kLogNotification,
                     "$  second thePeripheral state " + std::to_string(static_cast<int>(state)) + " ");
    if (state != bt::PeripheralState::Connecting) return;
    if (connecter_) connecter_->cancelConnectDeviceWithPeripheral(peripheral);
    actDisconnectLocked();
}

}  // namespace plenk
