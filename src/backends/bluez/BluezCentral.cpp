#include "backends/bluez/BluezCentral.h"

#include "backends/bluez/BluezPeripheral.h"

namespace plenk::bluez {

std::shared_ptr<BluezCentral> BluezCentral::make(std::weak_ptr<bt::CentralDelegate> delegate,
                                                 CentralOptions options) {
    auto central = std::make_shared<BluezCentral>(std::make_shared<CentralCore>(std::move(options)));
    central->core_->start(central, std::move(delegate));
    return central;
}

BluezCentral::BluezCentral(std::shared_ptr<CentralCore> core) : core_(std::move(core)) {}

BluezCentral::~BluezCentral() {
    core_->shutdown();
}

void BluezCentral::post(std::function<void(CentralCore&)> work) {
    core_->loop().post([core = std::weak_ptr<CentralCore>(core_), work = std::move(work)] {
        if (auto alive = core.lock()) work(*alive);
    });
}

bt::ManagerState BluezCentral::state() const {
    return core_->reportedState();
}

void BluezCentral::setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) {
    core_->setDelegate(std::move(delegate));
}

std::string BluezCentral::queueLabel() const {
    return core_->loop().label();
}

bool BluezCentral::isOnQueue() const {
    return core_->loop().isCurrent();
}

void BluezCentral::scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& serviceUUIDs,
                                                  const bt::ScanOptions& options) {
    post([serviceUUIDs, options](CentralCore& core) { core.scan(serviceUUIDs, options); });
}

void BluezCentral::stopScan() {
    post([](CentralCore& core) { core.stopScan(); });
}

bool BluezCentral::isScanning() const {
    return core_->isScanning();
}

void BluezCentral::connectPeripheral(const bt::PeripheralPtr& peripheral,
                                     const bt::ConnectOptions& /*options*/) {
    auto own = core_->own(peripheral);
    if (!own) {
        core_->diagnose("[bluez] connect to a peripheral of another central: ignored");
        return;
    }
    post([own](CentralCore&) { own->connect(); });
}

void BluezCentral::cancelPeripheralConnection(const bt::PeripheralPtr& peripheral) {
    if (auto own = core_->own(peripheral)) post([own](CentralCore&) { own->cancelConnection(); });
}

std::vector<bt::PeripheralPtr> BluezCentral::retrieveConnectedPeripheralsWithServices(
    const std::vector<bt::Uuid>& serviceUUIDs) {
    return core_->connectedWithServices(serviceUUIDs);
}

std::vector<bt::PeripheralPtr> BluezCentral::retrievePeripheralsWithIdentifiers(
    const std::vector<bt::Uuid>& identifiers) {
    return core_->knownWithIdentifiers(identifiers);
}

}  // namespace plenk::bluez
