#include "backends/bluez/EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <sdbus-c++/Error.h>
#include <sdbus-c++/IConnection.h>

#include "dispatch/TaskRing.h"
#include "dispatch/TimerTable.h"

namespace plenk::bluez {

namespace {
using SteadyTime = Clock::TimePoint;

SteadyTime now() {
    return std::chrono::time_point_cast<Clock::Duration>(std::chrono::steady_clock::now());
}
}  // namespace

struct EventLoop::State {
    std::string label;
    int wakeFd = -1;

    std::mutex mutex;  // guards the members up to `last`
    dispatch::TaskRing tasks;
    dispatch::TimerTable timers;
    bool stopping = false;
    Task last;

    // The loop thread's own.
    sdbus::IConnection* bus = nullptr;
    std::function<void()> busLost;
    std::map<int, std::shared_ptr<std::function<void()>>> watches;
    // Whether the bus may have work: its descriptor was ready, its deadline
    // passed (sd-bus sets it to now while messages wait in its queue), or a
    // task ran (it may have sent). A round woken by a notification socket
    // alone leaves the bus alone: no read attempt per notification.
    bool busDue = true;
    std::optional<SteadyTime> busDeadline;

    ~State() {
        if (wakeFd >= 0) ::close(wakeFd);
    }

    void wake() const {
        const std::uint64_t one = 1;
        // A full counter still wakes the poll: nothing to do on failure.
        [[maybe_unused]] auto written = ::write(wakeFd, &one, sizeof one);
    }

    bool isStopping() {
        std::lock_guard lock(mutex);
        return stopping;
    }

    // Runs what is due now: timers past their deadline, then the tasks posted
    // before this round began (later ones wait for the next round, so I/O is
    // never starved). False once stopping.
    bool runDue() {
        std::size_t budget = 0;
        {
            std::lock_guard lock(mutex);
            budget = tasks.size();
        }
        for (;;) {
            Task task;
            {
                std::lock_guard lock(mutex);
                if (stopping) return false;
                if (!timers.empty() && timers.firstDeadline() <= now()) {
                    task = timers.popFirst();
                } else if (budget > 0 && !tasks.empty()) {
                    task = tasks.pop();
                    --budget;
                } else {
                    return true;
                }
            }
            busDue = true;
            task();
        }
    }

    void pumpBus() {
        if (bus == nullptr || !busDue) return;
        busDue = false;
        try {
            while (bus->processPendingRequest()) {
                if (isStopping()) return;
            }
        } catch (const std::exception&) {
            bus = nullptr;
            auto lost = std::move(busLost);
            busLost = nullptr;
            if (lost) lost();
        }
    }

    // Milliseconds poll() may sleep: until the first timer or the bus's own
    // deadline, 0 when tasks wait.
    int pollTimeout() {
        std::optional<SteadyTime> deadline;
        {
            std::lock_guard lock(mutex);
            if (!tasks.empty() || stopping) return 0;
            if (!timers.empty()) deadline = timers.firstDeadline();
        }
        busDeadline.reset();
        if (bus != nullptr) {
            try {
                const auto usec = bus->getEventLoopPollData().timeout_usec;
                if (usec != std::numeric_limits<std::uint64_t>::max()) {
                    busDeadline = SteadyTime{std::chrono::microseconds(usec)};
                    if (!deadline || *busDeadline < *deadline) deadline = busDeadline;
                }
            } catch (const sdbus::Error&) {
                busDue = true;  // the next pump finds out what is wrong
                return 0;
            }
        }
        if (!deadline) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, 60'000));
    }

