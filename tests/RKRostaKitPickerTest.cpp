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
        {"powered off", bt::ManagerState::PoweredOff, false, false, 101, &isKind<RKErrorLENotAvailableCOff>},
        {"unsupported", bt::ManagerState::Unsupported, false, false, 101,
         &isKind<RKErrorLENotAvailableCNotSupport>},
        {"unauthorized", bt::ManagerState::Unauthorized, false, false, 101,
         &isKind<RKErrorLENotAvailableCUnauthorized>},
        {"unknown", bt::ManagerState::Resetting, false, false, 101, &isKind<RKErrorLENotAvailableCUnknown>},
        {"already connected", bt::ManagerState::PoweredOn, false, true, 102,
         &isKind<RKErrorLEDeviceAllreadyConnectedC>},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimHarness h(SimHarnessOptions{.radio = c.radio});
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
    coffee->setRssi(-45);
    sim::PeripheralOptions other;
    other.name = "Headphones";
    h.world->addPeripheral(other);
    open();
    EXPECT_EQ(presenter->calls(),
              (std::vector<std::string>{"begin ignoring", "present animated", "end ignoring"}));
    h.settle();
    ASSERT_EQ(presenter->presented, kit->scanViewController());
    auto picker = presenter->presented;

    // A second scan reports the same scales again: still listed once.
    kit->connecter()->scanDevices();
    h.settle();
    ASSERT_EQ(picker->tableViewNumberOfRowsInSection(0), 2);
    EXPECT_EQ(picker->tableViewTitleForRowAtIndexPath({0, 7}), "");  // out of range: empty
    EXPECT_GE(presenter->view->reloads, 2);
    const int chosen = picker->tableViewTitleForRowAtIndexPath({0, 0}) == "Coffee Two" ? 0 : 1;
    EXPECT_EQ(kit->discoveredResults().at(static_cast<std::size_t>(chosen))->rssi(), -45);
    picker->tableViewDidSelectRowAtIndexPath({0, chosen});
    picker->tableViewDidSelectRowAtIndexPath({0, 1 - chosen});  // one choice per picker
    h.settle();

    EXPECT_EQ(coffee->linkCount(), 1u);
    EXPECT_EQ(plenk->linkCount(), 0u);
    EXPECT_TRUE(kit->isContinuousConnectionEnabled());
    EXPECT_EQ(presenter->view->dismissals, 1);
    EXPECT_EQ(kit->scanViewController(), nullptr);
    EXPECT_EQ(outcome.results, std::vector<ErrorPtr>{nullptr});
    EXPECT_EQ(outcome.onMainThread, std::vector<bool>{true});
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected"}));
}

// A cancelled picker stays and keeps collecting rows; asking again replaces
// the list and the completion.
TEST_F(KitPicker, CancelReportsOnTheMainQueueAndAskingAgainReplacesThePicker) {
    h.addScale();
    open();
    h.settle();
    auto first = kit->scanViewController();
    first->didClickCancelBarItem();
    EXPECT_FALSE(scanning());
    EXPECT_EQ(outcome.calls(), 0u);  // not inside the cancel
    h.settle();
    ASSERT_EQ(outcome.calls(), 1u);
    EXPECT_TRUE(isKind<RKErrorLECancelC>(outcome.results[0]));
    EXPECT_TRUE(outcome.onMainThread[0]);
    EXPECT_EQ(kit->scanViewController(), first);
    kit->scanDeivces();
    h.settle();
    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(kit->discoveredResults().size(), 1u);

    PickerOutcome second;
    kit->showDevicePickerOnViewContoller(nullptr, second.completion(h.mainLoop));  // nothing to present on
    EXPECT_NE(kit->scanViewController(), first);
    h.settle();
    ASSERT_EQ(kit->discoveredResults().size(), 1u);
    kit->scanViewController()->tableViewDidSelectRowAtIndexPath({0, 0});
    h.settle();
    EXPECT_EQ(outcome.calls(), 1u);
    EXPECT_EQ(second.calls(), 1u);
}

// Held weakly; an unanswered question gets the default.
TEST_F(KitPicker, TextsAndColoursComeFromTheDataSourceOrTheDefaults) {
    struct Texts final : RKRostaDataSource {
        std::optional<std::string> titleForSelectAccessoryModalViewController() override { return "Pick"; }
        std::optional<Color> backgroundColorForSelectAccessoryModalViewController() override {
            return Color{0.1, 0.2, 0.3, 1.0};
        }
    };
    open();
    auto picker = kit->scanViewController();
    auto texts = std::make_shared<Texts>();
    kit->setDataSource(texts);
    EXPECT_EQ(picker->title(), "Pick");
    EXPECT_EQ(picker->deviceString(), "Device");
    EXPECT_EQ(picker->backgroundColor(), (Color{0.1, 0.2, 0.3, 1.0}));
    texts.reset();
    EXPECT_EQ(picker->title(), "Connect An Accessory");
}

}  // namespace
}  // namespace plenk::test
