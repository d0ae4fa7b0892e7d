#include "BluezModel.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <stdexcept>

#include "BluezNames.h"

namespace plenk::fakebluez {

BluezModel::BluezModel(dispatch::PollLoop& loop, std::string busAddress, Timings timings)
    : loop_(loop), busAddress_(std::move(busAddress)), timings_(timings) {}

BluezModel::~BluezModel() {
    for (auto& [name, adapter] : adapters_) {
        loop_.cancel(adapter.scanTimer);
        loop_.cancel(adapter.cleanupTimer);
    }
    loop_.cancel(restartTimer_);
    devices_.clear();
    tree_.setBus(nullptr);
    bus_.reset();
}

void BluezModel::start() {
    restartTimer_ = 0;
    bus_ = std::make_unique<BusConnection>(
        loop_, busAddress_, [this](const CallPtr& call) { onCall(call); },
        [this](const std::string& client) { onClientGone(client); });
    tree_.setBus(bus_.get());
    // bluetoothd owns its name first; adapters and stored devices follow as InterfacesAdded.
    bus_->requestName(kBluezService);
    tree_.add("/org/bluez", {{"org.bluez.AgentManager1", {}}, {"org.bluez.ProfileManager1", {}}});
    for (auto& [name, adapter] : adapters_) tree_.add(adapter.path, adapterInterfaces(adapter));
    for (auto& device : devices_) {
        if (!device->temporary()) device->exportKnown();
    }
}

void BluezModel::restart(Duration downtime) {
    for (auto& [name, adapter] : adapters_) {
        loop_.cancel(adapter.scanTimer);
        loop_.cancel(adapter.cleanupTimer);
        adapter.scanTimer = adapter.cleanupTimer = 0;
        adapter.clients.clear();
        adapter.starting = adapter.discovering = false;
        adapter.found.clear();
    }
    for (auto& device : devices_) device->daemonStopped();
    tree_.setBus(nullptr);
    tree_.clear();
    bus_.reset();  // the bus drops org.bluez with the connection
    loop_.cancel(restartTimer_);
    restartTimer_ = loop_.postAfter(downtime, [this] { start(); });
}

// --- topology ------------------------------------------------------------------------

void BluezModel::addAdapter(AdapterSetup setup) {
    if (adapters_.count(setup.name) != 0)
        throw std::invalid_argument("fake bluetoothd: adapter exists: " + setup.name);
    auto address = normalizedAddress(setup.address);
    if (!address) throw std::invalid_argument("fake bluetoothd: bad adapter address: " + setup.address);
    setup.address = *address;
    Adapter adapter;
    adapter.path = FakeBluez::adapterPath(setup.name);
    adapter.setup = std::move(setup);
    auto& added = adapters_[adapter.setup.name] = std::move(adapter);
    if (bus_) tree_.add(added.path, adapterInterfaces(added));
}

std::string BluezModel::addScale(ScaleSetup setup) {
    auto adapter = adapters_.find(setup.adapter);
    if (adapter == adapters_.end())
        throw std::invalid_argument("fake bluetoothd: no adapter " + setup.adapter);
    auto address = normalizedAddress(setup.address);
    if (!address) throw std::invalid_argument("fake bluetoothd: bad device address: " + setup.address);
    for (const auto& device : devices_) {
        if (device->address() == *address)
            throw std::invalid_argument("fake bluetoothd: device exists: " + *address);
    }
    setup.address = *address;
    auto& added = *devices_.emplace_back(
        std::make_unique<FakeDevice>(deviceContext_, adapter->second.path, std::move(setup)));
    if (bus_ && !added.temporary()) added.exportKnown();
    return added.path();
}

FakeDevice& BluezModel::device(const std::string& address) {
    const auto normalized = normalizedAddress(address).value_or(address);
    for (auto& device : devices_) {
        if (device->address() == normalized) return *device;
    }
    throw std::invalid_argument("fake bluetoothd: no device " + address);
}

FakeDevice* BluezModel::deviceForPath(const std::string& path) {
    for (auto& device : devices_) {
        if (path == device->path() || path.starts_with(device->path() + "/")) return device.get();
    }
    return nullptr;
}

BluezModel::Adapter* BluezModel::adapterByPath(const std::string& path) {
    for (auto& [name, adapter] : adapters_) {
        if (adapter.path == path) return &adapter;
    }
    return nullptr;
}

// --- D-Bus ---------------------------------------------------------------------------

void BluezModel::onCall(const CallPtr& call) {
    calls_.push_back(call->member());
    if (tree_.handle(call)) return;
    if (call->path() == "/org/bluez" && call->interface() == "org.bluez.AgentManager1") {
        // Agents are accepted and never asked: nothing here pairs.
        call->replyEmpty();
        return;
    }
    if (auto* adapter = adapterByPath(call->path())) {
        handleAdapterCall(*adapter, call);
        return;
    }
    if (auto* device = deviceForPath(call->path()); device != nullptr && device->exported()) {
        device->handleCall(call);
        return;
    }
    call->replyError(kUnknownObject, "No such object path '" + call->path() + "'");
}

void BluezModel::onClientGone(const std::string& client) {
    for (auto& [name, adapter] : adapters_) {
        auto found = adapter.clients.find(client);
        if (found == adapter.clients.end()) continue;
        const bool wasActive = found->second.active;
        adapter.clients.erase(found);
        if (wasActive && !hasActiveClients(adapter) && adapter.discovering) endScan(adapter);
    }
    for (auto& device : devices_) device->clientGone(client);
}

// --- adapters ------------------------------------------------------------------------

Interfaces BluezModel::adapterInterfaces(const Adapter& adapter) const {
    const auto& setup = adapter.setup;
    return {{kAdapterInterface,
             {
                 {"Address", setup.address},
                 {"AddressType", std::string("public")},
                 {"Name", setup.alias},
                 {"Alias", setup.alias},
                 {"Class", std::uint32_t{0}},
                 {"Powered", setup.powered},
                 {"Discoverable", false},
                 {"DiscoverableTimeout", std::uint32_t{180}},
                 {"Pairable", true},
                 {"PairableTimeout", std::uint32_t{0}},
                 {"Discovering", adapter.discovering},
                 {"UUIDs", std::vector<std::string>{}},
                 {"Modalias", std::string("usb:v1D6Bp0246d0542")},
                 {"Roles", std::vector<std::string>{"central", "peripheral"}},
             }}};
}

void BluezModel::handleAdapterCall(Adapter& adapter, const CallPtr& call) {
    const auto& member = call->member();
    if (call->interface() != kAdapterInterface) {
        call->replyError(kUnknownMethod, "Unknown method " + member);
    } else if (!adapter.setup.powered &&
               (member == "StartDiscovery" || member == "StopDiscovery" || member == "SetDiscoveryFilter")) {
        call->replyError("org.bluez.Error.NotReady", "Resource Not Ready");
    } else if (member == "StartDiscovery") {
        startDiscovery(adapter, call);
    } else if (member == "StopDiscovery") {
        stopDiscovery(adapter, call);
    } else if (member == "SetDiscoveryFilter") {
        setDiscoveryFilter(adapter, call);
    } else {
        call->replyError(kUnknownMethod, "Unknown method " + member);
    }
}

bool BluezModel::hasActiveClients(const Adapter& adapter) const {
    return std::any_of(adapter.clients.begin(), adapter.clients.end(),
                       [](const auto& entry) { return entry.second.active; });
}

void BluezModel::startDiscovery(Adapter& adapter, const CallPtr& call) {
    auto& client = adapter.clients[call->sender()];
    if (client.active) {
        call->replyError("org.bluez.Error.InProgress", "Operation already in progress");
        return;
    }
    client.active = true;
    if (adapter.discovering || adapter.starting) {
        call->replyEmpty();
        return;
    }
    // The first session starts the scan: the reply waits for the controller,
    // then Discovering turns true.
    adapter.starting = true;
    const std::string name = adapter.setup.name;
    loop_.postAfter(timings_.discoveryLatency, [this, name, call] {
        auto found = adapters_.find(name);
        if (found == adapters_.end() || !found->second.starting) return;
        auto& a = found->second;
        a.starting = false;
        call->replyEmpty();
        if (!hasActiveClients(a)) return;
        a.discovering = true;
        tree_.set(a.path, kAdapterInterface, "Discovering", true);
        loop_.cancel(a.cleanupTimer);
        a.cleanupTimer = 0;
        a.scanTimer = loop_.postAfter(timings_.firstAdvertisement, [this, name] { scanTick(name); });
    });
}

void BluezModel::stopDiscovery(Adapter& adapter, const CallPtr& call) {
    auto client = adapter.clients.find(call->sender());
    if (client == adapter.clients.end() || !client->second.active) {
        call->replyError("org.bluez.Error.Failed", "No discovery started");
        return;
    }
    // The session ends with its filter: a new session starts unfiltered.
    adapter.clients.erase(client);
    if (hasActiveClients(adapter) || !adapter.discovering) {
        call->replyEmpty();
        return;
    }
    const std::string name = adapter.setup.name;
    loop_.postAfter(timings_.discoveryLatency, [this, name, call] {
        auto found = adapters_.find(name);
        call->replyEmpty();
        if (found != adapters_.end() && found->second.discovering && !hasActiveClients(found->second)) {
            endScan(found->second);
        }
    });
}

void BluezModel::setDiscoveryFilter(Adapter& adapter, const CallPtr& call) {
    std::vector<std::string> unknown;
    auto entries = readDictionary(call->message(), &unknown);
    std::optional<DiscoveryFilter> filter;
    bool valid = entries.has_value() && unknown.empty();
    if (valid && !entries->empty()) {
        filter.emplace();
        for (const auto& [key, value] : *entries) {
            const auto* text = std::get_if<std::string>(&value);
            if (const auto* uuids = std::get_if<std::vector<std::string>>(&value); uuids && key == "UUIDs") {
                for (const auto& each : *uuids) {
                    const auto uuid = bt::Uuid::parse(each);
                    if (uuid) filter->uuids.push_back(*uuid);
                    valid = valid && uuid.has_value();
                }
            } else if (const auto* rssi = std::get_if<std::int16_t>(&value); rssi && key == "RSSI") {
                valid = valid && *rssi >= -127 && *rssi <= 20 && entries->count("Pathloss") == 0;
                filter->rssi = *rssi;
            } else if (const auto* pathloss = std::get_if<std::uint16_t>(&value);
                       pathloss && key == "Pathloss") {
                valid = valid && *pathloss <= 137;
            } else if (text && key == "Transport") {
                valid = valid && (*text == "auto" || *text == "le" || *text == "bredr");
                filter->transport = *text;
            } else {
                // DuplicateData and Discoverable only change how often unchanged
                // advertising data is signalled; scales are matched by UUID, not Pattern.
                valid = valid &&
                        (std::holds_alternative<bool>(value) ? key == "DuplicateData" || key == "Discoverable"
                                                             : text && key == "Pattern");
            }
        }
    }
    if (!valid) {
        call->replyError("org.bluez.Error.InvalidArguments", "Invalid arguments in method call");
        return;
    }
    auto client = adapter.clients.find(call->sender());
    if (client != adapter.clients.end()) {
        client->second.filter = filter;
        if (!filter && !client->second.active) adapter.clients.erase(client);
    } else if (filter) {
        adapter.clients[call->sender()].filter = filter;
    }
    call->replyEmpty();
}

bool BluezModel::filteredScan(const Adapter& adapter) const {
    bool any = false;
    for (const auto& [name, client] : adapter.clients) {
        if (!client.active) continue;
        if (!client.filter) return false;
        any = true;
    }
    return any;
}

bool BluezModel::matches(const Adapter& adapter, const FakeDevice& device) const {
    // The union of every session's filter: a client re-checks its own.
    for (const auto& [name, client] : adapter.clients) {
        if (!client.active) continue;
        if (!client.filter) return true;
        const auto& filter = *client.filter;
        if (filter.transport == "bredr") continue;
        if (filter.rssi && device.rssi() < *filter.rssi) continue;
        if (filter.uuids.empty()) return true;
        const auto advertised = device.advertisedServices();
        for (const auto& uuid : filter.uuids) {
            if (std::find(advertised.begin(), advertised.end(), uuid) != advertised.end()) return true;
        }
    }
    return false;
}

void BluezModel::scanTick(const std::string& adapterName) {
    auto found = adapters_.find(adapterName);
    if (found == adapters_.end()) return;
    auto& adapter = found->second;
    adapter.scanTimer = 0;
    if (!adapter.discovering) return;
    const bool everyReport = filteredScan(adapter);
    for (auto& device : devices_) {
        if (device->adapterPath() != adapter.path || !device->advertising() || !matches(adapter, *device))
            continue;
        device->advertisementSeen(everyReport);
        adapter.found.insert(device->path());
    }
    adapter.scanTimer =
        loop_.postAfter(timings_.advertisingInterval, [this, adapterName] { scanTick(adapterName); });
}

void BluezModel::endScan(Adapter& adapter) {
    loop_.cancel(adapter.scanTimer);
    adapter.scanTimer = 0;
    adapter.discovering = false;
    tree_.set(adapter.path, kAdapterInterface, "Discovering", false);
    for (auto& device : devices_) {
        if (adapter.found.count(device->path()) != 0) device->scanEnded();
    }
    adapter.found.clear();
    if (timings_.temporaryTimeout > Duration::zero()) {
        const std::string name = adapter.setup.name;
        loop_.cancel(adapter.cleanupTimer);
        adapter.cleanupTimer =
            loop_.postAfter(timings_.temporaryTimeout, [this, name] { forgetTemporaryDevices(name); });
    }
}

void BluezModel::forgetTemporaryDevices(const std::string& adapterName) {
    auto found = adapters_.find(adapterName);
    if (found == adapters_.end()) return;
    found->second.cleanupTimer = 0;
    if (found->second.discovering) return;
    for (auto& device : devices_) {
        if (device->adapterPath() == found->second.path && device->temporary() && !device->connected() &&
            device->exported()) {
            device->remove();
        }
    }
}

void BluezModel::setPowered(const std::string& adapterName, bool powered) {
    auto found = adapters_.find(adapterName);
    if (found == adapters_.end()) throw std::invalid_argument("fake bluetoothd: no adapter " + adapterName);
    auto& adapter = found->second;
    if (adapter.setup.powered == powered) return;
    if (!powered) {
        // Links drop first, then discovery ends, then Powered turns false.
        for (auto& device : devices_) {
            if (device->adapterPath() == adapter.path) device->linkLost();
        }
        adapter.clients.clear();
        adapter.starting = false;
        if (adapter.discovering) endScan(adapter);
    }
    adapter.setup.powered = powered;
    tree_.set(adapter.path, kAdapterInterface, "Powered", powered);
}

}  // namespace plenk::fakebluez
