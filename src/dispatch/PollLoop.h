#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Task.h>

namespace plenk::dispatch {

// A serial queue on a thread of its own that also waits on file descriptors:
// posted tasks and timers run one at a time in order, and in between the loop
// polls the descriptors it watches and one pump (a bus connection). The
// BlueZ backend runs each central's "Corebluetooth" queue on one; the fake
// bluetoothd of the tests runs the daemon on another.
class PollLoop {
public:
    using TimerId = Clock::TimerId;
    using TimePoint = Clock::TimePoint;

    // Something with its own queue behind a descriptor, such as a D-Bus
    // connection. Asked before every wait; pumped when its descriptor was
    // ready, its deadline passed, or a task ran (which may have queued
    // output), and not otherwise, so a round woken by a watched descriptor
    // alone costs it nothing.
    struct Pump {
        struct PollData {
            int fd = -1;  // < 0: nothing to poll now
            short events = 0;
            std::optional<TimePoint> deadline;
        };
        virtual ~Pump() = default;
        virtual PollData pollData() const = 0;
        virtual void pump() = 0;
    };

    explicit PollLoop(std::string label);
    // Stops the loop (without a last task) unless stopped; on the loop itself
    // the thread is detached and ends after the current task.
    ~PollLoop();
    PollLoop(const PollLoop&) = delete;
    PollLoop& operator=(const PollLoop&) = delete;

    // --- any thread ---------------------------------------------------------
    // Tasks run one at a time in the order posted. False (the task dropped)
    // once stopping.
    bool post(Task task);
    // A timer; 0 (dropped) once stopping. Timers that fall due while a round
    // runs wait for the next one, so a zero delay cannot starve descriptors.
    TimerId postAt(TimePoint deadline, Task task);
    TimerId postAfter(std::chrono::nanoseconds delay, Task task);
    void cancel(TimerId id);
    const std::string& label() const;
    bool isCurrent() const;
    bool stopping() const;

    // --- on the loop only ---------------------------------------------------
    // `ready` gets the revents when `fd` has any of `events` (or hangs up); it
    // may unwatch any descriptor, itself included.
    void watch(int fd, short events, std::function<void(short revents)> ready);
    void unwatch(int fd);
    // The pump polled between tasks (null: none); the loop does not own it.
    void setPump(Pump* pump);

    // Ends the loop after the running task: `last` runs on the loop thread,
    // every task and timer not yet run is dropped. Waits for the thread unless
    // called on it (the thread then ends once the current task returns).
    void stop(Task last);

    struct State;

private:
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace plenk::dispatch
