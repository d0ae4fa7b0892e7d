#include <PlenkKit/Clock.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "dispatch/TimerTable.h"

namespace plenk {

Clock::~Clock() = default;

std::shared_ptr<Clock> Clock::steady() {
    // Never destroyed: timers may still be set by objects torn down at exit.
    static auto* const instance = new std::shared_ptr<Clock>(std::make_shared<SteadyClock>());
    return *instance;
}

// --- SteadyClock ------------------------------------------------------------------------------

struct SteadyClock::State {
    std::mutex mutex;
    std::condition_variable wake;
    dispatch::TimerTable timers;
    bool stopping = false;
    std::thread thread;

    void loop() {
        std::unique_lock lock(mutex);
        while (!stopping) {
            if (timers.empty()) {
                wake.wait(lock);
                continue;
            }
            const auto deadline = timers.firstDeadline();
            if (deadline > std::chrono::steady_clock::now()) {
                wake.wait_until(lock, std::chrono::steady_clock::time_point(deadline));
                continue;
            }
            Task fire = timers.popFirst();
            lock.unlock();
            fire();
            fire.reset();
            lock.lock();
        }
    }
};

SteadyClock::SteadyClock() : state_(std::make_shared<State>()) {}

SteadyClock::~SteadyClock() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    if (state_->thread.joinable()) {
        if (state_->thread.get_id() == std::this_thread::get_id()) {
            state_->thread.detach();
        } else {
            state_->thread.join();
        }
    }
}

Clock::TimePoint SteadyClock::now() const {
    return std::chrono::time_point_cast<Duration>(std::chrono::steady_clock::now());
}

Clock::TimerId SteadyClock::callAt(TimePoint deadline, Task fire) {
    std::lock_guard lock(state_->mutex);
    const TimerId id = state_->timers.add(deadline, std::move(fire));
    if (!state_->thread.joinable()) state_->thread = std::thread([state = state_] { state->loop(); });
    state_->wake.notify_all();
    return id;
}

bool SteadyClock::cancel(TimerId id) {
    std::lock_guard lock(state_->mutex);
    return state_->timers.cancel(id);
}

// --- VirtualClock -----------------------------------------------------------------------------

struct VirtualClock::State {
    explicit State(TimePoint start) : now(start) {}
    mutable std::mutex mutex;
    TimePoint now;
    dispatch::TimerTable timers;
};

VirtualClock::VirtualClock(TimePoint start) : state_(std::make_unique<State>(start)) {}
VirtualClock::~VirtualClock() = default;

Clock::TimePoint VirtualClock::now() const {
    std::lock_guard lock(state_->mutex);
    return state_->now;
}

Clock::TimerId VirtualClock::callAt(TimePoint deadline, Task fire) {
    std::lock_guard lock(state_->mutex);
    return state_->timers.add(deadline, std::move(fire));
}

bool VirtualClock::cancel(TimerId id) {
    std::lock_guard lock(state_->mutex);
    return state_->timers.cancel(id);
}

void VirtualClock::advance(Duration by) {
    advanceTo(now() + by);
}

void VirtualClock::advanceTo(TimePoint to) {
    std::unique_lock lock(state_->mutex);
    auto& timers = state_->timers;
    // Timers fire one by one so that a timer set by a firing timer, due before
    // `to`, fires in the same advance.
    while (!timers.empty() && timers.firstDeadline() <= to) {
        if (timers.firstDeadline() > state_->now) state_->now = timers.firstDeadline();
        Task fire = timers.popFirst();
        lock.unlock();
        fire();
        fire.reset();
        lock.lock();
    }
    if (to > state_->now) state_->now = to;
}

bool VirtualClock::nextDeadline(TimePoint& out) const {
    std::lock_guard lock(state_->mutex);
    if (state_->timers.empty()) return false;
    out = state_->timers.firstDeadline();
    return true;
}

std::size_t VirtualClock::pendingTimers() const {
    std::lock_guard lock(state_->mutex);
    return state_->timers.size();
}

}  // namespace plenk
