#include "backends/bluez/BluezPeripheral.h"

#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/CentralCore.h"

namespace plenk::bluez {

BluezPeripheral::BluezPeripheral(std::weak_ptr<CentralCore> core, bt::Uuid identifier)
    : core_(std::move(core)), identifier_(identifier) {}

BluezPeripheral::~BluezPeripheral() = default;

std::shared_ptr<BluezPeripheral> BluezPeripheral::self() {
    return std::static_pointer_cast<BluezPeripheral>(shared_from_this());
}

std::shared_ptr<CentralCore> BluezPeripheral::core() const {
    return core_.lock();
}

void BluezPeripheral::diagnose(const std::string& text) const {
    if (auto c = core()) c->diagnose(text);
}

// --- accessors (any thread) ------------------------------------------------------------------

std::optional<std::string> BluezPeripheral::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

bt::PeripheralState BluezPeripheral::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

std::optional<int> BluezPeripheral::rssi() const {
    std::lock_guard lock(mutex_);
    return rssi_;
}

std::vector<bt::ServicePtr> BluezPeripheral::services() const {
    std::lock_guard lock(mutex_);
    return {services_.begin(), services_.end()};
}

void BluezPeripheral::setDelegate(std::weak_ptr<bt::PeripheralDelegate> delegate) {
    std::weak_ptr<bt::PeripheralDelegate> old;
    std::lock_guard lock(mutex_);
    old = std::exchange(delegate_, std::move(delegate));
}

std::shared_ptr<bt::PeripheralDelegate> BluezPeripheral::delegate() const {
    std::weak_ptr<bt::PeripheralDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
    }
    return delegate.lock();
}

bool BluezPeripheral::knownToSystem() const {
    std::lock_guard lock(mutex_);
    return known_;
}

bool BluezPeripheral::connectedToSystem() const {
    std::lock_guard lock(mutex_);
    return systemConnected_;
}

std::vector<bt::Uuid> BluezPeripheral::advertisedServices() const {
    std::lock_guard lock(mutex_);
    return advertised_;
}

void BluezPeripheral::setState(bt::PeripheralState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
}

void BluezPeripheral::withDelegate(const std::function<void(bt::PeripheralDelegate&)>& call) {
    if (auto d = delegate()) call(*d);
}

void BluezPeripheral::recordRssi(int rssi) {
    std::lock_guard lock(mutex_);
    rssi_ = rssi;
}

// --- the device object -----------------------------------------------------------------

void BluezPeripheral::deviceUpdated(const std::string& path, const BluezProperties& device,
                                    const BluezProperties& change) {
    devicePath_ = path;
    bool renamed = false;
    {
        std::lock_guard lock(mutex_);
        known_ = true;
        systemConnected_ = device.connected.value_or(false);
        advertised_ = uuidsFromBluez(device.uuids);
        if (device.name && device.name != name_) {
            renamed = name_.has_value();
            name_ = device.name;
        }
    }
    if (renamed && state() == bt::PeripheralState::Connected)
        withDelegate([&](bt::PeripheralDelegate& d) { d.peripheralDidUpdateName(*this); });

    if (change.connected) {
        if (!*change.connected && state() == bt::PeripheralState::Connected) {
            // A link loss (or a disconnect by another client): ServicesResolved
            // went false first, then Connected.
            linkDown();
            reportDisconnect(platformError(kPlatformPeripheralDisconnected));
        } else if (*change.connected && state() == bt::PeripheralState::Connecting && !connectInFlight_) {
            // Someone else's attempt brought the link up while ours waited to
            // try again: our Connect now answers at once.
            cancelTimer(retryTimer_);
            sendConnect();
        }
    }
    if (change.servicesResolved && *change.servicesResolved) checkDiscovery();
    // A connect that waited for the device object to exist again.
    if (state() == bt::PeripheralState::Connecting && !connectInFlight_ && retryTimer_ == 0) sendConnect();
}

void BluezPeripheral::deviceRemoved() {
    {
        std::lock_guard lock(mutex_);
        known_ = false;
        systemConnected_ = false;
    }
    if (state() == bt::PeripheralState::Connected)
        linkGone(true, platformError(kPlatformPeripheralDisconnected));
    // An attempt waits for the device to come back (a scan brings it back).
    connectInFlight_ = false;
    ++connectCall_;
    devicePath_.clear();
}

// --- requests ----------------------------------------------------------------------------

void BluezPeripheral::post(std::function<void(BluezPeripheral&)> work) {
    auto c = core();
    if (!c) return;
    c->loop().post([weak = std::weak_ptr<BluezPeripheral>(self()), work = std::move(work)] {
        if (auto p = weak.lock()) work(*p);
    });
}

