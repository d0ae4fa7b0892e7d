// Shared piece of the generic-device and scale-device tests: a simulated
// scale linked through a bare central.
#pragma once

#include <gtest/gtest.h>

#include <memory>

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

}  // namespace plenk::test
