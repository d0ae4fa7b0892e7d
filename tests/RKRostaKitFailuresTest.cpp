// What the kit reports for failed connections and failed scale devices, to
// whom (delegate on the main queue, or the picker completion on the event's
// queue), and what it tears down and restarts afterwards.

#include <functional>
#include <typeinfo>

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using KindTest = bool (*)(const ErrorPtr&);

// The kindless error: exactly an Error, no subclass.
bool plain(const ErrorPtr& e) {
    if (!e) return false;
    const Error& error = *e;
    return typeid(error) == typeid(Error);
}

enum class Mode { Auto, Picker };

std::string modeName(Mode mode) {
    return mode == Mode::Auto ? "Auto" : "Picker";
}

// Opens the picker (auto-connect off) and waits for the scale to be listed.
class FailureFixture : public KitFixture {
protected:
    void openPicker() {
        h.settle();
        kit->showDevicePickerOnViewContoller(presenter, outcome.completion(h.mainLoop));
        h.settle();
        ASSERT_EQ(kit->discoveredResults().size(), 1u);
    }
    void chooseFirstRow() {
        presenter->presented->tableViewDidSelectRowAtIndexPath({0, 0});
        h.settle();
    }
    // Connected in the given mode; in picker mode the completion has had its nullptr.
    void connectIn(Mode mode) {
        makeKit(mode == Mode::Auto);
        if (mode == Mode::Auto) {
            h.settle();
        } else {
            openPicker();
            chooseFirstRow();
        }
        ASSERT_TRUE(kit->isConnected());
    }

    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    PickerOutcome outcome;
};

// --- Link failures -----------------------------------------------------------------------------------

struct LinkFailureCase {
    Mode mode;
    std::optional<std::int64_t> platformCode;  // nullopt: a failure without an error
    std::optional<std::int64_t> reported;      // nullopt: nothing reported
    KindTest kind;
};

// The code mapping is checked in auto mode; picker mode checks the routing.
const std::vector<LinkFailureCase> kLinkFailures = {
    {Mode::Auto, 10, std::nullopt, nullptr},
    {Mode::Auto, 11, 103, &kindIs<RKErrorLEConnectionUnknownC>},
    {Mode::Auto, 12, 104, &kindIs<RKErrorLEConnectionInvalidParametersC>},
    {Mode::Auto, 13, 105, &kindIs<RKErrorLEConnectionInvalidHandleC>},
    {Mode::Auto, 14, 106, &kindIs<RKErrorLEConnectionTimeoutC>},
    {Mode::Auto, 15, std::nullopt, nullptr},
    {Mode::Auto, std::nullopt, 105, &kindIs<RKErrorLEConnectionInvalidHandleC>},
    {Mode::Picker, 10, std::nullopt, nullptr},
    {Mode::Picker, 14, 106, &kindIs<RKErrorLEConnectionTimeoutC>},
    {Mode::Picker, std::nullopt, 110, &plain},
};

class KitLinkFailure : public FailureFixture, public ::testing::WithParamInterface<LinkFailureCase> {};

