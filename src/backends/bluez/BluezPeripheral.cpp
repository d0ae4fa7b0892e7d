#include "backends/bluez/BluezPeripheral.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/CentralCore.h"

namespace plenk::bluez {

namespace {

// A Connect answered InProgress is tried again after a pause; after a few
// such answers a Disconnect clears what bluetoothd may still hold of an
// attempt that was aborted, and after many the attempt fails.
constexpr auto kBusyPause = std::chrono::milliseconds(250);
constexpr int kClearStaleAfter = 4;
constexpr int kGiveUpAfter = 20;
// Connect waits for bluetoothd's own time-out, which is shorter than this.
constexpr auto kConnectCallTimeout = std::chrono::seconds(60);
// ServicesResolved came before the GATT objects: wait for the burst of them to end.
constexpr auto kObjectsSettle = std::chrono::milliseconds(100);

bool contains(const std::optional<std::vector<bt::Uuid>>& filter, const bt::Uuid& uuid) {
    return !filter || std::find(filter->begin(), filter->end(), uuid) != filter->end();
}

VariantMap noOptions() {
    return {};
}

}  // namespace

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
            auto me = self();
            if (auto c = core()) {
                c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
                    d.centralManagerDidDisconnectPeripheralError(
                        central, me, platformError(kPlatformPeripheralDisconnected));
                });
            }
        } else if (*change.connected && state() == bt::PeripheralState::Connecting && !connectInFlight_) {
            // Someone else's attempt brought the link up while ours waited to
            // try again: our Connect now answers at once.
            if (auto c = core(); c && retryTimer_ != 0) c->loop().cancel(retryTimer_);
            retryTimer_ = 0;
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

void BluezPeripheral::gattObjectAdded() {
    if (!discovering_) return;
    auto c = core();
    const auto* device = c ? c->objects().find(devicePath_, kDeviceInterface) : nullptr;
    if (device == nullptr || !device->servicesResolved.value_or(false)) return;
    // ServicesResolved came first: finish once the burst of objects is over.
    if (settleTimer_ != 0) c->loop().cancel(settleTimer_);
    settleTimer_ = c->loop().postAfter(kObjectsSettle, [weak = std::weak_ptr<BluezPeripheral>(self())] {
        if (auto p = weak.lock()) {
            p->settleTimer_ = 0;
            p->finishDiscovery(nullptr);
        }
    });
}

// --- the link --------------------------------------------------------------------------

void BluezPeripheral::connect() {
    auto c = core();
    if (!c) return;
    if (!c->poweredOn()) {
        diagnose("[bluez] connect while the radio is not powered on: ignored");
        return;
    }
    if (state() != bt::PeripheralState::Disconnected) return;
    setState(bt::PeripheralState::Connecting);
    ++attempt_;
    busyAnswers_ = 0;
    sendConnect();
}

void BluezPeripheral::sendConnect() {
    auto c = core();
    // One Connect at a time: a new attempt waits for the answer of one we
    // cancelled (bluetoothd would answer it InProgress), and for the device
    // object to exist.
    if (!c || !c->bus() || connectInFlight_ || devicePath_.empty() ||
        state() != bt::PeripheralState::Connecting)
        return;
    connectInFlight_ = true;
    const auto call = ++connectCall_;
    c->bus()->call(
        devicePath_, kDeviceInterface, "Connect", [](sdbus::MethodCall&) {},
        [weak = std::weak_ptr<BluezPeripheral>(self()), call, attempt = attempt_](
            std::optional<bool>, std::optional<BusError> error) {
            if (auto p = weak.lock()) p->connectAnswered(call, attempt, error);
        },
        kConnectCallTimeout);
}

void BluezPeripheral::connectAnswered(std::uint64_t call, std::uint32_t attempt,
                                      const std::optional<BusError>& error) {
    if (call != connectCall_) return;  // forgotten: bluetoothd went away meanwhile
    connectInFlight_ = false;
    const bool current = attempt == attempt_ && state() == bt::PeripheralState::Connecting;
    if (!current) {
        // An attempt we cancelled: its "br-connection-canceled" is ours, not a
        // failure. If a new attempt waits, it goes now; a link that came up
        // after all is let go.
        if (state() == bt::PeripheralState::Connecting) {
            sendConnect();
        } else if (!error && state() == bt::PeripheralState::Disconnected) {
            sendDisconnect();
        }
        return;
    }
    if (!error) {
        linkUp();
        return;
    }
    switch (classifyConnectFailure(*error)) {
        case ConnectOutcome::Linked:
            linkUp();
            return;
        case ConnectOutcome::Busy:
            if (++busyAnswers_ < kGiveUpAfter) {
                if (busyAnswers_ == kClearStaleAfter) sendDisconnect();
                if (auto c = core()) {
                    retryTimer_ = c->loop().postAfter(
                        kBusyPause, [weak = std::weak_ptr<BluezPeripheral>(self()), attempt] {
                            if (auto p = weak.lock()) p->retryConnect(attempt);
                        });
                }
                return;
            }
            break;
        case ConnectOutcome::Cancelled:
        case ConnectOutcome::Failed:
            break;
    }
    if (error->name == "org.freedesktop.DBus.Error.NoReply" ||
        error->name == "org.freedesktop.DBus.Error.Timeout")
        sendDisconnect();  // bluetoothd may still be trying: stop it
    failConnect(connectError(*error));
}

void BluezPeripheral::retryConnect(std::uint32_t attempt) {
    retryTimer_ = 0;
    if (attempt == attempt_) sendConnect();
}

void BluezPeripheral::linkUp() {
    setState(bt::PeripheralState::Connected);
    ++link_;
    auto me = self();
    if (auto c = core()) {
        c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
            d.centralManagerDidConnectPeripheral(central, me);
        });
    }
}

