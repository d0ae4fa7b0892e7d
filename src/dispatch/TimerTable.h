#pragma once

#include <map>
#include <utility>

#include <PlenkKit/Clock.h>

namespace plenk::dispatch {

// Pending timers by deadline (ties in the order they were set); the clocks'
// shared bookkeeping, guarded by their own locks.
class TimerTable {
public:
    Clock::TimerId add(Clock::TimePoint deadline, Task fire) {
        const Clock::TimerId id = nextId_++;
        timers_.emplace(deadline, std::make_pair(id, std::move(fire)));
        return id;
    }
    bool cancel(Clock::TimerId id) { return static_cast<bool>(take(id)); }
    // Removes a pending timer and hands its task over (empty when not pending),
    // so that the caller can release it outside its lock.
    Task take(Clock::TimerId id) {
        for (auto it = timers_.begin(); it != timers_.end(); ++it) {
            if (it->second.first == id) {
                Task fire = std::move(it->second.second);
                timers_.erase(it);
                return fire;
            }
        }
        return {};
    }
    bool empty() const { return timers_.empty(); }
    std::size_t size() const { return timers_.size(); }
    // Only when not empty.
    Clock::TimePoint firstDeadline() const { return timers_.begin()->first; }
    Task popFirst() {
        auto first = timers_.begin();
        Task fire = std::move(first->second.second);
        timers_.erase(first);
        return fire;
    }

private:
    std::multimap<Clock::TimePoint, std::pair<Clock::TimerId, Task>> timers_;
    Clock::TimerId nextId_ = 1;
};

}  // namespace plenk::dispatch
