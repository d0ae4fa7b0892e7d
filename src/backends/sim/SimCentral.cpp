#include "backends/sim/SimCentral.h"

#include <algorithm>
#include <mutex>

#include "backends/sim/VirtualPeripheral.h"
#include "backends/sim/World.h"

namespace plenk::sim {

std::shared_ptr<SimCentral> SimCentral::make(const std::shared_ptr<World>& world,
                                             std::weak_ptr<bt::CentralDelegate> delegate,
                                             const std::string& queueLabel) {
    auto central = std::make_shared<SimCentral>(Token{}, world, std::move(delegate), queueLabel);
    std::lock_guard lock(world->mutex_);
    world->centrals_.push_back(central.get());
    // The platform reports its state after creation, once it has one.
    if (world->radio_) central->postStateLocked(*world->radio_);
    return central;
}

SimCentral::SimCentral(Token, std::shared_ptr<World> world, std::weak_ptr<bt::CentralDelegate> delegate,
                       const std::string& queueLabel)
    : world_(std::move(world)),
      queue_(std::make_shared<dispatch::SerialQueue>(queueLabel, world_->clock())),
      delegate_(std::move(delegate)) {}

SimCentral::~SimCentral() {
    std::vector<std::shared_ptr<VirtualPeripheral>> released;  // die after the lock
    {
        std::lock_guard lock(world_->mutex_);
        std::erase(world_->centrals_, this);
        const auto now = world_->clock_->now();
        for (auto& [identifier, peripheral] : peripherals_) {
            if (peripheral->state_ == bt::PeripheralState::Connected) {
                peripheral->detachLocked(now);
                if (auto device = peripheral->device_.lock()) released.push_back(std::move(device));
            } else if (peripheral->state_ == bt::PeripheralState::Connecting) {
                peripheral->abandonConnectLocked();
            }
            peripheral->central_ = nullptr;
        }
        scanning_ = false;
        world_->updateAdvertisingTimerLocked();
        // Devices this central held may advertise again for the others.
        for (const auto& device : released) device->visibilityChangedLocked(*world_);
    }
}

// --- state and delegate -------------------------------------------------------------

bt::ManagerState SimCentral::state() const {
    return static_cast<bt::ManagerState>(reportedState_.load());
}

void SimCentral::setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) {
    std::lock_guard lock(world_->mutex_);
    delegate_ = std::move(delegate);
}

std::string SimCentral::queueLabel() const {
    return queue_->label();
}

bool SimCentral::isOnQueue() const {
    return queue_->isCurrent();
}

void SimCentral::postStateLocked(bt::ManagerState state) {
    queue_->post([self = weak_from_this(), state] {
        auto central = self.lock();
        if (!central) return;
        std::shared_ptr<bt::CentralDelegate> delegate;
        {
            std::lock_guard lock(central->world_->mutex_);
            delegate = central->delegate_.lock();
        }
        central->reportedState_.store(static_cast<int>(state));
        if (delegate) delegate->centralManagerDidUpdateState(*central);
    });
}

void SimCentral::radioLostLocked(bool reportDisconnects, Clock::TimePoint now) {
    scanning_ = false;
    seen_.clear();
    for (auto& [identifier, peripheral] : peripherals_) {
        if (peripheral->state_ == bt::PeripheralState::Connected) {
            peripheral->detachLocked(now);
            if (reportDisconnects) peripheral->postDisconnectLocked(nullptr);
        } else if (peripheral->state_ == bt::PeripheralState::Connecting) {
            peripheral->abandonConnectLocked();
        }
    }
}

// --- scanning ---------------------------------------------------------------------

void SimCentral::scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs,
                                                const bt::ScanOptions& options) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !world_->poweredOnLocked();
        if (!dropped) {
            scanning_ = true;
            ++scanGeneration_;
            allowDuplicates_ = options.allowDuplicates;
            scanFilter_ = serviceUUIDs;
            seen_.clear();
            for (const auto& device : world_->peripherals_) offerAdvertisementLocked(device, false);
            world_->updateAdvertisingTimerLocked();
        }
    }
    if (dropped) world_->diagnose("[sim] scan while the radio is not powered on: ignored");
}

void SimCentral::stopScan() {
    std::lock_guard lock(world_->mutex_);
    scanning_ = false;
    ++scanGeneration_;
    seen_.clear();
    world_->updateAdvertisingTimerLocked();
}

bool SimCentral::isScanning() const {
    std::lock_guard lock(world_->mutex_);
    return scanning_;
}

bool SimCentral::scanMatchesLocked(const VirtualPeripheral& device) const {
    if (!scanFilter_ || scanFilter_->empty()) return true;
    return std::any_of(
        device.advertisedServices_.begin(), device.advertisedServices_.end(), [&](const bt::Uuid& u) {
            return std::find(scanFilter_->begin(), scanFilter_->end(), u) != scanFilter_->end();
        });
}

