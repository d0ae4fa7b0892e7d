#include <PlenkKit/RunLoop.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "dispatch/DelayedPost.h"
#include "dispatch/TaskRing.h"

namespace plenk {

Executor::~Executor() = default;

struct RunLoop::State {
    explicit State(std::shared_ptr<Clock> c) : clock(std::move(c)) {}

    std::shared_ptr<Clock> clock;
    mutable std::mutex mutex;
    std::condition_variable wake;
    dispatch::TaskRing tasks;
    bool stopRequested = false;
    std::atomic<std::thread::id> runner{};

    void post(Task task) {
        {
            std::lock_guard lock(mutex);
            tasks.push(std::move(task));
        }
        wake.notify_one();
    }

    // Takes the next task, waiting until `deadline`; empty when stopped, timed
    // out or `done` holds.
    Task next(std::chrono::steady_clock::time_point deadline, const std::function<bool()>* done) {
        std::unique_lock lock(mutex);
        for (;;) {
            if (stopRequested) return {};
            if (!tasks.empty()) return tasks.pop();
            if (done != nullptr) {
                lock.unlock();
                const bool finished = (*done)();
                lock.lock();
                if (finished) return {};
                if (!tasks.empty() || stopRequested) continue;
            }
            if (wake.wait_until(lock, deadline) == std::cv_status::timeout && tasks.empty()) return {};
        }
    }
};

RunLoop::RunLoop(std::shared_ptr<Clock> clock)
    : state_(std::make_shared<State>(clock ? std::move(clock) : Clock::steady())) {}

RunLoop::~RunLoop() {
    dispatch::TaskRing dropped;
    {
        std::lock_guard lock(state_->mutex);
        dropped = std::move(state_->tasks);
        state_->tasks = dispatch::TaskRing{};
    }
    dropped.clear();  // captured objects die outside the lock
}

std::shared_ptr<RunLoop> RunLoop::main() {
    // Never destroyed: work may still be posted by objects torn down at exit.
    static auto* const instance = new std::shared_ptr<RunLoop>(std::make_shared<RunLoop>());
    return *instance;
}

// An empty task would read as "nothing left to run" and end runFor/runUntil
// early: it is refused at the door.
void RunLoop::post(Task task) {
    if (!task) throw std::invalid_argument("RunLoop::post: empty task");
    state_->post(std::move(task));
}

void RunLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task) throw std::invalid_argument("RunLoop::postAfter: empty task");
    dispatch::postWhenDue(*state_->clock, delay, state_, std::move(task));
}

namespace {
// Marks the calling thread as the loop's runner for the scope.
class RunnerScope {
public:
    explicit RunnerScope(std::atomic<std::thread::id>& runner)
        : runner_(runner), previous_(runner.exchange(std::this_thread::get_id())) {}
    ~RunnerScope() { runner_.store(previous_); }
    RunnerScope(const RunnerScope&) = delete;
    RunnerScope& operator=(const RunnerScope&) = delete;

private:
    std::atomic<std::thread::id>& runner_;
    std::thread::id previous_;
};
}  // namespace

void RunLoop::run() {
    while (runFor(std::chrono::hours(24))) {
    }
}

bool RunLoop::runFor(std::chrono::nanoseconds duration) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    RunnerScope scope(state_->runner);
    for (;;) {
        Task task = state_->next(deadline, nullptr);
        if (!task) break;
        task();
    }
    std::lock_guard lock(state_->mutex);
    const bool stopped = state_->stopRequested;
    state_->stopRequested = false;
    return !stopped;
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::nanoseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    RunnerScope scope(state_->runner);
    for (;;) {
        Task task = state_->next(deadline, &done);
        if (!task) break;
        task();
    }
    {
        std::lock_guard lock(state_->mutex);
        state_->stopRequested = false;
    }
    return done();
}

std::size_t RunLoop::runUntilIdle() {
    RunnerScope scope(state_->runner);
    std::size_t count = 0;
    for (;;) {
        Task task;
        {
            std::lock_guard lock(state_->mutex);
            if (state_->tasks.empty()) break;
            task = state_->tasks.pop();
        }
        task();
        ++count;
    }
    return count;
}

void RunLoop::stop() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopRequested = true;
    }
    state_->wake.notify_all();
}

bool RunLoop::isCurrent() const {
    return state_->runner.load() == std::this_thread::get_id();
}

std::size_t RunLoop::pendingTasks() const {
    std::lock_guard lock(state_->mutex);
    return state_->tasks.size();
}

const std::shared_ptr<Clock>& RunLoop::clock() const {
    return state_->clock;
}

}  // namespace plenk
