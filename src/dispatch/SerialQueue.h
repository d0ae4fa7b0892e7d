#pragma once

#include <memory>
#include <string>
#include <thread>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Executor.h>

namespace plenk::dispatch {

// A serial queue with a thread of its own (named after its label): tasks run
// one at a time in the order posted. The Bluetooth backends deliver every event
// of a central and its peripherals on one such queue, labelled "Corebluetooth".
class SerialQueue final : public Executor {
public:
    SerialQueue(std::string label, std::shared_ptr<Clock> clock = Clock::steady());
    // Stops the thread; tasks not yet run are dropped. Safe to run on the queue
    // itself (the thread is then detached and ends after the current task).
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void post(Task task) override;
    void postAfter(std::chrono::nanoseconds delay, Task task) override;

    const std::string& label() const;
    // True when called from a task of this queue.
    bool isCurrent() const;
    // The queue whose task is running on this thread, if any.
    static SerialQueue* current();
    // Blocks until every task posted before the call has run. Must not be
    // called from the queue itself (returns at once there).
    void drain();
    // No task queued or running.
    bool idle() const;

    struct State;

private:
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace plenk::dispatch
