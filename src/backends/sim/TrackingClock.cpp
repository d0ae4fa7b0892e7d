#include "backends/sim/TrackingClock.h"

#include <utility>

namespace plenk::sim {

TrackingClock::TrackingClock(std::shared_ptr<Clock> inner)
    : inner_(std::move(inner)), state_(std::make_shared<State>()) {}

Clock::TimerId TrackingClock::callAt(TimePoint deadline, Task fire) {
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

bool TrackingClock::cancel(TimerId id) {
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

bool TrackingClock::dropAll() {
    std::map<TimerId, Timer> dropped;
    {
        std::lock_guard lock(state_->mutex);
        dropped.swap(state_->timers);
    }
    for (const auto& [id, timer] : dropped) inner_->cancel(timer.inner);
    return !dropped.empty();
}

}  // namespace plenk::sim
