#include "backends/bluez/RequestQueue.h"

namespace plenk::bluez {

void RequestQueue::push(Request request) {
    waiting_.push_back(std::move(request));
    if (!running_) runNext();
}

void RequestQueue::clear() {
    waiting_.clear();
    running_ = false;
    ++token_;
}

void RequestQueue::runNext() {
    if (waiting_.empty()) {
        running_ = false;
        return;
    }
    running_ = true;
    auto request = std::move(waiting_.front());
    waiting_.pop_front();
    const auto token = ++token_;
    request([alive = std::weak_ptr<RequestQueue*>(alive_), token] {
        auto queue = alive.lock();
        if (queue && (*queue)->token_ == token) (*queue)->runNext();
    });
}

}  // namespace plenk::bluez
