#include <PlenkKit/Clock.h>

namespace plenk {

Clock::~Clock() = default;

std::shared_ptr<Clock> Clock::steady() {
    // Never destroyed: timers may still be set by objects torn down at exit.
    static auto* const instance = new std::shared_ptr<Clock>(std::make_shared<SteadyClock>());
    return *instance;
}

Clock::TimerId TimerTable::add(Clock::TimePoint deadline, Task fire) {
    const Clock::TimerId id = nextId_++;
    timers_.emplace(deadline, std::make_pair(id, std::move(fire)));
    return id;
}

bool TimerTable::cancel(Clock::TimerId id) {
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.first == id) {
            timers_.erase(it);
            return true;
        }
    }
    return false;
}

Task TimerTable::popFirst() {
    auto first = timers_.begin();
    Task fire = std::move(first->second.second);
    timers_.erase(first);
    return fire;
}

SteadyClock::SteadyClock() = default;

SteadyClock::~SteadyClock() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
}

Clock::TimePoint SteadyClock::now() const {
    return std::chrono::time_point_cast<Duration>(std::chrono::steady_clock::now());
}

Clock::TimerId SteadyClock::callAt(TimePoint deadline, Task fire) {
    std::lock_guard lock(mutex_);
    const TimerId id = timers_.add(deadline, std::move(fire));
    if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
    wake_.notify_all();
    return id;
}

bool SteadyClock::cancel(TimerId id) {
    std::lock_guard lock(mutex_);
    return timers_.cancel(id);
}

void SteadyClock::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (timers_.empty()) {
            wake_.wait(lock);
            continue;
        }
        if (timers_.firstDeadline() > now()) {
            wake_.wait_until(lock, std::chrono::steady_clock::time_point(timers_.firstDeadline()));
            continue;
        }
        Task fire = timers_.popFirst();
        lock.unlock();
        fire();
        fire.reset();
        lock.lock();
    }
}

VirtualClock::VirtualClock(TimePoint start) : now_(start) {}

Clock::TimePoint VirtualClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

Clock::TimerId VirtualClock::callAt(TimePoint deadline, Task fire) {
    std::lock_guard lock(mutex_);
    return timers_.add(deadline, std::move(fire));
}

bool VirtualClock::cancel(TimerId id) {
    std::lock_guard lock(mutex_);
    return timers_.cancel(id);
}

void VirtualClock::advance(Duration by) {
    advanceTo(now() + by);
}

void VirtualClock::advanceTo(TimePoint to) {
    std::unique_lock lock(mutex_);
    // Timers fire one by one so that a timer set by a firing timer, due before
    // `to`, fires in the same advance.
    while (!timers_.empty() && timers_.firstDeadline() <= to) {
        if (timers_.firstDeadline() > now_) now_ = timers_.firstDeadline();
        Task fire = timers_.popFirst();
        lock.unlock();
        fire();
        fire.reset();
        lock.lock();
    }
    if (to > now_) now_ = to;
}

bool VirtualClock::nextDeadline(TimePoint& out) const {
    std::lock_guard lock(mutex_);
    if (timers_.empty()) return false;
    out = timers_.firstDeadline();
    return true;
}

std::size_t VirtualClock::pendingTimers() const {
    std::lock_guard lock(mutex_);
    return timers_.size();
}

}  // namespace plenk
