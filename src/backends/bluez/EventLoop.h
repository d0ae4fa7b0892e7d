#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <PlenkKit/Task.h>

namespace sdbus {
class IConnection;
}

namespace plenk::bluez {

// One central's serial queue, labelled "Corebluetooth": a thread that runs
// posted tasks and timers in order, and in between polls the central's D-Bus
// connection (dispatching what arrived) and any file descriptors it watches
// (acquired notification sockets). sd-bus connections are not thread-safe:
// everything that touches the connection runs here.
class EventLoop {
public:
    using TimerId = std::uint64_t;

    explicit EventLoop(std::string label);
    // stop() must have been called.
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // From any thread. Tasks run one at a time in the order posted; posts after
    // stop() are dropped.
    void post(Task task);
    TimerId postAfter(std::chrono::nanoseconds delay, Task task);
    void cancel(TimerId id);
    const std::string& label() const;
    bool isCurrent() const;

    // On the loop only. `readable` runs on the loop when the descriptor is
    // readable or hung up; it may unwatch any descriptor, itself included.
    void watch(int fd, std::function<void()> readable);
    void unwatch(int fd);
    // The connection polled between tasks (null: none). `lost` runs, on the
    // loop, once processing it fails (the bus went away); the connection is no
    // longer polled from then on.
    void attachBus(sdbus::IConnection* bus, std::function<void()> lost);

    // Ends the loop after the running task: `last` runs on the loop thread,
    // every task and timer not yet run is dropped. Waits for the thread unless
    // called on it (the thread then ends once the current task returns).
    void stop(Task last);

    struct State;

private:
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace plenk::bluez
