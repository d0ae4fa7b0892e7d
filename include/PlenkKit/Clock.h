#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include <PlenkKit/Export.h>
#include <PlenkKit/Task.h>

namespace plenk {

// Source of time and of timers for everything in the library that waits: the
// kit's reconnect watchdog (through the main queue's postAfter), the simulator's
// timings and the emulator's weight stream. Tests use VirtualClock to make
// seconds pass instantly and deterministically.
class PLENK_EXPORT Clock {
public:
    using Duration = std::chrono::nanoseconds;
    using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Duration>;
    using TimerId = std::uint64_t;

    virtual ~Clock();
    virtual TimePoint now() const = 0;
    // Runs `fire` once at or after `deadline`, on the clock's own thread (steady
    // clock) or inside advance() (virtual clock). `fire` must be short: it
    // normally posts to a queue.
    virtual TimerId callAt(TimePoint deadline, Task fire) = 0;
    // Cancels a timer that has not fired yet; returns whether it was pending.
    virtual bool cancel(TimerId id) = 0;

    TimerId callAfter(Duration delay, Task fire) { return callAt(now() + delay, std::move(fire)); }

    // The process-wide real clock.
    static std::shared_ptr<Clock> steady();
};

// The real monotonic clock with one timer thread, started on first use.
class PLENK_EXPORT SteadyClock final : public Clock {
public:
    SteadyClock();
    ~SteadyClock() override;
    TimePoint now() const override;
    TimerId callAt(TimePoint deadline, Task fire) override;
    bool cancel(TimerId id) override;

private:
    struct State;
    const std::shared_ptr<State> state_;  // shared with the timer thread
};

// Time that moves only when told to. advance() fires every timer that falls due,
// in deadline order (ties in the order they were set), on the calling thread.
class PLENK_EXPORT VirtualClock final : public Clock {
public:
    explicit VirtualClock(TimePoint start = TimePoint{});
    ~VirtualClock() override;
    TimePoint now() const override;
    TimerId callAt(TimePoint deadline, Task fire) override;
    bool cancel(TimerId id) override;

    void advance(Duration by);
    void advanceTo(TimePoint to);
    // Deadline of the earliest pending timer, if any.
    bool nextDeadline(TimePoint& out) const;
    std::size_t pendingTimers() const;

private:
    struct State;
    const std::unique_ptr<State> state_;
};

}  // namespace plenk