void BluezPeripheral::failConnect(const ErrorPtr& error) {
    setState(bt::PeripheralState::Disconnected);
    ++attempt_;
    auto me = self();
    if (auto c = core()) {
        c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
            d.centralManagerDidFailToConnectPeripheralError(central, me, error);
        });
    }
}

void BluezPeripheral::cancelConnection() {
    const auto state = this->state();
    if (state == bt::PeripheralState::Connected) {
        // An orderly disconnect: reported at once, without error. The
        // Connected=false that follows finds nothing left to report.
        linkDown();
        sendDisconnect();
        auto me = self();
        if (auto c = core()) {
            c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
                d.centralManagerDidDisconnectPeripheralError(central, me, nullptr);
            });
        }
    } else if (state == bt::PeripheralState::Connecting) {
        // Silently, as the platform does; the Connect's failure is not reported.
        setState(bt::PeripheralState::Disconnected);
        ++attempt_;
        if (auto c = core(); c && retryTimer_ != 0) c->loop().cancel(retryTimer_);
        retryTimer_ = 0;
        if (connectInFlight_) sendDisconnect();
    }
}

void BluezPeripheral::sendDisconnect() {
    auto c = core();
    if (!c || !c->bus() || devicePath_.empty()) return;
    c->bus()->call(
        devicePath_, kDeviceInterface, "Disconnect", [](sdbus::MethodCall&) {},
        [weak = std::weak_ptr<BluezPeripheral>(self())](std::optional<bool>, std::optional<BusError> error) {
            auto p = weak.lock();
            if (p && error) p->diagnose("[bluez] Disconnect failed: " + error->name + " " + error->message);
        });
}

void BluezPeripheral::linkDown() {
    setState(bt::PeripheralState::Disconnected);
    ++link_;
    ++requestToken_;
    requests_.clear();
    requestRunning_ = false;
    discovering_ = false;
    discoveryDone_ = nullptr;
    if (auto c = core()) {
        if (discoveryTimer_ != 0) c->loop().cancel(discoveryTimer_);
        if (settleTimer_ != 0) c->loop().cancel(settleTimer_);
    }
    discoveryTimer_ = settleTimer_ = 0;
    std::vector<std::shared_ptr<BluezService>> old;
    {
        std::lock_guard lock(mutex_);
        old.swap(services_);
    }
    for (const auto& service : old) {
        for (const auto& characteristic : service->characteristicList()) {
            closeSocket(*characteristic);
            characteristic->subscription = BluezCharacteristic::Subscription::None;
            characteristic->setNotifying(false);
        }
    }
}

