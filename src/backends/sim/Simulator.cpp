#include <PlenkKit/Simulator.h>

#include <stdexcept>
#include <utility>

#include "backends/sim/SimBackend.h"
#include "backends/sim/SimulatorAccess.h"
#include "backends/sim/TrackingClock.h"
#include "backends/sim/World.h"

namespace plenk {

namespace {
// Rounds of { drain the radio's queues; run the main loop } before settle()
// calls the world busy for good.
constexpr std::size_t kMaxSettleRounds = 10000;
// Timer deadlines one advance() or runUntil() may stop at.
constexpr std::size_t kMaxSteps = 1'000'000;
}  // namespace

struct Simulator::Impl {
    Impl(const Options& options, sim::World::Options worldOptions)
        : virtualClock(options.clock ? std::dynamic_pointer_cast<VirtualClock>(options.clock)
                                     : std::make_shared<VirtualClock>()),
          clock(std::make_shared<sim::TrackingClock>(options.clock ? options.clock : virtualClock)),
          mainLoop(std::make_shared<RunLoop>(clock)),
          notifications(std::make_shared<NotificationCenter>()),
          log(options.log),
          world(sim::World::make(clock, std::move(worldOptions))),
          backend(std::make_shared<sim::SimBackend>(world)) {
        if (options.radio) world->setRadioState(*options.radio);
    }

    // Settles; false if still busy after kMaxSettleRounds.
    bool trySettle() const {
        for (std::size_t round = 0; round < kMaxSettleRounds; ++round) {
            world->drainQueues();
            const std::size_t ran = mainLoop->runUntilIdle();
            // Queues first: once they are idle only the main loop could wake
            // them, and it runs on this thread.
            if (ran == 0 && world->queuesIdle() && mainLoop->pendingTasks() == 0) return true;
        }
        return false;
    }

    void settle() const {
        if (!trySettle()) {
            throw std::runtime_error("plenk::Simulator: still busy after " +
                                     std::to_string(kMaxSettleRounds) + " rounds (an endless event loop?)");
        }
    }

    // Moves virtual time to `target`, deadline by deadline, settling after
    // each; stops early once `done` holds.
    bool advanceTo(Clock::TimePoint target, const std::function<bool()>& done) const {
        settle();
        if (done && done()) return true;
        Clock::TimePoint next;
        for (std::size_t step = 0; virtualClock->nextDeadline(next) && next <= target; ++step) {
            if (step == kMaxSteps) {
                throw std::runtime_error("plenk::Simulator: more than " + std::to_string(kMaxSteps) +
                                         " timer deadlines in one call");
            }
            virtualClock->advanceTo(next);
            settle();
            if (done && done()) return true;
        }
        if (virtualClock->now() < target) virtualClock->advanceTo(target);
        settle();
        return done && done();
    }

    std::shared_ptr<VirtualClock> virtualClock;  // null on real time
    std::shared_ptr<sim::TrackingClock> clock;
    std::shared_ptr<RunLoop> mainLoop;
    std::shared_ptr<NotificationCenter> notifications;
    std::shared_ptr<LogSink> log;
    std::shared_ptr<sim::World> world;
    std::shared_ptr<sim::SimBackend> backend;
};

namespace {
sim::World::Options worldOptionsFor(const Simulator::Options& options) {
    sim::World::Options world;
    world.timings.connectLatency = options.connectLatency;
    world.timings.gattLatency = options.gattLatency;
    return world;
}
}  // namespace

Simulator::Simulator() : Simulator(Options{}) {}

Simulator::Simulator(const Options& options)
    : impl_(std::make_unique<Impl>(options, worldOptionsFor(options))) {}

Simulator::Simulator(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Simulator::~Simulator() {
    // Dropping a timer may release objects that post or set new timers.
    for (int round = 0; round < 10 && impl_->clock->dropAll(); ++round) {
        if (!impl_->trySettle()) break;
    }
}

Context Simulator::context() const {
    Context context;
    context.mainQueue = impl_->mainLoop;
    context.notifications = impl_->notifications;
    context.log = impl_->log;
    context.clock = impl_->clock;
    context.backend = impl_->backend;
    return context;
}

const std::shared_ptr<RunLoop>& Simulator::mainLoop() const {
    return impl_->mainLoop;
}

std::shared_ptr<Clock> Simulator::clock() const {
    return impl_->clock;
}

bool Simulator::hasVirtualTime() const {
    return impl_->virtualClock != nullptr;
}

void Simulator::setRadioState(RadioState state) {
    impl_->world->setRadioState(state);
}

std::optional<Simulator::RadioState> Simulator::radioState() const {
    return impl_->world->radioState();
}

Simulator::Scale Simulator::addScale() {
    return addScale(ScaleOptions{});
}

Simulator::Scale Simulator::addScale(ScaleOptions options) {
    emulator::ScaleOptions scale;
    scale.name = std::move(options.name);
    scale.format =
        options.format == WeightFormat::Text ? emulator::WeightFormat::Text : emulator::WeightFormat::Binary;
    scale.sampleRateHz = options.notificationRateHz;
    scale.batteryLevel = options.batteryLevel;
    scale.startConfigured = options.configured;
    scale.info.firmware = std::move(options.firmwareRevision);
    scale.autoPour = options.pourOnConnect;
    scale.noiseGrams = options.noiseGrams;
    sim::PeripheralOptions peripheral;
    peripheral.identifier = options.identifier;
    return Scale(impl_->world->addScale(std::move(scale), std::move(peripheral)));
}

void Simulator::removeScale(const Scale& scale) {
    impl_->world->removePeripheral(scale.device_);
}

void Simulator::settle() {
    impl_->settle();
}

void Simulator::advance(Clock::Duration duration) {
    if (!impl_->virtualClock) throw std::logic_error("plenk::Simulator::advance needs virtual time");
    impl_->advanceTo(impl_->virtualClock->now() + duration, nullptr);
}

bool Simulator::runUntil(const std::function<bool()>& done, Clock::Duration timeout) {
    if (impl_->virtualClock) return impl_->advanceTo(impl_->virtualClock->now() + timeout, done);
    impl_->settle();
    return done() || impl_->mainLoop->runUntil(done, timeout);
}

// --- internal access --------------------------------------------------------------

namespace sim {

std::unique_ptr<Simulator> SimulatorAccess::make(const Simulator::Options& options, World::Options world) {
    return std::unique_ptr<Simulator>(
        new Simulator(std::make_unique<Simulator::Impl>(options, std::move(world))));
}

const std::shared_ptr<World>& SimulatorAccess::world(const Simulator& simulator) {
    return simulator.impl_->world;
}

const std::shared_ptr<SimBackend>& SimulatorAccess::backend(const Simulator& simulator) {
    return simulator.impl_->backend;
}

const std::shared_ptr<VirtualClock>& SimulatorAccess::virtualClock(const Simulator& simulator) {
    return simulator.impl_->virtualClock;
}

}  // namespace sim

}  // namespace plenk
