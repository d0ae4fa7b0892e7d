#pragma once

#include <glib.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include <PlenkKit/Executor.h>
#include <PlenkKitGtk/Export.h>

namespace plenk::gtk {

// The library's main queue on a GLib main context, so that every callback of
// the library runs in a GTK application's main loop: give it as
// Context::mainQueue.
//
// Tasks may be posted from any thread and run one at a time on the thread that
// iterates the context, in the order they were posted; delayed tasks run once
// their delay has passed on the monotonic clock, earlier deadlines first and
// equal deadlines in posting order. A task runs outside every lock, so it may
// post again, and it is destroyed on the context's thread once it has run.
// Tasks still queued when the queue is destroyed are dropped uncalled.
class PLENK_GTK_EXPORT GLibMainQueue final : public Executor {
public:
    // Attaches to `context` (null: the default main context, the one GTK runs).
    static std::shared_ptr<GLibMainQueue> create(GMainContext* context = nullptr);
    ~GLibMainQueue() override;
    GLibMainQueue(const GLibMainQueue&) = delete;
    GLibMainQueue& operator=(const GLibMainQueue&) = delete;

    // Throw std::invalid_argument for an empty task.
    void post(Task task) override;
    void postAfter(std::chrono::nanoseconds delay, Task task) override;

    GMainContext* context() const;
    // Tasks posted and not yet run, delayed ones included.
    std::size_t pendingTasks() const;

private:
    explicit GLibMainQueue(GMainContext* context);
    GMainContext* const context_;  // a reference held
    GSource* const source_;        // owned: attached to the context, runs the tasks
};

}  // namespace plenk::gtk
