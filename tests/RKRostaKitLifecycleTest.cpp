// The kit's connection lifecycle on the simulated radio: finding and filtering
// scales, holding a dropped link, the radio state, the application
// notifications and the auto-connect flag.

#include <chrono>

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;
using Log = std::vector<std::string>;

using KitLifecycle = KitFixture;

TEST_F(KitLifecycle, AutoConnectsTheFirstScaleTaresItAndPassesWeightsUnchanged) {
    auto first = h.addScale("Plenk A");
    auto second = h.addScale("Plenk B");
    makeKit();
    h.settle();
    EXPECT_EQ(first->linkCount() + second->linkCount(), 1u);
    auto scale = first->linkCount() == 1 ? first : second;
    EXPECT_EQ(tares(scale), 1u);
    EXPECT_EQ(notes->count("Connect"), 1u);
    EXPECT_FALSE(scanning());
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());  // never held through a link loss

    // A stray link-up while a device exists is dropped, not adopted.
    auto other = scale == first ? second : first;
    auto device = kit->currentDevice();
    kit->connecter()->connectDeviceWithPeripheral(
        kit->connecter()->retrievePeripheralWithIdentifiers({other->identifier()}).at(0));
    const std::vector<float> sent{12.5f, -3.0f, 0.0f, 1234.5f};
    for (float grams : sent) scale->notify(wire::kDataCharacteristic, weightPacket(scale, grams));
    h.settle();
    EXPECT_EQ(other->linkCount(), 0u);
    EXPECT_EQ(kit->currentDevice(), device);
    EXPECT_EQ(delegate->snapshot(),
              (Log{"connected", "weight 12.5", "weight -3", "weight 0", "weight 1234.5"}));
    EXPECT_EQ(delegate->weights(), sent);
    EXPECT_EQ(delegate->offMainThread, 0);
}

// Every radio report sets the state code and only power-on scans; only scale
// names are connected, and the scan stops once one is.
TEST(KitStart, RadioStateCodesAndNameFilter) {
    using enum RadioState;  // the enum itself: clang 14 refuses its alias bt::ManagerState here
    const struct {
        std::optional<std::string> name;
        bt::ManagerState radio;
        std::uint64_t code;
        bool linked;
    } cases[] = {
        {"My Plenk 2", PoweredOn, 104, true},     {"Coffee Scale", PoweredOn, 104, true},
        {"Plenk", PoweredOn, 104, true},          {"plenk", PoweredOn, 104, false},
        {"COFFEE", PoweredOn, 104, false},        {std::nullopt, PoweredOn, 104, false},
        {"Plenk DfuTarg", PoweredOn, 104, false}, {"Plenk", PoweredOff, 101, false},
        {"Plenk", Unsupported, 102, false},       {"Plenk", Unauthorized, 103, false},
        {"Plenk", Unknown, 100, false},           {"Plenk", Resetting, 100, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.value_or("(no name)") + " radio " + std::to_string(static_cast<int>(c.radio)));
        SimHarness h(SimHarnessOptions{.radio = c.radio});
        auto scale = h.addScale();
        scale->setName(c.name);
        auto kit = RKRostaKit::create(h.context);
        h.settle();
        EXPECT_EQ(kit->leState(), c.code);
        EXPECT_EQ(scale->linkCount(), c.linked ? 1u : 0u);
        EXPECT_EQ(BLEConnecterCore::of(*kit->connecter()).cbManager()->isScanning(),
                  c.code == 104 && !c.linked);
        kit.reset();
        h.settle();
    }
}

// A held link that drops comes back silently on the same device, reconnected
// directly or taken back from the system; a reconnect still pending after
// three seconds is given up.
TEST_F(KitLifecycle, HeldLinkIsRelinkedSilentlyUntilTheWatchdogGivesUp) {
    auto scale = h.addScale();
    connectHeld();
    const auto device = kit->currentDevice();
    for (bool systemHeld : {false, true}) {
        scale->setConnectedToSystem(systemHeld);
        scale->dropLink(platformError(kPlatformConnectionTimeout));
        h.advance(3s);
        EXPECT_EQ(kit->currentDevice(), device);
        EXPECT_EQ(notes->count(systemHeld ? "log: $  connectedDevices count 1 "
                                          : "log: $  retrieveDevices count 1 "),
                  1u);
    }
    EXPECT_EQ(notes->count("Reconnect"), 2u);
    EXPECT_EQ(notes->count("log: $  second thePeripheral state 2 "), 2u);
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 7.0f));
    h.settle();
    EXPECT_EQ(tares(scale), 1u);

    scale->queueConnectResult(sim::ConnectResult::hang());
    scale->dropLink();
    h.advance(2900ms);
    EXPECT_TRUE(kit->isConnected());
    h.advance(100ms);
    EXPECT_EQ(notes->count("log: $  second thePeripheral state 1 "), 1u);
    EXPECT_EQ(delegate->snapshot(), (Log{"connected", "weight 7", "disconnected"}));
}

