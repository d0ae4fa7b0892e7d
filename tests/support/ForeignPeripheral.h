#pragma once

#include <optional>
#include <string>

#include <PlenkKit/Peripheral.h>

namespace plenk::test {

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