TEST_P(KitLinkFailure, IsReportedByModeAndRescannedOnlyInAutoMode) {
    const auto& c = GetParam();
    auto scale = h.addScale();
    const auto result = c.platformCode ? sim::ConnectResult::failWithCode(*c.platformCode)
                                       : sim::ConnectResult::fail(nullptr);

    if (c.mode == Mode::Auto) {
        scale->queueConnectResult(result);
        makeKit();
        h.settle();
        // Reported first, then the rescan finds the scale again and connects.
        std::vector<std::string> expected;
        if (c.reported) expected.push_back("error " + std::to_string(*c.reported));
        expected.push_back("connected");
        EXPECT_EQ(delegate->snapshot(), expected);
        if (c.reported) {
            EXPECT_TRUE(c.kind(delegate->errors().at(0)));
            EXPECT_EQ(delegate->errors().at(0)->domain(), "RKErrorDomain");
        }
        EXPECT_EQ(outcome.calls(), 0u);
    } else {
        makeKit(false);
        openPicker();
        scale->queueConnectResult(result);
        chooseFirstRow();
        EXPECT_TRUE(delegate->snapshot().empty());
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), c.reported ? 1u : 0u);
        if (c.reported) {
            EXPECT_EQ(outcome.results[0]->code(), *c.reported);
            EXPECT_TRUE(c.kind(outcome.results[0]));
            EXPECT_FALSE(outcome.onMainThread[0]);  // called on the Bluetooth queue
        }
        // Nothing restarts and the picker stays open.
        EXPECT_FALSE(scanning());
        EXPECT_NE(kit->scanViewController(), nullptr);
        EXPECT_EQ(presenter->view->dismissals, 0);
    }
    EXPECT_EQ(delegate->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(Matrix, KitLinkFailure, ::testing::ValuesIn(kLinkFailures), [](const auto& info) {
    const auto& c = info.param;
    return modeName(c.mode) + (c.platformCode ? "Code" + std::to_string(*c.platformCode) : "NoError");
});

// --- Device failures, as the kit receives them ------------------------------------------------------

struct DeviceFailureCase {
    Mode mode;
    std::optional<std::int64_t> deviceCode;  // nullopt: a failure without an error
    std::optional<std::int64_t> reported;
    KindTest kind;
    bool dropped;
};

// Set-up failures (1000 to 1003) go to the picker completion in picker mode;
// read and write failures always go to the delegate.
bool toDelegate(const DeviceFailureCase& c) {
    return c.mode == Mode::Auto || c.deviceCode.value_or(0) == 1004 || c.deviceCode.value_or(0) == 1005;
}

// The code mapping is checked in auto mode; picker mode checks the routing.
const std::vector<DeviceFailureCase> kDeviceFailures = {
    {Mode::Auto, 1000, 108, &kindIs<RKErrorLEInvalidDeviceC>, true},
    {Mode::Auto, 1001, 108, &kindIs<RKErrorLEInvalidDeviceC>, true},
    {Mode::Auto, 1002, 107, &kindIs<RKErrorLEValidationC>, true},
    {Mode::Auto, 1003, 107, &kindIs<RKErrorLEValidationC>, true},
    {Mode::Auto, 1004, 109, &kindIs<RKErrorLEWriteC>, false},
    {Mode::Auto, 1005, 109, &kindIs<RKErrorLEReadC>, false},
    {Mode::Auto, 1234, std::nullopt, nullptr, true},
    {Mode::Auto, std::nullopt, 110, &plain, false},
    {Mode::Picker, 1001, 108, &kindIs<RKErrorLEInvalidDeviceC>, true},
    {Mode::Picker, 1003, 107, &kindIs<RKErrorLEValidationC>, true},
    {Mode::Picker, 1004, 109, &kindIs<RKErrorLEWriteC>, false},
    {Mode::Picker, 1005, 109, &kindIs<RKErrorLEReadC>, false},
    {Mode::Picker, 999, std::nullopt, nullptr, true},
    {Mode::Picker, std::nullopt, 110, &plain, false},
};

class KitDeviceFailure : public FailureFixture, public ::testing::WithParamInterface<DeviceFailureCase> {};

TEST_P(KitDeviceFailure, IsTranslatedAndTearsDownOnlySetUpFailures) {
    const auto& c = GetParam();
    auto scale = h.addScale();
    connectIn(c.mode);
    const auto device = kit->currentDevice();
    ASSERT_NE(device, nullptr);
    delegate->clear();

    // The kit looks at the code only, never at the domain.
    const auto error = c.deviceCode ? Error::make("AnyDomain", *c.deviceCode) : nullptr;
    core().deviceDidFailConfigureWithError(*device, error);
    const std::size_t pickerCallsAtOnce = outcome.calls();
    h.settle();

    std::vector<std::string> expected;
    if (c.reported && toDelegate(c)) expected.push_back("error " + std::to_string(*c.reported));
    if (c.dropped) {
        // The link loss that follows finds no device to hold.
        expected.push_back("disconnected");
        if (c.mode == Mode::Auto) expected.push_back("connected");  // rescanned and found again
    }
    EXPECT_EQ(delegate->snapshot(), expected);
    if (c.reported && toDelegate(c)) {
        EXPECT_TRUE(c.kind(delegate->errors().at(0)));
    }

    const std::size_t pickerBaseline = c.mode == Mode::Picker ? 1 : 0;  // the success of connecting
    if (c.reported && !toDelegate(c)) {
        // Synchronously, on the thread the failure arrived on.
        EXPECT_EQ(pickerCallsAtOnce, pickerBaseline + 1);
        std::lock_guard lock(outcome.mutex);
        EXPECT_EQ(outcome.results.back()->code(), *c.reported);
        EXPECT_TRUE(c.kind(outcome.results.back()));
    } else {
        EXPECT_EQ(outcome.calls(), pickerBaseline);
    }

    if (!c.dropped) {
        EXPECT_EQ(kit->currentDevice(), device);
        EXPECT_EQ(scale->linkCount(), 1u);
    } else if (c.mode == Mode::Picker) {
        EXPECT_FALSE(kit->isConnected());
        EXPECT_FALSE(scanning());
    } else {
        EXPECT_NE(kit->currentDevice(), device);
        EXPECT_EQ(tares(scale), 2u);  // the new connection was tared too
    }
    EXPECT_EQ(delegate->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(Matrix, KitDeviceFailure, ::testing::ValuesIn(kDeviceFailures),
                         [](const auto& info) {
                             const auto& c = info.param;
                             return modeName(c.mode) +
                                    (c.deviceCode ? "Code" + std::to_string(*c.deviceCode) : "NoError");
                         });

// --- Failures raised by a faulty scale, end to end ----------------------------------------------------

// In picker mode a set-up failure reaches the completion and drops the link.
TEST_F(FailureFixture, SetUpFailureOfARealScaleReachesThePickerAndDropsIt) {
    auto scale = h.addScale();
    makeKit(false);
    openPicker();
    scale->removeService(wire::kScaleService);
    chooseFirstRow();
    {
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_TRUE(isKind<RKErrorLEInvalidDeviceC>(outcome.results[0]));
        EXPECT_FALSE(outcome.onMainThread[0]);
    }
    EXPECT_EQ(kit->currentDevice(), nullptr);
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"disconnected"}));
}

