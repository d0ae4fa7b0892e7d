// The connecter against a recording central: the exact port calls, their
// options and order, and what the delegate hears for each central event.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ble/BLEConnecterCore.h"
#include "bt/Backend.h"
#include "support/ForeignPeripheral.h"

namespace plenk {
namespace {

// Everything here runs on the test thread: the connecter calls the central
// inline and the tests deliver the central's events themselves.

class RecordingCentral final : public bt::Central {
public:
    bt::ManagerState state() const override { return state_; }
    void setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) override {
        delegate_ = std::move(delegate);
    }
    std::string queueLabel() const override { return label_; }
    bool isOnQueue() const override { return false; }
    void scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& services,
                                        const bt::ScanOptions& options) override {
        std::string filter = services ? "" : "all";
        for (const auto& s : services.value_or(std::vector<bt::Uuid>{})) filter += s.toString();
        ops.push_back("scan " + filter + (options.allowDuplicates ? " dup" : " nodup"));
    }
    void stopScan() override { ops.push_back("stopScan"); }
    bool isScanning() const override { return false; }
    void connectPeripheral(const bt::PeripheralPtr&, const bt::ConnectOptions& options) override {
        ops.push_back(std::string("connect") + (options.notifyOnConnection ? " onConnect" : "") +
                      (options.notifyOnDisconnection ? " onDisconnect" : ""));
    }
    void cancelPeripheralConnection(const bt::PeripheralPtr&) override { ops.push_back("cancel"); }
    std::vector<bt::PeripheralPtr> retrieveConnectedPeripheralsWithServices(
        const std::vector<bt::Uuid>& services) override {
        ops.push_back("retrieveConnected " + std::to_string(services.size()));
        return retrieved;
    }
    std::vector<bt::PeripheralPtr> retrievePeripheralsWithIdentifiers(
        const std::vector<bt::Uuid>& ids) override {
        ops.push_back("retrieveKnown " + std::to_string(ids.size()));
        return retrieved;
    }
    std::shared_ptr<bt::CentralDelegate> delegate() const { return delegate_.lock(); }
    std::vector<std::string> take() { return std::exchange(ops, {}); }

    bt::ManagerState state_ = bt::ManagerState::Unknown;
    std::string label_;
    std::vector<bt::PeripheralPtr> retrieved;
    std::vector<std::string> ops;

private:
    std::weak_ptr<bt::CentralDelegate> delegate_;
};

class RecordingBackend final : public bt::Backend {
public:
    std::string name() const override { return "recording"; }
    std::shared_ptr<bt::Central> makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                             const std::string& label, const Context&) override {
        auto central = std::make_shared<RecordingCentral>();
        central->label_ = label;
        central->setDelegate(std::move(delegate));
        centrals.push_back(central);
        return central;
    }
    std::vector<std::shared_ptr<RecordingCentral>> centrals;
};

// A peripheral that only has an identity: the recording central never looks inside.
class InertPeripheral final : public bt::Peripheral {
public:
    std::optional<std::string> name() const override { return "Plenk Scale"; }
    bt::Uuid identifier() const override { return id_; }
    bt::PeripheralState state() const override { return bt::PeripheralState::Disconnected; }
    std::optional<int> rssi() const override { return std::nullopt; }
    std::vector<bt::ServicePtr> services() const override { return {}; }
    void setDelegate(std::weak_ptr<bt::PeripheralDelegate>) override {}
    std::shared_ptr<bt::PeripheralDelegate> delegate() const override { return nullptr; }
    void discoverServices(const std::optional<std::vector<bt::Uuid>>&) override {}
    void discoverCharacteristics(const std::optional<std::vector<bt::Uuid>>&,
                                 const bt::ServicePtr&) override {}
    void readValueForCharacteristic(const bt::CharacteristicPtr&) override {}
    void writeValue(const bt::Bytes&, const bt::CharacteristicPtr&, bt::WriteType) override {}
    void setNotifyValue(bool, const bt::CharacteristicPtr&) override {}
    void readRSSI() override {}

private:
    bt::Uuid id_ = bt::Uuid::random();
};

// What the delegate heard, with the central's command log at that moment.
struct Heard {
    std::string event;
    std::optional<ConnecterUserInfo> userInfo;
    PeripheralPtr peripheral;
    std::vector<std::string> opsAtCall;
};

class RecordingDelegate : public BLEConnecterDelegate {
public:
    void connecterDidDiscoverPeripheral(BLEConnecter&, const PeripheralPtr& p) override {
        add("discover", std::nullopt, p);
    }
    void connecterDidConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                               const ConnecterUserInfo& info) override {
        add("connect", info, p);
    }
    void connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                                  const ConnecterUserInfo& info) override {
        add("disconnect", info, p);
    }
    void connecterDidFailToConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                                     const std::optional<ConnecterUserInfo>& info) override {
        add("fail", info, p);
    }
    void connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                const std::optional<ConnecterUserInfo>& info) override {
        add("state", info, nullptr);
    }

    std::shared_ptr<RecordingCentral> central;
    std::vector<Heard> heard;

