#include <PlenkKit/NotificationCenter.h>

namespace plenk {

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() {
    static auto* const instance =
        new std::shared_ptr<NotificationCenter>(std::make_shared<NotificationCenter>());
    return *instance;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, Observer observer) {
    std::lock_guard lock(mutex_);
    const Token token = next_++;
    entries_.push_back(Entry{token, std::string(name), std::make_shared<Observer>(std::move(observer))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void NotificationCenter::post(std::string_view name, std::optional<std::string> object) {
    std::vector<std::shared_ptr<Observer>> receivers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& entry : entries_) {
            if (entry.name.empty() || entry.name == name) receivers.push_back(entry.observer);
        }
    }
    // Observers run outside the lock: they may observe, remove or post.
    const Notification notification{std::string(name), std::move(object)};
    for (const auto& receiver : receivers) (*receiver)(notification);
}

}  // namespace plenk
