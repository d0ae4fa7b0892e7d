// The kit's device picker: the checks before it opens, its rows, texts and
// colours, a chosen row connecting, and the outcome for the picker completion.

#include "support/KitTestSupport.h"

namespace plenk::test {
namespace {

class KitPicker : public KitFixture {
protected:
    // Auto-connect off, radio on, no device.
    void open() {
        makeKit(false);
        h.settle();
        kit->showDevicePickerOnViewContoller(presenter, outcome.completion(h.mainLoop));
    }

    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    PickerOutcome outcome;
};

struct OpeningCase {
    std::string name;
    std::optional<bt::ManagerState> radio;
    bool autoConnect;
    bool connected;
    std::optional<std::int64_t> code;  // nullopt: the completion is not called
    bool (*kind)(const ErrorPtr&);
};

TEST(KitPickerOpening, FailsAtOnceOnTheCallersThreadOrDoesNothing) {
    const OpeningCase cases[] = {
        {"auto-connect on", bt::ManagerState::PoweredOn, true, false, std::nullopt, nullptr},
        {"no radio report yet", std::nullopt, false, false, std::nullopt, nullptr},
        {"powered off", bt::ManagerState::PoweredOff, false, false, 101, &kindIs<RKErrorLENotAvailableCOff>},
        {"unsupported", bt::ManagerState::Unsupported, false, false, 101,
         &kindIs<RKErrorLENotAvailableCNotSupport>},
        {"unauthorized", bt::ManagerState::Unauthorized, false, false, 101,
         &kindIs<RKErrorLENotAvailableCUnauthorized>},
        {"unknown", bt::ManagerState::Resetting, false, false, 101, &kindIs<RKErrorLENotAvailableCUnknown>},
        {"already connected", bt::ManagerState::PoweredOn, false, true, 102,
         &kindIs<RKErrorLEDeviceAllreadyConnectedC>},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimHarness h(harnessWithRadio(c.radio));
        if (c.connected) h.addScale();
        auto kit = RKRostaKit::create(h.context);
        kit->setIsAutoConnectEnabled(c.connected || c.autoConnect);
        h.settle();
        ASSERT_EQ(kit->isConnected(), c.connected);
        kit->setIsAutoConnectEnabled(c.autoConnect);

        auto presenter = std::make_shared<RecordingPresenter>();
        std::vector<ErrorPtr> results;
        kit->showDevicePickerOnViewContoller(presenter,
                                             [&](const ErrorPtr& error) { results.push_back(error); });
        ASSERT_EQ(results.size(), c.code ? 1u : 0u);  // before the call returned
        if (c.code) {
            EXPECT_EQ(results[0]->code(), *c.code);
            EXPECT_EQ(results[0]->domain(), "RKErrorDomain");
            EXPECT_TRUE(c.kind(results[0]));
        }
        h.settle();
        EXPECT_EQ(kit->scanViewController(), nullptr);
        EXPECT_TRUE(presenter->calls().empty());
        EXPECT_FALSE(kit->pickerCompletion());  // neither kept
        kit.reset();
        h.settle();
    }
}

TEST_F(KitPicker, ListsEachScaleOnceAndConnectsTheChosenRow) {
    auto plenk = h.addScale("Plenk One");
    auto coffee = h.addScale("Coffee Two", emulator::WeightFormat::Text);
    plenk->setRssi(-70);
    coffee->setRssi(-45);
    sim::PeripheralOptions other;
    other.name = "Headphones";
    h.world->addPeripheral(other);
    other.name = "DfuTarg";
    h.world->addPeripheral(other);
    open();
    EXPECT_EQ(presenter->calls(),
              (std::vector<std::string>{"begin ignoring", "present animated", "end ignoring"}));
    h.settle();
    ASSERT_EQ(presenter->presented, kit->scanViewController());
    auto picker = presenter->presented;
    EXPECT_TRUE(scanning());

    // A second scan reports the same scales again: still listed once.
    kit->connecter()->scanDevices();
    h.settle();
    ASSERT_EQ(picker->tableViewNumberOfRowsInSection(0), 2);
    std::vector<std::string> titles{picker->tableViewTitleForRowAtIndexPath({0, 0}),
                                    picker->tableViewTitleForRowAtIndexPath({0, 1})};
    std::sort(titles.begin(), titles.end());
    EXPECT_EQ(titles, (std::vector<std::string>{"Coffee Two", "Plenk One"}));
    EXPECT_EQ(picker->tableViewTitleForRowAtIndexPath({0, 7}), "");  // out of range: empty
    EXPECT_GE(presenter->view->reloads, 2);
    for (const auto& found : kit->discoveredResults()) {
        EXPECT_EQ(found->rssi(), found->name() == "Plenk One" ? -70 : -45);
    }

    const int chosen = picker->tableViewTitleForRowAtIndexPath({0, 0}) == "Coffee Two" ? 0 : 1;
    picker->tableViewDidSelectRowAtIndexPath({0, chosen});
    picker->tableViewDidSelectRowAtIndexPath({0, 1 - chosen});  // one choice per picker
    h.settle();

    EXPECT_EQ(coffee->linkCount(), 1u);
    EXPECT_EQ(plenk->linkCount(), 0u);
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());
    EXPECT_EQ(presenter->view->dismissals, 1);
    EXPECT_EQ(kit->scanViewController(), nullptr);
    {
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_EQ(outcome.results[0], nullptr);
        EXPECT_TRUE(outcome.onMainThread[0]);
    }
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));
}

