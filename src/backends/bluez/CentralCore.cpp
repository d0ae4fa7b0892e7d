#include "backends/bluez/CentralCore.h"

#include <algorithm>

#include <PlenkKit/PlatformErrors.h>

#include "backends/bluez/AdapterChoice.h"
#include "backends/bluez/BluezPeripheral.h"
#include "backends/bluez/PeripheralIdentifier.h"

namespace plenk::bluez {

namespace {

constexpr auto kBusRetry = std::chrono::seconds(2);

// "/org/bluez/hci0/dev_AA_BB/service000a/char000b" → "/org/bluez/hci0/dev_AA_BB".
std::string devicePathOf(const std::string& path) {
    const auto dev = path.find("/dev_");
    if (dev == std::string::npos) return {};
    const auto end = path.find('/', dev + 1);
    return end == std::string::npos ? path : path.substr(0, end);
}

}  // namespace

std::optional<bt::Uuid> uuidFromBluez(const std::string& text) {
    return bt::Uuid::parse(text);
}

std::vector<bt::Uuid> uuidsFromBluez(const std::optional<std::vector<std::string>>& texts) {
    std::vector<bt::Uuid> out;
    if (!texts) return out;
    for (const auto& text : *texts) {
        if (auto uuid = uuidFromBluez(text)) out.push_back(*uuid);
    }
    return out;
}

CentralCore::CentralCore(CentralOptions options) : options_(std::move(options)), loop_(options_.queueLabel) {}

CentralCore::~CentralCore() = default;

void CentralCore::start(std::weak_ptr<bt::Central> outer, std::weak_ptr<bt::CentralDelegate> delegate) {
    {
        std::lock_guard lock(delegateMutex_);
        outer_ = std::move(outer);
        delegate_ = std::move(delegate);
    }
    loop_.post([self = weak_from_this()] {
        if (auto core = self.lock()) core->openBus();
    });
}

void CentralCore::shutdown() {
    loop_.stop([self = shared_from_this()] { self->teardown(); });
}

void CentralCore::teardown() {
    // Links and attempts of ours end with us, as they would on the platform.
    std::vector<std::string> toEnd;
    {
        std::lock_guard lock(directoryMutex_);
        for (const auto& [identifier, peripheral] : peripherals_) {
            if (peripheral->shutdown()) toEnd.push_back(peripheral->devicePath());
        }
    }
    if (bus_) {
        for (const auto& path : toEnd)
            bus_->call(
                path, kDeviceInterface, "Disconnect", [](sdbus::MethodCall&) {}, [](auto, auto) {});
    }
    bus_.reset();  // closing the connection still sends what was queued
}

// --- any thread ----------------------------------------------------------------------

void CentralCore::setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) {
    std::weak_ptr<bt::CentralDelegate> old;  // released outside the lock
    std::lock_guard lock(delegateMutex_);
    old = std::exchange(delegate_, std::move(delegate));
}

void CentralCore::diagnose(const std::string& text) const {
    if (options_.log) options_.log->write(text);
}

std::shared_ptr<BluezPeripheral> CentralCore::own(const bt::PeripheralPtr& peripheral) const {
    auto candidate = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
    if (!candidate) return nullptr;
    std::lock_guard lock(directoryMutex_);
    auto it = peripherals_.find(candidate->identifier());
    return it != peripherals_.end() && it->second == candidate ? candidate : nullptr;
}

std::vector<bt::PeripheralPtr> CentralCore::connectedWithServices(
    const std::vector<bt::Uuid>& services) const {
    std::vector<bt::PeripheralPtr> out;
    if (reportedState() != bt::ManagerState::PoweredOn) return out;
    std::lock_guard lock(directoryMutex_);
    for (const auto& [identifier, peripheral] : peripherals_) {
        if (!peripheral->knownToSystem() || !peripheral->connectedToSystem()) continue;
        const auto offered = peripheral->advertisedServices();
        const bool offers = std::any_of(offered.begin(), offered.end(), [&](const bt::Uuid& uuid) {
            return std::find(services.begin(), services.end(), uuid) != services.end();
        });
        if (offers) out.push_back(peripheral);
    }
    return out;
}

std::vector<bt::PeripheralPtr> CentralCore::knownWithIdentifiers(
    const std::vector<bt::Uuid>& identifiers) const {
    std::vector<bt::PeripheralPtr> out;
    std::lock_guard lock(directoryMutex_);
    for (const auto& identifier : identifiers) {
        auto it = peripherals_.find(identifier);
        if (it == peripherals_.end() || !it->second->knownToSystem()) continue;
        if (std::find(out.begin(), out.end(), it->second) == out.end()) out.push_back(it->second);
    }
    return out;
}

// --- events to the host ------------------------------------------------------------------

void CentralCore::withDelegate(const std::function<void(bt::CentralDelegate&, bt::Central&)>& call) {
    std::shared_ptr<bt::Central> outer;
    std::shared_ptr<bt::CentralDelegate> delegate;
    {
        std::lock_guard lock(delegateMutex_);
        outer = outer_.lock();
        delegate = delegate_.lock();
    }
    if (outer && delegate) call(*delegate, *outer);
}

