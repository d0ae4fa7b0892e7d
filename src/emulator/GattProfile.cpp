#include "emulator/GattProfile.h"

#include <algorithm>

namespace plenk::emulator {

namespace {
template <typename Range, typename Key>
auto findByUuid(Range& range, const Key& uuid) noexcept -> decltype(&*range.begin()) {
    auto it = std::find_if(range.begin(), range.end(), [&](const auto& item) { return item.uuid == uuid; });
    return it == range.end() ? nullptr : &*it;
}
}  // namespace

CharacteristicDefinition* ServiceDefinition::find(const bt::Uuid& characteristic) noexcept {
    return findByUuid(characteristics, characteristic);
}

const CharacteristicDefinition* ServiceDefinition::find(const bt::Uuid& characteristic) const noexcept {
    return findByUuid(characteristics, characteristic);
}

ServiceDefinition* GattProfile::find(const bt::Uuid& service) noexcept {
    return findByUuid(services, service);
}

const ServiceDefinition* GattProfile::find(const bt::Uuid& service) const noexcept {
    return findByUuid(services, service);
}

CharacteristicDefinition* GattProfile::findCharacteristic(const bt::Uuid& characteristic) noexcept {
    for (auto& service : services) {
        if (auto* found = service.find(characteristic)) return found;
    }
    return nullptr;
}

const CharacteristicDefinition* GattProfile::findCharacteristic(
    const bt::Uuid& characteristic) const noexcept {
    for (const auto& service : services) {
        if (const auto* found = service.find(characteristic)) return found;
    }
    return nullptr;
}

bool GattProfile::removeService(const bt::Uuid& service) {
    return std::erase_if(services, [&](const ServiceDefinition& s) { return s.uuid == service; }) > 0;
}

bool GattProfile::removeCharacteristic(const bt::Uuid& service, const bt::Uuid& characteristic) {
    ServiceDefinition* entry = find(service);
    if (entry == nullptr) return false;
    return std::erase_if(entry->characteristics,
                         [&](const CharacteristicDefinition& c) { return c.uuid == characteristic; }) > 0;
}

}  // namespace plenk::emulator
