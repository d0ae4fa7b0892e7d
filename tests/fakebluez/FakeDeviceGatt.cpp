// FakeDevice's GATT side: the exported service and characteristic objects,
// reads, serialised writes, notification sessions and sockets, and the
// weight stream.

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "BluezNames.h"
#include "FakeDevice.h"
#include "backends/bluez/GattFlags.h"
#include "wire/GattUuids.h"

namespace plenk::fakebluez {

namespace {

std::string handlePath(const std::string& parent, const char* kind, unsigned handle) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04x", handle);
    return parent + "/" + kind + buffer;
}

constexpr std::uint32_t kNotifyOrIndicate = emulator::kGattNotify | emulator::kGattIndicate;
constexpr std::uint16_t kMtu = 247;  // what a current phone or adapter negotiates

}  // namespace

// --- GATT objects ------------------------------------------------------------------------

FakeDevice::Characteristic* FakeDevice::findCharacteristic(const std::string& path) {
    for (auto& characteristic : characteristics_) {
        if (characteristic.path == path) return &characteristic;
    }
    return nullptr;
}

FakeDevice::Characteristic* FakeDevice::findCharacteristic(const bt::Uuid& uuid) {
    for (auto& characteristic : characteristics_) {
        if (characteristic.uuid == uuid) return &characteristic;
    }
    return nullptr;
}

void FakeDevice::exportGatt() {
    auto profile = scale_.profile();
    for (const auto& [service, characteristic] : removedCharacteristics_) {
        profile.removeCharacteristic(service, characteristic);
    }
    std::string table;
    for (const auto& service : profile.services) {
        table += service.uuid.fullString() + ":";
        for (const auto& c : service.characteristics)
            table += c.uuid.fullString() + std::to_string(c.properties) + ",";
    }
    // The GATT cache: an unchanged table keeps its objects (and their sessions).
    if (table == exportedTable_ && !servicePaths_.empty() && context_.tree.has(servicePaths_.front())) return;
    unexportGatt();
    exportedTable_ = table;
    auto& tree = context_.tree;
    unsigned handle = 1;
    for (const auto& service : profile.services) {
        const std::string servicePath = handlePath(path_, "service", handle++);
        tree.add(servicePath, {{kServiceInterface,
                                {{"UUID", service.uuid.fullString()},
                                 {"Device", ObjectPath{path_}},
                                 {"Primary", service.primary},
                                 {"Includes", std::vector<ObjectPath>{}}}}});
        servicePaths_.push_back(servicePath);
        serviceUuids_.push_back(service.uuid);
        for (const auto& definition : service.characteristics) {
            Characteristic characteristic;
            characteristic.path = handlePath(servicePath, "char", handle);
            handle += (definition.properties & kNotifyOrIndicate) != 0 ? 3 : 2;
            characteristic.uuid = definition.uuid;
            characteristic.properties = definition.properties;
            Properties properties{
                {"UUID", definition.uuid.fullString()},
                {"Service", ObjectPath{servicePath}},
                {"Value", definition.cached ? definition.value.toVector() : std::vector<std::uint8_t>{}},
                {"Flags", bluez::flagsFromProperties(definition.properties)},
                {"MTU", kMtu},
            };
            if ((definition.properties & kNotifyOrIndicate) != 0) properties["Notifying"] = false;
            if ((definition.properties & emulator::kGattNotify) != 0) properties["NotifyAcquired"] = false;
            if ((definition.properties & emulator::kGattWriteWithoutResponse) != 0) {
                properties["WriteAcquired"] = false;
            }
            tree.add(characteristic.path, {{kCharacteristicInterface, std::move(properties)}});
            characteristics_.push_back(std::move(characteristic));
        }
    }
    tree.set(path_, kDeviceInterface, "UUIDs", uuidStrings());
}

void FakeDevice::unexportGatt() {
    for (auto& characteristic : characteristics_) {
        failPending(characteristic);
        if (characteristic.notifyFd >= 0 || characteristic.pendingAcquire) releaseAcquired(characteristic);
    }
    characteristics_.clear();
    context_.tree.removeBelow(path_);
    servicePaths_.clear();
    serviceUuids_.clear();
    exportedTable_.clear();
    updateStream();
}

void FakeDevice::failPending(Characteristic& characteristic) {
    for (auto& call : characteristic.pendingReads)
        call->replyError(kBluezError + std::string("Failed"), "Not connected");
    characteristic.pendingReads.clear();
    if (characteristic.pendingWrite) {
        characteristic.pendingWrite->replyError(kBluezError + std::string("Failed"), "Not connected");
        characteristic.pendingWrite.reset();
    }
}

