#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include <PlenkKit/Uuid.h>

// Every GATT identifier the system uses, in one table: the scale's own service,
// the standard Battery and Device Information services, and the firmware-update
// bootloader the scale restarts into. The device, the connecter, the emulator
// and the tools read them from here.
namespace plenk::wire {

// The scale's own service and its four characteristics.
inline constexpr Uuid kScaleService = Uuid::from16(0xFF08);
inline constexpr Uuid kCommandCharacteristic = Uuid::from16(0xEF80);  // write with response
inline constexpr Uuid kDataCharacteristic = Uuid::from16(0xEF81);     // weight notifications
inline constexpr Uuid kControlCharacteristic = Uuid::from16(0xEF82);  // button notifications
inline constexpr Uuid kInfoCharacteristic = Uuid::from16(0xEF83);     // configuration record

// Battery Service and its level.
inline constexpr Uuid kBatteryService = Uuid::from16(0x180F);
inline constexpr Uuid kBatteryLevel = Uuid::from16(0x2A19);

// Device Information service and its five texts.
inline constexpr Uuid kDeviceInformationService = Uuid::from16(0x180A);
inline constexpr Uuid kManufacturerName = Uuid::from16(0x2A29);
inline constexpr Uuid kModelNumber = Uuid::from16(0x2A24);
inline constexpr Uuid kHardwareRevision = Uuid::from16(0x2A27);
inline constexpr Uuid kFirmwareRevision = Uuid::from16(0x2A26);
inline constexpr Uuid kSoftwareRevision = Uuid::from16(0x2A28);

// A UUID of the legacy firmware-update family 0000xxxx-1212-EFDE-1523-785FEABCD123.
constexpr Uuid dfuUuid(std::uint16_t value) noexcept {
    return Uuid(std::array<std::uint8_t, 16>{0x00, 0x00, static_cast<std::uint8_t>(value >> 8),
                                             static_cast<std::uint8_t>(value), 0x12, 0x12, 0xEF, 0xDE, 0x15,
                                             0x23, 0x78, 0x5F, 0xEA, 0xBC, 0xD1, 0x23});
}

// The firmware-update bootloader: its service (the filter of a DFU scan), its
// characteristics, and the name a scale advertises once restarted into it.
inline constexpr Uuid kDfuService = dfuUuid(0x1530);
inline constexpr Uuid kDfuControlPoint = dfuUuid(0x1531);
inline constexpr Uuid kDfuPacket = dfuUuid(0x1532);
inline constexpr Uuid kDfuVersion = dfuUuid(0x1534);
inline constexpr std::string_view kDfuTargetName = "DfuTarg";

}  // namespace plenk::wire