private:
    void add(std::string event, std::optional<ConnecterUserInfo> info, PeripheralPtr p) {
        heard.push_back({std::move(event), std::move(info), std::move(p),
                         central ? central->ops : std::vector<std::string>{}});
    }
};

class ConnecterWithRecordingCentral : public ::testing::Test {
protected:
    void SetUp() override {
        Context context;
        context.backend = backend;
        context.log = LogSink::discard();
        connecter = BLEConnecterCore::create(delegate, context);
        ASSERT_EQ(backend->centrals.size(), 1u);
        central = backend->centrals[0];
        delegate->central = central;
    }
    bt::CentralDelegate& events() { return *central->delegate(); }

    std::shared_ptr<RecordingBackend> backend = std::make_shared<RecordingBackend>();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::shared_ptr<BLEConnecterCore> connecter;
    std::shared_ptr<RecordingCentral> central;
    bt::PeripheralPtr peripheral = std::make_shared<InertPeripheral>();
};

TEST_F(ConnecterWithRecordingCentral, CommandsIssueExactlyTheseCentralCalls) {
    struct Case {
        const char* name;
        std::function<void(BLEConnecter&, const PeripheralPtr&)> command;
        std::vector<std::string> ops;
        bool onAPeripheral = false;
    };
    const std::vector<Case> cases = {
        {"scanDevices", [](auto& c, auto&) { c.scanDevices(); }, {"scan all nodup"}},
        {"scanDFUDevices",
         [](auto& c, auto&) { c.scanDFUDevices(); },
         {"scan 00001530-1212-EFDE-1523-785FEABCD123 nodup"}},
        {"stopScan", [](auto& c, auto&) { c.stopScan(); }, {"stopScan"}},
        {"connect cancels first",
         [](auto& c, auto& p) { c.connectDeviceWithPeripheral(p); },
         {"cancel", "connect onConnect"},
         true},
        {"retrieveDevice connects",
         [](auto& c, auto& p) { c.retrieveDeviceWithPeripheral(p); },
         {"connect onConnect onDisconnect"},
         true},
        {"disconnect", [](auto& c, auto& p) { c.disconnect(p); }, {"cancel"}, true},
        {"cancelConnect", [](auto& c, auto& p) { c.cancelConnectDeviceWithPeripheral(p); }, {"cancel"}, true},
        {"disconnectedAlert", [](auto& c, auto&) { c.disconnectedAlert(); }, {}},
    };
    // A handle the library did not hand out, or none, reaches no central.
    const PeripheralPtr foreign = std::make_shared<test::ForeignPeripheral>();
    for (const auto& c : cases) {
        central->take();
        c.command(*connecter, peripheral);
        EXPECT_EQ(central->take(), c.ops) << c.name;
        if (!c.onAPeripheral) continue;
        c.command(*connecter, foreign);
        c.command(*connecter, nullptr);
        EXPECT_TRUE(central->take().empty()) << c.name;
    }
    central->retrieved = {peripheral};
    const std::vector<PeripheralPtr> expected{peripheral};
    EXPECT_EQ(connecter->retrieveConnectedPeripheralWithServiceUUIDs({bt::Uuid::from16(0xFF08)}), expected);
    EXPECT_EQ(connecter->retrievePeripheralWithIdentifiers({peripheral->identifier(), bt::Uuid::random()}),
              expected);
    EXPECT_EQ(central->take(), (std::vector<std::string>{"retrieveConnected 1", "retrieveKnown 2"}));
    EXPECT_TRUE(delegate->heard.empty());
}

// The scan is stopped before the delegate hears of a radio it cannot use.
TEST_F(ConnecterWithRecordingCentral, RadioStatesMapToKeysAndStopTheScanFirst) {
    const std::vector<std::pair<bt::ManagerState, std::string>> cases = {
        {bt::ManagerState::Unknown, ""},
        {bt::ManagerState::Resetting, ""},
        {bt::ManagerState::Unsupported, "ble_not_support stopScan"},
        {bt::ManagerState::Unauthorized, "ble_unauthorized stopScan"},
        {bt::ManagerState::PoweredOff, "ble_power_off stopScan"},
        {bt::ManagerState::PoweredOn, "ble_power_on"},
        {static_cast<bt::ManagerState>(42), ""},
    };
    for (const auto& [state, expected] : cases) {
        central->take();
        central->state_ = state;
        events().centralManagerDidUpdateState(*central);
        const auto h = delegate->heard.back();
        std::string got = h.event == "state" && h.userInfo ? h.userInfo->key : "";
        for (const auto& op : h.opsAtCall) got += " " + op;
        EXPECT_EQ(got, expected) << static_cast<int>(state);
        EXPECT_EQ(central->take(), h.opsAtCall);
        if (h.userInfo) {
            EXPECT_EQ(h.userInfo->connecter(), connecter.get());
        }
    }
    EXPECT_EQ(delegate->heard.size(), std::size(cases));
}

