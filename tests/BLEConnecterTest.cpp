// The connecter against a recording central (exact port calls, options and
// their order) and against the simulated radio (what a delegate really hears).
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ble/BLEConnecterCore.h"
#include "bt/Backend.h"
#include "support/ForeignPeripheral.h"
#include "support/SimHarness.h"

namespace plenk {
namespace {

// --- a central that records every command ------------------------------------

class RecordingCentral final : public bt::Central {
public:
    bt::ManagerState state() const override { return state_; }
    void setDelegate(std::weak_ptr<bt::CentralDelegate> delegate) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
    }
    std::string queueLabel() const override { return label_; }
    bool isOnQueue() const override { return false; }
    void scanForPeripheralsWithServices(const std::optional<std::vector<bt::Uuid>>& services,
                                        const bt::ScanOptions& options) override {
        std::string filter = "all";
        if (services) {
            filter.clear();
            for (const auto& s : *services) filter += s.toString();
        }
        record("scan " + filter + (options.allowDuplicates ? " dup" : " nodup"));
    }
    void stopScan() override { record("stopScan"); }
    bool isScanning() const override { return false; }
    void connectPeripheral(const bt::PeripheralPtr&, const bt::ConnectOptions& options) override {
        record(std::string("connect") + (options.notifyOnConnection ? " onConnect" : "") +
               (options.notifyOnDisconnection ? " onDisconnect" : ""));
    }
    void cancelPeripheralConnection(const bt::PeripheralPtr&) override { record("cancel"); }
    std::vector<bt::PeripheralPtr> retrieveConnectedPeripheralsWithServices(
        const std::vector<bt::Uuid>& services) override {
        record("retrieveConnected " + std::to_string(services.size()));
        return retrieved;
    }
    std::vector<bt::PeripheralPtr> retrievePeripheralsWithIdentifiers(
        const std::vector<bt::Uuid>& ids) override {
        record("retrieveKnown " + std::to_string(ids.size()));
        return retrieved;
    }

    std::shared_ptr<bt::CentralDelegate> delegate() const {
        std::lock_guard lock(mutex_);
        return delegate_.lock();
    }
    void record(std::string op) {
        std::lock_guard lock(mutex_);
        ops_.push_back(std::move(op));
    }
    std::vector<std::string> ops() const {
        std::lock_guard lock(mutex_);
        return ops_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        ops_.clear();
    }

    bt::ManagerState state_ = bt::ManagerState::Unknown;
    std::string label_;
    std::vector<bt::PeripheralPtr> retrieved;

private:
    mutable std::mutex mutex_;
    std::weak_ptr<bt::CentralDelegate> delegate_;
    std::vector<std::string> ops_;
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
        add({"discover", std::nullopt, p, {}});
    }
    void connecterDidConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                               const ConnecterUserInfo& info) override {
        add({"connect", info, p, {}});
    }
    void connecterDidDisconnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                                  const ConnecterUserInfo& info) override {
        add({"disconnect", info, p, {}});
    }
    void connecterDidFailToConnectPeripheralUserInfo(BLEConnecter&, const PeripheralPtr& p,
                                                     const std::optional<ConnecterUserInfo>& info) override {
        add({"fail", info, p, {}});
    }
    void connecterDidDidUpdateStateWithUserInfo(BLEConnecter&,
                                                const std::optional<ConnecterUserInfo>& info) override {
        add({"state", info, nullptr, {}});
    }

    std::vector<Heard> heard() const {
        std::lock_guard lock(mutex_);
        return heard_;
    }

    std::shared_ptr<RecordingCentral> central;  // to snapshot its log at each call
    std::function<void()> onEvent;              // runs inside every event

private:
    void add(Heard h) {
        if (onEvent) onEvent();
        if (central) h.opsAtCall = central->ops();
        std::lock_guard lock(mutex_);
        heard_.push_back(std::move(h));
    }
    mutable std::mutex mutex_;
    std::vector<Heard> heard_;
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
        {"retrieveDevice connects without cancel",
         [](auto& c, auto& p) { c.retrieveDeviceWithPeripheral(p); },
         {"connect onConnect onDisconnect"},
         true},
        {"disconnect", [](auto& c, auto& p) { c.disconnect(p); }, {"cancel"}, true},
        {"cancelConnect", [](auto& c, auto& p) { c.cancelConnectDeviceWithPeripheral(p); }, {"cancel"}, true},
        {"disconnectedAlert does nothing", [](auto& c, auto&) { c.disconnectedAlert(); }, {}},
    };
    // A handle the library did not hand out, or none, reaches no central.
    const PeripheralPtr foreign = std::make_shared<test::ForeignPeripheral>();
    for (const auto& c : cases) {
        central->clear();
        c.command(*connecter, peripheral);
        EXPECT_EQ(central->ops(), c.ops) << c.name;
        if (!c.onAPeripheral) continue;
        central->clear();
        c.command(*connecter, foreign);
        c.command(*connecter, nullptr);
        EXPECT_TRUE(central->ops().empty()) << c.name;
    }
}

