#include <PlenkKitGtk/GLibMainQueue.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace plenk::gtk {

namespace {

using SteadyClock = std::chrono::steady_clock;

// The queue's tasks, shared by the queue and its GSource: the source may still
// be dispatching on the context's thread while the queue is destroyed on
// another, so the state lives until the source is finalized.
class TaskState {
public:
    // What a post asks of the context. A task queued behind others needs no
    // wake-up: the loop runs them all before it sleeps again. On the weight
    // path that saves a write to the context's wake-up descriptor per reading.
    enum class Posted { Dropped, Queued, Wake };

    // Dropped once closed: the task is left to be destroyed outside the lock.
    Posted push(Task& task) {
        std::lock_guard lock(mutex_);
        if (closed_) return Posted::Dropped;
        const bool first = ready_.empty();
        ready_.push_back(std::move(task));
        return first ? Posted::Wake : Posted::Queued;
    }

    // Wakes only for a deadline earlier than every one the loop waits for.
    Posted pushDelayed(SteadyClock::time_point due, Task& task) {
        std::lock_guard lock(mutex_);
        if (closed_) return Posted::Dropped;
        const bool earliest = delayed_.empty() || due < delayed_.begin()->first.due;
        delayed_.emplace(Key{due, nextSequence_++}, std::move(task));
        return earliest && ready_.empty() ? Posted::Wake : Posted::Queued;
    }

    // True if a task is ready at `now`; else the milliseconds until the next
    // deadline (-1: none), as a GSource's prepare() reports it.
    bool ready(SteadyClock::time_point now, int& timeoutMs) const {
        std::lock_guard lock(mutex_);
        if (!ready_.empty() || (!delayed_.empty() && delayed_.begin()->first.due <= now)) {
            timeoutMs = 0;
            return true;
        }
        timeoutMs = -1;
        if (!delayed_.empty()) {
            const auto wait = delayed_.begin()->first.due - now;
            // Rounded up, so the loop never wakes a little early and spins.
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
            timeoutMs = static_cast<int>(std::min<std::int64_t>(ms, std::numeric_limits<int>::max()));
        }
        return false;
    }

    // Moves the delayed tasks due at `now` behind the ready ones, earliest first,
    // and answers how many tasks this round runs: those ready now, not the ones
    // they post, so GTK gets to draw between rounds.
    std::size_t startRound(SteadyClock::time_point now) {
        std::lock_guard lock(mutex_);
        while (!delayed_.empty() && delayed_.begin()->first.due <= now) {
            ready_.push_back(std::move(delayed_.begin()->second));
            delayed_.erase(delayed_.begin());
        }
        return ready_.size();
    }

    Task pop() {
        std::lock_guard lock(mutex_);
        if (ready_.empty()) return nullptr;
        Task task = std::move(ready_.front());
        ready_.pop_front();
        return task;
    }

    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return ready_.size() + delayed_.size();
    }

    // Refuses later posts; the tasks still queued are destroyed by the caller,
    // outside the lock (their destructors may post).
    std::pair<std::deque<Task>, std::deque<Task>> close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        std::deque<Task> delayed;
        for (auto& entry : delayed_) delayed.push_back(std::move(entry.second));
        delayed_.clear();
        return {std::move(ready_), std::move(delayed)};
    }

private:
    struct Key {
        SteadyClock::time_point due;
        std::uint64_t sequence;  // equal deadlines run in posting order
        bool operator<(const Key& other) const {
            return due != other.due ? due < other.due : sequence < other.sequence;
        }
    };

    mutable std::mutex mutex_;
    std::deque<Task> ready_;
    std::map<Key, Task> delayed_;
    std::uint64_t nextSequence_ = 0;
    bool closed_ = false;
};

// A GSource whose readiness is the queue's: GLib asks prepare() and check()
// on every iteration of the context, and dispatch() runs a round of tasks.
struct QueueSource {
    GSource base;
    std::shared_ptr<TaskState>* state;  // owned, freed by finalize

    static QueueSource* self(GSource* source) { return reinterpret_cast<QueueSource*>(source); }
    static TaskState& tasks(GSource* source) { return **self(source)->state; }

    static gboolean prepare(GSource* source, gint* timeout) {
        return tasks(source).ready(SteadyClock::now(), *timeout) ? TRUE : FALSE;
    }
    static gboolean check(GSource* source) {
        int timeout = 0;
        return tasks(source).ready(SteadyClock::now(), timeout) ? TRUE : FALSE;
    }
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
        // A copy: a task may destroy the queue; the round then ends.
        const std::shared_ptr<TaskState> state = *self(source)->state;
        const std::size_t count = state->startRound(SteadyClock::now());
        for (std::size_t i = 0; i < count && !g_source_is_destroyed(source); ++i) {
            Task task = state->pop();
            if (!task) break;
            task();
        }
        return G_SOURCE_CONTINUE;
    }
    static void finalize(GSource* source) {
        delete self(source)->state;
        self(source)->state = nullptr;
    }
};

GSourceFuncs kQueueSourceFuncs = {
    QueueSource::prepare, QueueSource::check, QueueSource::dispatch, QueueSource::finalize, nullptr, nullptr};

std::shared_ptr<TaskState> stateOf(GSource* source) {
    return *QueueSource::self(source)->state;
}

// Destroys dropped tasks outside every lock.
void drop(std::pair<std::deque<Task>, std::deque<Task>> tasks) {
    tasks.first.clear();
    tasks.second.clear();
}

}  // namespace

std::shared_ptr<GLibMainQueue> GLibMainQueue::create(GMainContext* context) {
    return std::shared_ptr<GLibMainQueue>(new GLibMainQueue(context));
}

GLibMainQueue::GLibMainQueue(GMainContext* context)
    : context_(g_main_context_ref(context != nullptr ? context : g_main_context_default())),
      source_(g_source_new(&kQueueSourceFuncs, sizeof(QueueSource))) {
    QueueSource::self(source_)->state = new std::shared_ptr<TaskState>(std::make_shared<TaskState>());
    g_source_set_name(source_, "PlenkKit main queue");
    g_source_set_priority(source_, G_PRIORITY_DEFAULT);
    g_source_attach(source_, context_);
}

GLibMainQueue::~GLibMainQueue() {
    // The state outlives the source's last round, which may be running now on
    // the context's thread.
    const auto state = stateOf(source_);
    g_source_destroy(source_);
    g_source_unref(source_);
    drop(state->close());
    g_main_context_unref(context_);
}

void GLibMainQueue::post(Task task) {
    if (!task) throw std::invalid_argument("GLibMainQueue::post: empty task");
    if (stateOf(source_)->push(task) == TaskState::Posted::Wake) g_main_context_wakeup(context_);
}

void GLibMainQueue::postAfter(std::chrono::nanoseconds delay, Task task) {
    if (!task) throw std::invalid_argument("GLibMainQueue::postAfter: empty task");
    const auto due = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(delay);
    if (stateOf(source_)->pushDelayed(due, task) == TaskState::Posted::Wake) g_main_context_wakeup(context_);
}

GMainContext* GLibMainQueue::context() const {
    return context_;
}

std::size_t GLibMainQueue::pendingTasks() const {
    return stateOf(source_)->size();
}

}  // namespace plenk::gtk