void BluezPeripheral::linkGone(bool report, const ErrorPtr& error) {
    const auto state = this->state();
    if (state == bt::PeripheralState::Connected) {
        linkDown();
        if (report) {
            auto me = self();
            if (auto c = core()) {
                c->withDelegate([&](bt::CentralDelegate& d, bt::Central& central) {
                    d.centralManagerDidDisconnectPeripheralError(central, me, error);
                });
            }
        }
    } else if (state == bt::PeripheralState::Connecting) {
        setState(bt::PeripheralState::Disconnected);
        ++attempt_;
    }
    if (auto c = core(); c && retryTimer_ != 0) c->loop().cancel(retryTimer_);
    retryTimer_ = 0;
    connectInFlight_ = false;
    ++connectCall_;
}

bool BluezPeripheral::shutdown() {
    const auto state = this->state();
    const bool held = state == bt::PeripheralState::Connected || connectInFlight_;
    if (state == bt::PeripheralState::Connected) linkDown();
    setState(bt::PeripheralState::Disconnected);
    ++attempt_;
    connectInFlight_ = false;
    return held && !devicePath_.empty();
}

// --- requests ----------------------------------------------------------------------------

void BluezPeripheral::post(std::function<void(BluezPeripheral&)> work) {
    auto c = core();
    if (!c) return;
    c->loop().post([weak = std::weak_ptr<BluezPeripheral>(self()), work = std::move(work)] {
        if (auto p = weak.lock()) work(*p);
    });
}

void BluezPeripheral::enqueue(std::function<void(Done)> request) {
    requests_.push_back(std::move(request));
    if (!requestRunning_) runNext();
}

