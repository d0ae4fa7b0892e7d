// CentralCore: the scan, on the event loop.
#include "backends/bluez/BluezPeripheral.h"
#include "backends/bluez/CentralCore.h"

namespace plenk::bluez {

// --- scanning ----------------------------------------------------------------------------

void CentralCore::scan(const std::optional<std::vector<bt::Uuid>>& services, const bt::ScanOptions& options) {
    if (state_ != bt::ManagerState::PoweredOn || !bus_) {
        diagnose("[bluez] scan while the radio is not powered on: ignored");
        return;
    }
    scan_.start(services, options.allowDuplicates);
    scanning_.store(true);
    sendDiscoveryFilter();
    if (!discoveryStarted_) {
        discoveryStarted_ = true;
        bus_->call(
            adapterPath_, kAdapterInterface, "StartDiscovery", [](sdbus::MethodCall&) {},
            [weak = weak_from_this()](std::optional<bool>, std::optional<BusError> error) {
                auto core = weak.lock();
                // InProgress: our session is already running.
                if (!core || !error || error->name == "org.bluez.Error.InProgress") return;
                core->diagnose("[bluez] StartDiscovery failed: " + error->name + " " + error->message);
                core->discoveryStarted_ = false;
            });
    }
}

void CentralCore::sendDiscoveryFilter() {
    VariantMap filter;
    filter["Transport"] = sdbus::Variant(std::string("le"));
    // BlueZ's DuplicateData turns duplicate detection off: wanted only when
    // every advertisement is to be reported. bluetoothd merges the filters of
    // all clients, so each device is checked against ours again on arrival.
    filter["DuplicateData"] = sdbus::Variant(scan_.allowsDuplicates());
    if (scan_.filter() && !scan_.filter()->empty()) {
        std::vector<std::string> uuids;
        for (const auto& uuid : *scan_.filter()) uuids.push_back(uuid.fullString());
        filter["UUIDs"] = sdbus::Variant(uuids);
    }
    bus_->call(
        adapterPath_, kAdapterInterface, "SetDiscoveryFilter",
        [filter](sdbus::MethodCall& call) { call << filter; },
        [weak = weak_from_this()](std::optional<bool>, std::optional<BusError> error) {
            if (auto core = weak.lock(); core && error)
                core->diagnose("[bluez] SetDiscoveryFilter failed: " + error->name + " " + error->message);
        });
}

void CentralCore::stopScan() {
    const bool hadSession = discoveryStarted_;
    endScan();
    if (hadSession && bus_ && !adapterPath_.empty()) {
        // "No discovery started" (the radio dropped it already) is fine.
        bus_->call(
            adapterPath_, kAdapterInterface, "StopDiscovery", [](sdbus::MethodCall&) {}, [](auto, auto) {});
    }
}

void CentralCore::endScan() {
    scan_.stop();
    scanning_.store(false);
    discoveryStarted_ = false;
}

void CentralCore::offerAdvertisement(BluezPeripheral& peripheral, const BluezProperties& device, bool heard) {
    const auto services = uuidsFromBluez(device.uuids);
    if (!scan_.offer(peripheral.devicePath(), services, heard)) return;
    bt::AdvertisementData advertisement;
    advertisement.localName = device.name;
    advertisement.serviceUUIDs = services;
    if (device.manufacturerData) {
        for (const auto& [company, data] : *device.manufacturerData)
            advertisement.manufacturerData[company] = data;
    }
    const int rssi = device.rssi.value_or(127);  // 127: not available
    peripheral.recordRssi(rssi);
    auto self = std::static_pointer_cast<bt::Peripheral>(peripheral.shared_from_this());
    withDelegate([&](bt::CentralDelegate& d, bt::Central& c) {
        d.centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(c, self, advertisement, rssi);
    });
}

}  // namespace plenk::bluez
