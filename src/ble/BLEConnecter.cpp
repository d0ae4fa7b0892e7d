#include "ble/BLEConnecter.h"

#include <string>
#include <utility>

#include "bt/Backend.h"
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
void BLEConnecterDelegate::connecterDidDiscoverPeripheral(BLEConnecter&, const bt::PeripheralPtr&) {}
void BLEConnecterDelegate::connecterDidConnectPeripheralUserInfo(BLEConnecter&, const bt::PeripheralPtr&,
                                                                 const ConnecterUserInfo&) {}
void BLEConnecterDelegate::connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const bt::PeripheralPtr&,
                                                                    const ConnecterUserInfo&) {}
void BLEConnecterDelegate::connecterDidFailToConnectPeripheralUserInfo(
    BLEConnecter&, const bt::PeripheralPtr&, const std::optional<ConnecterUserInfo>&) {}
void BLEConnecterDelegate::connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                                  const std::optional<ConnecterUserInfo>&) {}

BLEConnecter::BLEConnecter(Token, std::weak_ptr<BLEConnecterDelegate> delegate, const Context& context)
    : context_(context.resolved()), delegate_(std::move(delegate)) {}

std::shared_ptr<BLEConnecter> BLEConnecter::create(const Context& context) {
    return create(std::weak_ptr<BLEConnecterDelegate>{}, context);
}

std::shared_ptr<BLEConnecter> BLEConnecter::create(std::weak_ptr<BLEConnecterDelegate> delegate,
                                                   const Context& context) {
    auto connecter = std::make_shared<BLEConnecter>(Token{}, std::move(delegate), context);
    connecter->createCBManager();
    return connecter;
}

BLEConnecter::~BLEConnecter() {
    std::shared_ptr<bt::Central> central;
    {
        std::lock_guard lock(mutex_);
        central = std::move(cbManager_);
    }
    if (central) central->setDelegate({});
}

std::weak_ptr<bt::CentralDelegate> BLEConnecter::asCentralDelegate() {
    // The central delegate base is private: share ownership with the
    // connecter through an aliasing pointer.
    return std::shared_ptr<bt::CentralDelegate>(shared_from_this(), static_cast<bt::CentralDelegate*>(this));
}

void BLEConnecter::createCBManager() {
    // Held until the central is stored: its first event (the radio state) may
    // run on its queue before makeCentral returns, and a delegate reacting to
    // it must find the central in place.
    std::lock_guard creating(creating_);
    auto central = context_.backend->makeCentral(asCentralDelegate(), std::string(kQueueLabel), context_);
    std::lock_guard lock(mutex_);
    cbManager_ = std::move(central);
}

std::shared_ptr<bt::Central> BLEConnecter::cbManager() const {
    std::lock_guard lock(mutex_);
    return cbManager_;
}

void BLEConnecter::setCbManager(std::shared_ptr<bt::Central> central) {
    std::lock_guard lock(mutex_);
    cbManager_ = std::move(central);
}

std::shared_ptr<BLEConnecterDelegate> BLEConnecter::delegate() const {
    { std::lock_guard waitForCentral(creating_); }
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void BLEConnecter::setDelegate(std::weak_ptr<BLEConnecterDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

// Commands: no radio-state check; the central handles what it cannot do.

void BLEConnecter::scanDevices() {
    if (auto central = cbManager()) central->scanForPeripheralsWithServices(std::nullopt, kScanOptions);
}

void BLEConnecter::scanDFUDevices() {
    if (auto central = cbManager()) {
        central->scanForPeripheralsWithServices(std::vector<bt::Uuid>{wire::kDfuService}, kScanOptions);
    }
}

void BLEConnecter::stopScan() {
    if (auto central = cbManager()) central->stopScan();
}

void BLEConnecter::connectDeviceWithPeripheral(const bt::PeripheralPtr& peripheral) {
    auto central = cbManager();
    if (!central || !peripheral) return;
    central->cancelPeripheralConnection(peripheral);
    central->connectPeripheral(peripheral, bt::ConnectOptions{.notifyOnConnection = true});
}

void BLEConnecter::retrieveDeviceWithPeripheral(const bt::PeripheralPtr& peripheral) {
    auto central = cbManager();
    if (!central || !peripheral) return;
    central->connectPeripheral(peripheral,
                               bt::ConnectOptions{.notifyOnConnection = true, .notifyOnDisconnection = true});
}

void BLEConnecter::disconnect(const bt::PeripheralPtr& peripheral) {
    auto central = cbManager();
    if (central && peripheral) central->cancelPeripheralConnection(peripheral);
}

void BLEConnecter::cancelConnectDeviceWithPeripheral(const bt::PeripheralPtr& peripheral) {
    disconnect(peripheral);
}

std::vector<bt::PeripheralPtr> BLEConnecter::retrieveConnectedPeripheralWithServiceUUIDs(
    const std::vector<bt::Uuid>& serviceUUIDs) {
    auto central = cbManager();
    return central ? central->retrieveConnectedPeripheralsWithServices(serviceUUIDs)
                   : std::vector<bt::PeripheralPtr>{};
}

std::vector<bt::PeripheralPtr> BLEConnecter::retrievePeripheralWithIdentifiers(
    const std::vector<bt::Uuid>& identifiers) {
    auto central = cbManager();
    return central ? central->retrievePeripheralsWithIdentifiers(identifiers)
                   : std::vector<bt::PeripheralPtr>{};
}

void BLEConnecter::disconnectedAlert() {}

std::uint16_t BLEConnecter::CBUUIDToInt(const bt::Uuid& uuid) {
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

void BLEConnecter::centralManagerDidUpdateState(bt::Central& central) {
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

void BLEConnecter::centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(
    bt::Central&, const bt::PeripheralPtr& peripheral, const bt::AdvertisementData&, int) {
    if (auto d = delegate()) d->connecterDidDiscoverPeripheral(*this, peripheral);
}

void BLEConnecter::centralManagerDidConnectPeripheral(bt::Central&, const bt::PeripheralPtr& peripheral) {
    if (auto d = delegate())
        d->connecterDidConnectPeripheralUserInfo(*this, peripheral, info(kBleConneted, peripheral));
}

void BLEConnecter::centralManagerDidDisconnectPeripheralError(bt::Central&,
                                                              const bt::PeripheralPtr& peripheral,
                                                              const ErrorPtr& error) {
    // The error itself is not passed on: only the key tells the two apart.
    auto userInfo = info(error ? kBleErrorDisconnected : kBleDisconnected, peripheral);
    if (auto d = delegate()) d->connecterDidDisconnectPeripheralUserInfo(*this, peripheral, userInfo);
}

void BLEConnecter::centralManagerDidFailToConnectPeripheralError(bt::Central&,
                                                                 const bt::PeripheralPtr& peripheral,
                                                                 const ErrorPtr& error) {
    std::optional<ConnecterUserInfo> userInfo;
    if (error) userInfo = info(kBleErrorConnectionError, error);
    if (auto d = delegate()) d->connecterDidFailToConnectPeripheralUserInfo(*this, peripheral, userInfo);
}

void BLEConnecter::centralManagerDidRetrievePeripherals(bt::Central& central,
                                                        const std::vector<bt::PeripheralPtr>& peripherals) {
    // Retrieved peripherals are connected straight away on the central that
    // reported them; the delegate hears only of the resulting link events.
    for (const auto& peripheral : peripherals) {
        if (peripheral)
            central.connectPeripheral(peripheral, bt::ConnectOptions{.notifyOnDisconnection = true});
    }
}

}  // namespace plenk
