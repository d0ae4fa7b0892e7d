#pragma once

#include <memory>
#include <mutex>

#include <PlenkKit/BLEConnecter.h>
#include <PlenkKit/Context.h>

#include "bt/Central.h"
#include "bt/Peripheral.h"

namespace plenk {

// The connecter's implementation: the public BLEConnecter plus the central it
// owns and the central-delegate role it plays for it.
class BLEConnecterCore final : public BLEConnecter,
                               public std::enable_shared_from_this<BLEConnecterCore>,
                               private bt::CentralDelegate {
private:
    struct Token {};

public:
    // Use create(): the central needs a shared owner to point back at.
    BLEConnecterCore(Token, std::weak_ptr<BLEConnecterDelegate> delegate, const Context& context);
    ~BLEConnecterCore() override;

    static std::shared_ptr<BLEConnecterCore> create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                    const Context& context);
    // The implementation behind a connecter made by BLEConnecter::create().
    static BLEConnecterCore& of(BLEConnecter& connecter) { return static_cast<BLEConnecterCore&>(connecter); }

    // Makes a new central on a new "Corebluetooth" queue with this connecter as
    // its delegate, replacing the one held without stopping or detaching it.
    // Called once by create().
    void createCBManager();
    std::shared_ptr<bt::Central> cbManager() const;
    void setCbManager(std::shared_ptr<bt::Central> central);

    // --- BLEConnecter ----------------------------------------------------------------
    std::shared_ptr<BLEConnecterDelegate> delegate() const override;
    void setDelegate(std::weak_ptr<BLEConnecterDelegate> delegate) override;
    void scanDevices() override;
    void scanDFUDevices() override;
    void stopScan() override;
    void connectDeviceWithPeripheral(const PeripheralPtr& peripheral) override;
    void retrieveDeviceWithPeripheral(const PeripheralPtr& peripheral) override;
    void disconnect(const PeripheralPtr& peripheral) override;
    void cancelConnectDeviceWithPeripheral(const PeripheralPtr& peripheral) override;
    std::vector<PeripheralPtr> retrieveConnectedPeripheralWithServiceUUIDs(
        const std::vector<Uuid>& serviceUUIDs) override;
    std::vector<PeripheralPtr> retrievePeripheralWithIdentifiers(
        const std::vector<Uuid>& identifiers) override;
    void disconnectedAlert() override;

private:
    std::weak_ptr<bt::CentralDelegate> asCentralDelegate();

    // bt::CentralDelegate
    void centralManagerDidUpdateState(bt::Central& central) override;
    void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(bt::Central& central,
                                                                  const bt::PeripheralPtr& peripheral,
                                                                  const bt::AdvertisementData& advertisement,
                                                                  int rssi) override;
    void centralManagerDidConnectPeripheral(bt::Central& central,
                                            const bt::PeripheralPtr& peripheral) override;
    void centralManagerDidDisconnectPeripheralError(bt::Central& central, const bt::PeripheralPtr& peripheral,
                                                    const ErrorPtr& error) override;
    void centralManagerDidFailToConnectPeripheralError(bt::Central& central,
                                                       const bt::PeripheralPtr& peripheral,
                                                       const ErrorPtr& error) override;
    void centralManagerDidRetrievePeripherals(bt::Central& central,
                                              const std::vector<bt::PeripheralPtr>& peripherals) override;

    const Context context_;  // resolved
    mutable std::mutex mutex_;
    mutable std::mutex creating_;  // held while createCBManager makes the central
    std::shared_ptr<bt::Central> cbManager_;
    std::weak_ptr<BLEConnecterDelegate> delegate_;
};

}  // namespace plenk
