#include "backends/sim/World.h"

#include <algorithm>

#include "backends/sim/SimCentral.h"

namespace plenk::sim {

std::shared_ptr<World> World::make(std::shared_ptr<Clock> clock, Options options) {
    return std::make_shared<World>(Token{}, clock ? std::move(clock) : Clock::steady(), std::move(options));
}

World::World(Token, std::shared_ptr<Clock> clock, Options options)
    : clock_(std::move(clock)), options_(std::move(options)) {}

// Centrals hold the world, so none is left; peripherals cancel their own timers.
World::~World() {
    if (advertisingTimer_ != 0) clock_->cancel(advertisingTimer_);
}

Timings World::timings() const {
    std::lock_guard lock(mutex_);
    return options_.timings;
}

void World::setTimings(Timings timings) {
    std::lock_guard lock(mutex_);
    options_.timings = timings;
    updateAdvertisingTimerLocked();
}

void World::setLog(std::shared_ptr<LogSink> log) {
    std::lock_guard lock(mutex_);
    options_.log = std::move(log);
}

void World::diagnose(std::string_view text) const {
    std::shared_ptr<LogSink> log;
    {
        std::lock_guard lock(mutex_);
        log = options_.log;
    }
    if (log) log->write(text);
}

// --- radio -----------------------------------------------------------------------

std::optional<bt::ManagerState> World::radioState() const {
    std::lock_guard lock(mutex_);
    return radio_;
}

void World::setRadioState(std::optional<bt::ManagerState> state) {
    std::lock_guard lock(mutex_);
    if (state == radio_) return;
    const bool wasOn = poweredOnLocked();
    radio_ = state;
    if (wasOn && !poweredOnLocked()) {
        // The links go down with the radio, before the new state is reported.
        const auto now = clock_->now();
        for (SimCentral* central : centrals_) central->radioLostLocked(options_.disconnectOnPowerOff, now);
    }
    updateAdvertisingTimerLocked();
    if (state) {
        for (SimCentral* central : centrals_) central->postStateLocked(*state);
    }
}

// --- peripherals -------------------------------------------------------------------

std::shared_ptr<VirtualPeripheral> World::addPeripheral(PeripheralOptions options) {
    const bool streaming = options.streaming.value_or(false);
    auto device = std::make_shared<VirtualPeripheral>(VirtualPeripheral::Token{}, weak_from_this(), clock_,
                                                      std::move(options), std::nullopt, streaming);
    std::lock_guard lock(mutex_);
    peripherals_.push_back(device);
    device->visibilityChangedLocked(*this);
    return device;
}

std::shared_ptr<VirtualPeripheral> World::addScale(emulator::ScaleOptions scale, PeripheralOptions options) {
    bool streaming = false;
    {
        std::lock_guard lock(mutex_);
        streaming = options.streaming.value_or(options_.streamByDefault);
    }
    auto device = std::make_shared<VirtualPeripheral>(VirtualPeripheral::Token{}, weak_from_this(), clock_,
                                                      std::move(options), std::move(scale), streaming);
    std::lock_guard lock(mutex_);
    peripherals_.push_back(device);
    device->visibilityChangedLocked(*this);
    return device;
}

void World::removePeripheral(const std::shared_ptr<VirtualPeripheral>& peripheral) {
    if (!peripheral) return;
    std::lock_guard lock(mutex_);
    auto it = std::find(peripherals_.begin(), peripherals_.end(), peripheral);
    if (it == peripherals_.end()) return;
    peripheral->removed_ = true;
    peripheral->dropLinksLocked(*this, platformError(kPlatformConnectionTimeout));
    peripherals_.erase(it);
}

std::vector<std::shared_ptr<VirtualPeripheral>> World::peripherals() const {
    std::lock_guard lock(mutex_);
    return peripherals_;
}

std::shared_ptr<VirtualPeripheral> World::find(const bt::Uuid& identifier) const {
    std::lock_guard lock(mutex_);
    for (const auto& device : peripherals_) {
        if (device->identifier_ == identifier) return device;
    }
    return nullptr;
}

std::shared_ptr<VirtualPeripheral> World::findByName(std::string_view name) const {
    std::lock_guard lock(mutex_);
    for (const auto& device : peripherals_) {
        if (device->name_ && *device->name_ == name) return device;
    }
    return nullptr;
}

// --- centrals ----------------------------------------------------------------------

std::size_t World::centralCount() const {
    std::lock_guard lock(mutex_);
    return centrals_.size();
}

void World::drainQueues() {
    std::vector<std::shared_ptr<dispatch::SerialQueue>> queues;
    {
        std::lock_guard lock(mutex_);
        for (SimCentral* central : centrals_) queues.push_back(central->queue_);
    }
    for (const auto& queue : queues) queue->drain();
}

bool World::queuesIdle() const {
    std::vector<std::shared_ptr<dispatch::SerialQueue>> queues;
    {
        std::lock_guard lock(mutex_);
        for (SimCentral* central : centrals_) queues.push_back(central->queue_);
    }
    return std::all_of(queues.begin(), queues.end(), [](const auto& queue) { return queue->idle(); });
}

// --- repeated advertisements -----------------------------------------------------------

void World::updateAdvertisingTimerLocked() {
    const bool needed = options_.timings.advertisingInterval > Clock::Duration::zero() && poweredOnLocked() &&
                        std::any_of(centrals_.begin(), centrals_.end(),
                                    [](const SimCentral* c) { return c->scanning_ && c->allowDuplicates_; });
    if (needed && advertisingTimer_ == 0) {
        advertisingTimer_ =
            clock_->callAfter(options_.timings.advertisingInterval,
                              [self = weak_from_this(), generation = ++advertisingGeneration_] {
                                  if (auto world = self.lock()) world->advertisingTick(generation);
                              });
    } else if (!needed && advertisingTimer_ != 0) {
        clock_->cancel(advertisingTimer_);
        advertisingTimer_ = 0;
        ++advertisingGeneration_;
    }
}

void World::advertisingTick(std::uint64_t generation) {
    std::lock_guard lock(mutex_);
    if (generation != advertisingGeneration_ || advertisingTimer_ == 0) return;  // cancelled meanwhile
    advertisingTimer_ = 0;
    for (SimCentral* central : centrals_) {
        if (!central->scanning_ || !central->allowDuplicates_) continue;
        for (const auto& device : peripherals_) central->offerAdvertisementLocked(device, true);
    }
    updateAdvertisingTimerLocked();
}

}  // namespace plenk::sim