TEST_F(ConnecterWithRecordingCentral, RetrieveOperationsReturnTheCentralsLists) {
    central->retrieved = {peripheral};
    EXPECT_EQ(connecter->retrieveConnectedPeripheralWithServiceUUIDs({bt::Uuid::from16(0xFF08)}),
              std::vector<PeripheralPtr>{peripheral});
    EXPECT_EQ(connecter->retrievePeripheralWithIdentifiers({peripheral->identifier(), bt::Uuid::random()}),
              std::vector<PeripheralPtr>{peripheral});
    EXPECT_EQ(central->ops(), (std::vector<std::string>{"retrieveConnected 1", "retrieveKnown 2"}));
    EXPECT_TRUE(delegate->heard().empty());
}

TEST_F(ConnecterWithRecordingCentral, RadioStatesMapToKeysAndStopScanBeforeTheDelegateHears) {
    struct Case {
        bt::ManagerState state;
        std::optional<std::string_view> key;
        bool stopsScan;
    };
    const Case cases[] = {
        {bt::ManagerState::Unknown, std::nullopt, false},
        {bt::ManagerState::Resetting, std::nullopt, false},
        {bt::ManagerState::Unsupported, kBleNotSupport, true},
        {bt::ManagerState::Unauthorized, kBleUnauthorized, true},
        {bt::ManagerState::PoweredOff, kBlePowerOff, true},
        {bt::ManagerState::PoweredOn, kBlePowerOn, false},
        {static_cast<bt::ManagerState>(42), std::nullopt, false},
    };
    for (const auto& c : cases) {
        central->clear();
        central->state_ = c.state;
        const auto before = delegate->heard().size();
        events().centralManagerDidUpdateState(*central);
        const auto heard = delegate->heard();
        ASSERT_EQ(heard.size(), before + 1);
        const auto& h = heard.back();
        EXPECT_EQ(h.event, "state");
        const std::vector<std::string> stop =
            c.stopsScan ? std::vector<std::string>{"stopScan"} : std::vector<std::string>{};
        EXPECT_EQ(h.opsAtCall, stop) << static_cast<int>(c.state);
        EXPECT_EQ(central->ops(), stop);
        ASSERT_EQ(h.userInfo.has_value(), c.key.has_value()) << static_cast<int>(c.state);
        if (c.key) {
            EXPECT_TRUE(h.userInfo->has(*c.key));
            EXPECT_EQ(h.userInfo->key, *c.key);
            EXPECT_EQ(h.userInfo->connecter(), connecter.get());
        }
    }
}

TEST_F(ConnecterWithRecordingCentral, RetrievedPeripheralsAreConnectedOnTheReportingCentralSilently) {
    RecordingCentral other;
    auto second = std::make_shared<InertPeripheral>();
    events().centralManagerDidRetrievePeripherals(other, {peripheral, second});
    events().centralManagerDidRetrieveConnectedPeripherals(other, {peripheral});
    EXPECT_EQ(other.ops(), (std::vector<std::string>{"connect onDisconnect", "connect onDisconnect"}));
    EXPECT_TRUE(central->ops().empty());
    EXPECT_TRUE(delegate->heard().empty());
}

TEST_F(ConnecterWithRecordingCentral, ADelegateThatIsGoneOrUnsetHearsNothing) {
    connecter->setDelegate({});
    central->state_ = bt::ManagerState::PoweredOff;
    events().centralManagerDidUpdateState(*central);
    EXPECT_EQ(central->ops(), std::vector<std::string>{"stopScan"});  // the stop is not the delegate's
    EXPECT_TRUE(delegate->heard().empty());

    auto transient = std::make_shared<RecordingDelegate>();
    connecter->setDelegate(transient);
    transient.reset();
    events().centralManagerDidConnectPeripheral(*central, peripheral);  // must not crash
    EXPECT_EQ(connecter->delegate(), nullptr);
}

