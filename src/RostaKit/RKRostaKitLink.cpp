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
    // A host disconnect during a hold ends it: cancelling a pending connect
    // produces no event, so the teardown happens here.
    if (holdingLocked()) {
        abandonHoldLocked();
        return;
    }
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
    if (holdTarget_) later([released = std::move(holdTarget_)] {});
    holdTarget_ = nullptr;
    if (currentDevice_) {
        // Released once the lock is let go; its delegate link is left as is.
        later([device = std::move(currentDevice_)] {});
        currentDevice_ = nullptr;
    }
    sendDisconnected();
}

void RKRostaKitCore::reloadPickerLater() {
    if (auto picker = scanViewController_) postLater([picker = std::move(picker)] { picker->reloadData(); });
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
    // A reconnect issued while the radio is off never completes: the hold ends.
    if (leState_ != kLEStatePoweredOn && holdingLocked()) abandonHoldLocked();
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
    if (abandoned_) later([released = std::move(abandoned_)] {});
    abandoned_ = nullptr;
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
    if (holdTarget_) later([released = std::move(holdTarget_)] {});
    holdTarget_ = nullptr;  // relinked: the hold is over
    // A held connection coming back: the host hears nothing new.
    if (!isAutoConnectEnabled_ && isContinuousConnectionEnabled_ && isConnected_) return;
    isConnected_ = true;
    sendConnected();
    // Every fresh connection zeroes the scale.
    device.tare();
    if (!isAutoConnectEnabled_) dismissPickerAfterConnection();
}

void RKRostaKitCore::dismissPickerAfterConnection() {
    postLater([weak = weak_from_this()] {
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
    if (consumeAbandonedLocked(peripheral)) return;
    if (currentDevice_ && peripheral) {
        // A link the kit refused (a second scale linking up while it holds
        // one) going down leaves the device's own link alone.
        const auto held = currentDevice_->peripheral();
        if (held && held->identifier() != peripheral->identifier()) return;
    }
    // A link lost while the radio is off cannot come back by itself.
    const bool hold = !isAutoConnectEnabled_ && isContinuousConnectionEnabled_ && isConnected_ &&
                      leState_ == kLEStatePoweredOn;
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
                reconnectHeld(candidate);
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
            reconnectHeld(candidate);
            return true;
        }
    }
    return false;
}

// Both roads back (a scale the system holds, one known by identifier) are
// bounded by the watchdog. A link that drops again before it has relinked
// keeps the first loss's deadline, so a flapping link cannot stretch a hold.
void RKRostaKitCore::reconnectHeld(const PeripheralPtr& peripheral) {
    const bool alreadyHolding = holdingLocked();
    connectLocked(peripheral);
    later([released = std::move(holdTarget_)] {});
    holdTarget_ = peripheral;
    if (alreadyHolding) return;
    armWatchdog(peripheral, ++holdGeneration_);
}

bool RKRostaKitCore::isHeldPeripheralLocked(const PeripheralPtr& peripheral) const {
    return holdTarget_ && peripheral && peripheral->identifier() == holdTarget_->identifier();
}

void RKRostaKitCore::abandonHoldLocked() {
    if (!holdTarget_) return;
    const auto target = holdTarget_;
    // Cancelling a pending connect is silent; a link that is already up again
    // reports its loss later, and that late report must not tear down twice.
    const auto state = target->state();  // before the cancel changes it
    if (connecter_) connecter_->cancelConnectDeviceWithPeripheral(target);
    if (state == bt::PeripheralState::Connected || state == bt::PeripheralState::Disconnecting) {
        later([released = std::move(abandoned_)] {});
        abandoned_ = target;
    }
    actDisconnectLocked();
}

bool RKRostaKitCore::consumeAbandonedLocked(const PeripheralPtr& peripheral) {
    if (!abandoned_ || !peripheral || currentDevice_ || peripheral != abandoned_) return false;
    later([released = std::move(abandoned_)] {});
    abandoned_ = nullptr;
    return true;
}

// A hold still not relinked after three seconds is given up, whatever state
// the peripheral is in (connecting, not even connecting because the attempt
// was dropped, or linked but still discovering). The timer holds the kit and
// the peripheral weakly: a pending watchdog keeps nothing alive.
void RKRostaKitCore::armWatchdog(const PeripheralPtr& peripheral, std::uint64_t hold) {
    later([queue = mainQueue_, weak = weak_from_this(), target = std::weak_ptr<Peripheral>(peripheral),
           hold]() mutable {
        queue.postAfter(kReconnectWatchdogDelay, [weak = std::move(weak), target = std::move(target), hold] {
            auto kit = weak.lock();
            auto peripheral = target.lock();
            if (kit && peripheral) kit->runWatchdog(peripheral, hold);
        });
    });
}

void RKRostaKitCore::runWatchdog(const PeripheralPtr& peripheral, std::uint64_t hold) {
    Scope scope(*this);
    const auto state = peripheral->state();
    postNotification(kLogNotification,
                     "$  second thePeripheral state " + std::to_string(static_cast<int>(state)) + " ");
    if (hold != holdGeneration_ || !holdingLocked()) return;  // relinked, or a later hold's business
    abandonHoldLocked();
}

}  // namespace plenk
