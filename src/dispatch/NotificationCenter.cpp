#include <PlenkKit/NotificationCenter.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace plenk {

struct NotificationCenter::Entry {
    Token token = 0;
    std::string name;
    Observer observer;
    bool removed = false;
    // Threads inside a call of this observer (a thread may appear more than
    // once: an observer may post from inside its own call).
    std::vector<std::thread::id> callers;
};

struct NotificationCenter::State {
    std::mutex mutex;
    std::condition_variable callEnded;
    std::vector<std::shared_ptr<Entry>> entries;
    Token next = 1;
};

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}
NotificationCenter::~NotificationCenter() = default;

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() {
    static auto* const instance =
        new std::shared_ptr<NotificationCenter>(std::make_shared<NotificationCenter>());
    return *instance;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, Observer observer) {
    auto entry = std::make_shared<Entry>();
    entry->name = std::string(name);
    entry->observer = std::move(observer);
    std::lock_guard lock(state_->mutex);
    entry->token = state_->next++;
    state_->entries.push_back(entry);
    return entry->token;
}

void NotificationCenter::removeObserver(Token token) {
    const auto self = std::this_thread::get_id();
    Observer released;
    {
        std::unique_lock lock(state_->mutex);
        auto& entries = state_->entries;
        const auto it =
            std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e->token == token; });
        if (it == entries.end()) return;
        const auto entry = *it;
        entries.erase(it);
        entry->removed = true;
        // Calls on other threads finish first; this thread's own call (an
        // observer removing itself) is not waited for.
        state_->callEnded.wait(lock, [&] {
            return std::all_of(entry->callers.begin(), entry->callers.end(),
                               [&](const std::thread::id& id) { return id == self; });
        });
        if (entry->callers.empty()) released = std::move(entry->observer);
    }
    // The observer's captures die here, outside the lock.
}

void NotificationCenter::post(std::string_view name, std::optional<std::string> object) {
    std::vector<std::shared_ptr<Entry>> receivers;
    {
        std::lock_guard lock(state_->mutex);
        for (const auto& entry : state_->entries) {
            if (entry->name.empty() || entry->name == name) receivers.push_back(entry);
        }
    }
    const auto self = std::this_thread::get_id();
    const Notification notification{std::string(name), std::move(object)};
    for (const auto& entry : receivers) {
        {
            // Checked at the moment of the call: an observer removed meanwhile
            // (by an earlier observer of this post, or another thread) is skipped.
            std::lock_guard lock(state_->mutex);
            if (entry->removed) continue;
            entry->callers.push_back(self);
        }
        // Observers run outside the lock: they may observe, remove or post.
        entry->observer(notification);
        {
            std::lock_guard lock(state_->mutex);
            auto& callers = entry->callers;
            callers.erase(std::find(callers.begin(), callers.end(), self));
        }
        state_->callEnded.notify_all();
    }
}

}  // namespace plenk
