#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Executor.h>

namespace plenk {

// A plain main queue for hosts that have none: tasks posted from any thread run
// on whichever thread calls run(), runFor(), runUntil() or runUntilIdle().
// Durations given to runFor/runUntil are wall-clock time; delayed tasks follow
// the loop's Clock (a VirtualClock makes them due only when it is advanced).
class PLENK_EXPORT RunLoop final : public Executor {
public:
    explicit RunLoop(std::shared_ptr<Clock> clock = Clock::steady());
    ~RunLoop() override;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // The process-wide loop used as main queue when the host supplies none.
    static std::shared_ptr<RunLoop> main();

    // Throw std::invalid_argument for an empty task.
    void post(Task task) override;
    void postAfter(std::chrono::nanoseconds delay, Task task) override;

    // Runs tasks until stop() is called (from a task or another thread).
    void run();
    // Runs tasks for about `duration`, or until stop(); returns false if stopped.
    bool runFor(std::chrono::nanoseconds duration);
    // Runs tasks until `done()` holds (checked after each task and on every
    // wake-up) or `timeout` passes; returns done().
    bool runUntil(const std::function<bool()>& done,
                  std::chrono::nanoseconds timeout = std::chrono::seconds(10));
    // Runs every task that is ready now, including tasks they post; returns
    // the number run.
    std::size_t runUntilIdle();
    void stop();

    // True on the thread currently running this loop.
    bool isCurrent() const;
    std::size_t pendingTasks() const;
    const std::shared_ptr<Clock>& clock() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace plenk
