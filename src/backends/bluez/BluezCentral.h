#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/bluez/CentralCore.h"
#include "bt/Central.h"

namespace plenk::bluez {

// A central on BlueZ: the host's handle. Each central has its own D-Bus
// connection and its own event loop, which is its "Corebluetooth" queue: a
// client's discovery filter and notification sessions are its own in
// bluetoothd, and end with the connection when the central is released.
// Commands post to the loop; the loop-side work lives in CentralCore.
class BluezCentral final : public bt::Central {
public:
    static std::shared_ptr<BluezCentral> make(std::weak_ptr<bt::CentralDelegate> delegate,
                                              CentralOptions options);
    // Ends this central's links and attempts silently and stops its loop
    // (events not yet delivered are dropped). May run on the loop itself.
    ~BluezCentral() override;

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

    explicit BluezCentral(std::shared_ptr<CentralCore> core);

private:
    void post(std::function<void(CentralCore&)> work);

    const std::shared_ptr<CentralCore> core_;
};

}  // namespace plenk::bluez
