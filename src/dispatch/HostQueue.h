#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <utility>

#include <PlenkKit/Executor.h>
#include <PlenkKit/Task.h>

#include "dispatch/TaskRing.h"

namespace plenk::dispatch {

// The host's main queue as a library object holds it.
//
// Weakly: the queue is the host's, and holding it strongly would close a cycle
// (queue -> queued task -> library object -> queue) that keeps everything
// alive once the host drops its loop with work still queued. Work posted once
// the queue is gone is released on the posting thread and never runs.
//
// In order: enqueue() fixes a task's place, pump() later hands the host's
// executor one "run the next task" step. An owner enqueues under its own lock
// and pumps once that lock is released (the executor's post is host code), so
// tasks run in the order the owner decided them, whichever threads raced to
// post the pumps.
class HostQueue {
public:
    HostQueue() = default;
    explicit HostQueue(const std::shared_ptr<Executor>& executor) : executor_(executor) {}

    // Takes the task, or leaves it with the caller (to release where it may)
    // and answers false when the host's queue is gone.
    bool enqueue(Task& task) const {
        if (executor_.expired()) return false;
        std::lock_guard lock(pending_->mutex);
        pending_->tasks.push(std::move(task));
        return true;
    }
    void pump() const {
        if (auto executor = executor_.lock()) executor->post([pending = pending_] { pending->runNext(); });
    }
    // enqueue() and pump() at once, for callers that hold no lock.
    void post(Task task) const {
        if (enqueue(task)) pump();
    }
    void postAfter(std::chrono::nanoseconds delay, Task task) const {
        if (auto executor = executor_.lock()) executor->postAfter(delay, std::move(task));
    }

private:
    struct Pending {
        std::mutex mutex;
        TaskRing tasks;

        void runNext() {
            Task task;
            {
                std::lock_guard lock(mutex);
                if (tasks.empty()) return;
                task = tasks.pop();
            }
            task();
        }
    };

    std::weak_ptr<Executor> executor_;
    std::shared_ptr<Pending> pending_ = std::make_shared<Pending>();
};

}  // namespace plenk::dispatch
