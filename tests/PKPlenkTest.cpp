// The public facade: every kit event once more hopped onto the main queue for
// the host's delegate, in event order with the completions, the host
// operations, the deliberate auto-connect mismatch, and lifetimes (delegate, data source or facade released
// with work still queued).

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Log = std::vector<std::string>;

class Facade : public ::testing::Test {
protected:
    ~Facade() override {
        plenk.reset();
        h.settle();
    }
    // With auto-connect off the radio reports nothing until the flag is off.
    void make(bool autoConnect = true) {
        const auto radio = h.world->radioState();
        if (!autoConnect) h.world->setRadioState(std::nullopt);
        plenk = PKPlenk::create(h.context);
        plenk->setDelegate(host);
        if (!autoConnect) {
            plenk->setIsAutoConnectEnabled(false);
            h.world->setRadioState(radio);
        }
    }

    SimHarness h;
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>(h.mainLoop);
    std::shared_ptr<PKPlenk> plenk;
};

TEST_F(Facade, EventsReachTheHostOnTheMainQueueAndCommandsTheScale) {
    auto scale = h.addScale();
    make();
    h.settle();
    EXPECT_TRUE(plenk->isConnected());
    scale->clearWrites();
    plenk->tare();
    h.settle();
    EXPECT_EQ(commandFrames(scale), (std::vector<std::vector<std::uint8_t>>{{0x10}}));
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 12.5f));
    h.settle();
    scale->pressButton(0);
    h.settle();
    scale->dropLink(platformError(kPlatformConnectionTimeout));
    h.settle();
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"connected", "weight 12.5", "button 0",
                                                          "disconnected", "connected"}));
    EXPECT_EQ(host->offMainThread, 0);
}

TEST_F(Facade, KitEventsAreQueuedNeverDeliveredInsideTheKitsCall) {
    make();
    auto& kit = *plenk->rosta();
    plenk->rostaWeightDidUpdate(12.5f);
    plenk->rostaDidErrorOccur(kit, Error::make<RKErrorLEWriteC>(RKErrorDomain, 109));
    plenk->rostaDeviceDidClickButton(1);
    plenk->rostaDidDisconnected(kit);
    plenk->rostaDidConnected(kit);
    EXPECT_TRUE(host->snapshot().empty());
    h.mainLoop->runUntilIdle();
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"weight 12.5", "error 109", "button 1",
                                                          "disconnected", "connected"}));
    EXPECT_EQ(host->weights(), (std::vector<float>{12.5f}));  // exactly, no conversion
    EXPECT_TRUE(isKind<RKErrorLEWriteC>(host->errors().at(0)));
}

// Completions and delegate events reach the host in the order they happened:
// a weight notified before a battery answer arrives first, and the picker's
// success follows plenkDidConnected.
TEST_F(Facade, CompletionsAndEventsArriveInEventOrder) {
    auto scale = h.addScale();
    make(false);
    h.settle();
    auto presenter = std::make_shared<RecordingPresenter>();
    plenk->showDevicePickerOnViewContoller(
        presenter, [this](const ErrorPtr& error) { host->add(error ? "picker error" : "picker success"); });
    h.settle();
    ASSERT_NE(presenter->presented, nullptr);
    presenter->presented->tableViewDidSelectRowAtIndexPath({0, 0});
    h.settle();
    ASSERT_TRUE(plenk->isConnected());

    // Both events wait on the Bluetooth queue, the weight first.
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 3.0f));
    plenk->readPlenkBatteryLifeWithCompletion(
        [this](std::int64_t level) { host->add("battery " + std::to_string(level)); });
    h.settle();
    EXPECT_EQ(host->snapshot(),
              (std::vector<std::string>{"connected", "picker success", "weight 3", "battery 85"}));
    EXPECT_EQ(host->offMainThread, 0);
}

TEST_F(Facade, AutoConnectFlagStartsOffWhileTheKitAutoConnects) {
    make();
    EXPECT_FALSE(plenk->isAutoConnectEnabled());
    EXPECT_TRUE(plenk->rosta()->isAutoConnectEnabled());
    plenk->setIsAutoConnectEnabled(true);
    EXPECT_TRUE(plenk->isAutoConnectEnabled());
    EXPECT_TRUE(plenk->rosta()->isAutoConnectEnabled());
    plenk->setIsAutoConnectEnabled(false);
    EXPECT_FALSE(plenk->isAutoConnectEnabled());
    EXPECT_FALSE(plenk->rosta()->isAutoConnectEnabled());
}

