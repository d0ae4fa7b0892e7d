#include "backends/sim/SimPeripheral.h"

#include <algorithm>
#include <mutex>

#include "backends/sim/SimCentral.h"
#include "backends/sim/World.h"

namespace plenk::sim {

namespace {
bool contains(const std::optional<std::vector<bt::Uuid>>& filter, const bt::Uuid& uuid) {
    return !filter || std::find(filter->begin(), filter->end(), uuid) != filter->end();
}
}  // namespace

// A notification on its way to the central's queue. Small enough for a Task's
// inline storage, so the weight path posts without allocating.
struct SimPeripheral::ValueDelivery {
    bt::CharacteristicPtr characteristic;
    bt::Bytes value;
    std::uint32_t link;

    void operator()() {
        auto* sim = static_cast<SimCharacteristic*>(characteristic.get());
        if (auto peripheral = sim->peripheral_.lock()) {
            peripheral->deliverValue(link, characteristic, std::move(value), nullptr);
        }
    }
};
static_assert(sizeof(SimPeripheral::ValueDelivery) <= Task::kInlineSize);

SimPeripheral::SimPeripheral(std::shared_ptr<World> world, SimCentral* central,
                             std::weak_ptr<SimCentral> weakCentral,
                             const std::shared_ptr<VirtualPeripheral>& device)
    : world_(std::move(world)),
      weakCentral_(std::move(weakCentral)),
      identifier_(device->identifier_),
      central_(central),
      device_(device),
      lastName_(device->name_) {}

// Takes no lock: by the time the last owner lets go, the central has already
// unlinked this object from its device.
SimPeripheral::~SimPeripheral() = default;

std::weak_ptr<SimPeripheral> SimPeripheral::weakSelf() {
    return std::static_pointer_cast<SimPeripheral>(shared_from_this());
}

// --- accessors -------------------------------------------------------------------

std::optional<std::string> SimPeripheral::name() const {
    std::shared_ptr<VirtualPeripheral> device;
    std::lock_guard lock(world_->mutex_);
    device = device_.lock();
    if (device && !device->removed_) lastName_ = device->name_;
    return lastName_;
}

bt::PeripheralState SimPeripheral::state() const {
    std::lock_guard lock(world_->mutex_);
    return state_;
}

std::optional<int> SimPeripheral::rssi() const {
    std::lock_guard lock(world_->mutex_);
    return rssi_;
}

std::vector<bt::ServicePtr> SimPeripheral::services() const {
    std::lock_guard lock(world_->mutex_);
    return {services_.begin(), services_.end()};
}

void SimPeripheral::setDelegate(std::weak_ptr<bt::PeripheralDelegate> delegate) {
    std::lock_guard lock(world_->mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<bt::PeripheralDelegate> SimPeripheral::delegate() const {
    std::weak_ptr<bt::PeripheralDelegate> delegate;
    {
        std::lock_guard lock(world_->mutex_);
        delegate = delegate_;
    }
    return delegate.lock();
}

// --- requests --------------------------------------------------------------------

bool SimPeripheral::liveLocked(std::uint32_t link) const {
    return state_ == bt::PeripheralState::Connected && link_ == link && central_ != nullptr;
}

SimCharacteristic* SimPeripheral::ownCharacteristicLocked(const bt::CharacteristicPtr& characteristic) const {
    auto* sim = dynamic_cast<SimCharacteristic*>(characteristic.get());
    if (sim == nullptr || sim->owner_ != this || sim->link_ != link_) return nullptr;
    return sim;
}

void SimPeripheral::postLocked(Clock::Duration delay, Task task) const {
    central_->queue_->postAfter(delay, std::move(task));
}

void SimPeripheral::discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !liveLocked(link_);
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency,
                       [self = weakSelf(), link = link_, filter = serviceUUIDs] {
                           if (auto p = self.lock()) p->deliverServices(link, filter);
                       });
        }
    }
    if (dropped) world_->diagnose("[sim] discoverServices on a peripheral that is not connected: dropped");
}

void SimPeripheral::discoverCharacteristics(const std::optional<std::vector<bt::Uuid>>& characteristicUUIDs,
                                            const bt::ServicePtr& service) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        auto sim = std::dynamic_pointer_cast<SimService>(service);
        dropped = !liveLocked(link_) || !sim || sim->owner_ != this || sim->link_ != link_;
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency,
                       [self = weakSelf(), link = link_, filter = characteristicUUIDs, sim] {
                           if (auto p = self.lock()) p->deliverCharacteristics(link, filter, sim);
                       });
        }
    }
    if (dropped) world_->diagnose("[sim] discoverCharacteristics for a service of no current link: dropped");
}