void BluezPeripheral::runNext() {
    if (requests_.empty()) {
        requestRunning_ = false;
        return;
    }
    requestRunning_ = true;
    auto request = std::move(requests_.front());
    requests_.pop_front();
    const auto token = ++requestToken_;
    request([weak = std::weak_ptr<BluezPeripheral>(self()), token] {
        // Runs on the loop when the request is answered; a link that dropped
        // meanwhile took the queue with it.
        auto p = weak.lock();
        if (p && p->requestToken_ == token) p->runNext();
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
        p.enqueue([&p, serviceUUIDs](Done done) { p.startDiscovery(serviceUUIDs, std::move(done)); });
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
        p.enqueue([&p, characteristicUUIDs, own](Done done) {
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
        p.enqueue([&p, own](Done done) { p.startRead(own, std::move(done)); });
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
        p.enqueue([&p, own, data, type](Done done) { p.startWrite(own, data, type, std::move(done)); });
    });
}

void BluezPeripheral::setNotifyValue(bool enabled, const bt::CharacteristicPtr& characteristic) {
    post([enabled, characteristic](BluezPeripheral& p) {
        auto own = p.ownCharacteristic(characteristic);
        if (!own) {
            p.diagnose("[bluez] setNotifyValue on a characteristic of no current link: dropped");
            return;
        }
        p.enqueue([&p, own, enabled](Done done) { p.startNotify(own, enabled, std::move(done)); });
    });
}

void BluezPeripheral::readRSSI() {
    post([](BluezPeripheral& p) {
        if (p.state() != bt::PeripheralState::Connected) {
            p.diagnose("[bluez] readRSSI on a peripheral that is not connected: dropped");
            return;
        }
        p.enqueue([&p](Done done) {
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

// --- discovery ---------------------------------------------------------------------------

void BluezPeripheral::startDiscovery(const std::optional<std::vector<bt::Uuid>>& filter, Done done) {
    auto c = core();
    if (!c) return;
    discovering_ = true;
    discoveryFilter_ = filter;
    discoveryDone_ = std::move(done);
    // ServicesResolved may never come: the wait is bounded.
    discoveryTimer_ =
        c->loop().postAfter(c->options().discoveryTimeout, [weak = std::weak_ptr<BluezPeripheral>(self())] {
            if (auto p = weak.lock()) {
                p->discoveryTimer_ = 0;
                p->diagnose("[bluez] ServicesResolved did not come in time");
                p->finishDiscovery(platformError(kPlatformConnectionTimeout));
            }
        });
    checkDiscovery();
}

void BluezPeripheral::checkDiscovery() {
    if (!discovering_ || settleTimer_ != 0) return;
    auto c = core();
    const auto* device = c ? c->objects().find(devicePath_, kDeviceInterface) : nullptr;
    if (device == nullptr || !device->servicesResolved.value_or(false)) return;
    // Resolved, normally with the objects exported before; if none exist yet,
    // gattObjectAdded() finishes once they have arrived.
    if (!c->objects().all(kServiceInterface, devicePath_ + "/").empty()) finishDiscovery(nullptr);
}

void BluezPeripheral::finishDiscovery(const ErrorPtr& error) {
    if (!discovering_) return;
    discovering_ = false;
    auto c = core();
    if (c && discoveryTimer_ != 0) c->loop().cancel(discoveryTimer_);
    if (c && settleTimer_ != 0) c->loop().cancel(settleTimer_);
    discoveryTimer_ = settleTimer_ = 0;
    auto done = std::move(discoveryDone_);
    discoveryDone_ = nullptr;
    if (!error && c) {
        // Objects of this link stay what they were; new ones are made for what
        // the filter asks for, in handle order.
        std::vector<std::shared_ptr<BluezService>> previous;
        {
            std::lock_guard lock(mutex_);
            previous = services_;
        }
        std::vector<std::shared_ptr<BluezService>> list;
        for (const auto& [objectPath, properties] : c->objects().all(kServiceInterface, devicePath_ + "/")) {
            const std::string& path = objectPath;  // a binding cannot be captured by every compiler
            auto it = std::find_if(previous.begin(), previous.end(),
                                   [&](const auto& s) { return s->path == path; });
            if (it != previous.end()) {
                list.push_back(*it);
                continue;
            }
            const auto uuid = properties->uuid ? uuidFromBluez(*properties->uuid) : std::nullopt;
            if (!uuid || !contains(discoveryFilter_, *uuid)) continue;
            list.push_back(std::make_shared<BluezService>(this, self(), path, *uuid,
                                                          properties->primary.value_or(true), link_));
        }
        std::lock_guard lock(mutex_);
        services_ = std::move(list);
    }
    withDelegate([&](bt::PeripheralDelegate& d) { d.peripheralDidDiscoverServices(*this, error); });
    if (done) done();
}

void BluezPeripheral::buildCharacteristics(const std::optional<std::vector<bt::Uuid>>& filter,
                                           const std::shared_ptr<BluezService>& service) {
    auto c = core();
    if (!c) return;
    const auto previous = service->characteristicList();
    std::vector<std::shared_ptr<BluezCharacteristic>> list;
    for (const auto& [objectPath, properties] :
         c->objects().all(kCharacteristicInterface, service->path + "/")) {
        const std::string& path = objectPath;
        auto it =
            std::find_if(previous.begin(), previous.end(), [&](const auto& x) { return x->path == path; });
        if (it != previous.end()) {
            list.push_back(*it);
            continue;
        }
        const auto uuid = properties->uuid ? uuidFromBluez(*properties->uuid) : std::nullopt;
        if (!uuid || !contains(filter, *uuid)) continue;
        list.push_back(std::make_shared<BluezCharacteristic>(
            this, service, path, *uuid,
            propertiesFromFlags(properties->flags.value_or(std::vector<std::string>{})), link_));
    }
    service->setCharacteristics(std::move(list));
    withDelegate([&](bt::PeripheralDelegate& d) {
        d.peripheralDidDiscoverCharacteristicsForServiceError(*this, service, nullptr);
    });
}

// --- reads and writes --------------------------------------------------------------------

void BluezPeripheral::startRead(const std::shared_ptr<BluezCharacteristic>& characteristic, Done done) {
    auto c = core();
    if (!c || !c->bus()) return;
    characteristic->reading = true;
    characteristic->heldDuringRead.clear();
    characteristic->echoExpected.reset();
    c->bus()->call<std::vector<std::uint8_t>>(
        characteristic->path, kCharacteristicInterface, "ReadValue",
        [](sdbus::MethodCall& call) { call << noOptions(); },
        [](sdbus::MethodReply& reply) {
            std::vector<std::uint8_t> value;
            reply >> value;
            return value;
        },
        [weak = std::weak_ptr<BluezPeripheral>(self()), characteristic, done = std::move(done), link = link_](
            std::optional<std::vector<std::uint8_t>> value, std::optional<BusError> error) {
            auto p = weak.lock();
            if (!p || p->link_ != link) return;
            characteristic->reading = false;
            auto held = std::move(characteristic->heldDuringRead);
            characteristic->heldDuringRead.clear();
            if (value) {
                // bluetoothd announces the value it read as a Value change too:
                // that echo is not a notification.
                const bt::Bytes read(*value);
                auto echo = std::find(held.begin(), held.end(), read);
                if (echo != held.end()) {
                    held.erase(echo);
                } else {
                    characteristic->echoExpected = read;
                }
            }
            if (characteristic->subscription == BluezCharacteristic::Subscription::ByProperty) {
                for (auto& notified : held) p->deliverValue(characteristic, std::move(notified), nullptr);
            }
            if (value) {
                p->deliverValue(characteristic, bt::Bytes(*value), nullptr);
            } else {
                p->deliverValue(characteristic, characteristic->value(), requestError(*error));
            }
            done();
        });
}

void BluezPeripheral::startWrite(const std::shared_ptr<BluezCharacteristic>& characteristic,
                                 const bt::Bytes& data, bt::WriteType type, Done done) {
    auto c = core();
    if (!c || !c->bus()) return;
    const bool withResponse = type == bt::WriteType::WithResponse;
    c->bus()->call(
        characteristic->path, kCharacteristicInterface, "WriteValue",
        [bytes = data.toVector(), withResponse](sdbus::MethodCall& call) {
            VariantMap options;
            options["type"] = sdbus::Variant(std::string(withResponse ? "request" : "command"));
            call << bytes << options;
        },
        [weak = std::weak_ptr<BluezPeripheral>(self()), characteristic, done = std::move(done), withResponse,
         link = link_](std::optional<bool>, std::optional<BusError> error) {
            auto p = weak.lock();
            if (!p || p->link_ != link) return;
            if (withResponse) {
                const ErrorPtr failure = error ? requestError(*error) : nullptr;
                p->withDelegate([&](bt::PeripheralDelegate& d) {
                    d.peripheralDidWriteValueForCharacteristicError(*p, characteristic, failure);
                });
            } else if (error) {
                p->diagnose("[bluez] write without response failed: " + error->name + " " + error->message);
            }
            done();
        });
}

void BluezPeripheral::deliverValue(const std::shared_ptr<BluezCharacteristic>& characteristic,
                                   bt::Bytes value, const ErrorPtr& error) {
    // The value this event reports, stored just before it is reported.
    if (!error) characteristic->setValue(std::move(value));
    withDelegate([&](bt::PeripheralDelegate& d) {
        d.peripheralDidUpdateValueForCharacteristicError(*this, characteristic, error);
    });
}

void BluezPeripheral::valueChanged(const std::string& characteristicPath,
                                   const std::vector<std::uint8_t>& value) {
    auto characteristic = characteristicAt(characteristicPath);
    if (!characteristic) return;
    bt::Bytes bytes(value);
    if (characteristic->reading) {
        characteristic->heldDuringRead.push_back(std::move(bytes));
        return;
    }
    if (characteristic->echoExpected) {
        const bool echo = *characteristic->echoExpected == bytes;
        characteristic->echoExpected.reset();
        if (echo) return;
    }
    // Only a subscription of this link by property delivers: a session
    // bluetoothd kept from an earlier link, or another client's, does not.
    if (characteristic->subscription == BluezCharacteristic::Subscription::ByProperty)
        deliverValue(characteristic, std::move(bytes), nullptr);
}

// --- notifications -----------------------------------------------------------------------

void BluezPeripheral::startNotify(const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled,
                                  Done done) {
    using Subscription = BluezCharacteristic::Subscription;
    auto c = core();
    if (!c || !c->bus()) return;
    if (enabled) {
        if (characteristic->subscription == Subscription::ByProperty ||
            characteristic->subscription == Subscription::BySocket) {
            subscribed(characteristic, nullptr);  // one subscription per characteristic and link
            done();
            return;
        }
        characteristic->subscription = Subscription::Starting;
        const bool socketCapable = (characteristic->properties() & bt::kPropertyNotify) != 0;
        if (c->options().notifyMode != NotifyMode::Socket || !socketCapable) {
            subscribeByProperty(characteristic, std::move(done));
            return;
        }
        c->bus()->call<std::pair<OwnedFd, std::uint16_t>>(
            characteristic->path, kCharacteristicInterface, "AcquireNotify",
            [](sdbus::MethodCall& call) { call << noOptions(); },
            [](sdbus::MethodReply& reply) {
                sdbus::UnixFd fd;
                std::uint16_t mtu = 0;
                reply >> fd >> mtu;
                return std::make_pair(OwnedFd(fd.release()), mtu);
            },
            [weak = std::weak_ptr<BluezPeripheral>(self()), characteristic, done = std::move(done),
             link = link_](std::optional<std::pair<OwnedFd, std::uint16_t>> acquired,
                           std::optional<BusError> error) mutable {
                auto p = weak.lock();
                if (!p || p->link_ != link) return;
                auto core = p->core();
                if (!acquired || !core) {
                    // A session by property already exists (ours from an earlier
                    // link, or another client's), or the socket is refused: fall
                    // back to the property.
                    p->diagnose("[bluez] AcquireNotify refused (" + (error ? error->name : std::string()) +
                                "): notifications by property");
                    p->subscribeByProperty(characteristic, std::move(done));
                    return;
                }
                characteristic->socket = std::move(acquired->first);
                characteristic->socketMtu = acquired->second;
                characteristic->subscription = Subscription::BySocket;
                core->loop().watch(characteristic->socket.get(), [weak, characteristic] {
                    if (auto q = weak.lock()) q->socketReadable(characteristic);
                });
                p->subscribed(characteristic, nullptr);
                done();
            });
        return;
    }
    // Disabling.
    if (characteristic->subscription == Subscription::BySocket) {
        closeSocket(*characteristic);  // closing the socket ends the subscription
    } else if (characteristic->subscription == Subscription::ByProperty) {
        c->bus()->call(
            characteristic->path, kCharacteristicInterface, "StopNotify", [](sdbus::MethodCall&) {},
            [weak = std::weak_ptr<BluezPeripheral>(self())](std::optional<bool>,
                                                            std::optional<BusError> error) {
                auto p = weak.lock();
                if (p && error) p->diagnose("[bluez] StopNotify failed: " + error->name);
            });
    }
    characteristic->subscription = Subscription::None;
    characteristic->setNotifying(false);
    withDelegate([&](bt::PeripheralDelegate& d) {
        d.peripheralDidUpdateNotificationStateForCharacteristicError(*this, characteristic, nullptr);
    });
    done();
}

void BluezPeripheral::subscribeByProperty(const std::shared_ptr<BluezCharacteristic>& characteristic,
                                          Done done) {
    auto c = core();
    if (!c || !c->bus()) return;
    c->bus()->call(
        characteristic->path, kCharacteristicInterface, "StartNotify", [](sdbus::MethodCall&) {},
        [weak = std::weak_ptr<BluezPeripheral>(self()), characteristic, done = std::move(done), link = link_](
            std::optional<bool>, std::optional<BusError> error) {
            auto p = weak.lock();
            if (!p || p->link_ != link) return;
            characteristic->subscription = error ? BluezCharacteristic::Subscription::None
                                                 : BluezCharacteristic::Subscription::ByProperty;
            p->subscribed(characteristic, error ? requestError(*error) : nullptr);
            done();
        });
}

void BluezPeripheral::subscribed(const std::shared_ptr<BluezCharacteristic>& characteristic,
                                 const ErrorPtr& error) {
    if (!error) characteristic->setNotifying(true);
    withDelegate([&](bt::PeripheralDelegate& d) {
        d.peripheralDidUpdateNotificationStateForCharacteristicError(*this, characteristic, error);
    });
}

void BluezPeripheral::socketReadable(const std::shared_ptr<BluezCharacteristic>& characteristic) {
    std::uint8_t buffer[1024];
    // One packet per notification; take all that wait.
    for (;;) {
        const int fd = characteristic->socket.get();
        if (fd < 0) return;
        const auto n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0) {
            deliverValue(characteristic,
                         bt::Bytes(std::span<const std::uint8_t>(buffer, static_cast<std::size_t>(n))),
                         nullptr);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
        // Closed by bluetoothd: the link is going, or the session ended.
        closeSocket(*characteristic);
        characteristic->subscription = BluezCharacteristic::Subscription::None;
        characteristic->setNotifying(false);
        return;
    }
}

void BluezPeripheral::closeSocket(BluezCharacteristic& characteristic) {
    if (characteristic.socket.get() < 0) return;
    if (auto c = core()) c->loop().unwatch(characteristic.socket.get());
    characteristic.socket = OwnedFd();
}

}  // namespace plenk::bluez
