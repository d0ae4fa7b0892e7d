// The kit's connection lifecycle on the simulated radio: finding and filtering
// scales, the road of one connection and one weight, the tare of every fresh
// connection, holding a dropped link, the reconnect watchdog and the rules of
// the auto-connect flag.

#include <chrono>

#include "RKRostaKitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;

class KitLifecycle : public KitFixture {};

TEST_F(KitLifecycle, AutoConnectsTheFirstScaleAndTaresIt) {
    auto scale = h.addScale();
    makeKit();
    h.settle();

    EXPECT_EQ(kit->leState(), RKRostaKit::kLEStatePoweredOn);
    EXPECT_TRUE(kit->isConnected());
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));
    EXPECT_EQ(tares(scale), 1u);
    EXPECT_EQ(notes.count("Connect"), 1u);
    EXPECT_GE(notes.count("log: didDiscoverPeripheral"), 1u);
    EXPECT_FALSE(scanning());
    // An auto-connected scale is never held through a link loss.
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
    EXPECT_EQ(delegate->offMainThread, 0);
}

TEST_F(KitLifecycle, EveryWeightReachesTheDelegateUnchangedAndInOrder) {
    auto scale = h.addScale();
    makeKit();
    h.settle();
    ASSERT_TRUE(kit->isConnected());

    const std::vector<float> sent{12.5f, -3.0f, 0.0f, 1234.5f, 12.5f};
    for (float grams : sent) scale->notify(wire::kDataCharacteristic, weightPacket(scale, grams));
    h.settle();

    std::lock_guard lock(delegate->mutex);
    EXPECT_EQ(delegate->weights, sent);
    EXPECT_EQ(delegate->offMainThread, 0);
}

TEST_F(KitLifecycle, TextWeightsOfCoffeeScalesAreDecodedByName) {
    auto scale = h.addScale("Coffee Scale", emulator::WeightFormat::Text);
    makeKit();
    h.settle();
    scale->notify(wire::kDataCharacteristic, bt::Bytes{'3', '6', '4'});
    h.settle();
    std::lock_guard lock(delegate->mutex);
    EXPECT_EQ(delegate->weights, (std::vector<float>{36.4f}));
}

struct NameCase {
    std::optional<std::string> name;
    bool accepted;
};
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const NameCase& c, std::ostream* os) {
    *os << c.name.value_or("(no name)");
}

class KitNameFilter : public KitFixture, public ::testing::WithParamInterface<NameCase> {};

TEST_P(KitNameFilter, OnlyScaleNamesAreConnected) {
    auto scale = h.addScale();
    scale->setName(GetParam().name);
    makeKit();
    h.settle();
    EXPECT_EQ(kit->isConnected(), GetParam().accepted);
    EXPECT_EQ(scale->linkCount(), GetParam().accepted ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Names, KitNameFilter,
                         ::testing::Values(NameCase{"My Plenk 2", true}, NameCase{"Coffee Scale", true},
                                           NameCase{"Plenk", true}, NameCase{"plenk", false},
                                           NameCase{"COFFEE", false}, NameCase{"Kitchen Scale", false},
                                           NameCase{std::nullopt, false},
                                           // An update target is connected only when armed.
                                           NameCase{"Plenk DfuTarg", false}));

TEST_F(KitLifecycle, FirstAcceptableAdvertisementWinsAndASecondLinkIsRefused) {
    auto first = h.addScale("Plenk A");
    auto second = h.addScale("Plenk B");
    makeKit();
    h.settle();
    EXPECT_EQ(first->linkCount() + second->linkCount(), 1u);
    EXPECT_EQ(delegate->count("connected"), 1u);

    // A stray link-up while a device exists is dropped, not adopted.
    auto other = first->linkCount() == 1 ? second : first;
    auto device = kit->currentDevice();
    kit->connecter()->connectDeviceWithPeripheral(
        kit->connecter()->retrievePeripheralWithIdentifiers({other->identifier()}).at(0));
    h.settle();
    EXPECT_EQ(other->linkCount(), 0u);
    EXPECT_EQ(kit->currentDevice(), device);
}

TEST_F(KitLifecycle, LinkLossInAutoModeTearsDownAndConnectsAFreshTime) {
    auto scale = h.addScale();
    makeKit();
    h.settle();
    ASSERT_TRUE(kit->isConnected());
    std::weak_ptr<RKDevice> firstDevice = kit->currentDevice();

    scale->dropLink(platformError(kPlatformConnectionTimeout));
    h.settle();

    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "disconnected", "connected"}));
    EXPECT_EQ(h.log->count(" $ normal disconnection "), 1u);
    EXPECT_TRUE(firstDevice.expired());
    EXPECT_TRUE(kit->isConnected());
    // Every fresh connection zeroes the scale once.
    EXPECT_EQ(tares(scale), 2u);
    EXPECT_EQ(notes.count("Reconnect"), 0u);
}

