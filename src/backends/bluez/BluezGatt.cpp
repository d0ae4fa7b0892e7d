#include "backends/bluez/BluezGatt.h"

#include <utility>

#include "backends/bluez/BluezPeripheral.h"

namespace plenk::bluez {

BluezService::BluezService(const BluezPeripheral* owner, std::weak_ptr<BluezPeripheral> peripheral,
                           std::string path, bt::Uuid uuid, bool primary, std::uint32_t link)
    : owner(owner),
      path(std::move(path)),
      link(link),
      peripheral_(std::move(peripheral)),
      uuid_(uuid),
      primary_(primary) {}

std::vector<bt::CharacteristicPtr> BluezService::characteristics() const {
    std::lock_guard lock(mutex_);
    return {characteristics_.begin(), characteristics_.end()};
}

std::vector<std::shared_ptr<BluezCharacteristic>> BluezService::characteristicList() const {
    std::lock_guard lock(mutex_);
    return characteristics_;
}

void BluezService::setCharacteristics(std::vector<std::shared_ptr<BluezCharacteristic>> list) {
    std::lock_guard lock(mutex_);
    characteristics_.swap(list);
}

std::shared_ptr<bt::Peripheral> BluezService::peripheral() const {
    return peripheral_.lock();
}

BluezCharacteristic::BluezCharacteristic(const BluezPeripheral* owner, std::weak_ptr<BluezService> service,
                                         std::string path, bt::Uuid uuid, std::uint32_t properties,
                                         std::uint32_t link)
    : owner(owner),
      path(std::move(path)),
      link(link),
      service_(std::move(service)),
      uuid_(uuid),
      properties_(properties) {}

bt::Bytes BluezCharacteristic::value() const {
    std::lock_guard lock(mutex_);
    return value_;
}

bool BluezCharacteristic::isNotifying() const {
    std::lock_guard lock(mutex_);
    return notifying_;
}

std::shared_ptr<bt::Service> BluezCharacteristic::service() const {
    return service_.lock();
}

void BluezCharacteristic::setValue(bt::Bytes value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
}

void BluezCharacteristic::setNotifying(bool notifying) {
    std::lock_guard lock(mutex_);
    notifying_ = notifying;
}

}  // namespace plenk::bluez