TEST_F(KitLifecycle, EachConnectOverwritesTheContinuousFlag) {
    h.addScale();
    makeKit(false);
    // No peripheral, or one the library did not hand out: nothing happens.
    kit->connectPeripheral(nullptr);
    kit->connectPeripheral(std::make_shared<ForeignPeripheral>());
    EXPECT_EQ(kit->connectingPeripheral(), nullptr);

    kit->setIsContinuousConnectionEnabled(true);  // a scan without a picker connects only so
    kit->scanDeivces();
    h.settle();
    EXPECT_TRUE(kit->isConnected());

    kit->setIsContinuousConnectionEnabled(false);
    kit->disconnect();
    h.settle();
    kit->setIsAutoConnectEnabled(true);
    h.settle();
    EXPECT_TRUE(kit->isConnected());
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
}

// Auto-connect off before the radio reports: power-on, becoming active or
// enabling auto-connect start no scan; becoming active takes over a scale the
// system holds.
class KitBeforePowerOn : public KitFixture {
protected:
    KitBeforePowerOn() : KitFixture(SimHarnessOptions{.radio = std::nullopt}) {}
};

TEST_F(KitBeforePowerOn, OnlyASystemHeldScaleIsTakenOverWhenActive) {
    auto scale = h.addScale();
    makeKit();
    kit->setIsAutoConnectEnabled(false);
    h.settle();
    EXPECT_EQ(kit->leState(), 0u);
    h.world->setRadioState(bt::ManagerState::PoweredOn);
    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.notifications->post(UIApplicationDidEnterBackgroundNotification);
    h.settle();
    EXPECT_EQ(kit->leState(), RKRostaKit::kLEStatePoweredOn);
    EXPECT_FALSE(scanning());
    EXPECT_FALSE(kit->isConnected());

    scale->setConnectedToSystem(true);
    kit->setIsAutoConnectEnabled(true);
    h.settle();
    EXPECT_FALSE(scanning());
    EXPECT_FALSE(kit->isConnected());

    kit->setIsAutoConnectEnabled(false);
    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.settle();
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());
    h.notifications->post(UIApplicationDidBecomeActiveNotification);
    h.settle();
    EXPECT_EQ(delegate->snapshot(), Log{"connected"});
}

// Only an armed kit connects an update target, and hands it over.
TEST_F(KitLifecycle, UpdateTargetIsConnectedOnlyWhenArmed) {
    makeKit();
    h.settle();
    sim::PeripheralOptions options;
    options.name = "DfuTarg";
    options.advertisedServices = {wire::kDfuService};
    auto target = h.world->addPeripheral(options);
    kit->scanDeivces();
    h.settle();
    EXPECT_EQ(target->linkCount(), 0u);
    EXPECT_EQ(dfu, 0);  // the exported global is never touched

    std::atomic<int> handedOver{0};
    kit->setDiscoeredBlock([] {});
    kit->setConnectedBlock([&](const RKRostaKit::PeripheralPtr& p, const ErrorPtr& error) {
        if (!error && p->identifier() == target->identifier()) ++handedOver;
    });
    kit->scanDeivces();
    h.settle();
    EXPECT_EQ(handedOver, 1);
    EXPECT_EQ(kit->dfuPeripheral()->identifier(), target->identifier());
    EXPECT_FALSE(kit->connectedBlock());
    EXPECT_EQ(kit->currentDevice(), nullptr);
    target->dropLink();
    h.settle();
    EXPECT_EQ(kit->dfuPeripheral(), nullptr);
}

}  // namespace
}  // namespace plenk::test