std::shared_ptr<BluezCharacteristic> BluezPeripheral::ownCharacteristic(
    const bt::CharacteristicPtr& characteristic) const {
    auto own = std::dynamic_pointer_cast<BluezCharacteristic>(characteristic);
    if (!own || own->owner != this || own->link != link_ || state() != bt::PeripheralState::Connected)
        return nullptr;
    return own;
}

std::shared_ptr<BluezCharacteristic> BluezPeripheral::characteristicAt(const std::string& path) const {
    std::vector<std::shared_ptr<BluezService>> services;
    {
        std::lock_guard lock(mutex_);
        services = services_;
    }
    for (const auto& service : services) {
        if (!path.starts_with(service->path + "/")) continue;
        for (auto& characteristic : service->characteristicList()) {
            if (characteristic->path == path) return characteristic;
        }
    }
    return nullptr;
}

void BluezPeripheral::discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs) {
    post([serviceUUIDs](BluezPeripheral& p) {
        if (p.state() != bt::PeripheralState::Connected) {
            p.diagnose("[bluez] discoverServices on a peripheral that is not connected: dropped");
            return;
        }
        p.requests_.push([&p, serviceUUIDs](Done done) { p.startDiscovery(serviceUUIDs, std::move(done)); });
    });
}

void BluezPeripheral::discoverCharacteristics(const std::optional<std::vector<bt::Uuid>>& characteristicUUIDs,
                                              const bt::ServicePtr& service) {
    post([characteristicUUIDs, service](BluezPeripheral& p) {
        auto own = std::dynamic_pointer_cast<BluezService>(service);
        if (!own || own->owner != &p || own->link != p.link_ || p.state() != bt::PeripheralState::Connected) {
            p.diagnose("[bluez] discoverCharacteristics for a service of no current link: dropped");
            return;
        }
        p.requests_.push([&p, characteristicUUIDs, own](const Done& done) {
            p.buildCharacteristics(characteristicUUIDs, own);
            done();
        });
    });
}

void BluezPeripheral::readValueForCharacteristic(const bt::CharacteristicPtr& characteristic) {
    post([characteristic](BluezPeripheral& p) {
        auto own = p.ownCharacteristic(characteristic);
        if (!own) {
            p.diagnose("[bluez] read on a characteristic of no current link: dropped");
            return;
        }
        p.requests_.push([&p, own](Done done) { p.startRead(own, std::move(done)); });
    });
}

void BluezPeripheral::writeValue(const bt::Bytes& data, const bt::CharacteristicPtr& characteristic,
                                 bt::WriteType type) {
    post([data, characteristic, type](BluezPeripheral& p) {
        auto own = p.ownCharacteristic(characteristic);
        if (!own) {
            p.diagnose("[bluez] write on a characteristic of no current link: dropped");
            return;
        }
        p.requests_.push(
            [&p, own, data, type](Done done) { p.startWrite(own, data, type, std::move(done)); });
    });
}

void BluezPeripheral::setNotifyValue(bool enabled, const bt::CharacteristicPtr& characteristic) {
    post([enabled, characteristic](BluezPeripheral& p) {
        auto own = p.ownCharacteristic(characteristic);
        if (!own) {
            p.diagnose("[bluez] setNotifyValue on a characteristic of no current link: dropped");
            return;
        }
        p.requests_.push([&p, own, enabled](Done done) { p.startNotify(own, enabled, std::move(done)); });
    });
}

void BluezPeripheral::readRSSI() {
    post([](BluezPeripheral& p) {
        if (p.state() != bt::PeripheralState::Connected) {
            p.diagnose("[bluez] readRSSI on a peripheral that is not connected: dropped");
            return;
        }
        p.requests_.push([&p](const Done& done) {
            // BlueZ has no signal-strength read on a link: what the last
            // advertisement gave is all there is.
            auto c = p.core();
            const auto* device = c ? c->objects().find(p.devicePath_, kDeviceInterface) : nullptr;
            const auto rssi = device != nullptr ? device->rssi : std::nullopt;
            if (rssi) p.recordRssi(*rssi);
            const ErrorPtr error = rssi ? nullptr : platformError(kPlatformOperationNotSupported);
            p.withDelegate(
                [&](bt::PeripheralDelegate& d) { d.peripheralDidReadRSSIError(p, rssi.value_or(0), error); });
            done();
        });
    });
}

}  // namespace plenk::bluez