void FakeDevice::handleCharacteristicCall(Characteristic& characteristic, const CallPtr& call) {
    const auto& member = call->member();
    if (member == "ReadValue") {
        readValue(characteristic, call);
    } else if (member == "WriteValue") {
        writeValue(characteristic, call);
    } else if (member == "StartNotify") {
        startNotify(characteristic, call);
    } else if (member == "StopNotify") {
        stopNotify(characteristic, call);
    } else if (member == "AcquireNotify") {
        acquireNotify(characteristic, call);
    } else if (member == "AcquireWrite") {
        call->replyError(kBluezError + std::string("NotSupported"), "Operation is not supported");
    } else {
        call->replyError(kUnknownMethod, "Unknown method " + member);
    }
}

void FakeDevice::readValue(Characteristic& characteristic, const CallPtr& call) {
    if (link_ != Link::Connected) {
        call->replyError(kBluezError + std::string("Failed"), "Not connected");
        return;
    }
    if (!readDictionary(call->message())) {
        call->replyError(kBluezError + std::string("InvalidArguments"), "Invalid arguments in method call");
        return;
    }
    characteristic.pendingReads.push_back(call);
    if (characteristic.pendingReads.size() > 1) return;  // joins the read in flight
    const std::string path = characteristic.path;
    after(context_.timings.attLatency, [this, path] {
        auto* c = findCharacteristic(path);
        if (c == nullptr || c->pendingReads.empty()) return;
        auto calls = std::move(c->pendingReads);
        c->pendingReads.clear();
        if ((c->properties & emulator::kGattRead) == 0) {
            const auto error = attErrorToDbus(kAttReadNotPermitted);
            for (auto& call : calls) call->replyError(error.name, error.text);
            return;
        }
        std::vector<std::uint8_t> value;
        if (auto read = scale_.read(c->uuid, emulatorNow())) {
            value = read->toVector();
        } else if (const auto* definition = scale_.profile().findCharacteristic(c->uuid)) {
            value = definition->value.toVector();
        }
        // bluetoothd stores the value (PropertiesChanged) before it replies.
        context_.tree.set(c->path, kCharacteristicInterface, "Value", value, true);
        for (auto& call : calls) {
            call->reply([&](sd_bus_message* m) {
                return sd_bus_message_append_array(m, 'y', value.data(), value.size());
            });
        }
    });
}

