// Shared pieces of the device, connecter and kit tests: a simulated scale
// linked through a bare central, and a peripheral handle of the host's making.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/Peripheral.h>

#include "bt/Central.h"
#include "support/RecordingDelegate.h"
#include "support/SimHarness.h"

namespace plenk::test {

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

// A handle of the host's own making, not one the library handed out: every
// operation that takes a peripheral must ignore it.
class ForeignPeripheral final : public Peripheral {
public:
    std::optional<std::string> name() const override { return "Plenk Scale"; }
    Uuid identifier() const override { return Uuid::from16(0x1234); }
    PeripheralState state() const override { return PeripheralState::Disconnected; }
    std::optional<int> rssi() const override { return std::nullopt; }
};

}  // namespace plenk::test
