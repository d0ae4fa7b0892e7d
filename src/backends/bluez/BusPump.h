#pragma once

#include <functional>

#include <sdbus-c++/IConnection.h>

#include "dispatch/PollLoop.h"

namespace plenk::bluez {

// Drives an sd-bus connection from a PollLoop: the loop polls the
// connection's descriptor and deadline between tasks and processes what
// arrived, so every handler of the connection runs on the loop's thread.
// Installs itself as the loop's pump until destroyed.
class BusPump final : private dispatch::PollLoop::Pump {
public:
    // `lost` runs once, on the loop, when processing the connection fails.
    BusPump(dispatch::PollLoop& loop, sdbus::IConnection& connection, std::function<void()> lost);
    ~BusPump() override;
    BusPump(const BusPump&) = delete;
    BusPump& operator=(const BusPump&) = delete;

private:
    PollData pollData() const override;
    void pump() override;

    dispatch::PollLoop& loop_;
    sdbus::IConnection& connection_;
    std::function<void()> lost_;
};

}  // namespace plenk::bluez
