// BluezPeripheral: GATT requests and notifications on the event loop.
#include <poll.h>

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/BluezPeripheral.h"
#include "backends/bluez/CentralCore.h"
#include "backends/bluez/GattFlags.h"

namespace plenk::bluez {

namespace {

// ServicesResolved came before the GATT objects: wait for the burst of them to end.
constexpr auto kObjectsSettle = std::chrono::milliseconds(100);

bool contains(const std::optional<std::vector<bt::Uuid>>& filter, const bt::Uuid& uuid) {
    return !filter || std::find(filter->begin(), filter->end(), uuid) != filter->end();
}

VariantMap noOptions() {
    return {};
}

}  // namespace

void BluezPeripheral::gattObjectAdded() {
    if (!discovering_) return;
    auto c = core();
    const auto* device = c ? c->objects().find(devicePath_, kDeviceInterface) : nullptr;
    if (device == nullptr || !device->servicesResolved.value_or(false)) return;
    // ServicesResolved came first: finish once the burst of objects is over.
    cancelTimer(settleTimer_);
    settleTimer_ = c->loop().postAfter(kObjectsSettle, [weak = std::weak_ptr<BluezPeripheral>(self())] {
        if (auto p = weak.lock()) {
            p->settleTimer_ = 0;
            p->finishDiscovery(nullptr);
        }
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
    cancelTimer(discoveryTimer_);
    cancelTimer(settleTimer_);
    auto c = core();
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
                core->loop().watch(characteristic->socket.get(), POLLIN, [weak, characteristic](short) {
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
    // One packet per notification, one per readiness: the poll is level-triggered,
    // so a packet still waiting wakes the loop again, and the common case of
    // one packet per wake-up costs no read that finds nothing.
    const int fd = characteristic->socket.get();
    if (fd < 0) return;
    const auto n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n > 0) {
        deliverValue(characteristic,
                     bt::Bytes(std::span<const std::uint8_t>(buffer, static_cast<std::size_t>(n))), nullptr);
        return;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
    // Closed by bluetoothd: the link is going, or the session ended.
    closeSocket(*characteristic);
    characteristic->subscription = BluezCharacteristic::Subscription::None;
    characteristic->setNotifying(false);
}

void BluezPeripheral::closeSocket(BluezCharacteristic& characteristic) {
    if (characteristic.socket.get() < 0) return;
    if (auto c = core()) c->loop().unwatch(characteristic.socket.get());
    characteristic.socket = OwnedFd();
}

}  // namespace plenk::bluez
