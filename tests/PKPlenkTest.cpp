// The public facade: every kit event hopped once more onto the main queue, in
// event order with the completions; the host operations, the deliberate
// auto-connect mismatch, and lifetimes with work still queued.

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Log = std::vector<std::string>;

using Facade = FacadeFixture;

TEST_F(Facade, KitEventsAreQueuedAndReachOnlyALiveDelegate) {
    makeFacade();
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
    EXPECT_TRUE(isKind<RKErrorLEWriteC>(host->errors().at(0)));

    // A host delegate released or cleared before queued work runs hears nothing.
    plenk->rostaWeightDidUpdate(1.0f);
    std::weak_ptr<RecordingDelegate> weak = host;
    host.reset();
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(weak.expired());
    auto second = std::make_shared<RecordingDelegate>(h.mainLoop);
    plenk->setDelegate(second);
    plenk->rostaWeightDidUpdate(2.0f);
    plenk->setDelegate({});
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(second->snapshot().empty());
}

// Events and completions reach the host on the main queue in the order they
// happened: the picker's success follows plenkDidConnected, a weight notified
// before a battery answer arrives first.
TEST_F(Facade, EventsAndCompletionsArriveInEventOrderAndCommandsReachTheScale) {
    auto scale = h.addScale();
    makeFacade(false);
    h.settle();
    auto presenter = std::make_shared<RecordingPresenter>();
    plenk->showDevicePickerOnViewContoller(
        presenter, [this](const ErrorPtr& error) { host->add(error ? "picker error" : "picker success"); });
    h.settle();
    ASSERT_NE(presenter->presented, nullptr);
    presenter->presented->tableViewDidSelectRowAtIndexPath({0, 0});
    h.settle();
    scale->clearWrites();

    plenk->tare();
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 3.0f));
    plenk->readPlenkBatteryLifeWithCompletion(
        [this](std::int64_t level) { host->add("battery " + std::to_string(level)); });
    h.settle();
    scale->pressButton(0);
    h.settle();
    EXPECT_EQ(commandFrames(scale), (std::vector<std::vector<std::uint8_t>>{{0x10}}));
    EXPECT_EQ(host->snapshot(), (Log{"connected", "picker success", "weight 3", "battery 85", "button 0"}));
    EXPECT_EQ(host->offMainThread, 0);
}

// Both set the continuous flag first, with or without a device: a fake
// interrupt of a picked scale is held, a disconnect is not.
TEST_F(Facade, FakeInterruptIsHeldAndDisconnectIsNot) {
    auto scale = h.addScale();
    makeFacade(false);
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

// Work the facade queued still reaches the host; then the kit, its link and
// its central go.
TEST_F(Facade, AReleasedFacadeRunsItsQueuedWorkThenTearsTheLinkDown) {
    auto scale = h.addScale();
    makeFacade();
    h.settle();
    ASSERT_EQ(scale->linkCount(), 1u);
    std::weak_ptr<RKRostaKit> kit = plenk->rosta();
    std::weak_ptr<PKPlenk> facade = plenk;
    plenk->rostaWeightDidUpdate(3.0f);
    plenk.reset();
    EXPECT_FALSE(facade.expired());
    h.settle();
    EXPECT_TRUE(facade.expired());
    EXPECT_TRUE(kit.expired());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(h.world->centralCount(), 0u);
    EXPECT_EQ(host->snapshot(), (Log{"connected", "weight 3"}));
}

// The facade's auto-connect flag starts off while the kit auto-connects; its
// data-source questions are answered at once, or with nothing.
TEST_F(Facade, AutoConnectFlagAndDataSource) {
    struct Colours final : PKPlenkDataSource {
        std::optional<std::string> titleForSelectAccessoryModalViewController() override { return "Scales"; }
    };
    makeFacade();
    EXPECT_FALSE(plenk->isAutoConnectEnabled());
    EXPECT_TRUE(plenk->rosta()->isAutoConnectEnabled());
    plenk->setIsAutoConnectEnabled(false);
    EXPECT_FALSE(plenk->rosta()->isAutoConnectEnabled());
    EXPECT_EQ(plenk->titleForSelectAccessoryModalViewController(), std::nullopt);
    auto colours = std::make_shared<Colours>();
    plenk->setDataSource(colours);
    EXPECT_EQ(plenk->backgroundColorForSelectAccessoryModalViewController(), std::nullopt);
    EXPECT_EQ(plenk->rosta()->dataSource()->titleForSelectAccessoryModalViewController(), "Scales");
    colours.reset();
    EXPECT_EQ(plenk->titleForSelectAccessoryModalViewController(), std::nullopt);
}

TEST_F(Facade, ReplacingTheKitKeepsTheFacadeWorking) {
    makeFacade();
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
