#include "dispatch/SerialQueue.h"

#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include <pthread.h>

#include "dispatch/DelayedPost.h"
#include "dispatch/TaskRing.h"

namespace plenk::dispatch {

struct SerialQueue::State {
    std::string label;
    std::shared_ptr<Clock> clock;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable progress;
    TaskRing tasks;
    bool running = false;  // a task is executing
    bool stopping = false;
    std::uint64_t posted = 0;
    std::uint64_t completed = 0;
    SerialQueue* owner = nullptr;

    void post(Task task) {
        {
            std::lock_guard lock(mutex);
            if (stopping) return;
            tasks.push(std::move(task));
            ++posted;
        }
        wake.notify_one();  // outside the lock: the woken thread need not block on it
    }

    void loop() {
        std::unique_lock lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return stopping || !tasks.empty(); });
            if (stopping) break;
            Task task = tasks.pop();
            running = true;
            lock.unlock();
            task();
            task.reset();  // captured objects die on the queue, outside the lock
            lock.lock();
            running = false;
            ++completed;
            progress.notify_all();
        }
        TaskRing dropped = std::move(tasks);
        tasks = TaskRing{};
        lock.unlock();
        progress.notify_all();
        dropped.clear();
    }
};

namespace {
thread_local SerialQueue::State* currentState = nullptr;  // NOLINT: per-thread marker
}

SerialQueue::SerialQueue(std::string label, std::shared_ptr<Clock> clock)
    : state_(std::make_shared<State>()) {
    state_->label = std::move(label);
    state_->clock = clock ? std::move(clock) : Clock::steady();
    state_->owner = this;
    thread_ = std::thread([state = state_] {
        currentState = state.get();
        pthread_setname_np(pthread_self(), state->label.substr(0, 15).c_str());
        state->loop();
        currentState = nullptr;
    });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->owner = nullptr;
    }
    state_->wake.notify_all();
    if (currentState == state_.get()) {
        thread_.detach();  // the last task is tearing its own queue down
    } else {
        thread_.join();
    }
}

void SerialQueue::post(Task task) {
    if (!task) throw std::invalid_argument("SerialQueue::post: empty task");
    // The task may be the one that destroys this queue: keep the state alive
    // until the wake-up has been sent.
    const std::shared_ptr<State> state = state_;
    state->post(std::move(task));
}

void SerialQueue::postAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task) throw std::invalid_argument("SerialQueue::postAfter: empty task");
    dispatch::postWhenDue(*state_->clock, delay, state_, std::move(task));
}

const std::string& SerialQueue::label() const {
    return state_->label;
}

bool SerialQueue::isCurrent() const {
    return currentState == state_.get();
}

SerialQueue* SerialQueue::current() {
    if (currentState == nullptr) return nullptr;
    std::lock_guard lock(currentState->mutex);
    return currentState->owner;
}

void SerialQueue::drain() {
    if (isCurrent()) return;
    std::unique_lock lock(state_->mutex);
    const std::uint64_t target = state_->posted;
    state_->progress.wait(lock, [&] { return state_->stopping || state_->completed >= target; });
}

bool SerialQueue::idle() const {
    std::lock_guard lock(state_->mutex);
    return state_->tasks.empty() && !state_->running;
}

}  // namespace plenk::dispatch