void SimCentral::offerAdvertisementLocked(const std::shared_ptr<VirtualPeripheral>& device, bool repeat) {
    if (!scanning_ || !device->advertisingLocked() || !scanMatchesLocked(*device)) return;
    const bool seen = seen_.contains(device->identifier_);
    if (repeat ? !allowDuplicates_ : seen) return;
    seen_.insert(device->identifier_);
    bt::AdvertisementData advertisement;
    advertisement.localName = device->name_;
    advertisement.serviceUUIDs = device->advertisedServices_;
    queue_->post([self = weak_from_this(), peripheral = peripheralForLocked(device),
                  advertisement = std::move(advertisement), rssi = device->rssi_, scan = scanGeneration_] {
        auto central = self.lock();
        if (!central) return;
        std::shared_ptr<bt::CentralDelegate> delegate;
        {
            std::lock_guard lock(central->world_->mutex_);
            // Nothing is reported after the scan that saw it was stopped or replaced.
            if (!central->scanning_ || central->scanGeneration_ != scan) return;
            peripheral->rssi_ = rssi;
            delegate = central->delegate_.lock();
        }
        if (delegate) {
            delegate->centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(*central, peripheral,
                                                                               advertisement, rssi);
        }
    });
}

// --- peripherals ------------------------------------------------------------------

std::shared_ptr<SimPeripheral> SimCentral::peripheralForLocked(
    const std::shared_ptr<VirtualPeripheral>& device) {
    auto& slot = peripherals_[device->identifier_];
    if (!slot) {
        slot = std::make_shared<SimPeripheral>(world_, this, weak_from_this(), device);
    } else if (slot->state_ == bt::PeripheralState::Disconnected) {
        slot->device_ = device;  // a device re-added under the same identifier
    }
    return slot;
}

SimPeripheral* SimCentral::ownPeripheralLocked(const bt::PeripheralPtr& peripheral) const {
    auto* sim = dynamic_cast<SimPeripheral*>(peripheral.get());
    return sim != nullptr && sim->central_ == this ? sim : nullptr;
}

void SimCentral::connectPeripheral(const bt::PeripheralPtr& peripheral,
                                   const bt::ConnectOptions& /*options*/) {
    const char* dropped = nullptr;
    {
        std::lock_guard lock(world_->mutex_);
        SimPeripheral* sim = ownPeripheralLocked(peripheral);
        if (sim == nullptr) {
            dropped = "[sim] connect to a peripheral of another central: ignored";
        } else if (!world_->poweredOnLocked()) {
            dropped = "[sim] connect while the radio is not powered on: ignored";
        } else if (sim->state_ == bt::PeripheralState::Disconnected) {
            sim->state_ = bt::PeripheralState::Connecting;
            ++sim->attempt_;
            sim->scheduleConnectLocked(world_->options_.timings.connectLatency);
        }
    }
    if (dropped != nullptr) world_->diagnose(dropped);
}

void SimCentral::cancelPeripheralConnection(const bt::PeripheralPtr& peripheral) {
    std::shared_ptr<VirtualPeripheral> device;
    std::lock_guard lock(world_->mutex_);
    SimPeripheral* sim = ownPeripheralLocked(peripheral);
    if (sim == nullptr) return;
    if (sim->state_ == bt::PeripheralState::Connected) {
        // An orderly disconnect: reported, without error.
        device = sim->device_.lock();
        sim->detachLocked(world_->clock_->now());
        sim->postDisconnectLocked(nullptr);
        if (device) device->visibilityChangedLocked(*world_);
    } else if (sim->state_ == bt::PeripheralState::Connecting) {
        sim->abandonConnectLocked();  // silently, as the platform does
    }
}

std::vector<bt::PeripheralPtr> SimCentral::retrieveConnectedPeripheralsWithServices(
    const std::vector<bt::Uuid>& serviceUUIDs) {
    std::vector<bt::PeripheralPtr> out;
    std::lock_guard lock(world_->mutex_);
    if (!world_->poweredOnLocked()) return out;
    for (const auto& device : world_->peripherals_) {
        if (device->removed_ || !device->inRange_) continue;
        if (!device->connectedToSystem_ && device->links_.empty()) continue;
        const auto& services = device->profile_.services;
        const bool offers = std::any_of(services.begin(), services.end(), [&](const auto& s) {
            return std::find(serviceUUIDs.begin(), serviceUUIDs.end(), s.uuid) != serviceUUIDs.end();
        });
        if (offers) out.push_back(peripheralForLocked(device));
    }
    return out;
}

std::vector<bt::PeripheralPtr> SimCentral::retrievePeripheralsWithIdentifiers(
    const std::vector<bt::Uuid>& identifiers) {
    std::vector<bt::PeripheralPtr> out;
    std::lock_guard lock(world_->mutex_);
    for (const auto& identifier : identifiers) {
        const auto& devices = world_->peripherals_;
        auto it = std::find_if(devices.begin(), devices.end(), [&](const auto& d) {
            return d->identifier_ == identifier && d->knownToSystem_ && !d->removed_;
        });
        if (it == devices.end()) continue;
        auto peripheral = peripheralForLocked(*it);
        if (std::find(out.begin(), out.end(), peripheral) == out.end()) out.push_back(std::move(peripheral));
    }
    return out;
}

}  // namespace plenk::sim
