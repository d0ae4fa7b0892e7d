#include "EventLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <future>
#include <stdexcept>
#include <system_error>

namespace plenk::fakebluez {

EventLoop::EventLoop() : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    thread_ = std::thread([this] { run(); });
}

EventLoop::~EventLoop() {
    stop();
    if (thread_.joinable()) thread_.join();
    ::close(wakeFd_);
}

bool EventLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return false;
        tasks_.push_back(std::move(task));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
    return true;
}

void EventLoop::invoke(const Task& task) {
    if (onLoopThread()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    const bool posted = post([&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    if (!posted) throw std::runtime_error("fake bluetoothd: the event loop has stopped");
    finished.get();
}

void EventLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
}

EventLoop::TimerId EventLoop::callAt(SteadyTime when, Task task) {
    const TimerId id = nextTimer_++;
    timers_.emplace(when, Timer{id, std::move(task)});
    timerDeadlines_.emplace(id, when);
    return id;
}

bool EventLoop::cancel(TimerId id) {
    auto found = timerDeadlines_.find(id);
    if (found == timerDeadlines_.end()) return false;
    auto [first, last] = timers_.equal_range(found->second);
    for (auto it = first; it != last; ++it) {
        if (it->second.id == id) {
            timers_.erase(it);
            break;
        }
    }
    timerDeadlines_.erase(found);
    return true;
}

void EventLoop::addSource(Source* source) {
    sources_.push_back(source);
}

void EventLoop::removeSource(Source* source) {
    std::erase(sources_, source);
}

void EventLoop::watchFd(int fd, short events, std::function<void(short)> onReady) {
    watches_[fd] = Watch{events, std::move(onReady)};
}

void EventLoop::unwatchFd(int fd) {
    watches_.erase(fd);
}

void EventLoop::runTasks() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks.swap(tasks_);
    }
    for (auto& task : tasks) task();
}

void EventLoop::runDueTimers() {
    const auto now = std::chrono::steady_clock::now();
    // Timers set by a running timer wait for the next round, so a zero delay
    // cannot starve descriptors.
    std::vector<Timer> due;
    while (!timers_.empty() && timers_.begin()->first <= now) {
        auto node = timers_.extract(timers_.begin());
        timerDeadlines_.erase(node.mapped().id);
        due.push_back(std::move(node.mapped()));
    }
    for (auto& timer : due) timer.task();
}

void EventLoop::run() {
    loopThread_ = std::this_thread::get_id();
    std::vector<pollfd> fds;
    std::vector<Source*> polled;
    std::vector<int> watched;
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) break;
        }
        runTasks();
        {
            std::lock_guard lock(mutex_);
            if (stopping_) break;  // a task may have stopped the loop and freed what timers use
        }
        runDueTimers();

        fds.clear();
        polled.clear();
        watched.clear();
        fds.push_back({wakeFd_, POLLIN, 0});
        std::optional<SteadyTime> deadline;
        if (!timers_.empty()) deadline = timers_.begin()->first;
        for (Source* source : sources_) {
            if (auto due = source->deadline(); due && (!deadline || *due < *deadline)) deadline = due;
            const int fd = source->pollFd();
            if (fd < 0) continue;
            fds.push_back({fd, source->pollEvents(), 0});
            polled.push_back(source);
        }
        for (const auto& [fd, watch] : watches_) {
            fds.push_back({fd, watch.events, 0});
            watched.push_back(fd);
        }

        timespec timeout{};
        timespec* timeoutPtr = nullptr;
        if (deadline) {
            const auto left = std::max(std::chrono::nanoseconds::zero(),
                                       std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           *deadline - std::chrono::steady_clock::now()));
            timeout.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
            timeout.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
            timeoutPtr = &timeout;
        }
        const int ready = ::ppoll(fds.data(), fds.size(), timeoutPtr, nullptr);
        if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "ppoll");

        if (fds[0].revents != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = ::read(wakeFd_, &count, sizeof count);
        }
        // Sources are dispatched every round: sd-bus also has work without
        // descriptor activity (queued messages, its own timeouts).
        const auto sources = sources_;
        for (Source* source : sources) {
            if (std::find(sources_.begin(), sources_.end(), source) != sources_.end()) source->dispatch();
        }
        for (std::size_t i = 0; i < watched.size(); ++i) {
            const short revents = fds[1 + polled.size() + i].revents;
            if (revents == 0) continue;
            auto it = watches_.find(watched[i]);
            if (it != watches_.end()) {
                auto onReady = it->second.onReady;  // the handler may unwatch itself
                onReady(revents);
            }
        }
    }
}

}  // namespace plenk::fakebluez
