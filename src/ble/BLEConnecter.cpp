#include "ble/BLEConnecterCore.h"

#include <string>
#include <utility>

#include "bt/Backend.h"
#include "dispatch/Guarded.h"
#include "wire/GattUuids.h"

namespace plenk {

namespace {

// Scans never report one advertiser twice.
constexpr bt::ScanOptions kScanOptions{.allowDuplicates = false};

ConnecterUserInfo info(std::string_view key, ConnecterUserInfo::Value value) {
    return ConnecterUserInfo{std::string(key), std::move(value)};
}

}  // namespace

BLEConnecterDelegate::~BLEConnecterDelegate() = default;
void BLEConnecterDelegate::connecterDidDiscoverPeripheral(BLEConnecter&, const PeripheralPtr&) {}
void BLEConnecterDelegate::connecterDidConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr&,
                                                                 const ConnecterUserInfo&) {}
void BLEConnecterDelegate::connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr&,
                                                                    const ConnecterUserInfo&) {}
void BLEConnecterDelegate::connecterDidFailToConnectPeripheralUserInfo(
    BLEConnecter&, const PeripheralPtr&, const std::optional<ConnecterUserInfo>&) {}
void BLEConnecterDelegate::connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                                  const std::optional<ConnecterUserInfo>&) {}

BLEConnecter::~BLEConnecter() = default;

std::shared_ptr<BLEConnecter> BLEConnecter::create(const Context& context) {
    return BLEConnecterCore::create(std::weak_ptr<BLEConnecterDelegate>{}, context);
}

std::shared_ptr<BLEConnecter> BLEConnecter::create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                   const Context& context) {
    return BLEConnecterCore::create(std::move(delegate), context);
}

BLEConnecterCore::BLEConnecterCore(Token, std::weak_ptr<BLEConnecterDelegate> delegate,
                                   const Context& context)
    : context_(context.resolved()), delegate_(std::move(delegate)) {}

std::shared_ptr<BLEConnecterCore> BLEConnecterCore::create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                           const Context& context) {
    auto connecter = std::make_shared<BLEConnecterCore>(Token{}, std::move(delegate), context);
    connecter->createCBManager();
    return connecter;
}

BLEConnecterCore::~BLEConnecterCore() {
    std::shared_ptr<bt::Central> central;
    {
        std::lock_guard lock(mutex_);
        central = std::move(cbManager_);
    }
    if (central) central->setDelegate({});
}

std::weak_ptr<bt::CentralDelegate> BLEConnecterCore::asCentralDelegate() {
    // The central delegate base is private: share ownership with the
    // connecter through an aliasing pointer.
    return std::shared_ptr<bt::CentralDelegate>(shared_from_this(), static_cast<bt::CentralDelegate*>(this));
}

void BLEConnecterCore::createCBManager() {
    // Held until the central is stored: its first event (the radio state) may
    // run on its queue before makeCentral returns, and a delegate reacting to
    // it must find the central in place.
    std::lock_guard creating(creating_);
    auto central = context_.backend->makeCentral(asCentralDelegate(), std::string(kQueueLabel), context_);
    std::lock_guard lock(mutex_);
    cbManager_ = std::move(central);
}

std::shared_ptr<bt::Central> BLEConnecterCore::cbManager() const {
    return dispatch::loadLocked(mutex_, cbManager_);
}

void BLEConnecterCore::setCbManager(std::shared_ptr<bt::Central> central) {
    dispatch::storeLocked(mutex_, cbManager_, std::move(central));
}