// One central on the "Corebluetooth" queue; a new one replaces it without
// stopping or detaching the old; destruction detaches the current one.
TEST_F(ConnecterWithRecordingCentral, OwnsOneCentralAndDetachesOnDestruction) {
    EXPECT_EQ(central->label_, "Corebluetooth");
    connecter->createCBManager();
    ASSERT_EQ(backend->centrals.size(), 2u);
    auto replacement = backend->centrals[1];
    EXPECT_EQ(connecter->cbManager(), replacement);
    EXPECT_TRUE(central->ops().empty());
    EXPECT_NE(central->delegate(), nullptr);

    std::weak_ptr<BLEConnecter> weak = connecter;
    connecter.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(replacement->delegate(), nullptr);
}

TEST(BLEConnecterCBUUIDToInt, SignExtendsTheSecondByte) {
    struct Case {
        const char* uuid;
        std::uint16_t expected;
    };
    const Case cases[] = {
        {"2A19", 0x2A19},
        {"FF08", 0xFF08},
        {"180A", 0x180A},
        {"EF80", 0xFF80},  // 0x80 sign-extends over the high byte
        {"EF81", 0xFF81},
        {"2A80", 0xFF80},
        {"807F", 0x807F},  // a negative first byte alone keeps its value
        {"00001530-1212-EFDE-1523-785FEABCD123", 0x0000},
        {"12345678", 0x1234},
        {"ABCDEF01-0000-0000-0000-000000000000", 0xFFCD},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BLEConnecter::CBUUIDToInt(bt::Uuid::fromString(c.uuid)), c.expected) << c.uuid;
    }
    EXPECT_EQ(BLEConnecter::CBUUIDToInt(bt::Uuid{}), 0);
}

// --- on the simulated radio --------------------------------------------------

class ConnecterOnSim : public ::testing::Test {
protected:
    ConnecterOnSim() : h(options()) {}
    static test::SimHarnessOptions options() {
        test::SimHarnessOptions o;
        o.radio = std::nullopt;  // nothing reported until a test powers on
        return o;
    }
    void SetUp() override {
        delegate->onEvent = [this] {
            if (!connecter->cbManager()->isOnQueue()) ++offQueue;
        };
        connecter = BLEConnecterCore::create(delegate, h.context);
        h.settle();
    }
    std::vector<std::string> keys() const {
        std::vector<std::string> out;
        for (const auto& e : delegate->heard()) {
            out.push_back(e.event + (e.userInfo ? " " + e.userInfo->key : ""));
        }
        return out;
    }

    test::SimHarness h;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::shared_ptr<BLEConnecterCore> connecter;
    std::atomic<int> offQueue{0};
};

// Events arrive on the central's queue with one key each: a connection error
// is passed on, a disconnect error only through its key, a failure without an
// error has no user info.
TEST_F(ConnecterOnSim, LinkEventsFromTheRadio) {
    auto scale = h.addScale();
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    h.settle();
    auto known = connecter->retrievePeripheralWithIdentifiers({scale->identifier()});
    ASSERT_EQ(known.size(), 1u);
    const auto p = known[0];

    scale->queueConnectResult(sim::ConnectResult::failWithCode(kPlatformConnectionTimeout));
    scale->queueConnectResult(sim::ConnectResult::fail());
    for (int i = 0; i < 3; ++i) {
        connecter->connectDeviceWithPeripheral(p);
        h.settle();
    }
    scale->dropLink(platformError(kPlatformConnectionTimeout));
    h.settle();
    connecter->retrieveDeviceWithPeripheral(p);  // despite its name, it connects
    h.settle();
    connecter->disconnect(p);
    h.settle();
    h.world->setRadioState(bt::ManagerState::PoweredOff);
    h.settle();

    EXPECT_EQ(keys(), (std::vector<std::string>{"state ble_power_on", "fail ble_error_connection_error",
                                                "fail", "connect ble_conneted",
                                                "disconnect ble_error_disconnected", "connect ble_conneted",
                                                "disconnect ble_disconnected", "state ble_power_off"}));
    const auto heard = delegate->heard();
    EXPECT_EQ(heard[1].userInfo->error()->code(), kPlatformConnectionTimeout);
    EXPECT_EQ(heard[4].userInfo->error(), nullptr);
    for (std::size_t i = 1; i + 1 < heard.size(); ++i) {
        EXPECT_EQ(heard[i].peripheral, p) << i;
        if (heard[i].userInfo && i != 1) {
            EXPECT_EQ(heard[i].userInfo->peripheral(), p) << i;
        }
    }
    EXPECT_EQ(heard.back().userInfo->connecter(), connecter.get());
    EXPECT_EQ(offQueue, 0);
}

}  // namespace
}  // namespace plenk