void SimPeripheral::readValueForCharacteristic(const bt::CharacteristicPtr& characteristic) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !liveLocked(link_) || ownCharacteristicLocked(characteristic) == nullptr;
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency,
                       [self = weakSelf(), link = link_, characteristic] {
                           if (auto p = self.lock()) p->deliverRead(link, characteristic);
                       });
        }
    }
    if (dropped) world_->diagnose("[sim] read on a characteristic of no current link: dropped");
}

void SimPeripheral::writeValue(const bt::Bytes& data, const bt::CharacteristicPtr& characteristic,
                               bt::WriteType type) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !liveLocked(link_) || ownCharacteristicLocked(characteristic) == nullptr;
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency,
                       [self = weakSelf(), link = link_, characteristic, data, type] {
                           if (auto p = self.lock()) p->deliverWrite(link, characteristic, data, type);
                       });
        }
    }
    if (dropped) world_->diagnose("[sim] write on a characteristic of no current link: dropped");
}

void SimPeripheral::setNotifyValue(bool enabled, const bt::CharacteristicPtr& characteristic) {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !liveLocked(link_) || ownCharacteristicLocked(characteristic) == nullptr;
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency,
                       [self = weakSelf(), link = link_, characteristic, enabled] {
                           if (auto p = self.lock()) p->deliverNotifyState(link, characteristic, enabled);
                       });
        }
    }
    if (dropped) world_->diagnose("[sim] setNotifyValue on a characteristic of no current link: dropped");
}

void SimPeripheral::readRSSI() {
    bool dropped = false;
    {
        std::lock_guard lock(world_->mutex_);
        dropped = !liveLocked(link_);
        if (!dropped) {
            postLocked(world_->options_.timings.gattLatency, [self = weakSelf(), link = link_] {
                if (auto p = self.lock()) p->deliverRssi(link);
            });
        }
    }
    if (dropped) world_->diagnose("[sim] readRSSI on a peripheral that is not connected: dropped");
}

// --- link ----------------------------------------------------------------------

void SimPeripheral::scheduleConnectLocked(Clock::Duration delay) {
    postLocked(delay, [self = weakSelf(), attempt = attempt_] {
        if (auto p = self.lock()) p->completeConnect(attempt);
    });
}

void SimPeripheral::detachLocked(Clock::TimePoint now) {
    state_ = bt::PeripheralState::Disconnected;
    ++link_;
    for (const auto& service : services_) {
        for (const auto& characteristic : service->characteristics_) characteristic->notifying_ = false;
    }
    services_.clear();  // GATT objects of the old link; their destructors take no lock
    subscribed_.clear();
    if (auto device = device_.lock()) device->detachLocked(this, now);
}

void SimPeripheral::abandonConnectLocked() {
    state_ = bt::PeripheralState::Disconnected;
    ++attempt_;
    if (waitingForDevice_) {
        if (auto device = device_.lock()) std::erase(device->waiting_, this);
        waitingForDevice_ = false;
    }
}

void SimPeripheral::postDisconnectLocked(ErrorPtr error) {
    if (central_ == nullptr) return;
    postLocked(Clock::Duration::zero(),
               [central = weakCentral_, self = weakSelf(), error = std::move(error)] {
                   auto c = central.lock();
                   auto p = self.lock();
                   if (!c || !p) return;
                   std::shared_ptr<bt::CentralDelegate> delegate;
                   {
                       std::lock_guard lock(c->world_->mutex_);
                       delegate = c->delegate_.lock();
                   }
                   if (delegate) delegate->centralManagerDidDisconnectPeripheralError(*c, p, error);
               });
}

void SimPeripheral::postValueLocked(SimCharacteristic* characteristic, const bt::Bytes& value,
                                    const ErrorPtr& error) {
    if (!error) {
        central_->queue_->post(ValueDelivery{characteristic->shared_from_this(), value, link_});
        return;
    }
    central_->queue_->post(
        [characteristic = bt::CharacteristicPtr(characteristic->shared_from_this()), link = link_, error] {
            auto* sim = static_cast<SimCharacteristic*>(characteristic.get());
            if (auto p = sim->peripheral_.lock()) p->deliverValue(link, characteristic, bt::Bytes{}, error);
        });
}

