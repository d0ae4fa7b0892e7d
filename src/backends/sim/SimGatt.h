#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bt/Peripheral.h"

namespace plenk::sim {

class World;
class SimPeripheral;
class SimCharacteristic;

// A discovered service, valid for one link of one central's peripheral
// object: a new link hands out new objects. Accessors lock the world.
class SimService final : public bt::Service {
public:
    SimService(std::shared_ptr<World> world, const SimPeripheral* owner,
               std::weak_ptr<SimPeripheral> peripheral, bt::Uuid uuid, bool primary, std::uint32_t link);

    bt::Uuid uuid() const override { return uuid_; }
    bool isPrimary() const override { return primary_; }
    std::vector<bt::CharacteristicPtr> characteristics() const override;
    std::shared_ptr<bt::Peripheral> peripheral() const override;

private:
    friend class SimPeripheral;

    const std::shared_ptr<World> world_;
    const SimPeripheral* const owner_;  // for identity checks only
    const std::weak_ptr<SimPeripheral> peripheral_;
    const bt::Uuid uuid_;
    const bool primary_;
    const std::uint32_t link_;
    std::vector<std::shared_ptr<SimCharacteristic>> characteristics_;  // guarded by the world's mutex
};

class SimCharacteristic final : public bt::Characteristic,
                                public std::enable_shared_from_this<SimCharacteristic> {
public:
    SimCharacteristic(std::shared_ptr<World> world, const SimPeripheral* owner,
                      std::weak_ptr<SimPeripheral> peripheral, std::weak_ptr<SimService> service,
                      bt::Uuid uuid, std::uint32_t properties, std::uint32_t link);

    bt::Uuid uuid() const override { return uuid_; }
    bt::Bytes value() const override;
    std::uint32_t properties() const override { return properties_; }
    bool isNotifying() const override;
    std::shared_ptr<bt::Service> service() const override;

private:
    friend class SimPeripheral;
    friend class VirtualPeripheral;

    const std::shared_ptr<World> world_;
    const SimPeripheral* const owner_;  // for identity checks only
    const std::weak_ptr<SimPeripheral> peripheral_;
    const std::weak_ptr<SimService> service_;
    const bt::Uuid uuid_;
    const std::uint32_t properties_;
    const std::uint32_t link_;  // the link it was discovered on
    // Guarded by the world's mutex.
    bt::Bytes value_;
    bool notifying_ = false;
};

}  // namespace plenk::sim