std::shared_ptr<BLEConnecterDelegate> BLEConnecterCore::delegate() const {
    { std::lock_guard waitForCentral(creating_); }
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void BLEConnecterCore::setDelegate(std::weak_ptr<BLEConnecterDelegate> delegate) {
    dispatch::storeLocked(mutex_, delegate_, std::move(delegate));
}

// Commands: no radio-state check; the central handles what it cannot do.

void BLEConnecterCore::scanDevices() {
    if (auto central = cbManager()) central->scanForPeripheralsWithServices(std::nullopt, kScanOptions);
}

void BLEConnecterCore::scanDFUDevices() {
    if (auto central = cbManager()) {
        central->scanForPeripheralsWithServices(std::vector<bt::Uuid>{wire::kDfuService}, kScanOptions);
    }
}

void BLEConnecterCore::stopScan() {
    if (auto central = cbManager()) central->stopScan();
}

void BLEConnecterCore::connectDeviceWithPeripheral(const PeripheralPtr& peripheral) {
    auto central = cbManager();
    auto port = bt::portPeripheral(peripheral);
    if (!central || !port) return;
    central->cancelPeripheralConnection(port);
    central->connectPeripheral(port, bt::ConnectOptions{.notifyOnConnection = true});
}

void BLEConnecterCore::retrieveDeviceWithPeripheral(const PeripheralPtr& peripheral) {
    auto central = cbManager();
    auto port = bt::portPeripheral(peripheral);
    if (!central || !port) return;
    central->connectPeripheral(port,
                               bt::ConnectOptions{.notifyOnConnection = true, .notifyOnDisconnection = true});
}

void BLEConnecterCore::disconnect(const PeripheralPtr& peripheral) {
    auto central = cbManager();
    auto port = bt::portPeripheral(peripheral);
    if (central && port) central->cancelPeripheralConnection(port);
}

void BLEConnecterCore::cancelConnectDeviceWithPeripheral(const PeripheralPtr& peripheral) {
    disconnect(peripheral);
}

std::vector<PeripheralPtr> BLEConnecterCore::retrieveConnectedPeripheralWithServiceUUIDs(
    const std::vector<Uuid>& serviceUUIDs) {
    auto central = cbManager();
    if (!central) return {};
    const auto found = central->retrieveConnectedPeripheralsWithServices(serviceUUIDs);
    return {found.begin(), found.end()};
}

std::vector<PeripheralPtr> BLEConnecterCore::retrievePeripheralWithIdentifiers(
    const std::vector<Uuid>& identifiers) {
    auto central = cbManager();
    if (!central) return {};
    const auto found = central->retrievePeripheralsWithIdentifiers(identifiers);
    return {found.begin(), found.end()};
}

void BLEConnecterCore::disconnectedAlert() {}

std::uint16_t BLEConnecter::CBUUIDToInt(const Uuid& uuid) {
    const auto data = uuid.data();
    if (data.size() < 2) return 0;
    // Both bytes are widened as signed 8-bit values before they are combined,
    // so a second byte of 0x80 or more fills the high byte with ones. Callers
    // rely on this exact value ("EF80" gives 0xFF80).
    const std::int32_t high = static_cast<std::int8_t>(data[0]);
    const std::int32_t low = static_cast<std::int8_t>(data[1]);
    return static_cast<std::uint16_t>(static_cast<std::uint32_t>(high * 256 | low) & 0xFFFFu);
}

// Events, on the central's queue.

void BLEConnecterCore::centralManagerDidUpdateState(bt::Central& central) {
    std::optional<ConnecterUserInfo> userInfo;
    switch (central.state()) {
        case bt::ManagerState::Unsupported:
            central.stopScan();
            userInfo = info(kBleNotSupport, this);
            break;
        case bt::ManagerState::Unauthorized:
            central.stopScan();
            userInfo = info(kBleUnauthorized, this);
            break;
        case bt::ManagerState::PoweredOff:
            central.stopScan();
            userInfo = info(kBlePowerOff, this);
            break;
        case bt::ManagerState::PoweredOn:
            userInfo = info(kBlePowerOn, this);
            break;
        case bt::ManagerState::Unknown:
        case bt::ManagerState::Resetting:
        default:
            break;
    }
    if (auto d = delegate()) d->connecterDidDidUpdateStateWithUserInfo(*this, userInfo);
}

void BLEConnecterCore::centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(
    bt::Central&, const bt::PeripheralPtr& peripheral, const bt::AdvertisementData&, int) {
    if (auto d = delegate()) d->connecterDidDiscoverPeripheral(*this, peripheral);
}

void BLEConnecterCore::centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& peripheral) {
    if (auto d = delegate())
        d->connecterDidConnectPeripheralUserInfo(*this, peripheral, info(kBleConneted, peripheral));
}

void BLEConnecterCore::centralManagerDidDisconnectPeripheralError(bt::Central&,
                                                                  const bt::PeripheralPtr& peripheral,
                                                                  const ErrorPtr& error) {
    // The error itself is not passed on: only the key tells the two apart.
    auto userInfo = info(error ? kBleErrorDisconnected : kBleDisconnected, peripheral);
    if (auto d = delegate()) d->connecterDidDisconnectPeripheralUserInfo(*this, peripheral, userInfo);
}

void BLEConnecterCore::centralManagerDidFailToConnectPeripheralError(bt::Central&,
                                                                     const bt::PeripheralPtr& peripheral,
                                                                     const ErrorPtr& error) {
    std::optional<ConnecterUserInfo> userInfo;
    if (error) userInfo = info(kBleErrorConnectionError, error);
    if (auto d = delegate()) d->connecterDidFailToConnectPeripheralUserInfo(*this, peripheral, userInfo);
}

void BLEConnecterCore::centralManagerDidRetrievePeripherals(
    bt::Central& central, const std::vector<bt::PeripheralPtr>& peripherals) {
    // Retrieved peripherals are connected straight away on the central that
    // reported them; the delegate hears only of the resulting link events.
    for (const auto& peripheral : peripherals) {
        if (peripheral)
            central.connectPeripheral(peripheral, bt::ConnectOptions{.notifyOnDisconnection = true});
    }
}

}  // namespace plenk