TEST_F(KitPicker, CancelStopsTheScanAndReportsOnTheMainQueue) {
    auto scale = h.addScale();
    open();
    h.settle();
    auto picker = kit->scanViewController();
    ASSERT_TRUE(scanning());

    picker->didClickCancelBarItem();
    EXPECT_FALSE(scanning());
    EXPECT_EQ(outcome.calls(), 0u);  // not inside the cancel
    h.settle();
    {
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_TRUE(isKind<RKErrorLECancelC>(outcome.results[0]));
        EXPECT_TRUE(outcome.onMainThread[0]);
    }

    // The closed picker stays: a later scan still collects rows instead of connecting.
    EXPECT_EQ(kit->scanViewController(), picker);
    kit->scanDeivces();
    h.settle();
    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(kit->discoveredResults().size(), 1u);
}

TEST_F(KitPicker, AskingAgainReplacesTheListAndTheCompletion) {
    h.addScale();
    open();
    h.settle();
    auto first = kit->scanViewController();
    ASSERT_EQ(kit->discoveredResults().size(), 1u);

    PickerOutcome second;
    kit->showDevicePickerOnViewContoller(nullptr, second.completion(h.mainLoop));  // nothing to present on
    EXPECT_NE(kit->scanViewController(), first);
    h.settle();
    ASSERT_EQ(kit->discoveredResults().size(), 1u);
    kit->scanViewController()->tableViewDidSelectRowAtIndexPath({0, 0});
    h.settle();
    EXPECT_EQ(outcome.calls(), 0u);
    EXPECT_EQ(second.calls(), 1u);
}

class Texts final : public RKRostaDataSource {
public:
    std::optional<std::string> titleForSelectAccessoryModalViewController() override {
        return "Pick a scale";
    }
    std::optional<std::string> deviceStringForSelectAccessoryModalViewController() override {
        return std::nullopt;
    }
    std::optional<Color> backgroundColorForSelectAccessoryModalViewController() override {
        return Color{0.1, 0.2, 0.3, 1.0};
    }
};

TEST_F(KitPicker, TextsAndColoursComeFromTheDataSourceOrTheDefaults) {
    open();
    auto picker = kit->scanViewController();
    ASSERT_NE(picker, nullptr);

    EXPECT_EQ(picker->title(), "Connect An Accessory");
    EXPECT_EQ(picker->deviceString(), "Device");
    EXPECT_EQ(picker->backgroundColor(), (Color{0.8118, 0.7843, 0.7451, 1.0}));

    auto texts = std::make_shared<Texts>();
    kit->setDataSource(texts);
    EXPECT_EQ(picker->title(), "Pick a scale");
    EXPECT_EQ(picker->deviceString(), "Device");  // unanswered: the default
    EXPECT_EQ(picker->backgroundColor(), (Color{0.1, 0.2, 0.3, 1.0}));

    texts.reset();  // held weakly: gone means unanswered
    EXPECT_EQ(picker->title(), "Connect An Accessory");
}

}  // namespace
}  // namespace plenk::test
