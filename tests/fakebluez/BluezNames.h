#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ObjectTree.h"
#include "bt/Uuid.h"

// Names, texts and conversions bluetoothd uses on D-Bus.
namespace plenk::fakebluez {

inline constexpr const char* kBluezService = "org.bluez";
inline constexpr const char* kBluezError = "org.bluez.Error.";
inline constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
inline constexpr const char* kDeviceInterface = "org.bluez.Device1";
inline constexpr const char* kServiceInterface = "org.bluez.GattService1";
inline constexpr const char* kCharacteristicInterface = "org.bluez.GattCharacteristic1";
inline constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
inline constexpr const char* kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";

// Without a discovery filter bluetoothd reports RSSI changes of this many dBm or more.
inline constexpr int kRssiThreshold = 8;

// ATT error codes the fake produces itself.
inline constexpr std::uint8_t kAttReadNotPermitted = 0x02;
inline constexpr std::uint8_t kAttWriteNotPermitted = 0x03;

// "C0:FF:EE:00:00:01" -> "C0_FF_EE_00_00_01", after checking the form
// (six hex pairs); nullopt for anything else.
std::optional<std::string> normalizedAddress(std::string address);
std::string addressPathPart(const std::string& address);
// How bluetoothd reports an ATT error code of a read or write.
DbusError attErrorToDbus(std::uint8_t code);

}  // namespace plenk::fakebluez
