#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

namespace plenk::bluez {

inline constexpr const char* kBluezService = "org.bluez";
inline constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
inline constexpr const char* kDeviceInterface = "org.bluez.Device1";
inline constexpr const char* kServiceInterface = "org.bluez.GattService1";
inline constexpr const char* kCharacteristicInterface = "org.bluez.GattCharacteristic1";

// The properties of one org.bluez interface that the backend uses, typed. In a
// change, a member that is set was in the message; values of an unexpected
// D-Bus type are left out, as if bluetoothd had not sent them.
struct BluezProperties {
    // Adapter1 and Device1
    std::optional<std::string> address;
    std::optional<bool> powered;
    std::optional<std::string> name;
    std::optional<std::int16_t> rssi;
    std::optional<std::vector<std::string>> uuids;
    std::optional<bool> connected;
    std::optional<bool> servicesResolved;
    std::optional<std::map<std::uint16_t, std::vector<std::uint8_t>>> manufacturerData;
    std::optional<std::string> adapter;  // object path
    // GattService1 and GattCharacteristic1
    std::optional<std::string> uuid;
    std::optional<bool> primary;
    std::optional<std::string> device;   // object path
    std::optional<std::string> service;  // object path
    std::optional<std::vector<std::uint8_t>> value;
    std::optional<std::vector<std::string>> flags;

    // Takes every member `change` carries, then drops the invalidated ones.
    void merge(const BluezProperties& change, const std::vector<std::string>& invalidated = {});
};

using VariantMap = std::map<std::string, sdbus::Variant>;

// Never throws: entries of the wrong type are skipped.
BluezProperties parseProperties(const VariantMap& properties);

}  // namespace plenk::bluez
