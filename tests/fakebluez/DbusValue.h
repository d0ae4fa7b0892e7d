#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct sd_bus_message;

// The property values the fake exports, as plain data, and their D-Bus
// marshalling (sd-bus). Only the types BlueZ's objects use are modelled.
namespace plenk::fakebluez {

struct ObjectPath {
    std::string value;
    friend bool operator==(const ObjectPath&, const ObjectPath&) = default;
};

using Value = std::variant<bool, std::int16_t, std::uint16_t, std::uint32_t, std::string, ObjectPath,
                           std::vector<std::string>, std::vector<std::uint8_t>, std::vector<ObjectPath>>;

// Property name -> value of one interface; a missing name is a property the
// object does not have right now (BlueZ omits RSSI while a device is unseen).
using Properties = std::map<std::string, Value>;
// Interface name -> its properties.
using Interfaces = std::map<std::string, Properties>;

// The D-Bus signature of a value ("b", "as", ...).
const char* signatureOf(const Value& value);

// Appends `value` (bare) or as a variant. Return sd-bus's negative errno on failure.
int appendValue(sd_bus_message* message, const Value& value);
int appendVariant(sd_bus_message* message, const Value& value);
// a{sv}
int appendProperties(sd_bus_message* message, const Properties& properties);
// a{sa{sv}}
int appendInterfaces(sd_bus_message* message, const Interfaces& interfaces);
// a{oa{sa{sv}}}, GetManagedObjects' answer
int appendObjects(sd_bus_message* message, const std::map<std::string, Interfaces>& objects);

// Reads one variant at the read position. Types outside Value are skipped and
// give nullopt; a read error also gives nullopt.
std::optional<Value> readVariant(sd_bus_message* message);
// Reads an a{sv} at the read position; nullopt when it is not one. Entries of
// unmodelled types are kept out of the map and named in `unknown`.
std::optional<std::map<std::string, Value>> readDictionary(sd_bus_message* message,
                                                           std::vector<std::string>* unknown = nullptr);

}  // namespace plenk::fakebluez
