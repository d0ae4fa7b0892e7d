#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/Error.h>
#include <PlenkKit/PlatformErrors.h>
#include <PlenkKit/RadioState.h>

#include "bt/Peripheral.h"
#include "bt/Uuid.h"

namespace plenk::bt {

// Radio state in the platform's six values.
using ManagerState = plenk::RadioState;

struct ScanOptions {
    // Report every advertisement of a peripheral instead of the first one per scan.
    bool allowDuplicates = false;
};

struct ConnectOptions {
    bool notifyOnConnection = false;
    bool notifyOnDisconnection = false;
};

// What a peripheral advertised; passed to the central's delegate only.
struct AdvertisementData {
    std::optional<std::string> localName;
    std::vector<Uuid> serviceUUIDs;
    std::map<std::uint16_t, std::vector<std::uint8_t>> manufacturerData;
    bool connectable = true;
};

class Central;

// Events of one central. All arrive on its serial queue ("Corebluetooth"),
// one at a time. Every method has an empty default.
class CentralDelegate {
public:
    virtual ~CentralDelegate();
    virtual void centralManagerDidUpdateState(Central& central);
    virtual void centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(
        Central& central, const PeripheralPtr& peripheral, const AdvertisementData& advertisement, int rssi);
    virtual void centralManagerDidConnectPeripheral(Central& central, const PeripheralPtr& peripheral);
    // error is null for a disconnect the central asked for or a clean link loss.
    virtual void centralManagerDidDisconnectPeripheralError(Central& central, const PeripheralPtr& peripheral,
                                                            const ErrorPtr& error);
    // error, when present, is in kPlatformErrorDomain with the platform's code.
    virtual void centralManagerDidFailToConnectPeripheralError(Central& central,
                                                               const PeripheralPtr& peripheral,
                                                               const ErrorPtr& error);
    virtual void centralManagerDidRetrievePeripherals(Central& central,
                                                      const std::vector<PeripheralPtr>& peripherals);
    virtual void centralManagerDidRetrieveConnectedPeripherals(Central& central,
                                                               const std::vector<PeripheralPtr>& peripherals);
};

// The central role. Commands may be called from any thread and return at once;
// their effects arrive as delegate events on the central's queue, never inline.
// The radio state is reported after creation and on every change; when it
// leaves powered-on, every connected peripheral first reports its link loss.
// A central hands out one peripheral object per remote device, with an
// identifier stable for one adapter and device address across runs.
// Connecting: cancelling a live link reports a disconnect without error,
// cancelling an attempt in progress reports nothing; an attempt may never
// expire, or fail by itself after a platform time-out (BlueZ). A central may be
// released from any thread, also from inside one of its own events.
// (docs/port-contract.md has the whole contract.)
class Central {
public:
    virtual ~Central();

    virtual ManagerState state() const = 0;
    // Non-owning, as the platform's delegate property; set to null to detach.
    virtual void setDelegate(std::weak_ptr<CentralDelegate> delegate) = 0;
    // The label of the serial queue events arrive on ("Corebluetooth").
    virtual std::string queueLabel() const = 0;
    // True when called from inside an event of this central or its peripherals.
    virtual bool isOnQueue() const = 0;

    // nullopt: every advertiser. A new scan replaces the running one.
    virtual void scanForPeripheralsWithServices(const std::optional<std::vector<Uuid>>& serviceUUIDs,
                                                const ScanOptions& options) = 0;
    virtual void stopScan() = 0;
    virtual bool isScanning() const = 0;
    virtual void connectPeripheral(const PeripheralPtr& peripheral, const ConnectOptions& options) = 0;
    virtual void cancelPeripheralConnection(const PeripheralPtr& peripheral) = 0;
    // Peripherals connected to the system (by any application) exposing one of the services.
    virtual std::vector<PeripheralPtr> retrieveConnectedPeripheralsWithServices(
        const std::vector<Uuid>& serviceUUIDs) = 0;
    // Peripherals the system knows by these identifiers, in the order asked.
    virtual std::vector<PeripheralPtr> retrievePeripheralsWithIdentifiers(
        const std::vector<Uuid>& identifiers) = 0;
};

}  // namespace plenk::bt
