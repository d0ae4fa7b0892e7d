#include "dispatch/PollLoop.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "dispatch/TaskRing.h"
#include "dispatch/TimerTable.h"

namespace plenk::dispatch {

namespace {
PollLoop::TimePoint now() {
    return std::chrono::time_point_cast<Clock::Duration>(std::chrono::steady_clock::now());
}
}  // namespace

struct PollLoop::State {
    std::string label;

    mutable std::mutex mutex;  // guards tasks, timers, last and stopping
    TaskRing tasks;
    TimerTable timers;
    Task last;

    // The loop thread's own (but wakeFd, which any thread writes).
    struct Watch {
        short events;
        std::shared_ptr<std::function<void(short)>> ready;  // shared: a callback may unwatch itself
    };
    std::map<int, Watch> watches;
    Pump* pump = nullptr;
    std::vector<pollfd> fds;
    int wakeFd = -1;
    bool stopping = false;  // guarded by mutex
    bool pumpDue = true;

    ~State() {
        if (wakeFd >= 0) ::close(wakeFd);
    }

    void wake() const {
        const std::uint64_t one = 1;
        // A full counter still wakes the poll: nothing to do on failure.
        [[maybe_unused]] auto written = ::write(wakeFd, &one, sizeof one);
    }

    bool isStopping() const {
        std::lock_guard lock(mutex);
        return stopping;
    }

    // Runs what is due now: timers past their deadline at the start of the
    // round, then the tasks posted before it began (later ones wait for the
    // next round, so I/O is never starved). False once stopping.
    bool runDue() {
        const TimePoint start = now();
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
                if (!timers.empty() && timers.firstDeadline() <= start) {
                    task = timers.popFirst();
                } else if (budget > 0 && !tasks.empty()) {
                    task = tasks.pop();
                    --budget;
                } else {
                    return true;
                }
            }
            pumpDue = true;
            task();
        }
    }

    void runPump() {
        if (pump == nullptr || !pumpDue) return;
        pumpDue = false;
        pump->pump();
    }

    // How long poll may sleep: until the first timer or the pump's deadline;
    // not at all when tasks wait; null for no limit.
    std::optional<Clock::Duration> pollTimeout(std::optional<TimePoint> pumpDeadline) {
        std::optional<TimePoint> deadline;
        {
            std::lock_guard lock(mutex);
            if (!tasks.empty() || stopping) return Clock::Duration::zero();
            if (!timers.empty()) deadline = timers.firstDeadline();
        }
        if (pumpDeadline && (!deadline || *pumpDeadline < *deadline)) deadline = pumpDeadline;
        if (!deadline) return std::nullopt;
        return std::max(Clock::Duration::zero(), *deadline - now());
    }

    void waitAndDispatch() {
        fds.clear();  // kept across rounds: no allocation per wake-up
        fds.push_back({wakeFd, POLLIN, 0});
        const auto data = pump != nullptr ? pump->pollData() : Pump::PollData{};
        const int pumpFd = data.fd;
        if (pumpFd >= 0) fds.push_back({pumpFd, data.events, 0});
        const std::size_t firstWatch = fds.size();
        for (const auto& [fd, watch] : watches) fds.push_back({fd, watch.events, 0});

        timespec limit{};
        const auto timeout = pollTimeout(data.deadline);
        if (timeout) {
            limit.tv_sec =
                static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(*timeout).count());
            limit.tv_nsec = static_cast<long>((*timeout % std::chrono::seconds(1)).count());
        }
        const int ready = ::ppoll(fds.data(), fds.size(), timeout ? &limit : nullptr, nullptr);
        const bool pumpReady = pumpFd >= 0 && fds[1].revents != 0;
        if (ready <= 0 || pumpReady || (data.deadline && *data.deadline <= now())) pumpDue = true;
        if (ready <= 0) return;  // time-out or EINTR: the next round sees what is due
        if ((fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] auto got = ::read(wakeFd, &count, sizeof count);
        }
        for (std::size_t i = firstWatch; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            auto it = watches.find(fds[i].fd);  // an earlier callback may have removed it
            if (it == watches.end()) continue;
            auto callback = it->second.ready;
            (*callback)(fds[i].revents);
            if (isStopping()) return;
        }
    }

    void run() {
        while (runDue()) {
            runPump();
            if (isStopping()) break;
            waitAndDispatch();
        }
        Task finalTask;
        TaskRing dropped;
        TimerTable droppedTimers;
        {
            std::lock_guard lock(mutex);
            finalTask = std::move(last);
            dropped = std::move(tasks);
            tasks = TaskRing{};
            droppedTimers = std::move(timers);
            timers = TimerTable{};
        }
        if (finalTask) finalTask();
        dropped.clear();
        while (!droppedTimers.empty()) droppedTimers.popFirst();
        watches.clear();
        pump = nullptr;
    }
};

namespace {
thread_local const PollLoop::State* currentLoop = nullptr;  // NOLINT: per-thread marker
}

PollLoop::PollLoop(std::string label) : state_(std::make_shared<State>()) {
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

PollLoop::~PollLoop() {
    if (!thread_.joinable()) return;
    if (isCurrent()) {
        thread_.detach();
    } else {
        stop(nullptr);
    }
}

bool PollLoop::post(Task task) {
    if (!task) throw std::invalid_argument("PollLoop::post: empty task");
    {
        std::lock_guard lock(state_->mutex);
        if (state_->stopping) return false;
        state_->tasks.push(std::move(task));
    }
    if (!isCurrent()) state_->wake();  // the loop itself polls again before sleeping
    return true;
}

PollLoop::TimerId PollLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
    return postAt(now() + delay, std::move(task));
}

PollLoop::TimerId PollLoop::postAt(TimePoint deadline, Task task) {
    if (!task) throw std::invalid_argument("PollLoop::postAt: empty task");
    TimerId id = 0;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->stopping) return 0;
        id = state_->timers.add(deadline, std::move(task));
    }
    if (!isCurrent()) state_->wake();
    return id;
}

void PollLoop::cancel(TimerId id) {
    Task dropped;  // released outside the lock: it may hold the last reference to its owner
    std::lock_guard lock(state_->mutex);
    dropped = state_->timers.take(id);
}

const std::string& PollLoop::label() const {
    return state_->label;
}

bool PollLoop::isCurrent() const {
    return currentLoop == state_.get();
}

bool PollLoop::stopping() const {
    return state_->isStopping();
}

void PollLoop::watch(int fd, short events, std::function<void(short)> ready) {
    state_->watches[fd] =
        State::Watch{events, std::make_shared<std::function<void(short)>>(std::move(ready))};
}

void PollLoop::unwatch(int fd) {
    state_->watches.erase(fd);
}

void PollLoop::setPump(Pump* pump) {
    state_->pump = pump;
    state_->pumpDue = true;
}

void PollLoop::stop(Task last) {
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

}  // namespace plenk::dispatch
