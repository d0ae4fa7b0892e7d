#include "backends/sim/SimGatt.h"

#include <mutex>

#include "backends/sim/SimPeripheral.h"
#include "backends/sim/World.h"

namespace plenk::sim {

SimService::SimService(std::shared_ptr<World> world, const SimPeripheral* owner,
                       std::weak_ptr<SimPeripheral> peripheral, bt::Uuid uuid, bool primary,
                       std::uint32_t link)
    : world_(std::move(world)),
      owner_(owner),
      peripheral_(std::move(peripheral)),
      uuid_(uuid),
      primary_(primary),
      link_(link) {}

std::vector<bt::CharacteristicPtr> SimService::characteristics() const {
    std::lock_guard lock(world_->mutex_);
    return {characteristics_.begin(), characteristics_.end()};
}

std::shared_ptr<bt::Peripheral> SimService::peripheral() const {
    return peripheral_.lock();
}

SimCharacteristic::SimCharacteristic(std::shared_ptr<World> world, const SimPeripheral* owner,
                                     std::weak_ptr<SimPeripheral> peripheral,
                                     std::weak_ptr<SimService> service, bt::Uuid uuid,
                                     std::uint32_t properties, std::uint32_t link)
    : world_(std::move(world)),
      owner_(owner),
      peripheral_(std::move(peripheral)),
      service_(std::move(service)),
      uuid_(uuid),
      properties_(properties),
      link_(link) {}

bt::Bytes SimCharacteristic::value() const {
    std::lock_guard lock(world_->mutex_);
    return value_;
}

bool SimCharacteristic::isNotifying() const {
    std::lock_guard lock(world_->mutex_);
    return notifying_;
}

std::shared_ptr<bt::Service> SimCharacteristic::service() const {
    return service_.lock();
}

}  // namespace plenk::sim
