#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

// One thread that waits on file descriptors and timers with ppoll and runs
// everything of the fake bluetoothd: D-Bus traffic, GATT timers, weight
// streams. post() and invoke() are the only members other threads may call;
// everything else belongs to the loop thread.
namespace plenk::fakebluez {

using SteadyTime = std::chrono::steady_clock::time_point;

class EventLoop {
public:
    using Task = std::function<void()>;
    using TimerId = std::uint64_t;

    // Something with a descriptor that wants to be polled: asked before every
    // wait (fd < 0 means "nothing now"), dispatched when ready or due.
    struct Source {
        virtual ~Source() = default;
        virtual int pollFd() const = 0;
        virtual short pollEvents() const = 0;
        virtual std::optional<SteadyTime> deadline() const = 0;
        virtual void dispatch() = 0;
    };

    EventLoop();
    ~EventLoop();  // stops and joins
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // --- any thread -----------------------------------------------------------
    // Returns false once the loop is stopping (the task is dropped).
    bool post(Task task);
    // Runs `task` on the loop thread and waits for it; inline on the loop thread.
    void invoke(const Task& task);
    bool onLoopThread() const { return std::this_thread::get_id() == loopThread_.load(); }
    // Ends the loop after the current iteration; pending tasks are dropped.
    void stop();

    // --- loop thread ----------------------------------------------------------
    TimerId callAt(SteadyTime when, Task task);
    TimerId callAfter(std::chrono::nanoseconds delay, Task task) {
        return callAt(std::chrono::steady_clock::now() + delay, std::move(task));
    }
    bool cancel(TimerId id);
    void addSource(Source* source);
    void removeSource(Source* source);
    // Watches a plain descriptor; `onReady` gets the revents.
    void watchFd(int fd, short events, std::function<void(short)> onReady);
    void unwatchFd(int fd);

private:
    void run();
    void runTasks();
    void runDueTimers();

    int wakeFd_ = -1;
    std::mutex mutex_;
    std::vector<Task> tasks_;  // guarded by mutex_
    bool stopping_ = false;    // guarded by mutex_

    // Loop thread only.
    struct Timer {
        TimerId id;
        Task task;
    };
    std::multimap<SteadyTime, Timer> timers_;
    std::map<TimerId, SteadyTime> timerDeadlines_;
    TimerId nextTimer_ = 1;
    std::vector<Source*> sources_;
    struct Watch {
        short events;
        std::function<void(short)> onReady;
    };
    std::map<int, Watch> watches_;

    std::atomic<std::thread::id> loopThread_{};
    std::thread thread_;
};

}  // namespace plenk::fakebluez
