#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

namespace plenk::bluez {

// A peripheral's GATT requests, run one at a time in the order pushed. A
// request is started with a `done` to call once it is answered; clear() drops
// what waits, and a `done` of a request started before it does nothing. Used
// on the event loop only.
class RequestQueue {
public:
    using Done = std::function<void()>;
    using Request = std::function<void(Done)>;

    RequestQueue() = default;
    RequestQueue(const RequestQueue&) = delete;
    RequestQueue& operator=(const RequestQueue&) = delete;

    void push(Request request);
    void clear();

private:
    void runNext();

    std::deque<Request> waiting_;
    bool running_ = false;
    std::uint64_t token_ = 0;  // of the running request; bumped by clear()
    std::shared_ptr<RequestQueue*> alive_ = std::make_shared<RequestQueue*>(this);
};

}  // namespace plenk::bluez
