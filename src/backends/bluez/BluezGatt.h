#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backends/bluez/BluezBus.h"
#include "bt/Peripheral.h"

namespace plenk::bluez {

class BluezPeripheral;
class BluezCharacteristic;

// A GattService1 of one link of a peripheral: a new link hands out new objects.
class BluezService final : public bt::Service {
public:
    BluezService(const BluezPeripheral* owner, std::weak_ptr<BluezPeripheral> peripheral, std::string path,
                 bt::Uuid uuid, bool primary, std::uint32_t link);

    bt::Uuid uuid() const override { return uuid_; }
    bool isPrimary() const override { return primary_; }
    std::vector<bt::CharacteristicPtr> characteristics() const override;
    std::shared_ptr<bt::Peripheral> peripheral() const override;

    const BluezPeripheral* const owner;  // for identity checks only
    const std::string path;
    const std::uint32_t link;

    std::vector<std::shared_ptr<BluezCharacteristic>> characteristicList() const;
    void setCharacteristics(std::vector<std::shared_ptr<BluezCharacteristic>> list);

private:
    const std::weak_ptr<BluezPeripheral> peripheral_;
    const bt::Uuid uuid_;
    const bool primary_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<BluezCharacteristic>> characteristics_;
};

// A GattCharacteristic1 of one link. Host-visible state (value, notifying) is
// guarded by its own mutex; the rest belongs to the event loop.
class BluezCharacteristic final : public bt::Characteristic {
public:
    BluezCharacteristic(const BluezPeripheral* owner, std::weak_ptr<BluezService> service, std::string path,
                        bt::Uuid uuid, std::uint32_t properties, std::uint32_t link);

    bt::Uuid uuid() const override { return uuid_; }
    bt::Bytes value() const override;
    std::uint32_t properties() const override { return properties_; }
    bool isNotifying() const override;
    std::shared_ptr<bt::Service> service() const override;

    void setValue(bt::Bytes value);
    void setNotifying(bool notifying);

    const BluezPeripheral* const owner;  // for identity checks only
    const std::string path;
    const std::uint32_t link;

    // The event loop's own.
    enum class Subscription { None, Starting, ByProperty, BySocket };
    Subscription subscription = Subscription::None;
    OwnedFd socket;  // the AcquireNotify socket, when BySocket
    std::uint16_t socketMtu = 0;
    bool reading = false;                   // a ReadValue is in flight
    std::vector<bt::Bytes> heldDuringRead;  // Value changes seen meanwhile
    std::optional<bt::Bytes> echoExpected;  // our read's own Value change, still to come

private:
    const std::weak_ptr<BluezService> service_;
    const bt::Uuid uuid_;
    const std::uint32_t properties_;
    mutable std::mutex mutex_;
    bt::Bytes value_;
    bool notifying_ = false;
};

}  // namespace plenk::bluez