// A connection error is passed on, a disconnect error only through its key,
// a failure without an error has no user info.
TEST_F(ConnecterWithRecordingCentral, LinkEventsReachTheDelegateWithOneKeyEach) {
    const auto timeout = platformError(kPlatformConnectionTimeout);
    auto& e = events();
    e.centralManagerDidDiscoverPeripheralAdvertisementDataRSSI(*central, peripheral, {}, -50);
    e.centralManagerDidFailToConnectPeripheralError(*central, peripheral, timeout);
    e.centralManagerDidFailToConnectPeripheralError(*central, peripheral, nullptr);
    e.centralManagerDidConnectPeripheral(*central, peripheral);
    e.centralManagerDidDisconnectPeripheralError(*central, peripheral, timeout);
    e.centralManagerDidDisconnectPeripheralError(*central, peripheral, nullptr);
    const auto heard = delegate->heard;
    std::vector<std::string> keys;
    for (const auto& h : heard) {
        keys.push_back(h.event + (h.userInfo ? " " + h.userInfo->key : ""));
        EXPECT_EQ(h.peripheral, peripheral);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"discover", "fail ble_error_connection_error", "fail",
                                              "connect ble_conneted", "disconnect ble_error_disconnected",
                                              "disconnect ble_disconnected"}));
    EXPECT_EQ(heard[1].userInfo->error()->code(), kPlatformConnectionTimeout);
    EXPECT_EQ(heard[3].userInfo->peripheral(), peripheral);
    EXPECT_EQ(heard[4].userInfo->error(), nullptr);
    EXPECT_TRUE(central->ops.empty());
}

TEST_F(ConnecterWithRecordingCentral, RetrievedPeripheralsAreConnectedOnTheReportingCentralSilently) {
    RecordingCentral other;
    events().centralManagerDidRetrievePeripherals(other, {peripheral, std::make_shared<InertPeripheral>()});
    events().centralManagerDidRetrieveConnectedPeripherals(other, {peripheral});
    EXPECT_EQ(other.ops, (std::vector<std::string>{"connect onDisconnect", "connect onDisconnect"}));
    EXPECT_TRUE(central->ops.empty());
    EXPECT_TRUE(delegate->heard.empty());
}

TEST_F(ConnecterWithRecordingCentral, ADelegateThatIsGoneOrUnsetHearsNothing) {
    connecter->setDelegate({});
    central->state_ = bt::ManagerState::PoweredOff;
    events().centralManagerDidUpdateState(*central);
    EXPECT_EQ(central->ops, std::vector<std::string>{"stopScan"});
    auto transient = std::make_shared<RecordingDelegate>();
    connecter->setDelegate(transient);
    transient.reset();
    events().centralManagerDidConnectPeripheral(*central, peripheral);
    EXPECT_EQ(connecter->delegate(), nullptr);
    EXPECT_TRUE(delegate->heard.empty());
}

// A new central replaces the old without stopping or detaching it;
// destruction detaches the current one.
TEST_F(ConnecterWithRecordingCentral, OwnsOneCentralAndDetachesOnDestruction) {
    EXPECT_EQ(central->label_, "Corebluetooth");
    connecter->createCBManager();
    ASSERT_EQ(backend->centrals.size(), 2u);
    auto replacement = backend->centrals[1];
    EXPECT_EQ(connecter->cbManager(), replacement);
    EXPECT_TRUE(central->ops.empty());
    EXPECT_NE(central->delegate(), nullptr);
    connecter.reset();
    EXPECT_EQ(replacement->delegate(), nullptr);
}

TEST(BLEConnecterCBUUIDToInt, SignExtendsTheSecondByte) {
    const std::pair<const char*, std::uint16_t> cases[] = {
        {"2A19", 0x2A19},
        {"EF80", 0xFF80},  // 0x80 sign-extends over the high byte
        {"2A81", 0xFF81},
        {"807F", 0x807F},  // a negative first byte alone keeps its value
        {"12345678", 0x1234},
        {"ABCDEF01-0000-0000-0000-000000000000", 0xFFCD},
        {"00000000-0000-0000-0000-000000000000", 0},
    };
    for (const auto& [uuid, expected] : cases) {
        EXPECT_EQ(BLEConnecter::CBUUIDToInt(bt::Uuid::fromString(uuid)), expected) << uuid;
    }
}

}  // namespace
}  // namespace plenk
