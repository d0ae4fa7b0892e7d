#include "backends/bluez/BluezProperties.h"

namespace plenk::bluez {

namespace {

template <typename T>
void read(const VariantMap& properties, const char* key, std::optional<T>& out) {
    auto it = properties.find(key);
    if (it == properties.end()) return;
    try {
        if (it->second.containsValueOfType<T>()) out = it->second.get<T>();
    } catch (const sdbus::Error&) {
        // malformed: left out
    }
}

void readPath(const VariantMap& properties, const char* key, std::optional<std::string>& out) {
    std::optional<sdbus::ObjectPath> path;
    read(properties, key, path);
    if (path) out = std::string(*path);
}

void readManufacturerData(const VariantMap& properties,
                          std::optional<std::map<std::uint16_t, std::vector<std::uint8_t>>>& out) {
    std::optional<std::map<std::uint16_t, sdbus::Variant>> raw;
    read(properties, "ManufacturerData", raw);
    if (!raw) return;
    std::map<std::uint16_t, std::vector<std::uint8_t>> data;
    for (const auto& [company, value] : *raw) {
        try {
            if (value.containsValueOfType<std::vector<std::uint8_t>>())
                data[company] = value.get<std::vector<std::uint8_t>>();
        } catch (const sdbus::Error&) {
        }
    }
    out = std::move(data);
}

template <typename T>
void take(std::optional<T>& into, const std::optional<T>& from) {
    if (from) into = from;
}

}  // namespace

BluezProperties parseProperties(const VariantMap& properties) {
    BluezProperties p;
    read(properties, "Address", p.address);
    read(properties, "Powered", p.powered);
    read(properties, "Name", p.name);
    read(properties, "RSSI", p.rssi);
    read(properties, "UUIDs", p.uuids);
    read(properties, "Connected", p.connected);
    read(properties, "ServicesResolved", p.servicesResolved);
    readManufacturerData(properties, p.manufacturerData);
    readPath(properties, "Adapter", p.adapter);
    read(properties, "UUID", p.uuid);
    read(properties, "Primary", p.primary);
    readPath(properties, "Device", p.device);
    readPath(properties, "Service", p.service);
    read(properties, "Value", p.value);
    read(properties, "Flags", p.flags);
    return p;
}

void BluezProperties::merge(const BluezProperties& change, const std::vector<std::string>& invalidated) {
    take(address, change.address);
    take(powered, change.powered);
    take(name, change.name);
    take(rssi, change.rssi);
    take(uuids, change.uuids);
    take(connected, change.connected);
    take(servicesResolved, change.servicesResolved);
    take(manufacturerData, change.manufacturerData);
    take(adapter, change.adapter);
    take(uuid, change.uuid);
    take(primary, change.primary);
    take(device, change.device);
    take(service, change.service);
    take(value, change.value);
    take(flags, change.flags);
    for (const auto& key : invalidated) {
        // Only those that can come and go while the object lives.
        if (key == "RSSI") rssi.reset();
        if (key == "Name") name.reset();
        if (key == "ManufacturerData") manufacturerData.reset();
        if (key == "Value") value.reset();
    }
}

}  // namespace plenk::bluez
