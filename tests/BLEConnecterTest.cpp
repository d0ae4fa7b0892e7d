// The connecter against a recording central: the exact port calls, their
// options and order, and what the delegate hears for each central event.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ble/BLEConnecterCore.h"
#include "bt/Backend.h"
#include "support/DeviceTestSupport.h"

namespace plenk {
namespace {

using Log = std::vector<std::string>;

// Backend, central and connecter delegate in one: central calls and delegate
// calls land in one log, so their order shows. Everything runs on the test
// thread: the tests deliver the central's events themselves.
class Recorder final : public bt::Backend,
                       public bt::Central,
                       public BLEConnecterDelegate,
                       public std::enable_shared_from_this<Recorder> {
public:
    explicit Recorder(Log& log) : log_(log) {}
    std::string name() const override { return "recording"; }
    std::shared_ptr<bt::Central> makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                             const std::string& label, const Context&) override {
        log_.push_back("central " + label);
        setDelegate(std::move(delegate));
        return shared_from_this();
    }
    bt::ManagerState state() const override { return state_; }
    void setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) override {
        delegate_ = std::move(delegate);
    }
    std::string queueLabel() const override { return ""; }
    bool isOnQueue() const override { return false; }
    void scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& services,
                                        const bt::ScanOptions& options) override {
        std::string filter = services ? "" : "all";
        for (const auto& s : services.value_or(std::vector<bt::Uuid>{})) filter += s.toString();
        log_.push_back("scan " + filter + (options.allowDuplicates ? " dup" : " nodup"));
    }
    void stopScan() override { log_.push_back("stopScan"); }
    bool isScanning() const override { return false; }
    void connectPeripheral(const bt::PeripheralPtr&, const bt::ConnectOptions& options) override {
        log_.push_back(std::string("connect") + (options.notifyOnConnection ? " onConnect" : "") +
                       (options.notifyOnDisconnection ? " onDisconnect" : ""));
    }
    void cancelPeripheralConnection(const bt::PeripheralPtr&) override { log_.push_back("cancel"); }
    std::vector<bt::PeripheralPtr> retrieveConnectedPeripheralsWithServices(
        const std::vector<bt::Uuid>&) override {
        return {};
    }
    std::vector<bt::PeripheralPtr> retrievePeripheralsWithIdentifiers(const std::vector<bt::Uuid>&) override {
        return {};
    }
    bt::CentralDelegate& events() const { return *delegate_.lock(); }

    void connecterDidDiscoverPeripheral(BLEConnecter&, const PeripheralPtr&) override { add("discover", {}); }
    void connecterDidConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr&,
                                               const ConnecterUserInfo& info) override {
        add("connect", info);
    }
    void connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr&,
                                                  const ConnecterUserInfo& info) override {
        add("disconnect", info);
    }
    void connecterDidFailToConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr&,
                                                     const std::optional<ConnecterUserInfo>& info) override {
        add("fail", info);
    }
    void connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                const std::optional<ConnecterUserInfo>& info) override {
        add("state", info);
    }
    bt::ManagerState state_ = bt::ManagerState::Unknown;
    std::vector<ConnecterUserInfo> infos;

private:
    void add(const std::string& event, const std::optional<ConnecterUserInfo>& info) {
        log_.push_back(event + (info ? " " + info->key : ""));
        if (info) infos.push_back(*info);
    }
    Log& log_;
    std::weak_ptr<bt::CentralDelegate> delegate_;
};

class Connecter : public ::testing::Test {
protected:
    Context context() const {
        auto c = h.context;
        c.backend = central;
        return c;
    }
    bt::CentralDelegate& events() { return central->events(); }
    Log take() { return std::exchange(log, {}); }

    test::SimHarness h;
    Log log;
    std::shared_ptr<Recorder> central = std::make_shared<Recorder>(log);
    std::shared_ptr<BLEConnecterCore> connecter = BLEConnecterCore::create(central, context());
    PeripheralPtr peripheral = test::connect(h, h.addScale()).peripheral;
};