void CentralCore::updateState() {
    bt::ManagerState state = bt::ManagerState::Unknown;
    if (!busFailed_ && (owner_.empty() || !objectsKnown_)) {
        state = unauthorized_ ? bt::ManagerState::Unauthorized : bt::ManagerState::Unknown;
    } else if (busFailed_ || adapterPath_.empty()) {
        state = bt::ManagerState::Unsupported;  // no system bus, or no adapter: no Bluetooth here
    } else {
        const auto* adapter = objects_.find(adapterPath_, kAdapterInterface);
        state = adapter != nullptr && adapter->powered.value_or(false) ? bt::ManagerState::PoweredOn
                                                                       : bt::ManagerState::PoweredOff;
    }
    if (stateReported_ && state == state_) return;
    const bool leavingPoweredOn =
        state_ == bt::ManagerState::PoweredOn && state != bt::ManagerState::PoweredOn;
    state_ = state;
    stateReported_ = true;
    if (leavingPoweredOn) {
        // Links are reported lost before the new state.
        dropLinks(true, nullptr);
        endScan();
    }
    reportedState_.store(static_cast<int>(state));
    withDelegate([](bt::CentralDelegate& d, bt::Central& c) { d.centralManagerDidUpdateState(c); });
}

// --- the bus --------------------------------------------------------------------------

void CentralCore::openBus() {
    BluezBus::Handlers handlers;
    const std::weak_ptr<CentralCore> weak = weak_from_this();
    // The bus posts its handlers as tasks of the loop and drops them once it is
    // gone, and it lives inside this core: `this` is safe in them.
    handlers.ownerChanged = [this](const std::string& owner) { ownerChanged(owner); };
    handlers.objectsLoaded = [this](const std::vector<InterfaceUpdate>& updates) { objectsLoaded(updates); };
    handlers.objectsFailed = [this](const BusError& error) { objectsFailed(error); };
    handlers.interfaceAdded = [this](const InterfaceUpdate& update) { interfaceAdded(update); };
    handlers.interfacesRemoved = [this](const std::string& path, const std::vector<std::string>& interfaces) {
        interfacesRemoved(path, interfaces);
    };
    handlers.propertiesChanged = [this](const std::string& path, const std::string& interface,
                                        const BluezProperties& change,
                                        const std::vector<std::string>& invalidated) {
        propertiesChanged(path, interface, change, invalidated);
    };
    try {
        bus_ = std::make_unique<BluezBus>(loop_, std::move(handlers), [weak] {
            // Not inside the bus's own dispatch: handled as a task.
            if (auto core = weak.lock())
                core->loop_.post([weak] {
                    if (auto c = weak.lock()) c->busLost();
                });
        });
        busFailed_ = false;
        bus_->queryOwner();
    } catch (const std::exception& e) {
        diagnose(std::string("[bluez] no system bus: ") + e.what());
        busFailed_ = true;
        updateState();
        loop_.postAfter(kBusRetry, [weak] {
            if (auto core = weak.lock(); core && !core->bus_) core->openBus();
        });
    }
}

void CentralCore::busLost() {
    diagnose("[bluez] the system bus connection was lost");
    ownerChanged("");
    bus_.reset();
    openBus();
}

void CentralCore::ownerChanged(const std::string& owner) {
    if (owner == owner_) {
        if (owner.empty()) updateState();  // the first answer: no bluetoothd yet
        return;
    }
    if (!owner_.empty()) {
        // bluetoothd went away and every object with it: links are lost, the
        // radio resets; a new owner is rebuilt from scratch.
        diagnose("[bluez] bluetoothd left the bus");
        dropLinks(true, platformError(kPlatformPeripheralDisconnected));
        endScan();
        objects_.clear();
        objectsKnown_ = false;
        adapterPath_.clear();
        adapterAddress_.clear();
        {
            std::lock_guard lock(directoryMutex_);
            for (const auto& [identifier, peripheral] : peripherals_) peripheral->deviceRemoved();
        }
        state_ = bt::ManagerState::Resetting;
        reportedState_.store(static_cast<int>(state_));
        withDelegate([](bt::CentralDelegate& d, bt::Central& c) { d.centralManagerDidUpdateState(c); });
    }
    owner_ = owner;
    if (owner_.empty()) return;
    unauthorized_ = false;
    if (bus_) bus_->loadObjects();
}

void CentralCore::objectsLoaded(const std::vector<InterfaceUpdate>& updates) {
    objects_.clear();
    for (const auto& update : updates) objects_.add(update.path, update.interface, update.properties);
    objectsKnown_ = true;
    chooseAdapter();
    // Devices first: a host that hears "powered on" may retrieve them at once.
    registerDevices();
    updateState();
}

void CentralCore::registerDevices() {
    if (adapterPath_.empty()) return;
    for (const auto& [path, device] : objects_.all(kDeviceInterface, adapterPath_ + "/"))
        deviceUpdated(path, *device, true);
}