void SimPeripheral::completeConnect(std::uint32_t attempt) {
    auto central = weakCentral_.lock();
    if (!central) return;
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::CentralDelegate> delegate;
    ConnectResult result;
    {
        std::lock_guard lock(world_->mutex_);
        if (state_ != bt::PeripheralState::Connecting || attempt_ != attempt || central_ == nullptr) return;
        device = device_.lock();
        if (!device || device->removed_ || !device->connectableLocked()) {
            // A real connect does not time out: it completes when the device shows up.
            if (device && !device->removed_ && !waitingForDevice_) {
                waitingForDevice_ = true;
                device->waiting_.push_back(this);
            }
            return;
        }
        result = device->takeConnectResultLocked();
        switch (result.kind) {
            case ConnectResult::Kind::Hang:
                return;  // stays connecting until cancelled
            case ConnectResult::Kind::Fail:
                state_ = bt::PeripheralState::Disconnected;
                ++attempt_;
                break;
            case ConnectResult::Kind::Succeed:
                state_ = bt::PeripheralState::Connected;
                ++link_;
                device->attachLocked(this, world_->clock_->now());
                break;
        }
        delegate = central->delegate_.lock();
    }
    if (!delegate) return;
    auto self = std::static_pointer_cast<SimPeripheral>(shared_from_this());
    if (result.kind == ConnectResult::Kind::Fail) {
        delegate->centralManagerDidFailToConnectPeripheralError(*central, self, result.error);
    } else {
        delegate->centralManagerDidConnectPeripheral(*central, self);
    }
}

// --- results -------------------------------------------------------------------

void SimPeripheral::deliverServices(std::uint32_t link, const std::optional<std::vector<bt::Uuid>>& filter) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    ErrorPtr error;
    {
        std::lock_guard lock(world_->mutex_);
        if (!liveLocked(link) || !(device = device_.lock())) return;
        error = device->serviceDiscoveryError_;
        if (!error) {
            // Known objects stay; the list follows the device's table order, as handles do.
            const auto self = weakSelf();
            auto previous = std::move(services_);
            services_.clear();
            for (const auto& entry : device->profile_.services) {
                auto it = std::find_if(previous.begin(), previous.end(),
                                       [&](const auto& s) { return s && s->uuid_ == entry.uuid; });
                if (it != previous.end()) {
                    services_.push_back(std::move(*it));
                } else if (contains(filter, entry.uuid)) {
                    services_.push_back(
                        std::make_shared<SimService>(world_, this, self, entry.uuid, entry.primary, link_));
                }
            }
            for (auto& rest : previous) {
                if (rest) services_.push_back(std::move(rest));
            }
        }
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidDiscoverServices(*this, error);
}

void SimPeripheral::deliverCharacteristics(std::uint32_t link,
                                           const std::optional<std::vector<bt::Uuid>>& filter,
                                           const std::shared_ptr<SimService>& service) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    ErrorPtr error;
    {
        std::lock_guard lock(world_->mutex_);
        if (!liveLocked(link) || service->link_ != link_ || !(device = device_.lock())) return;
        if (auto it = device->characteristicDiscoveryErrors_.find(service->uuid_);
            it != device->characteristicDiscoveryErrors_.end()) {
            error = it->second;
        }
        const auto* entry = device->profile_.find(service->uuid_);
        if (!error && entry != nullptr) {
            const auto now = world_->clock_->now();
            const auto self = weakSelf();
            auto previous = std::move(service->characteristics_);
            auto& list = service->characteristics_;
            list.clear();
            for (const auto& c : entry->characteristics) {
                auto it = std::find_if(previous.begin(), previous.end(),
                                       [&](const auto& x) { return x && x->uuid_ == c.uuid; });
                if (it != previous.end()) {
                    list.push_back(std::move(*it));
                } else if (contains(filter, c.uuid)) {
                    auto characteristic = std::make_shared<SimCharacteristic>(world_, this, self, service,
                                                                              c.uuid, c.properties, link_);
                    if (c.cached)
                        characteristic->value_ = device->readValueLocked(c.uuid, now).value_or(bt::Bytes{});
                    list.push_back(std::move(characteristic));
                }
            }
            for (auto& rest : previous) {
                if (rest) list.push_back(std::move(rest));
            }
        }
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidDiscoverCharacteristicsForServiceError(*this, service, error);
}

namespace {
// The outcome of a GATT request on `c` before it reaches the device: the
// scripted error for its UUID, else `attCode` when `c` lacks the properties
// the request needs, else none.
ErrorPtr requestFault(const std::map<bt::Uuid, ErrorPtr>& scripted, const SimCharacteristic& c,
                      std::uint32_t needed, std::int64_t attCode) {
    if (auto it = scripted.find(c.uuid()); it != scripted.end()) return it->second;
    if ((c.properties() & needed) == 0) return attError(attCode);
    return nullptr;
}
}  // namespace

