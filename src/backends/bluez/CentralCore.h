#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <PlenkKit/LogSink.h>

#include "backends/bluez/BluezBus.h"
#include "backends/bluez/ObjectTable.h"
#include "backends/bluez/ScanSession.h"
#include "bt/Central.h"
#include "dispatch/PollLoop.h"

namespace plenk::bluez {

class BluezPeripheral;

// How notifications reach the backend.
enum class NotifyMode {
    Property,  // StartNotify: each value is a PropertiesChanged(Value) signal
    Socket,    // AcquireNotify: each value is a packet on a socket of our own; where
               // bluetoothd refuses one (a session exists), by property instead
};

struct CentralOptions {
    std::string queueLabel = "Corebluetooth";
    std::string adapter;  // object path or name; empty = the first powered
    NotifyMode notifyMode = NotifyMode::Socket;
    // How long service discovery waits for ServicesResolved.
    std::chrono::milliseconds discoveryTimeout{10'000};
    std::shared_ptr<LogSink> log;
};

// The loop-side half of a BlueZ central: the D-Bus connection, the mirror of
// org.bluez's objects, the radio state, the scan and the peripherals. All of
// it runs on the central's event loop, except the few members marked as
// readable from any thread. It outlives the host's handle until the loop has
// torn it down on its own thread.
class CentralCore : public std::enable_shared_from_this<CentralCore> {
public:
    explicit CentralCore(CentralOptions options);
    ~CentralCore();

    // Connects to the bus on the loop. `outer` is what events are reported
    // as coming from.
    void start(std::weak_ptr<bt::Central> outer, std::weak_ptr<bt::CentralDelegate> delegate);
    // The host let go: tear down on the loop (links of ours ended), then stop it.
    void shutdown();

    // Any thread.
    dispatch::PollLoop& loop() { return loop_; }
    const CentralOptions& options() const { return options_; }
    bt::ManagerState reportedState() const { return static_cast<bt::ManagerState>(reportedState_.load()); }
    bool isScanning() const { return scanning_.load(); }
    void setDelegate(std::weak_ptr<bt::CentralDelegate> delegate);
    void diagnose(const std::string& text) const;
    std::vector<bt::PeripheralPtr> connectedWithServices(const std::vector<bt::Uuid>& services) const;
    std::vector<bt::PeripheralPtr> knownWithIdentifiers(const std::vector<bt::Uuid>& identifiers) const;
    // The object if it is one of this central's peripherals.
    std::shared_ptr<BluezPeripheral> own(const bt::PeripheralPtr& peripheral) const;

    // Event loop.
    void scan(const std::optional<std::vector<bt::Uuid>>& services, const bt::ScanOptions& options);
    void stopScan();
    BluezBus* bus() { return bus_.get(); }
    const ObjectTable& objects() const { return objects_; }
    bool poweredOn() const { return state_ == bt::ManagerState::PoweredOn; }
    // Reports an event to the central's delegate, if the host still holds the central.
    void withDelegate(const std::function<void(bt::CentralDelegate&, bt::Central&)>& call);

private:
    void openBus();
    void busLost();
    void teardown();
    void ownerChanged(const std::string& owner);
    void objectsLoaded(const std::vector<InterfaceUpdate>& updates);
    void objectsFailed(const BusError& error);
    void interfaceAdded(const InterfaceUpdate& update);
    void interfacesRemoved(const std::string& path, const std::vector<std::string>& interfaces);
    void propertiesChanged(const std::string& path, const std::string& interface,
                           const BluezProperties& change, const std::vector<std::string>& invalidated);

    // Chooses the adapter if none is chosen yet.
    void chooseAdapter();
    // Makes the peripherals of the adapter's known devices.
    void registerDevices();
    void updateState();
    // Every link and attempt ends (the radio or bluetoothd went away).
    void dropLinks(bool report, const ErrorPtr& error);
    void endScan();
    void deviceUpdated(const std::string& path, const BluezProperties& change, bool added);
    std::shared_ptr<BluezPeripheral> peripheralAt(const std::string& devicePath) const;
    void offerAdvertisement(BluezPeripheral& peripheral, const BluezProperties& device, bool heard);
    void sendDiscoveryFilter();

    const CentralOptions options_;
    dispatch::PollLoop loop_;
    std::atomic<int> reportedState_{static_cast<int>(bt::ManagerState::Unknown)};
    std::atomic<bool> scanning_{false};

    mutable std::mutex delegateMutex_;
    std::weak_ptr<bt::CentralDelegate> delegate_;
    std::weak_ptr<bt::Central> outer_;

    // Peripherals by identifier: read by retrieval from any thread.
    mutable std::mutex directoryMutex_;
    std::map<bt::Uuid, std::shared_ptr<BluezPeripheral>> peripherals_;

    // The event loop's own.
    std::unique_ptr<BluezBus> bus_;
    bool busFailed_ = false;
    std::string owner_;
    bool objectsKnown_ = false;
    bool unauthorized_ = false;
    std::string adapterPath_;
    std::string adapterAddress_;
    bt::ManagerState state_ = bt::ManagerState::Unknown;
    bool stateReported_ = false;
    ObjectTable objects_;
    std::map<std::string, bt::Uuid> byPath_;  // device path → identifier
    ScanSession scan_;
    bool discoveryStarted_ = false;  // we hold a discovery session in bluetoothd
};

// Helpers shared by the central and its peripherals.
std::optional<bt::Uuid> uuidFromBluez(const std::string& text);
std::vector<bt::Uuid> uuidsFromBluez(const std::optional<std::vector<std::string>>& texts);

}  // namespace plenk::bluez
