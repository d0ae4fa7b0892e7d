// The public facade: every kit event once more hopped onto the main queue for
// the host's delegate, the host operations, the deliberate auto-connect
// mismatch, and lifetimes (delegate, data source or facade released with work
// still queued).

#include "RKRostaKitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

class RecordingPlenkDelegate final : public PKPlenkDelegate, public HostEvents {
public:
    explicit RecordingPlenkDelegate(std::shared_ptr<RunLoop> main) : main_(std::move(main)) {}
    void plenkDidConnected(PKPlenk&) override { add(main_, "connected"); }
    void plenkDidDisconnected(PKPlenk&) override { add(main_, "disconnected"); }
    void plenkDidErrorOccur(PKPlenk&, const ErrorPtr& error) override {
        {
            std::lock_guard lock(mutex);
            errors.push_back(error);
        }
        add(main_, "error " + std::to_string(error->code()));
    }
    void plenkWeightDidUpdate(float weight) override {
        {
            std::lock_guard lock(mutex);
            weights.push_back(weight);
        }
        add(main_, weightEvent(weight));
    }
    void plenkDeviceDidClickButton(std::uint64_t button) override {
        add(main_, "button " + std::to_string(button));
    }

private:
    std::shared_ptr<RunLoop> main_;
};

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
    std::shared_ptr<RecordingPlenkDelegate> host = std::make_shared<RecordingPlenkDelegate>(h.mainLoop);
    std::shared_ptr<PKPlenk> plenk;
};

TEST_F(Facade, ConnectionAndWeightsReachTheHostOnTheMainQueue) {
    auto scale = h.addScale();
    make();
    h.settle();
    EXPECT_TRUE(plenk->isConnected());
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
    std::lock_guard lock(host->mutex);
    EXPECT_EQ(host->weights, (std::vector<float>{12.5f}));  // exactly, no conversion
    EXPECT_TRUE(isKind<RKErrorLEWriteC>(host->errors.at(0)));
}

TEST_F(Facade, AScaleWeightTakesTwoHops) {
    auto scale = h.addScale();
    make();
    h.settle();
    std::vector<std::string> order;
    auto record = [&](std::string what) { order.push_back(std::move(what)); };
    struct Hook final : PKPlenkDelegate {
        std::function<void(std::string)> record;
        void plenkWeightDidUpdate(float) override { record("host"); }
    };
    auto hook = std::make_shared<Hook>();
    hook->record = record;
    plenk->setDelegate(hook);

    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 1.0f));
    h.world->drainQueues();  // the kit's task is now on the main queue
    h.mainLoop->post([&] { record("marker"); });
    h.mainLoop->runUntilIdle();
    EXPECT_EQ(order, (std::vector<std::string>{"marker", "host"}));
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

TEST_F(Facade, DisconnectAndFakeInterruptSetTheContinuousFlagFirst) {
    make();
    auto kit = plenk->rosta();
    plenk->disconnect();  // no device: the flag changes all the same
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
    plenk->fakeInterrupt();
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());
    plenk->disconnect();
    EXPECT_FALSE(kit->isContinuousConnectionEnabled());
}

TEST_F(Facade, FakeInterruptOfAPickedScaleIsHeldAndDisconnectIsNot) {
    auto scale = h.addScale();
    make(false);
    plenk->rosta()->scanDeivces();
    h.settle();
    ASSERT_TRUE(plenk->isConnected());

    plenk->fakeInterrupt();
    h.settle();
    EXPECT_TRUE(plenk->isConnected());
    EXPECT_EQ(scale->linkCount(), 1u);
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"connected"}));

    plenk->disconnect();
    h.settle();
    EXPECT_FALSE(plenk->isConnected());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"connected", "disconnected"}));
}

TEST_F(Facade, CommandsAndBatteryReadAreForwarded) {
    auto scale = h.addScale();
    make();
    h.settle();
    scale->clearWrites();
    plenk->tare();
    plenk->setLEDDisplayOn(false);
    std::vector<std::int64_t> levels;
    plenk->readPlenkBatteryLifeWithCompletion([&](std::int64_t level) { levels.push_back(level); });
    h.settle();
    std::vector<std::vector<std::uint8_t>> frames;
    for (const auto& w : scale->writes()) frames.push_back(w.value.toVector());
    EXPECT_EQ(frames, (std::vector<std::vector<std::uint8_t>>{{0x10}, {0xEE}}));
    EXPECT_EQ(levels, (std::vector<std::int64_t>{85}));
}

TEST_F(Facade, PickerIsOpenedThroughTheKit) {
    h.addScale();
    make(false);
    h.settle();
    auto presenter = std::make_shared<RecordingPresenter>();
    std::vector<ErrorPtr> results;
    plenk->showDevicePickerOnViewContoller(presenter, [&](const ErrorPtr& e) { results.push_back(e); });
    h.settle();
    ASSERT_NE(presenter->presented, nullptr);
    presenter->presented->tableViewDidSelectRowAtIndexPath({0, 0});
    h.settle();
    EXPECT_EQ(results, (std::vector<ErrorPtr>{nullptr}));
    EXPECT_EQ(host->snapshot(), (std::vector<std::string>{"connected"}));
}

// --- Lifetimes ---------------------------------------------------------------------------------------------

TEST_F(Facade, HostDelegateReleasedBeforeQueuedWorkRunsHearsNothing) {
    make();
    auto& kit = *plenk->rosta();
    plenk->rostaDidConnected(kit);
    plenk->rostaWeightDidUpdate(1.0f);
    std::weak_ptr<RecordingPlenkDelegate> weak = host;
    host.reset();
    h.mainLoop->runUntilIdle();
    EXPECT_TRUE(weak.expired());

    // Cleared rather than released: the same.
    auto second = std::make_shared<RecordingPlenkDelegate>(h.mainLoop);
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
