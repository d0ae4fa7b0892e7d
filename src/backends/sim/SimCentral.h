#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "backends/sim/SimPeripheral.h"
#include "bt/Central.h"
#include "dispatch/SerialQueue.h"

namespace plenk::sim {

class World;
class VirtualPeripheral;

// A central of the simulated world, with its own serial queue. All its events
// and those of its peripherals are posted to that queue, never delivered
// inside the caller's call.
class SimCentral final : public bt::Central, public std::enable_shared_from_this<SimCentral> {
public:
    static std::shared_ptr<SimCentral> make(const std::shared_ptr<World>& world,
                                            std::weak_ptr<bt::CentralDelegate> delegate,
                                            const std::string& queueLabel);
    // Drops this central's links and pending connects silently, stops its
    // queue (events not yet delivered are dropped).
    ~SimCentral() override;

    bt::ManagerState state() const override;
    void setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) override;
    std::string queueLabel() const override;
    bool isOnQueue() const override;

    void scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs,
                                        const bt::ScanOptions& options) override;
    void stopScan() override;
    bool isScanning() const override;
    void connectPeripheral(const bt::PeripheralPtr& peripheral, const bt::ConnectOptions& options) override;
    void cancelPeripheralConnection(const bt::PeripheralPtr& peripheral) override;
    std::vector<bt::PeripheralPtr> retrieveConnectedPeripheralsWithServices(
        const std::vector<bt::Uuid>& serviceUUIDs) override;
    std::vector<bt::PeripheralPtr> retrievePeripheralsWithIdentifiers(
        const std::vector<bt::Uuid>& identifiers) override;

    const std::shared_ptr<dispatch::SerialQueue>& queue() const { return queue_; }

private:
    friend class World;
    friend class SimPeripheral;
    friend class VirtualPeripheral;
    struct Token {};

public:
    SimCentral(Token, std::shared_ptr<World> world, std::weak_ptr<bt::CentralDelegate> delegate,
               const std::string& queueLabel);

private:
    // Guarded by the world's mutex.
    std::shared_ptr<SimPeripheral> peripheralForLocked(const std::shared_ptr<VirtualPeripheral>& device);
    bool scanMatchesLocked(const VirtualPeripheral& device) const;
    // Reports an advertisement of `device` if this scan should see it now.
    void offerAdvertisementLocked(const std::shared_ptr<VirtualPeripheral>& device, bool repeat);
    void postStateLocked(bt::ManagerState state);
    // The radio went down: scan stopped, links and connects dropped.
    void radioLostLocked(bool reportDisconnects, Clock::TimePoint now);
    // The object if it is one of this central's peripherals.
    SimPeripheral* ownPeripheralLocked(const bt::PeripheralPtr& peripheral) const;

    const std::shared_ptr<World> world_;
    const std::shared_ptr<dispatch::SerialQueue> queue_;
    std::atomic<int> reportedState_{static_cast<int>(bt::ManagerState::Unknown)};

    // Guarded by the world's mutex.
    std::weak_ptr<bt::CentralDelegate> delegate_;
    bool scanning_ = false;
    bool allowDuplicates_ = false;
    std::uint64_t scanGeneration_ = 0;  // bumped by every scan start and stop
    std::optional<std::vector<bt::Uuid>> scanFilter_;
    std::set<bt::Uuid> seen_;  // advertisers reported in this scan
    std::map<bt::Uuid, std::shared_ptr<SimPeripheral>> peripherals_;
};

}  // namespace plenk::sim
