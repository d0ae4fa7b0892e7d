#pragma once

#include <map>
#include <memory>
#include <mutex>

#include <PlenkKit/Clock.h>

namespace plenk::sim {

// A Clock in front of another that keeps the tasks of pending timers itself,
// so that a simulator can drop them at teardown: a pending timer that holds
// its owner (the kit's watchdog holds the kit) would otherwise keep a reference
// cycle through the clock alive. Tasks run and are destroyed outside its lock:
// they may set or cancel timers.
class TrackingClock final : public Clock {
public:
    explicit TrackingClock(std::shared_ptr<Clock> inner);

    TimePoint now() const override { return inner_->now(); }
    TimerId callAt(TimePoint deadline, Task fire) override;
    bool cancel(TimerId id) override;

    // Cancels every pending timer and destroys its task; returns whether any was pending.
    bool dropAll();

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

    std::shared_ptr<Clock> inner_;
    std::shared_ptr<State> state_;
};

}  // namespace plenk::sim
