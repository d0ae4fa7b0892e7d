#include "backends/bluez/BusPump.h"

#include <limits>

#include <sdbus-c++/Error.h>

namespace plenk::bluez {

BusPump::BusPump(dispatch::PollLoop& loop, sdbus::IConnection& connection, std::function<void()> lost)
    : loop_(loop), connection_(connection), lost_(std::move(lost)) {
    loop_.setPump(this);
}

BusPump::~BusPump() {
    loop_.setPump(nullptr);
}

// sd-bus sets its deadline to now while messages wait in its queue.
BusPump::PollData BusPump::pollData() const {
    try {
        const auto data = connection_.getEventLoopPollData();
        PollData out{data.fd, data.events, std::nullopt};
        if (data.timeout_usec != std::numeric_limits<std::uint64_t>::max())
            out.deadline = dispatch::PollLoop::TimePoint{std::chrono::microseconds(data.timeout_usec)};
        return out;
    } catch (const sdbus::Error&) {
        return {-1, 0, dispatch::PollLoop::TimePoint{}};  // due now: the pump finds out what is wrong
    }
}

void BusPump::pump() {
    try {
        while (connection_.processPendingRequest()) {
            if (loop_.stopping()) return;
        }
    } catch (const std::exception&) {
        loop_.setPump(nullptr);  // a failed connection is not polled again
        if (auto lost = std::exchange(lost_, nullptr)) lost();
    }
}

}  // namespace plenk::bluez
