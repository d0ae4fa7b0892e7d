#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "BusConnection.h"
#include "FakeBluez.h"
#include "FakeDevice.h"
#include "ObjectTree.h"
#include "dispatch/PollLoop.h"

// The daemon: its bus connection and name, the adapters with their
// per-client discovery sessions and filters, the scan that turns
// advertisements into devices, and the call log. Loop thread only; FakeBluez
// marshals test calls onto it.
namespace plenk::fakebluez {

// What one client's SetDiscoveryFilter asked for (the parts that select devices).
struct DiscoveryFilter {
    std::vector<bt::Uuid> uuids;  // empty: every device
    std::optional<std::int16_t> rssi;
    std::string transport = "auto";
};

class BluezModel {
public:
    BluezModel(dispatch::PollLoop& loop, std::string busAddress, Timings timings);
    ~BluezModel();
    BluezModel(const BluezModel&) = delete;
    BluezModel& operator=(const BluezModel&) = delete;

    // Connects, owns org.bluez and exports what is known (again, after a restart).
    void start();

    void addAdapter(AdapterSetup setup);
    std::string addScale(ScaleSetup setup);
    // Throws std::invalid_argument for an unknown address.
    FakeDevice& device(const std::string& address);
    void setPowered(const std::string& adapter, bool powered);
    void restart(Duration downtime);

    const std::vector<std::string>& calls() const { return calls_; }
    void setObserver(FakeBluez::EmissionObserver observer) { observer_ = std::move(observer); }

private:
    // A client that set a filter or started a discovery (bluetoothd keeps both in one record).
    struct DiscoveryClient {
        std::optional<DiscoveryFilter> filter;
        bool active = false;  // its discovery session runs
    };
    struct Adapter {
        AdapterSetup setup;
        std::string path;
        std::map<std::string, DiscoveryClient> clients;  // by unique name
        bool starting = false;
        bool discovering = false;
        std::set<std::string> found;  // devices seen by the current scan
        dispatch::PollLoop::TimerId scanTimer = 0;
        dispatch::PollLoop::TimerId cleanupTimer = 0;
    };

    void onCall(const CallPtr& call);
    void onClientGone(const std::string& client);

    Interfaces adapterInterfaces(const Adapter& adapter) const;
    Adapter* adapterByPath(const std::string& path);
    FakeDevice* deviceForPath(const std::string& path);
    void handleAdapterCall(Adapter& adapter, const CallPtr& call);
    void startDiscovery(Adapter& adapter, const CallPtr& call);
    void stopDiscovery(Adapter& adapter, const CallPtr& call);
    void setDiscoveryFilter(Adapter& adapter, const CallPtr& call);
    bool hasActiveClients(const Adapter& adapter) const;
    // Every running session has a filter: bluetoothd reports each advertisement.
    bool filteredScan(const Adapter& adapter) const;
    bool matches(const Adapter& adapter, const FakeDevice& device) const;
    void scanTick(const std::string& adapterName);
    void endScan(Adapter& adapter);
    void forgetTemporaryDevices(const std::string& adapterName);

    dispatch::PollLoop& loop_;
    const std::string busAddress_;
    const Timings timings_;
    ObjectTree tree_;
    std::unique_ptr<BusConnection> bus_;
    FakeBluez::EmissionObserver observer_;
    std::map<std::string, Adapter> adapters_;  // by name (hci0)
    DeviceContext deviceContext_{loop_, tree_, timings_, &observer_, [this](const std::string& path) {
                                     const auto* adapter = adapterByPath(path);
                                     return adapter != nullptr && adapter->setup.powered;
                                 }};
    std::vector<std::unique_ptr<FakeDevice>> devices_;
    std::vector<std::string> calls_;  // members, in arrival order
    dispatch::PollLoop::TimerId restartTimer_ = 0;
};

}  // namespace plenk::fakebluez
