#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "bt/Bytes.h"
#include "bt/CharacteristicProperty.h"
#include "bt/Uuid.h"

// A device's GATT table as plain data: what the scale emulator serves and what
// the simulator, the fake bluetoothd and the BLE peripheral tool expose. No
// Bluetooth stack types, so every server can build its own objects from it.
namespace plenk::emulator {

// A 16-bit UUID on the Bluetooth base UUID, usable in constant expressions.
constexpr bt::Uuid uuid16(std::uint16_t value) noexcept {
    return bt::Uuid(std::array<std::uint8_t, 16>{0x00, 0x00, static_cast<std::uint8_t>(value >> 8),
                                                 static_cast<std::uint8_t>(value), 0x00, 0x00, 0x10, 0x00,
                                                 0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB});
}

// A UUID of the legacy firmware-update family 0000xxxx-1212-EFDE-1523-785FEABCD123.
constexpr bt::Uuid dfuUuid(std::uint16_t value) noexcept {
    return bt::Uuid(std::array<std::uint8_t, 16>{0x00, 0x00, static_cast<std::uint8_t>(value >> 8),
                                                 static_cast<std::uint8_t>(value), 0x12, 0x12, 0xEF, 0xDE,
                                                 0x15, 0x23, 0x78, 0x5F, 0xEA, 0xBC, 0xD1, 0x23});
}

// Standard services and characteristics.
inline constexpr bt::Uuid kBatteryService = uuid16(0x180F);
inline constexpr bt::Uuid kBatteryLevel = uuid16(0x2A19);
inline constexpr bt::Uuid kDeviceInformationService = uuid16(0x180A);
inline constexpr bt::Uuid kManufacturerName = uuid16(0x2A29);
inline constexpr bt::Uuid kModelNumber = uuid16(0x2A24);
inline constexpr bt::Uuid kHardwareRevision = uuid16(0x2A27);
inline constexpr bt::Uuid kFirmwareRevision = uuid16(0x2A26);
inline constexpr bt::Uuid kSoftwareRevision = uuid16(0x2A28);

// The scale's own service (same values as the wire module's constants, but
// usable during static initialisation).
inline constexpr bt::Uuid kScaleService = uuid16(0xFF08);
inline constexpr bt::Uuid kCommandCharacteristic = uuid16(0xEF80);
inline constexpr bt::Uuid kDataCharacteristic = uuid16(0xEF81);
inline constexpr bt::Uuid kControlCharacteristic = uuid16(0xEF82);
inline constexpr bt::Uuid kInfoCharacteristic = uuid16(0xEF83);

// The firmware-update bootloader's service and characteristics.
inline constexpr bt::Uuid kDfuService = dfuUuid(0x1530);
inline constexpr bt::Uuid kDfuControlPoint = dfuUuid(0x1531);
inline constexpr bt::Uuid kDfuPacket = dfuUuid(0x1532);
inline constexpr bt::Uuid kDfuVersion = dfuUuid(0x1534);

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