    void waitAndDispatch() {
        std::vector<pollfd> fds;
        fds.push_back({wakeFd, POLLIN, 0});
        if (bus != nullptr) {
            try {
                const auto data = bus->getEventLoopPollData();
                fds.push_back({data.fd, data.events, 0});
            } catch (const sdbus::Error&) {
            }
        }
        const std::size_t firstWatch = fds.size();
        for (const auto& [fd, callback] : watches) fds.push_back({fd, POLLIN, 0});

        const int ready = ::poll(fds.data(), fds.size(), pollTimeout());
        const bool busReady = firstWatch > 1 && fds[1].revents != 0;  // the bus is fds[1] when polled
        if (ready <= 0 || busReady || (busDeadline && *busDeadline <= now())) busDue = true;
        if (ready <= 0) return;  // time-out or EINTR: the next round sees what is due
        if ((fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = ::read(wakeFd, &count, sizeof count);
        }
        for (std::size_t i = firstWatch; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            auto it = watches.find(fds[i].fd);  // an earlier callback may have removed it
            if (it == watches.end()) continue;
            auto callback = it->second;
            (*callback)();
            if (isStopping()) return;
        }
    }

    void run() {
        while (runDue()) {
            pumpBus();
            if (isStopping()) break;
            waitAndDispatch();
        }
        Task finalTask;
        dispatch::TaskRing dropped;
        dispatch::TimerTable droppedTimers;
        {
            std::lock_guard lock(mutex);
            finalTask = std::move(last);
            dropped = std::move(tasks);
            tasks = dispatch::TaskRing{};
            droppedTimers = std::move(timers);
            timers = dispatch::TimerTable{};
        }
        if (finalTask) finalTask();
        dropped.clear();
        while (!droppedTimers.empty()) droppedTimers.popFirst();
        watches.clear();
        bus = nullptr;
        busLost = nullptr;
    }
};

namespace {
thread_local const EventLoop::State* currentLoop = nullptr;  // NOLINT: per-thread marker
}

EventLoop::EventLoop(std::string label) : state_(std::make_shared<State>()) {
    state_->label = std::move(label);
    state_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state_->wakeFd < 0) throw std::runtime_error("eventfd failed");
    thread_ = std::thread([state = state_] {
        currentLoop = state.get();
        pthread_setname_np(pthread_self(), state->label.substr(0, 15).c_str());
        state->run();
        currentLoop = nullptr;
    });
}

EventLoop::~EventLoop() {
    if (!thread_.joinable()) return;
    if (isCurrent()) {
        thread_.detach();
    } else {
        stop(nullptr);
    }
}

void EventLoop::post(Task task) {
    if (!task) throw std::invalid_argument("EventLoop::post: empty task");
    {
        std::lock_guard lock(state_->mutex);
        if (state_->stopping) return;
        state_->tasks.push(std::move(task));
    }
    if (!isCurrent()) state_->wake();  // the loop itself polls again before sleeping
}

EventLoop::TimerId EventLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task) throw std::invalid_argument("EventLoop::postAfter: empty task");
    TimerId id = 0;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->stopping) return 0;
        id = state_->timers.add(now() + delay, std::move(task));
    }
    if (!isCurrent()) state_->wake();
    return id;
}

void EventLoop::cancel(TimerId id) {
    Task dropped;  // released outside the lock: it may hold the last reference to its owner
    std::lock_guard lock(state_->mutex);
    dropped = state_->timers.take(id);
}

const std::string& EventLoop::label() const {
    return state_->label;
}

bool EventLoop::isCurrent() const {
    return currentLoop == state_.get();
}

void EventLoop::watch(int fd, std::function<void()> readable) {
    state_->watches[fd] = std::make_shared<std::function<void()>>(std::move(readable));
}

void EventLoop::unwatch(int fd) {
    state_->watches.erase(fd);
}

void EventLoop::attachBus(sdbus::IConnection* bus, std::function<void()> lost) {
    state_->bus = bus;
    state_->busLost = std::move(lost);
}

void EventLoop::stop(Task last) {
    bool first = false;
    {
        std::lock_guard lock(state_->mutex);
        first = !state_->stopping;
        if (first) {
            state_->stopping = true;
            state_->last = std::move(last);
        }
    }
    if (first) state_->wake();
    if (!thread_.joinable()) return;
    if (isCurrent()) {
        thread_.detach();  // a task is stopping its own loop: it ends when that task returns
    } else {
        thread_.join();
    }
}

}  // namespace plenk::bluez