void FakeDevice::writeValue(Characteristic& characteristic, const CallPtr& call) {
    if (link_ != Link::Connected) {
        call->replyError(kBluezError + std::string("Failed"), "Not connected");
        return;
    }
    if (characteristic.pendingWrite) {
        call->replyError(kBluezError + std::string("InProgress"), "In Progress");
        return;
    }
    sd_bus_message* m = call->message();
    const void* data = nullptr;
    std::size_t size = 0;
    std::optional<std::map<std::string, Value>> options;
    if (sd_bus_message_read_array(m, 'y', &data, &size) >= 0) options = readDictionary(m);
    std::optional<std::string> type;
    if (options) {
        if (auto found = options->find("type"); found != options->end()) {
            if (const auto* text = std::get_if<std::string>(&found->second)) {
                type = *text;
            } else {
                options.reset();
            }
        }
    }
    if (!options) {
        call->replyError(kBluezError + std::string("InvalidArguments"), "Invalid arguments in method call");
        return;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::vector<std::uint8_t> value(bytes, bytes + size);
    const auto props = characteristic.properties;
    const bool request = (type && (*type == "request" || *type == "reliable")) ||
                         (!type && (props & emulator::kGattWrite) != 0);
    if (request) {
        characteristic.pendingWrite = call;
        const std::string path = characteristic.path;
        after(context_.timings.attLatency, [this, path, value = std::move(value)] {
            auto* c = findCharacteristic(path);
            if (c == nullptr || !c->pendingWrite) return;
            auto pending = std::move(c->pendingWrite);
            c->pendingWrite.reset();
            std::uint8_t error = 0;
            if (auto found = writeErrors_.find(c->uuid); found != writeErrors_.end()) error = found->second;
            if ((c->properties & emulator::kGattWrite) == 0) error = kAttWriteNotPermitted;
            if (error != 0) {
                const auto dbusError = attErrorToDbus(error);
                pending->replyError(dbusError.name, dbusError.text);
                return;
            }
            const auto effect = deliverWrite(c->uuid, value);
            pending->replyEmpty();
            applyEffect(effect);
        });
        return;
    }
    if ((type && *type != "command") || (!type && (props & emulator::kGattWriteWithoutResponse) == 0)) {
        call->replyError(kBluezError + std::string("NotSupported"), "Operation is not supported");
        return;
    }
    // A write command: no response from the peer, so nothing to serialise.
    call->replyEmpty();
    if ((props & emulator::kGattWriteWithoutResponse) == 0 || writeErrors_.count(characteristic.uuid) != 0)
        return;
    applyEffect(deliverWrite(characteristic.uuid, value));
}

emulator::ScaleEmulator::Effect FakeDevice::deliverWrite(const bt::Uuid& characteristic,
                                                         const std::vector<std::uint8_t>& value) {
    writes_.push_back({characteristic, value});
    return scale_.write(characteristic, value, emulatorNow());
}

void FakeDevice::applyEffect(emulator::ScaleEmulator::Effect effect) {
    switch (effect) {
        case emulator::ScaleEmulator::Effect::None:
            return;
        case emulator::ScaleEmulator::Effect::Disconnect:
        case emulator::ScaleEmulator::Effect::RestartForUpdate:
            // The firmware drops the link; after an update restart the next
            // connection discovers the update target's table.
            linkLost();
            return;
    }
}

void FakeDevice::startNotify(Characteristic& characteristic, const CallPtr& call) {
    if (link_ == Link::Disconnecting) {
        call->replyError(kBluezError + std::string("NotConnected"), "Not Connected");
        return;
    }
    if (characteristic.notifyFd >= 0 || characteristic.pendingAcquire) {
        call->replyError(kBluezError + std::string("NotPermitted"), "Notify acquired");
        return;
    }
    if ((characteristic.properties & kNotifyOrIndicate) == 0) {
        call->replyError(kBluezError + std::string("NotSupported"), "Operation is not supported");
        return;
    }
    if (auto found = characteristic.sessions.find(call->sender()); found != characteristic.sessions.end()) {
        // A repeat is fine once subscribed; until then (e.g. between
        // reconnects) bluetoothd answers InProgress.
        if (found->second.registered) {
            call->replyEmpty();
        } else {
            call->replyError(kBluezError + std::string("InProgress"), "In Progress");
        }
        return;
    }
    characteristic.sessions[call->sender()] = NotifySession{};
    if (link_ != Link::Connected) {
        // Not connected: the session is kept and subscribed on the next connection.
        call->replyEmpty();
        return;
    }
    const std::string path = characteristic.path;
    const std::string client = call->sender();
    after(context_.timings.attLatency, [this, path, client, call] {
        auto* c = findCharacteristic(path);
        if (c == nullptr || link_ != Link::Connected) return;
        auto session = c->sessions.find(client);
        if (session == c->sessions.end()) return;
        session->second.registered = true;
        if (!notifying(*c)) context_.tree.set(c->path, kCharacteristicInterface, "Notifying", true);
        call->replyEmpty();
        updateStream();
    });
}

void FakeDevice::stopNotify(Characteristic& characteristic, const CallPtr& call) {
    if (characteristic.notifyFd >= 0 || characteristic.pendingAcquire) {
        releaseAcquired(characteristic);
        call->replyEmpty();
        return;
    }
    if (characteristic.sessions.erase(call->sender()) == 0) {
        call->replyError(kBluezError + std::string("Failed"), "No notify session started");
        return;
    }
    updateNotifying(characteristic);
    call->replyEmpty();
    updateStream();
}

bool FakeDevice::notifying(const Characteristic& characteristic) const {
    const Value* value = context_.tree.get(characteristic.path, kCharacteristicInterface, "Notifying");
    return value != nullptr && std::get<bool>(*value);
}

void FakeDevice::updateNotifying(Characteristic& characteristic) {
    if (!notifying(characteristic)) return;
    for (const auto& [client, session] : characteristic.sessions) {
        if (session.registered) return;
    }
    context_.tree.set(characteristic.path, kCharacteristicInterface, "Notifying", false);
}

void FakeDevice::registerSessions() {
    if (link_ != Link::Connected) return;
    for (auto& characteristic : characteristics_) {
        if (characteristic.sessions.empty()) continue;
        for (auto& [client, session] : characteristic.sessions) session.registered = true;
        if (!notifying(characteristic))
            context_.tree.set(characteristic.path, kCharacteristicInterface, "Notifying", true);
    }
    updateStream();
}

void FakeDevice::acquireNotify(Characteristic& characteristic, const CallPtr& call) {
    if (link_ != Link::Connected) {
        call->replyError(kBluezError + std::string("Failed"), "Not connected");
        return;
    }
    if (characteristic.notifyFd >= 0 || characteristic.pendingAcquire) {
        call->replyError(kBluezError + std::string("NotPermitted"), "Notify acquired");
        return;
    }
    if (!characteristic.sessions.empty()) {
        call->replyError(kBluezError + std::string("InProgress"), "In Progress");
        return;
    }
    if ((characteristic.properties & emulator::kGattNotify) == 0) {
        call->replyError(kBluezError + std::string("NotSupported"), "Operation is not supported");
        return;
    }
    characteristic.acquiredBy = call->sender();
    characteristic.pendingAcquire = call;
    const std::string path = characteristic.path;
    after(context_.timings.attLatency, [this, path] { completeAcquire(path); });
}

void FakeDevice::completeAcquire(const std::string& path) {
    auto* c = findCharacteristic(path);
    if (c == nullptr || !c->pendingAcquire || link_ != Link::Connected) return;
    auto call = std::move(c->pendingAcquire);
    c->pendingAcquire.reset();
    int fds[2];
    if (::socketpair(AF_LOCAL, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) < 0) {
        c->acquiredBy.clear();
        call->replyError(kBluezError + std::string("Failed"), "Failed to create socket");
        return;
    }
    c->notifyFd = fds[0];
    // The client closing its end (or leaving) ends the subscription.
    context_.loop.watch(fds[0], POLLIN, [this, path](short) {
        if (auto* acquired = findCharacteristic(path); acquired != nullptr && acquired->notifyFd >= 0) {
            char buffer[512];
            const auto got = ::recv(acquired->notifyFd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got <= 0) releaseAcquired(*acquired);
        }
    });
    context_.tree.set(c->path, kCharacteristicInterface, "NotifyAcquired", true);
    call->reply([&](sd_bus_message* m) { return sd_bus_message_append(m, "hq", fds[1], kMtu); });
    ::close(fds[1]);  // the reply carries a duplicate
    updateStream();
}

void FakeDevice::releaseAcquired(Characteristic& characteristic) {
    if (characteristic.pendingAcquire) {
        characteristic.pendingAcquire->replyError(kBluezError + std::string("Failed"), "Not connected");
        characteristic.pendingAcquire.reset();
    }
    characteristic.acquiredBy.clear();
    if (characteristic.notifyFd < 0) return;
    context_.loop.unwatch(characteristic.notifyFd);
    ::close(characteristic.notifyFd);
    characteristic.notifyFd = -1;
    context_.tree.set(characteristic.path, kCharacteristicInterface, "NotifyAcquired", false);
    updateStream();
}

bool FakeDevice::hasListeners(const Characteristic& characteristic) const {
    if (characteristic.notifyFd >= 0) return true;
    return std::any_of(characteristic.sessions.begin(), characteristic.sessions.end(),
                       [](const auto& entry) { return entry.second.registered; });
}

void FakeDevice::notify(const bt::Uuid& uuid, const bt::Bytes& value, std::optional<std::uint64_t> index) {
    auto* characteristic = findCharacteristic(uuid);
    if (characteristic == nullptr || link_ != Link::Connected) return;
    const auto stamp = std::chrono::steady_clock::now();
    bool sent = false;
    // bluetoothd emits PropertiesChanged once per subscribed session, even for an unchanged value.
    for (const auto& [client, session] : characteristic->sessions) {
        if (!session.registered) continue;
        context_.tree.set(characteristic->path, kCharacteristicInterface, "Value", value.toVector(), true);
        sent = true;
    }
    if (characteristic->notifyFd >= 0) {
        ::send(characteristic->notifyFd, value.data(), value.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        sent = true;
    }
    if (sent && context_.observer != nullptr && *context_.observer) {
        (*context_.observer)(
            setup_.address, index.value_or(emissions_),
            std::chrono::duration_cast<std::chrono::nanoseconds>(stamp.time_since_epoch()).count());
        ++emissions_;
    }
}

// --- weight stream -----------------------------------------------------------------------

bool FakeDevice::streamNeeded() const {
    if (link_ != Link::Connected || !setup_.streamWeights || scale_.inUpdateMode()) return false;
    return std::any_of(characteristics_.begin(), characteristics_.end(), [&](const Characteristic& c) {
        return c.uuid == wire::kDataCharacteristic && hasListeners(c);
    });
}

void FakeDevice::updateStream() {
    const bool needed = streamNeeded();
    if (needed && streamTimer_ == 0) {
        nextSample_ = std::chrono::steady_clock::now() + scale_.samplePeriod();
        streamTimer_ = at(nextSample_, [this] { streamTick(); });
    } else if (!needed) {
        cancelTimer(streamTimer_);
    }
}

void FakeDevice::streamTick() {
    streamTimer_ = 0;
    const auto period = scale_.samplePeriod();
    if (setup_.sequence) {
        // Integral weights decode exactly up to 838860: the numbers wrap below that.
        const auto number = sequence_++;
        notify(wire::kDataCharacteristic, scale_.encodeWeightPacket(static_cast<float>(number % 800000)),
               number);
    } else {
        notify(wire::kDataCharacteristic,
               scale_.packetAt(std::chrono::time_point_cast<Clock::Duration>(nextSample_)));
    }
    // The next sample stays on the grid; after a long stall it restarts from now.
    const auto now = std::chrono::steady_clock::now();
    nextSample_ += period;
    if (nextSample_ + 10 * period < now) nextSample_ = now + period;
    if (streamNeeded()) streamTimer_ = at(nextSample_, [this] { streamTick(); });
}

}  // namespace plenk::fakebluez