// Both set the continuous flag first, with or without a device: a fake
// interrupt of a picked scale is held, a disconnect is not.
TEST_F(Facade, FakeInterruptIsHeldAndDisconnectIsNot) {
    auto scale = h.addScale();
    make(false);
    auto kit = plenk->rosta();
    plenk->disconnect();
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
    plenk->fakeInterrupt();
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());
    kit->scanDeivces();
    h.settle();
    ASSERT_TRUE(plenk->isConnected());

    plenk->fakeInterrupt();
    h.settle();
    EXPECT_EQ(scale->linkCount(), 1u);
    EXPECT_EQ(host->snapshot(), Log{"connected"});
    plenk->disconnect();
    h.settle();
    EXPECT_FALSE(plenk->isConnected());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(host->snapshot(), (Log{"connected", "disconnected"}));
}

// --- Lifetimes ---------------------------------------------------------------------------------------------

TEST_F(Facade, HostDelegateReleasedBeforeQueuedWorkRunsHearsNothing) {
    make();
    auto& kit = *plenk->rosta();
    plenk->rostaDidConnected(kit);
    plenk->rostaWeightDidUpdate(1.0f);
    std::weak_ptr<RecordingDelegate> weak = host;
    host.reset();
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(weak.expired());

    // Cleared rather than released: the same.
    auto second = std::make_shared<RecordingDelegate>(h.mainLoop);
    plenk->setDelegate(second);
    plenk->rostaWeightDidUpdate(2.0f);
    plenk->setDelegate({});
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(second->snapshot().empty());
}

TEST_F(Facade, QueuedWorkKeepsAReleasedFacadeAliveUntilItHasRun) {
    make();
    auto kit = plenk->rosta();
    plenk->rostaWeightDidUpdate(3.0f);
    std::weak_ptr<PKPlenk> weak = plenk;
    plenk.reset();
    EXPECT_FALSE(weak.expired());
    // The kit's delegate was not yet cleared: the facade still exists.
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"weight 3"}));
    EXPECT_EQ(kit->delegate(), nullptr);  // cleared by the facade's destruction
}

TEST_F(Facade, ReleasingTheFacadeWhileConnectedTearsTheLinkDown) {
    auto scale = h.addScale();
    make();
    h.settle();
    ASSERT_EQ(scale->linkCount(), 1u);
    std::weak_ptr<RKRostaKit> kit = plenk->rosta();
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 5.0f));
    plenk.reset();
    h.settle();
    EXPECT_TRUE(kit.expired());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(host->count("weight 5"), 0u);
}

class Colours final : public PKPlenkDataSource {
public:
    std::optional<std::string> titleForSelectAccessoryModalViewController() override { return "Scales"; }
    std::optional<Color> navigationBarColorForSelectAccessoryModalViewController() override {
        return Color{1, 0, 0, 1};
    }
};

TEST_F(Facade, DataSourceQuestionsAreAnsweredAtOnceOrWithNothing) {
    make();
    EXPECT_EQ(plenk->titleForSelectAccessoryModalViewController(), std::nullopt);
    auto colours = std::make_shared<Colours>();
    plenk->setDataSource(colours);
    EXPECT_EQ(plenk->titleForSelectAccessoryModalViewController(), "Scales");
    EXPECT_EQ(plenk->deviceStringForSelectAccessoryModalViewController(), std::nullopt);
    EXPECT_EQ(plenk->backgroundColorForSelectAccessoryModalViewController(), std::nullopt);
    EXPECT_EQ(plenk->navigationBarColorForSelectAccessoryModalViewController(), (Color{1, 0, 0, 1}));
    // The kit asks the facade.
    EXPECT_EQ(plenk->rosta()->dataSource()->titleForSelectAccessoryModalViewController(), "Scales");
    colours.reset();
    EXPECT_EQ(plenk->titleForSelectAccessoryModalViewController(), std::nullopt);
}

TEST_F(Facade, ReplacingTheKitKeepsTheFacadeWorking) {
    make();
    auto other = RKRostaKit::create(h.context);
    std::weak_ptr<RKRostaKit> first = plenk->rosta();
    plenk->setRosta(other);
    h.settle();  // a Bluetooth event may still hold the old kit for a moment
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(plenk->rosta(), other);
    plenk->setRosta(nullptr);
    plenk->tare();
    plenk->disconnect();
    EXPECT_FALSE(plenk->isConnected());
    other.reset();
    h.settle();
}

}  // namespace
}  // namespace plenk::test