TEST_F(KitLifecycle, HeldConnectionComesBackSilently) {
    auto scale = h.addScale();
    connectHeld();
    const auto device = kit->currentDevice();
    notes.clear();

    scale->dropLink(platformError(kPlatformConnectionTimeout));
    h.settle();

    EXPECT_TRUE(kit->isConnected());
    EXPECT_EQ(kit->currentDevice(), device);  // the same device object took the new link
    EXPECT_EQ(scale->linkCount(), 1u);
    EXPECT_EQ(notes.count("Reconnect"), 1u);
    EXPECT_EQ(notes.count("Connect"), 1u);
    EXPECT_EQ(notes.count("log: $  connectedDevices count 0 "), 1u);
    EXPECT_EQ(notes.count("log: $  retrieveDevices count 1 "), 1u);
    EXPECT_EQ(notes.count("log: $  thePeripheral state 0 "), 1u);
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));
    EXPECT_EQ(tares(scale), 1u);

    // The watchdog finds the link up and leaves it alone.
    h.advance(3s);
    EXPECT_EQ(notes.count("log: $  second thePeripheral state 2 "), 1u);
    EXPECT_TRUE(kit->isConnected());
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));

    // Weights flow again through the renewed link.
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 7.0f));
    h.settle();
    EXPECT_EQ(delegate->count("weight 7"), 1u);
}

TEST_F(KitLifecycle, SystemHeldScaleIsTakenBackUnderTheWatchdog) {
    auto scale = h.addScale();
    connectHeld();
    scale->setConnectedToSystem(true);
    notes.clear();

    scale->dropLink();
    h.settle();
    EXPECT_EQ(notes.count("log: $  connectedDevices count 1 "), 1u);
    EXPECT_EQ(notes.count("Reconnect"), 1u);
    EXPECT_EQ(h.clock->pendingTimers(), 1u);  // the watchdog bounds this road too
    EXPECT_TRUE(kit->isConnected());
    h.advance(3s);
    EXPECT_TRUE(kit->isConnected());  // relinked in time: left alone
    EXPECT_EQ(delegate->count("disconnected"), 0u);
}

TEST_F(KitLifecycle, WatchdogGivesUpAReconnectStillConnectingAfterThreeSeconds) {
    auto scale = h.addScale();
    connectHeld();
    scale->queueConnectResult(sim::ConnectResult::hang());

    scale->dropLink();
    h.advance(2900ms);
    EXPECT_TRUE(kit->isConnected());
    EXPECT_EQ(delegate->count("disconnected"), 0u);

    h.advance(100ms);
    EXPECT_EQ(notes.count("log: $  second thePeripheral state 1 "), 1u);
    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(kit->currentDevice(), nullptr);
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "disconnected"}));
    EXPECT_EQ(h.log->count(" $ normal disconnection "), 1u);
    // The hanging attempt was cancelled: nothing links up later.
    h.advance(10s);
    EXPECT_EQ(scale->linkCount(), 0u);
}

TEST_F(KitLifecycle, UnknownScaleIsNotHeld) {
    auto scale = h.addScale();
    connectHeld();
    scale->setKnownToSystem(false);

    scale->dropLink();
    h.settle();
    EXPECT_EQ(notes.count("log: $  retrieveDevices count 0 "), 1u);
    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "disconnected"}));
    EXPECT_FALSE(scanning());  // no rescan with auto-connect off
}

TEST_F(KitLifecycle, EachConnectOverwritesTheContinuousFlag) {
    h.addScale();
    makeKit(false);
    // No peripheral, or one the library did not hand out: nothing happens.
    kit->setIsContinuousConnectionEnabled(false);
    kit->connectPeripheral(nullptr);
    kit->connectPeripheral(std::make_shared<ForeignPeripheral>());
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
    EXPECT_EQ(kit->connectingPeripheral(), nullptr);

    kit->setIsContinuousConnectionEnabled(true);
    kit->scanDeivces();
    h.settle();
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());

    kit->setIsContinuousConnectionEnabled(false);
    kit->disconnect();
    h.settle();
    EXPECT_FALSE(kit->isConnected());

    kit->setIsAutoConnectEnabled(true);  // scans and auto-connects
    h.settle();
    EXPECT_TRUE(kit->isConnected());
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
}

struct RadioCase {
    bt::ManagerState state;
    std::uint64_t leState;
};
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const RadioCase& c, std::ostream* os) {
    *os << "radio state " << static_cast<int>(c.state);
}

class KitRadioState : public ::testing::TestWithParam<RadioCase> {};

TEST_P(KitRadioState, EveryReportSetsTheStateCode) {
    SimHarness h(harnessWithRadio(GetParam().state));
    auto kit = RKRostaKit::create(h.context);
    h.settle();
    EXPECT_EQ(kit->leState(), GetParam().leState);
    EXPECT_EQ(BLEConnecterCore::of(*kit->connecter()).cbManager()->isScanning(),
              GetParam().leState == RKRostaKit::kLEStatePoweredOn);
    kit.reset();
    h.settle();
}

