#include "backends/sim/VirtualPeripheral.h"

#include <algorithm>
#include <mutex>

#include "backends/sim/SimCentral.h"
#include "backends/sim/SimPeripheral.h"
#include "backends/sim/World.h"
#include "wire/GattUuids.h"

namespace plenk::sim {

namespace {
// The write log keeps the most recent writes only.
constexpr std::size_t kMaxWriteRecords = 4096;
}  // namespace

VirtualPeripheral::VirtualPeripheral(Token, std::weak_ptr<World> world, std::shared_ptr<Clock> clock,
                                     PeripheralOptions options, std::optional<emulator::ScaleOptions> scale,
                                     bool streaming)
    : world_(std::move(world)),
      clock_(std::move(clock)),
      identifier_(options.identifier.isNil() ? bt::Uuid::random() : options.identifier),
      hasScale_(scale.has_value()),
      name_(std::move(options.name)),
      advertisedServices_(std::move(options.advertisedServices)),
      rssi_(options.rssi),
      advertising_(options.advertising),
      advertisesWhileConnected_(options.advertisesWhileConnected),
      connectedToSystem_(options.connectedToSystem),
      knownToSystem_(options.knownToSystem),
      profile_(std::move(options.profile)),
      streaming_(streaming) {
    if (scale) {
        scale_.emplace(std::move(*scale), clock_->now());
        name_ = scale_->advertisedName();
        advertisedServices_ = scale_->advertisedServices();
        profile_ = scale_->profile();
    }
}

// Nobody else can reach the object any more: no lock needed.
VirtualPeripheral::~VirtualPeripheral() {
    if (streamTimer_ != 0) clock_->cancel(streamTimer_);
}

template <typename F>
auto VirtualPeripheral::withWorldLocked(const std::weak_ptr<World>& weak, F&& f) {
    auto world = weak.lock();
    using Result = decltype(f(*world));
    if (!world) return Result();
    std::lock_guard lock(world->mutex_);
    return f(*world);
}

// --- name and presence -------------------------------------------------------------

std::optional<std::string> VirtualPeripheral::name() const {
    return withWorldLocked(world_, [&](World&) { return name_; });
}

void VirtualPeripheral::setName(std::optional<std::string> name) {
    withWorldLocked(world_, [&](World&) {
        name_ = std::move(name);
        for (SimPeripheral* link : links_) {
            link->postLocked(Clock::Duration::zero(), [self = link->weakSelf(), l = link->link_] {
                if (auto p = self.lock()) p->deliverNameUpdate(l);
            });
        }
    });
}

void VirtualPeripheral::setAdvertising(bool advertising) {
    withWorldLocked(world_, [&](World& world) {
        advertising_ = advertising;
        visibilityChangedLocked(world);
    });
}

bool VirtualPeripheral::isAdvertising() const {
    return withWorldLocked(world_, [&](World&) { return advertisingLocked(); });
}

void VirtualPeripheral::setAdvertisedServices(std::vector<bt::Uuid> services) {
    withWorldLocked(world_, [&](World&) { advertisedServices_ = std::move(services); });
}

void VirtualPeripheral::setRssi(int rssi) {
    withWorldLocked(world_, [&](World&) { rssi_ = rssi; });
}

void VirtualPeripheral::setInRange(bool inRange, ErrorPtr linkError) {
    withWorldLocked(world_, [&](World& world) {
        inRange_ = inRange;
        if (!inRange) dropLinksLocked(world, linkError);
        visibilityChangedLocked(world);
    });
}

void VirtualPeripheral::setConnectedToSystem(bool connected) {
    withWorldLocked(world_, [&](World& world) {
        connectedToSystem_ = connected;
        visibilityChangedLocked(world);
    });
}

void VirtualPeripheral::setKnownToSystem(bool known) {
    withWorldLocked(world_, [&](World&) { knownToSystem_ = known; });
}

// --- links -----------------------------------------------------------------------

void VirtualPeripheral::setConnectResult(ConnectResult result) {
    withWorldLocked(world_, [&](World&) { connectResult_ = std::move(result); });
}

void VirtualPeripheral::queueConnectResult(ConnectResult result) {
    withWorldLocked(world_, [&](World&) { queuedConnectResults_.push_back(std::move(result)); });
}

void VirtualPeripheral::dropLink(ErrorPtr error) {
    withWorldLocked(world_, [&](World& world) { dropLinksLocked(world, error); });
}

std::size_t VirtualPeripheral::linkCount() const {
    return withWorldLocked(world_, [&](World&) { return links_.size(); });
}

// --- GATT ------------------------------------------------------------------------

emulator::GattProfile VirtualPeripheral::profile() const {
    return withWorldLocked(world_, [&](World&) { return profile_; });
}

void VirtualPeripheral::setProfile(emulator::GattProfile profile) {
    withWorldLocked(world_, [&](World&) { profile_ = std::move(profile); });
}

void VirtualPeripheral::removeService(const bt::Uuid& service) {
    withWorldLocked(world_, [&](World&) { profile_.removeService(service); });
}

void VirtualPeripheral::removeCharacteristic(const bt::Uuid& service, const bt::Uuid& characteristic) {
    withWorldLocked(world_, [&](World&) { profile_.removeCharacteristic(service, characteristic); });
}

void VirtualPeripheral::setCharacteristicValue(const bt::Uuid& characteristic, bt::Bytes value, bool cached) {
    withWorldLocked(world_, [&](World&) {
        if (auto* entry = profile_.findCharacteristic(characteristic)) entry->cached = cached;
        values_[characteristic] = std::move(value);
    });
}

namespace {
void setOrClear(std::map<bt::Uuid, ErrorPtr>& errors, const bt::Uuid& uuid, ErrorPtr error) {
    if (error) {
        errors[uuid] = std::move(error);
    } else {
        errors.erase(uuid);
    }
}
}  // namespace

void VirtualPeripheral::failServiceDiscovery(ErrorPtr error) {
    withWorldLocked(world_, [&](World&) { serviceDiscoveryError_ = std::move(error); });
}

void VirtualPeripheral::failCharacteristicDiscovery(const bt::Uuid& service, ErrorPtr error) {
    withWorldLocked(world_,
                    [&](World&) { setOrClear(characteristicDiscoveryErrors_, service, std::move(error)); });
}

void VirtualPeripheral::failReads(const bt::Uuid& characteristic, ErrorPtr error) {
    withWorldLocked(world_, [&](World&) { setOrClear(readErrors_, characteristic, std::move(error)); });
}

void VirtualPeripheral::failWrites(const bt::Uuid& characteristic, ErrorPtr error) {
    withWorldLocked(world_, [&](World&) { setOrClear(writeErrors_, characteristic, std::move(error)); });
}

void VirtualPeripheral::failNotifyState(const bt::Uuid& characteristic, ErrorPtr error) {
    withWorldLocked(world_,
                    [&](World&) { setOrClear(notifyStateErrors_, characteristic, std::move(error)); });
}

void VirtualPeripheral::notify(const bt::Uuid& characteristic, const bt::Bytes& value,
                               const ErrorPtr& error) {
    withWorldLocked(world_, [&](World&) { notifyLocked(characteristic, value, error); });
}

std::size_t VirtualPeripheral::subscriberCount(const bt::Uuid& characteristic) const {
    return withWorldLocked(world_, [&](World&) {
        std::size_t count = 0;
        for (const SimPeripheral* link : links_) {
            count += static_cast<std::size_t>(
                std::count_if(link->subscribed_.begin(), link->subscribed_.end(),
                              [&](const auto* c) { return c->uuid_ == characteristic; }));
        }
        return count;
    });
}

std::vector<WriteRecord> VirtualPeripheral::writes() const {
    return withWorldLocked(world_, [&](World&) { return writes_; });
}

void VirtualPeripheral::clearWrites() {
    withWorldLocked(world_, [&](World&) { writes_.clear(); });
}

// --- scale -----------------------------------------------------------------------

bool VirtualPeripheral::withScale(const std::function<void(emulator::ScaleEmulator&)>& f) {
    return withWorldLocked(world_, [&](World&) {
        if (!scale_) return false;
        f(*scale_);
        return true;
    });
}

void VirtualPeripheral::setStreaming(bool streaming) {
    withWorldLocked(world_, [&](World&) {
        streaming_ = streaming;
        updateStreamLocked();
    });
}

bool VirtualPeripheral::isStreaming() const {
    return withWorldLocked(world_, [&](World&) { return streamTimer_ != 0; });
}

void VirtualPeripheral::setSampleRate(int hertz) {
    withWorldLocked(world_, [&](World&) {
        if (scale_) scale_->setSampleRate(hertz);
    });
}

void VirtualPeripheral::pressButton(int button) {
    withWorldLocked(world_, [&](World&) {
        notifyLocked(wire::kControlCharacteristic, emulator::ScaleEmulator::buttonPacket(button), nullptr);
    });
}

void VirtualPeripheral::setBatteryLevel(int level) {
    withWorldLocked(world_, [&](World&) {
        if (scale_) {
            scale_->setBatteryLevel(level, clock_->now());
        } else {
            values_[wire::kBatteryLevel] = bt::Bytes{static_cast<std::uint8_t>(level)};
        }
    });
}

void VirtualPeripheral::restartIntoUpdateMode() {
    withWorldLocked(world_, [&](World& world) {
        if (!scale_ || scale_->inUpdateMode()) return;
        scale_->enterUpdateMode();
        enterUpdateModeLocked();
        dropLinksLocked(world, platformError(kPlatformPeripheralDisconnected));
    });
}

void VirtualPeripheral::finishFirmwareUpdate() {
    withWorldLocked(world_, [&](World& world) {
        if (!scale_ || !scale_->inUpdateMode()) return;
        leaveUpdateModeLocked();
        dropLinksLocked(world, platformError(kPlatformPeripheralDisconnected));
    });
}

bool VirtualPeripheral::inUpdateMode() const {
    return withWorldLocked(world_, [&](World&) { return scale_ && scale_->inUpdateMode(); });
}

// --- under the lock ------------------------------------------------------------------

bool VirtualPeripheral::advertisingLocked() const {
    return !removed_ && inRange_ && advertising_ && (links_.empty() || advertisesWhileConnected_);
}

bool VirtualPeripheral::connectableLocked() const {
    return !removed_ && inRange_ && (connectedToSystem_ || advertisingLocked());
}

ConnectResult VirtualPeripheral::takeConnectResultLocked() {
    if (queuedConnectResults_.empty()) return connectResult_;
    ConnectResult next = std::move(queuedConnectResults_.front());
    queuedConnectResults_.pop_front();
    return next;
}

std::optional<bt::Bytes> VirtualPeripheral::readValueLocked(const bt::Uuid& characteristic,
                                                            Clock::TimePoint now) const {
    if (auto it = values_.find(characteristic); it != values_.end()) return it->second;
    if (scale_) {
        if (auto value = scale_->read(characteristic, now)) return value;
    }
    if (const auto* entry = profile_.findCharacteristic(characteristic)) return entry->value;
    return std::nullopt;
}

emulator::ScaleEmulator::Effect VirtualPeripheral::applyWriteLocked(const bt::Uuid& characteristic,
                                                                    const bt::Bytes& value,
                                                                    Clock::TimePoint now) {
    if (scale_) return scale_->write(characteristic, value, now);
    values_[characteristic] = value;  // a plain device keeps what it is given
    return emulator::ScaleEmulator::Effect::None;
}

void VirtualPeripheral::recordWriteLocked(WriteRecord record) {
    if (writes_.size() >= kMaxWriteRecords)
        writes_.erase(writes_.begin(), writes_.begin() + kMaxWriteRecords / 2);
    writes_.push_back(std::move(record));
}

void VirtualPeripheral::attachLocked(SimPeripheral* link, Clock::TimePoint now) {
    links_.push_back(link);
    if (scale_) scale_->connected(now);
}

void VirtualPeripheral::detachLocked(SimPeripheral* link, Clock::TimePoint now) {
    std::erase(links_, link);
    if (scale_ && links_.empty()) scale_->disconnected(now);
    updateStreamLocked();
}

void VirtualPeripheral::dropLinksLocked(World& world, const ErrorPtr& error) {
    const auto now = clock_->now();
    const auto links = links_;
    for (SimPeripheral* link : links) {
        link->detachLocked(now);
        link->postDisconnectLocked(error);
    }
    visibilityChangedLocked(world);
}

void VirtualPeripheral::visibilityChangedLocked(World& world) {
    if (advertisingLocked()) {
        const auto self = shared_from_this();
        for (SimCentral* central : world.centrals_) central->offerAdvertisementLocked(self, false);
    }
    if (connectableLocked() && !waiting_.empty()) {
        const auto waiting = std::move(waiting_);
        waiting_.clear();
        for (SimPeripheral* peripheral : waiting) {
            if (peripheral->state_ != bt::PeripheralState::Connecting || !peripheral->waitingForDevice_ ||
                peripheral->central_ == nullptr) {
                continue;
            }
            peripheral->waitingForDevice_ = false;
            peripheral->scheduleConnectLocked(world.options_.timings.connectLatency);
        }
    }
}

void VirtualPeripheral::notifyLocked(const bt::Uuid& characteristic, const bt::Bytes& value,
                                     const ErrorPtr& error) {
    for (SimPeripheral* link : links_) {
        for (SimCharacteristic* subscribed : link->subscribed_) {
            if (subscribed->uuid_ == characteristic) link->postValueLocked(subscribed, value, error);
        }
    }
}

bool VirtualPeripheral::streamNeededLocked() const {
    if (!scale_ || !streaming_ || scale_->inUpdateMode()) return false;
    for (const SimPeripheral* link : links_) {
        for (const SimCharacteristic* c : link->subscribed_) {
            if (c->uuid_ == wire::kDataCharacteristic) return true;
        }
    }
    return false;
}

void VirtualPeripheral::armStreamLocked() {
    streamTimer_ = clock_->callAt(nextSample_, [self = weak_from_this(), generation = ++streamGeneration_] {
        if (auto p = self.lock()) p->streamTick(generation);
    });
}

void VirtualPeripheral::updateStreamLocked() {
    const bool needed = streamNeededLocked();
    if (needed && streamTimer_ == 0) {
        nextSample_ = clock_->now() + scale_->samplePeriod();
        armStreamLocked();
    } else if (!needed && streamTimer_ != 0) {
        clock_->cancel(streamTimer_);
        streamTimer_ = 0;
        ++streamGeneration_;
    }
}

void VirtualPeripheral::streamTick(std::uint64_t generation) {
    withWorldLocked(world_, [&](World&) {
        if (generation != streamGeneration_ || streamTimer_ == 0) return;  // cancelled meanwhile
        streamTimer_ = 0;
        if (!streamNeededLocked()) return;
        notifyLocked(wire::kDataCharacteristic, scale_->packetAt(nextSample_), nullptr);
        // Next sample on the grid; after a long stall, pick up from now.
        const auto period = scale_->samplePeriod();
        const auto now = clock_->now();
        nextSample_ += period;
        if (nextSample_ + 10 * period < now) nextSample_ = now + period;
        armStreamLocked();
    });
}

void VirtualPeripheral::enterUpdateModeLocked() {
    scaleName_ = name_;
    scaleProfile_ = profile_;
    name_ = scale_->advertisedName();
    advertisedServices_ = scale_->advertisedServices();
    profile_ = scale_->profile();
    updateStreamLocked();
}

void VirtualPeripheral::leaveUpdateModeLocked() {
    scale_->finishUpdate(clock_->now());
    name_ = scaleName_;
    profile_ = scaleProfile_;
    advertisedServices_ = scale_->advertisedServices();
}

}  // namespace plenk::sim
