// Shared pieces of the generic-device and scale-device tests: a simulated
// scale linked through a bare central, and a collector of completion results.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "RostaKit/RKDeviceCore.h"
#include "bt/Central.h"
#include "support/RecordingDelegate.h"
#include "support/SimHarness.h"

namespace plenk::test {

// A central with one simulated device connected through it.
struct Link {
    std::shared_ptr<bt::CentralDelegate> events = std::make_shared<bt::CentralDelegate>();
    std::shared_ptr<bt::Central> central;
    bt::PeripheralPtr peripheral;
};

// Connects `device` through a new central of the harness's world.
inline Link connect(SimHarness& h, const std::shared_ptr<sim::VirtualPeripheral>& device) {
    Link link;
    link.central = h.backend->makeCentral(link.events, "Corebluetooth", h.context);
    h.settle();
    auto known = link.central->retrievePeripheralsWithIdentifiers({device->identifier()});
    EXPECT_EQ(known.size(), 1u);
    if (known.empty()) return link;
    link.peripheral = known.front();
    link.central->connectPeripheral(link.peripheral, {});
    h.settle();
    EXPECT_EQ(link.peripheral->state(), bt::PeripheralState::Connected);
    return link;
}

// Collects the (success, error) results of a completion, thread-safely. The
// completions share its state, so they may outlive it.
class Results {
public:
    RKDevice::ResultCompletion completion() const {
        return [state = state_](bool success, ErrorPtr error) {
            std::lock_guard lock(state->mutex);
            state->results.emplace_back(success, std::move(error));
        };
    }
    std::vector<std::pair<bool, ErrorPtr>> all() const {
        std::lock_guard lock(state_->mutex);
        return state_->results;
    }
    std::size_t count() const { return all().size(); }

private:
    struct State {
        std::mutex mutex;
        std::vector<std::pair<bool, ErrorPtr>> results;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace plenk::test