void CentralCore::objectsFailed(const BusError& error) {
    diagnose("[bluez] reading org.bluez's objects failed: " + error.name + " " + error.message);
    unauthorized_ = error.name == "org.freedesktop.DBus.Error.AccessDenied";
    updateState();
}

void CentralCore::chooseAdapter() {
    if (!adapterPath_.empty()) return;
    std::vector<AdapterCandidate> candidates;
    for (const auto& [path, adapter] : objects_.all(kAdapterInterface)) {
        candidates.push_back({path, adapter->powered.value_or(false)});
    }
    if (auto chosen = bluez::chooseAdapter(options_.adapter, candidates)) {
        const auto* adapter = objects_.find(*chosen, kAdapterInterface);
        adapterPath_ = *chosen;
        adapterAddress_ = adapter != nullptr ? adapter->address.value_or("") : "";
    }
}

// --- changes of org.bluez's objects ----------------------------------------------------

void CentralCore::interfaceAdded(const InterfaceUpdate& update) {
    if (!objectsKnown_) return;  // the full answer is on its way
    objects_.add(update.path, update.interface, update.properties);
    if (update.interface == kAdapterInterface) {
        if (adapterPath_.empty()) {
            chooseAdapter();
            registerDevices();
            updateState();
        }
    } else if (update.interface == kDeviceInterface) {
        deviceUpdated(update.path, update.properties, true);
    } else if (auto peripheral = peripheralAt(devicePathOf(update.path))) {
        peripheral->gattObjectAdded();
    }
}

void CentralCore::interfacesRemoved(const std::string& path, const std::vector<std::string>& interfaces) {
    objects_.remove(path, interfaces);
    if (objects_.find(path, kDeviceInterface) == nullptr &&
        std::find(interfaces.begin(), interfaces.end(), kDeviceInterface) != interfaces.end()) {
        if (auto peripheral = peripheralAt(path)) peripheral->deviceRemoved();
        // Its link and requests are gone with it: so may the proxies of the
        // device and its GATT objects (with their calls still pending).
        if (bus_) bus_->forgetUnder(path);
    }
    if (path == adapterPath_ && objects_.find(path, kAdapterInterface) == nullptr) {
        adapterPath_.clear();
        adapterAddress_.clear();
        chooseAdapter();  // another adapter, or none: unsupported
        registerDevices();
        updateState();
    }
}

void CentralCore::propertiesChanged(const std::string& path, const std::string& interface,
                                    const BluezProperties& change,
                                    const std::vector<std::string>& invalidated) {
    if (interface == kCharacteristicInterface) {
        // A value (a notification, or the echo of a read); nothing else of a
        // characteristic that the backend uses changes.
        if (!change.value) return;
        if (auto peripheral = peripheralAt(devicePathOf(path))) peripheral->valueChanged(path, *change.value);
        return;
    }
    const auto* merged = objects_.change(path, interface, change, invalidated);
    if (merged == nullptr) return;
    if (interface == kAdapterInterface) {
        if (adapterPath_.empty()) {
            chooseAdapter();
            registerDevices();
        }
        if (path == adapterPath_) updateState();
    } else if (interface == kDeviceInterface) {
        deviceUpdated(path, change, false);
    }
}

void CentralCore::deviceUpdated(const std::string& path, const BluezProperties& change, bool added) {
    if (adapterPath_.empty() || !path.starts_with(adapterPath_ + "/")) return;
    const auto* device = objects_.find(path, kDeviceInterface);
    if (device == nullptr || !device->address) return;
    std::shared_ptr<BluezPeripheral> peripheral;
    {
        const auto identifier = peripheralIdentifier(adapterAddress_, *device->address);
        std::lock_guard lock(directoryMutex_);
        auto& slot = peripherals_[identifier];
        if (!slot) slot = std::make_shared<BluezPeripheral>(weak_from_this(), identifier);
        peripheral = slot;
        byPath_[path] = identifier;
    }
    peripheral->deviceUpdated(path, *device, change);
    // An advertisement: a new device, or a property an advertisement carries.
    const bool heard = (added && device->rssi.has_value()) || change.rssi.has_value();
    if (heard || change.uuids || change.name || change.manufacturerData)
        offerAdvertisement(*peripheral, *device, heard);
}

std::shared_ptr<BluezPeripheral> CentralCore::peripheralAt(const std::string& devicePath) const {
    auto it = byPath_.find(devicePath);
    if (it == byPath_.end()) return nullptr;
    std::lock_guard lock(directoryMutex_);
    auto found = peripherals_.find(it->second);
    return found == peripherals_.end() ? nullptr : found->second;
}

void CentralCore::dropLinks(bool report, const ErrorPtr& error) {
    std::vector<std::shared_ptr<BluezPeripheral>> all;
    {
        std::lock_guard lock(directoryMutex_);
        for (const auto& [identifier, peripheral] : peripherals_) all.push_back(peripheral);
    }
    for (const auto& peripheral : all) peripheral->linkGone(report, error);
}

}  // namespace plenk::bluez
