// Shared pieces of the generic-device and scale-device tests: a simulated
// scale linked through a bare central, and a delegate that records reports.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "RostaKit/RKDeviceCore.h"
#include "bt/Central.h"
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

// Everything a device reported, in order. Reports arrive on the
// "Corebluetooth" queue; tests read them after settle().
class RecordingDeviceDelegate : public RKDeviceDelegate {
public:
    void batteryLifeOnDevice(std::int64_t level, CSRDevice&) override {
        std::lock_guard lock(mutex_);
        battery_.push_back(level);
    }
    void deviceDidDiscoverAllCharacteristic(RKDevice&) override {
        if (onDiscoverAll) onDiscoverAll();
        std::lock_guard lock(mutex_);
        ++discoveredAll_;
    }
    void deviceDidUpdateWeight(RKDevice&, float weight) override {
        std::lock_guard lock(mutex_);
        weights_.push_back(weight);
    }
    void deviceDidClickButton(RKDevice&, std::uint64_t button) override {
        std::lock_guard lock(mutex_);
        buttons_.push_back(button);
    }
    void deviceDidFailConfigureWithError(RKDevice&, const ErrorPtr& error) override {
        std::lock_guard lock(mutex_);
        errors_.push_back(std::move(error));
    }

    std::vector<std::int64_t> battery() const {
        std::lock_guard lock(mutex_);
        return battery_;
    }
    int discoveredAll() const {
        std::lock_guard lock(mutex_);
        return discoveredAll_;
    }
    std::vector<float> weights() const {
        std::lock_guard lock(mutex_);
        return weights_;
    }
    std::vector<std::uint64_t> buttons() const {
        std::lock_guard lock(mutex_);
        return buttons_;
    }
    std::vector<ErrorPtr> errors() const {
        std::lock_guard lock(mutex_);
        return errors_;
    }
    std::vector<std::int64_t> errorCodes() const {
        std::vector<std::int64_t> codes;
        for (const auto& e : errors()) codes.push_back(e ? e->code() : -1);
        return codes;
    }

    // Runs inside deviceDidDiscoverAllCharacteristic (set before connecting).
    std::function<void()> onDiscoverAll;

private:
    mutable std::mutex mutex_;
    std::vector<std::int64_t> battery_;
    int discoveredAll_ = 0;
    std::vector<float> weights_;
    std::vector<std::uint64_t> buttons_;
    std::vector<ErrorPtr> errors_;
};

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

// The characteristic with this UUID among the peripheral's discovered services.
inline bt::CharacteristicPtr findCharacteristic(const bt::Peripheral& peripheral, const bt::Uuid& uuid) {
    for (const auto& service : peripheral.services()) {
        for (const auto& c : service->characteristics()) {
            if (c->uuid() == uuid) return c;
        }
    }
    return nullptr;
}

}  // namespace plenk::test
