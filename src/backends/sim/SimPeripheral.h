#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Task.h>

#include "backends/sim/SimGatt.h"
#include "bt/Peripheral.h"

namespace plenk::sim {

class World;
class SimCentral;
class VirtualPeripheral;

// One central's object for one virtual device, as the platform hands out one
// peripheral object per device per manager. Operations post their results to
// the central's queue; results of a link that has gone down are dropped.
class SimPeripheral final : public bt::Peripheral {
public:
    SimPeripheral(std::shared_ptr<World> world, SimCentral* central, std::weak_ptr<SimCentral> weakCentral,
                  const std::shared_ptr<VirtualPeripheral>& device);
    ~SimPeripheral() override;

    std::optional<std::string> name() const override;
    bt::Uuid identifier() const override { return identifier_; }
    bt::PeripheralState state() const override;
    std::optional<int> rssi() const override;
    std::vector<bt::ServicePtr> services() const override;
    void setDelegate(std::weak_ptr<bt::PeripheralDelegate> delegate) override;
    std::shared_ptr<bt::PeripheralDelegate> delegate() const override;

    void discoverServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs) override;
    void discoverCharacteristics(const std::optional<std::vector<bt::Uuid>>& characteristicUUIDs,
                                 const bt::ServicePtr& service) override;
    void readValueForCharacteristic(const bt::CharacteristicPtr& characteristic) override;
    void writeValue(const bt::Bytes& data, const bt::CharacteristicPtr& characteristic,
                    bt::WriteType type) override;
    void setNotifyValue(bool enabled, const bt::CharacteristicPtr& characteristic) override;
    void readRSSI() override;

private:
    friend class SimCentral;
    friend class VirtualPeripheral;
    friend class World;

public:
    struct ValueDelivery;  // public only for a size check

private:
    std::weak_ptr<SimPeripheral> weakSelf();
    // Guarded by the world's mutex.
    bool liveLocked(std::uint32_t link) const;
    // Cast and check that a characteristic belongs to the current link.
    SimCharacteristic* ownCharacteristicLocked(const bt::CharacteristicPtr& characteristic) const;
    // Posts `task` to the central's queue after `delay` (needs the lock and a central).
    void postLocked(Clock::Duration delay, Task task) const;
    void scheduleConnectLocked(Clock::Duration delay);
    // Link down: state Disconnected, GATT objects and subscriptions dropped,
    // unlinked from the device. Posts nothing.
    void detachLocked(Clock::TimePoint now);
    // Stops a pending connect without an event.
    void abandonConnectLocked();
    void postDisconnectLocked(ErrorPtr error);
    // Posts a value update of a subscribed characteristic to the central's queue.
    void postValueLocked(SimCharacteristic* characteristic, const bt::Bytes& value, const ErrorPtr& error);

    // Results, run on the central's queue.
    void completeConnect(std::uint32_t attempt);
    void deliverServices(std::uint32_t link, const std::optional<std::vector<bt::Uuid>>& filter);
    void deliverCharacteristics(std::uint32_t link, const std::optional<std::vector<bt::Uuid>>& filter,
                                const std::shared_ptr<SimService>& service);
    void deliverRead(std::uint32_t link, const bt::CharacteristicPtr& characteristic);
    void deliverWrite(std::uint32_t link, const bt::CharacteristicPtr& characteristic, const bt::Bytes& data,
                      bt::WriteType type);
    void deliverNotifyState(std::uint32_t link, const bt::CharacteristicPtr& characteristic, bool enabled);
    void deliverValue(std::uint32_t link, const bt::CharacteristicPtr& characteristic, bt::Bytes&& value,
                      const ErrorPtr& error);
    void deliverRssi(std::uint32_t link);
    void deliverNameUpdate(std::uint32_t link);

    const std::shared_ptr<World> world_;
    const std::weak_ptr<SimCentral> weakCentral_;
    const bt::Uuid identifier_;

    // Guarded by the world's mutex.
    SimCentral* central_;  // null once the central is gone
    std::weak_ptr<VirtualPeripheral> device_;
    mutable std::optional<std::string> lastName_;
    std::optional<int> rssi_;  // recorded with each advertisement reported and each RSSI read
    bt::PeripheralState state_ = bt::PeripheralState::Disconnected;
    std::uint32_t link_ = 0;     // bumped when a link comes up and when it goes down
    std::uint32_t attempt_ = 0;  // bumped by every connect and cancel
    bool waitingForDevice_ = false;
    std::vector<std::shared_ptr<SimService>> services_;
    std::vector<SimCharacteristic*> subscribed_;  // notifying characteristics of this link
    std::weak_ptr<bt::PeripheralDelegate> delegate_;
};

}  // namespace plenk::sim
