#pragma once

#include <cstdint>
#include <vector>

#include "bt/Bytes.h"
#include "bt/CharacteristicProperty.h"
#include "bt/Uuid.h"

// A device's GATT table as plain data: what the scale emulator serves and what
// the simulator, the fake bluetoothd and the BLE peripheral tool expose. No
// Bluetooth stack types, so every server can build its own objects from it.
namespace plenk::emulator {

// Characteristic properties: the port's GATT bit values.
using GattProperty = bt::CharacteristicProperty;
inline constexpr auto kGattRead = bt::kPropertyRead;
inline constexpr auto kGattWriteWithoutResponse = bt::kPropertyWriteWithoutResponse;
inline constexpr auto kGattWrite = bt::kPropertyWrite;
inline constexpr auto kGattNotify = bt::kPropertyNotify;
inline constexpr auto kGattIndicate = bt::kPropertyIndicate;

struct CharacteristicDefinition {
    bt::Uuid uuid;
    std::uint32_t properties = 0;
    // The value the device holds (served on reads unless the device computes it).
    bt::Bytes value;
    // Whether a client's stack already holds the value at discovery (as a
    // platform does for cached Device Information), so it is visible before
    // any read.
    bool cached = false;
};

struct ServiceDefinition {
    bt::Uuid uuid;
    bool primary = true;
    std::vector<CharacteristicDefinition> characteristics;

    CharacteristicDefinition* find(const bt::Uuid& characteristic) noexcept;
    const CharacteristicDefinition* find(const bt::Uuid& characteristic) const noexcept;
};

struct GattProfile {
    std::vector<ServiceDefinition> services;

    ServiceDefinition* find(const bt::Uuid& service) noexcept;
    const ServiceDefinition* find(const bt::Uuid& service) const noexcept;
    // The first characteristic with this UUID in any service.
    CharacteristicDefinition* findCharacteristic(const bt::Uuid& characteristic) noexcept;
    const CharacteristicDefinition* findCharacteristic(const bt::Uuid& characteristic) const noexcept;
    // Return whether something was removed.
    bool removeService(const bt::Uuid& service);
    bool removeCharacteristic(const bt::Uuid& service, const bt::Uuid& characteristic);
};

}  // namespace plenk::emulator