// Write and read failures are reported and the link kept.
TEST_F(FailureFixture, FailedWritesAndNotificationsAreReportedAndWeightsKeepFlowing) {
    auto scale = h.addScale();
    scale->failWrites(wire::kCommandCharacteristic, attError(kAttWriteNotPermitted));
    makeKit();
    h.settle();
    scale->notify(wire::kDataCharacteristic, {}, attError(kAttUnlikelyError));
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 3.0f));
    h.settle();
    EXPECT_EQ(delegate->snapshot(),
              (std::vector<std::string>{"connected", "error 109", "error 109", "weight 3"}));
    EXPECT_TRUE(isKind<RKErrorLEWriteC>(delegate->errors().at(0)));  // the tare
    EXPECT_TRUE(isKind<RKErrorLEReadC>(delegate->errors().at(1)));
    const auto lines = h.log->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "\n write error"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "\n read error"), 1);
    EXPECT_EQ(scale->linkCount(), 1u);
}

TEST_F(FailureFixture, PickerModeFailureWithoutAnyCompletionCallsNothing) {
    auto scale = h.addScale();
    connectHeld();  // auto-connect off, no picker ever shown
    ASSERT_FALSE(kit->pickerCompletion());
    core().deviceDidFailConfigureWithError(*kit->currentDevice(), Error::make(LEDeviceErrorDomain, 1000));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "disconnected"}));
}

TEST_F(FailureFixture, FailureReportOfAReleasedDeviceIsIgnored) {
    auto scale = h.addScale();
    makeKit();
    h.settle();
    auto stale = kit->currentDevice();
    scale->dropLink();
    h.settle();  // torn down and connected afresh with a new device
    ASSERT_NE(kit->currentDevice(), stale);
    delegate->clear();

    core().deviceDidFailConfigureWithError(*stale, Error::make(LEDeviceErrorDomain, 1000));
    h.settle();
    EXPECT_TRUE(delegate->snapshot().empty());
    EXPECT_TRUE(kit->isConnected());
}

// A host may call into the kit from inside the picker-mode failure completion,
// which runs on the Bluetooth queue.
TEST_F(FailureFixture, HostMayCallTheKitFromInsideAFailureCompletion) {
    auto scale = h.addScale();
    makeKit(false);
    openPicker();
    std::atomic<int> calls{0};
    kit->setPickerCompletion([&, weak = std::weak_ptr<RKRostaKit>(kit)](const ErrorPtr& error) {
        ++calls;
        if (!error) return;
        if (auto k = weak.lock()) {
            k->scanDeivces();
            k->setIsAutoConnectEnabled(true);
            (void)k->isConnected();
        }
    });
    scale->queueConnectResult(sim::ConnectResult::failWithCode(14));
    chooseFirstRow();
    // Auto-connect is back on: the scale is found and connected.
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(kit->isConnected());
}

}  // namespace
}  // namespace plenk::test