INSTANTIATE_TEST_SUITE_P(States, KitRadioState,
                         ::testing::Values(RadioCase{bt::ManagerState::PoweredOn, 104},
                                           RadioCase{bt::ManagerState::PoweredOff, 101},
                                           RadioCase{bt::ManagerState::Unsupported, 102},
                                           RadioCase{bt::ManagerState::Unauthorized, 103},
                                           RadioCase{bt::ManagerState::Unknown, 100},
                                           RadioCase{bt::ManagerState::Resetting, 100}));

class KitBeforePowerOn : public KitFixture {
protected:
    KitBeforePowerOn() : KitFixture(harnessWithRadio(std::nullopt)) {}
};

TEST_F(KitBeforePowerOn, PowerOnWithAutoConnectOffStartsNoScan) {
    h.addScale();
    makeKit();
    kit->setIsAutoConnectEnabled(false);
    h.settle();
    EXPECT_EQ(kit->leState(), 0u);  // nothing reported yet
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    h.settle();
    EXPECT_EQ(kit->leState(), RKRostaKit::kLEStatePoweredOn);
    EXPECT_FALSE(scanning());
    EXPECT_FALSE(kit->isConnected());
}

TEST_F(KitBeforePowerOn, BecomingActiveConnectsAScaleTheSystemHolds) {
    auto scale = h.addScale();
    scale->setAdvertising(false);
    scale->setConnectedToSystem(true);
    makeKit();
    kit->setIsAutoConnectEnabled(false);
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    h.settle();
    ASSERT_FALSE(kit->isConnected());

    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.settle();
    EXPECT_TRUE(kit->isConnected());
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());

    // Active again with a device: nothing happens.
    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));
}

TEST_F(KitBeforePowerOn, BecomingActiveWithoutSystemScaleStopsTheScanWhenAutoConnectIsOff) {
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    makeKit();
    kit->setIsAutoConnectEnabled(false);
    h.settle();
    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.settle();
    EXPECT_FALSE(scanning());

    // Going to the background changes nothing.
    h.notifications->post(UIApplicationDidEnterBackgroundNotification);
    h.settle();
    EXPECT_FALSE(scanning());
}

TEST_F(KitBeforePowerOn, EnablingAutoConnectLeavesASystemHeldScaleAlone) {
    auto scale = h.addScale();
    scale->setConnectedToSystem(true);
    makeKit();
    kit->setIsAutoConnectEnabled(false);
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    h.settle();

    kit->setIsAutoConnectEnabled(true);
    h.settle();
    EXPECT_FALSE(scanning());
    EXPECT_FALSE(kit->isConnected());

    kit->setIsAutoConnectEnabled(false);
    scale->setConnectedToSystem(false);
    kit->setIsAutoConnectEnabled(true);
    h.settle();
    EXPECT_TRUE(kit->isConnected());
}

TEST_F(KitLifecycle, ReleasedKitStopsTalkingToItsDelegate) {
    auto scale = h.addScale();
    makeKit();
    h.settle();
    ASSERT_TRUE(kit->isConnected());
    std::weak_ptr<RKDevice> device = kit->currentDevice();

    // Events already on their way when the kit goes are dropped.
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 1.0f));
    h.world->drainQueues();
    kit.reset();
    h.settle();
    EXPECT_TRUE(device.expired());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(delegate->count("weight 1"), 0u);
    EXPECT_EQ(h.world->centralCount(), 0u);
}

// --- Firmware-update hooks -----------------------------------------------------------------------

TEST_F(KitLifecycle, ArmedUpdateTargetIsConnectedAndHandedOver) {
    makeKit();
    h.settle();
    sim::PeripheralOptions options;
    options.name = "DfuTarg";
    options.advertisedServices = {wire::kDfuService};

    std::mutex mutex;
    std::vector<RKRostaKit::PeripheralPtr> handedOver;
    kit->setDiscoeredBlock([] {});
    kit->setConnectedBlock([&](const RKRostaKit::PeripheralPtr& p, const ErrorPtr& error) {
        std::lock_guard lock(mutex);
        EXPECT_EQ(error, nullptr);
        handedOver.push_back(p);
    });
    auto target = h.world->addPeripheral(options);
    kit->scanDeivces();
    h.settle();

    {
        std::lock_guard lock(mutex);
        ASSERT_EQ(handedOver.size(), 1u);
        EXPECT_EQ(handedOver[0]->identifier(), target->identifier());
    }
    EXPECT_EQ(kit->dfuPeripheral(), handedOver[0]);
    EXPECT_FALSE(kit->discoeredBlock());
    EXPECT_FALSE(kit->connectedBlock());
    EXPECT_EQ(kit->currentDevice(), nullptr);  // not a scale device

    target->dropLink();
    h.settle();
    EXPECT_EQ(kit->dfuPeripheral(), nullptr);
}

TEST_F(KitLifecycle, UnarmedUpdateTargetIsIgnored) {
    makeKit();
    h.settle();
    sim::PeripheralOptions options;
    options.name = "DfuTarg";
    auto target = h.world->addPeripheral(options);
    kit->scanDeivces();
    h.settle();
    EXPECT_EQ(target->linkCount(), 0u);
    EXPECT_EQ(dfu, 0);  // the exported global is never touched
}

}  // namespace
}  // namespace plenk::test