void SimPeripheral::deliverRead(std::uint32_t link, const bt::CharacteristicPtr& characteristic) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    ErrorPtr error;
    {
        std::lock_guard lock(world_->mutex_);
        auto* sim = ownCharacteristicLocked(characteristic);
        if (!liveLocked(link) || sim == nullptr || !(device = device_.lock())) return;
        error = requestFault(device->readErrors_, *sim, emulator::kGattRead, kAttReadNotPermitted);
        if (!error) {
            sim->value_ = device->readValueLocked(sim->uuid_, world_->clock_->now()).value_or(bt::Bytes{});
        }
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidUpdateValueForCharacteristicError(*this, characteristic, error);
}

void SimPeripheral::deliverWrite(std::uint32_t link, const bt::CharacteristicPtr& characteristic,
                                 const bt::Bytes& data, bt::WriteType type) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    ErrorPtr error;
    auto effect = emulator::ScaleEmulator::Effect::None;
    {
        std::lock_guard lock(world_->mutex_);
        auto* sim = ownCharacteristicLocked(characteristic);
        if (!liveLocked(link) || sim == nullptr || !(device = device_.lock())) return;
        const bool withResponse = type == bt::WriteType::WithResponse;
        const std::uint32_t needed =
            withResponse ? emulator::kGattWrite : emulator::kGattWriteWithoutResponse;
        error = requestFault(device->writeErrors_, *sim, needed, kAttWriteNotPermitted);
        // A write without response that is not permitted is dropped by the platform.
        if (!withResponse && error && !device->writeErrors_.contains(sim->uuid_)) return;
        device->recordWriteLocked(WriteRecord{sim->uuid_, data, type, error});
        if (!error) effect = device->applyWriteLocked(sim->uuid_, data, world_->clock_->now());
        delegate = delegate_.lock();
    }
    if (delegate && type == bt::WriteType::WithResponse) {
        delegate->peripheralDidWriteValueForCharacteristicError(*this, characteristic, error);
    }
    if (effect != emulator::ScaleEmulator::Effect::None) {
        // The firmware acknowledged the frame, then drops the link (and, for an
        // update, restarts as the bootloader).
        std::lock_guard lock(world_->mutex_);
        if (effect == emulator::ScaleEmulator::Effect::RestartForUpdate) device->enterUpdateModeLocked();
        device->dropLinksLocked(*world_, platformError(kPlatformPeripheralDisconnected));
    }
}

void SimPeripheral::deliverNotifyState(std::uint32_t link, const bt::CharacteristicPtr& characteristic,
                                       bool enabled) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    ErrorPtr error;
    {
        std::lock_guard lock(world_->mutex_);
        auto* sim = ownCharacteristicLocked(characteristic);
        if (!liveLocked(link) || sim == nullptr || !(device = device_.lock())) return;
        error = requestFault(device->notifyStateErrors_, *sim,
                             emulator::kGattNotify | emulator::kGattIndicate, kAttRequestNotSupported);
        if (!error) {
            sim->notifying_ = enabled;
            std::erase(subscribed_, sim);
            if (enabled) subscribed_.push_back(sim);
            device->updateStreamLocked();
        }
        delegate = delegate_.lock();
    }
    if (delegate)
        delegate->peripheralDidUpdateNotificationStateForCharacteristicError(*this, characteristic, error);
}

void SimPeripheral::deliverValue(std::uint32_t link, const bt::CharacteristicPtr& characteristic,
                                 bt::Bytes&& value, const ErrorPtr& error) {
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    {
        std::lock_guard lock(world_->mutex_);
        auto* sim = static_cast<SimCharacteristic*>(characteristic.get());
        if (!liveLocked(link) || sim->link_ != link_ || !sim->notifying_) return;
        if (!error) sim->value_ = std::move(value);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidUpdateValueForCharacteristicError(*this, characteristic, error);
}

void SimPeripheral::deliverRssi(std::uint32_t link) {
    std::shared_ptr<VirtualPeripheral> device;
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    int rssi = 0;
    {
        std::lock_guard lock(world_->mutex_);
        if (!liveLocked(link) || !(device = device_.lock())) return;
        rssi = device->rssi_;
        rssi_ = rssi;
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidReadRSSIError(*this, rssi, nullptr);
}

void SimPeripheral::deliverNameUpdate(std::uint32_t link) {
    std::shared_ptr<bt::PeripheralDelegate> delegate;
    {
        std::lock_guard lock(world_->mutex_);
        if (!liveLocked(link)) return;
        delegate = delegate_.lock();
    }
    if (delegate) delegate->peripheralDidUpdateName(*this);
}

}  // namespace plenk::sim
