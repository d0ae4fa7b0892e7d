#include "support/SimHarness.h"

#include <gtest/gtest.h>

#include <map>
#include <utility>

namespace plenk::test {

// A Clock in front of a VirtualClock that keeps the tasks of pending timers
// itself, so they can be dropped at teardown. Tasks are run and destroyed
// outside its lock: they may set or cancel timers.
class TrackingClock final : public Clock {
public:
    explicit TrackingClock(std::shared_ptr<VirtualClock> inner)
        : inner_(std::move(inner)), state_(std::make_shared<State>()) {}

    TimePoint now() const override { return inner_->now(); }

    TimerId callAt(TimePoint deadline, Task fire) override {
        TimerId id = 0;
        {
            std::lock_guard lock(state_->mutex);
            id = state_->next++;
            state_->timers[id].task = std::move(fire);
        }
        const TimerId innerId = inner_->callAt(deadline, [weak = std::weak_ptr<State>(state_), id] {
            Task task;
            if (auto state = weak.lock()) {
                std::lock_guard lock(state->mutex);
                if (auto it = state->timers.find(id); it != state->timers.end()) {
                    task = std::move(it->second.task);
                    state->timers.erase(it);
                }
            }
            if (task) task();
        });
        std::lock_guard lock(state_->mutex);
        if (auto it = state_->timers.find(id); it != state_->timers.end()) it->second.inner = innerId;
        return id;
    }

    bool cancel(TimerId id) override {
        Timer dropped;
        {
            std::lock_guard lock(state_->mutex);
            auto it = state_->timers.find(id);
            if (it == state_->timers.end()) return false;
            dropped = std::move(it->second);
            state_->timers.erase(it);
        }
        inner_->cancel(dropped.inner);
        return true;
    }

    // Returns whether any timer was pending.
    bool dropAll() {
        std::map<TimerId, Timer> dropped;
        {
            std::lock_guard lock(state_->mutex);
            dropped.swap(state_->timers);
        }
        for (const auto& [id, timer] : dropped) inner_->cancel(timer.inner);
        return !dropped.empty();
    }

private:
    struct Timer {
        Task task;
        TimerId inner = 0;
    };
    struct State {
        std::mutex mutex;
        std::map<TimerId, Timer> timers;
        TimerId next = 1;
    };

    std::shared_ptr<VirtualClock> inner_;
    std::shared_ptr<State> state_;
};

void CapturingLogSink::write(std::string_view text) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(text);
}

std::vector<std::string> CapturingLogSink::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t CapturingLogSink::count(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& line : lines_) n += line.find(fragment) != std::string::npos ? 1 : 0;
    return n;
}

void CapturingLogSink::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

SimHarness::SimHarness(SimHarnessOptions options)
    : clock(std::make_shared<VirtualClock>()),
      notifications(std::make_shared<NotificationCenter>()),
      log(std::make_shared<CapturingLogSink>()),
      simLog(std::make_shared<CapturingLogSink>()),
      tracking_(std::make_shared<TrackingClock>(clock)) {
    mainLoop = std::make_shared<RunLoop>(tracking_);
    sim::World::Options worldOptions;
    worldOptions.timings = options.timings;
    worldOptions.streamByDefault = options.streaming;
    worldOptions.disconnectOnPowerOff = options.disconnectOnPowerOff;
    worldOptions.log = simLog;
    world = sim::World::make(tracking_, worldOptions);
    world->setRadioState(options.radio);
    backend = std::make_shared<sim::SimBackend>(world);
    context.mainQueue = mainLoop;
    context.notifications = notifications;
    context.log = log;
    context.clock = tracking_;
    context.backend = backend;
}

SimHarness::~SimHarness() {
    // Dropping a timer may release objects that post or set new timers.
    for (int round = 0; round < 10 && tracking_->dropAll(); ++round) settle();
}

void SimHarness::settle(std::size_t maxRounds) {
    for (std::size_t round = 0; round < maxRounds; ++round) {
        world->drainQueues();
        const std::size_t ran = mainLoop->runUntilIdle();
        // Queues first: once they are idle only the main loop could wake them,
        // and it runs on this thread.
        if (ran == 0 && world->queuesIdle() && mainLoop->pendingTasks() == 0) return;
    }
    ADD_FAILURE() << "SimHarness::settle: still busy after " << maxRounds << " rounds (an event loop?)";
}

void SimHarness::advance(Clock::Duration duration) {
    const auto target = clock->now() + duration;
    settle();
    constexpr std::size_t kMaxSteps = 1'000'000;
    Clock::TimePoint next;
    for (std::size_t step = 0; clock->nextDeadline(next) && next <= target; ++step) {
        if (step == kMaxSteps) {
            ADD_FAILURE() << "SimHarness::advance: more than " << kMaxSteps << " timer deadlines";
            return;
        }
        clock->advanceTo(next);
        settle();
    }
    clock->advanceTo(target);
    settle();
}

std::shared_ptr<sim::VirtualPeripheral> SimHarness::addScale(std::string name,
                                                             emulator::WeightFormat format) {
    emulator::ScaleOptions scale;
    scale.name = std::move(name);
    scale.format = format;
    return world->addScale(std::move(scale));
}

}  // namespace plenk::test