// A handle the library did not hand out, or none, reaches no central.
TEST_F(Connecter, CommandsIssueExactlyTheseCentralCalls) {
    connecter->scanDevices();
    connecter->scanDFUDevices();
    connecter->stopScan();
    connecter->disconnectedAlert();
    EXPECT_EQ(take(), (Log{"central Corebluetooth", "scan all nodup",
                           "scan 00001530-1212-EFDE-1523-785FEABCD123 nodup", "stopScan"}));
    const std::vector<std::pair<std::function<void(const PeripheralPtr&)>, Log>> cases = {
        {[&](auto& p) { connecter->connectDeviceWithPeripheral(p); }, {"cancel", "connect onConnect"}},
        {[&](auto& p) { connecter->retrieveDeviceWithPeripheral(p); }, {"connect onConnect onDisconnect"}},
        {[&](auto& p) { connecter->disconnect(p); }, {"cancel"}},
        {[&](auto& p) { connecter->cancelConnectDeviceWithPeripheral(p); }, {"cancel"}},
    };
    for (const auto& [command, expected] : cases) {
        command(std::make_shared<test::ForeignPeripheral>());
        command(nullptr);
        command(peripheral);
        EXPECT_EQ(take(), expected);
    }
}

// The scan is stopped before the delegate hears of a radio it cannot use.
TEST_F(Connecter, RadioStatesMapToKeysAndStopTheScanFirst) {
    const std::vector<std::pair<bt::ManagerState, Log>> cases = {
        {bt::ManagerState::Unknown, {"state"}},
        {bt::ManagerState::Resetting, {"state"}},
        {bt::ManagerState::Unsupported, {"stopScan", "state ble_not_support"}},
        {bt::ManagerState::Unauthorized, {"stopScan", "state ble_unauthorized"}},
        {bt::ManagerState::PoweredOff, {"stopScan", "state ble_power_off"}},
        {bt::ManagerState::PoweredOn, {"state ble_power_on"}},
        {static_cast<bt::ManagerState>(42), {"state"}},
    };
    for (const auto& [state, expected] : cases) {
        take();
        central->state_ = state;
        events().centralManagerDidUpdateState(*central);
        EXPECT_EQ(take(), expected) << static_cast<int>(state);
    }
    for (const auto& info : central->infos) EXPECT_EQ(info.connecter(), connecter.get());
    connecter->setDelegate({});
    central->state_ = bt::ManagerState::PoweredOff;
    events().centralManagerDidUpdateState(*central);
    EXPECT_EQ(take(), Log{"stopScan"});
}

// A connection error is passed on, a disconnect error only through its key, a
// failure without an error has no user info. Retrieved peripherals are
// connected silently on the central that reported them; connected ones are not.
TEST_F(Connecter, LinkEventsReachTheDelegateWithOneKeyEach) {
    const auto timeout = platformError(kPlatformConnectionTimeout);
    const auto port = bt::portPeripheral(peripheral);
    auto& e = events();
    Recorder other(log);
    take();
    e.centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(*central, port, {}, -50);
    e.centralManagerDidFailToConnectPeripheralError(*central, port, timeout);
    e.centralManagerDidFailToConnectPeripheralError(*central, port, nullptr);
    e.centralManagerDidConnectPeripheral(*central, port);
    e.centralManagerDidDisconnectPeripheralError(*central, port, timeout);
    e.centralManagerDidDisconnectPeripheralError(*central, port, nullptr);
    e.centralManagerDidRetrievePeripherals(other, {port, nullptr});
    e.centralManagerDidRetrieveConnectedPeripherals(other, {port});
    EXPECT_EQ(take(), (Log{"discover", "fail ble_error_connection_error", "fail", "connect ble_conneted",
                           "disconnect ble_error_disconnected", "disconnect ble_disconnected",
                           "connect onDisconnect"}));
    ASSERT_EQ(central->infos.size(), 4u);
    EXPECT_EQ(central->infos[0].error()->code(), kPlatformConnectionTimeout);
    EXPECT_EQ(central->infos[1].peripheral(), peripheral);
    EXPECT_EQ(central->infos[2].error(), nullptr);
}

TEST(BLEConnecterCBUUIDToInt, SignExtendsEachByte) {
    const std::pair<const char*, std::uint16_t> cases[] = {
        {"2A19", 0x2A19}, {"EF80", 0xFF80}, {"807F", 0x807F}, {"12345678", 0x1234}};
    for (const auto& [uuid, expected] : cases) {
        EXPECT_EQ(BLEConnecter::CBUUIDToInt(bt::Uuid::fromString(uuid)), expected) << uuid;
    }
}

}  // namespace
}  // namespace plenk
