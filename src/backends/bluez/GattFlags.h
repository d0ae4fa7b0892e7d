#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The Flags strings of org.bluez.GattCharacteristic1 and the port's property
// bits, one table both ways: the central reads remote flags, the peripheral
// tool and the test daemon export their own.
namespace plenk::bluez {

std::uint32_t propertiesFromFlags(const std::vector<std::string>& flags);
std::vector<std::string> flagsFromProperties(std::uint32_t properties);

}  // namespace plenk::bluez
