// What the kit reports for failed connections and failed scale devices, to
// whom (delegate on the main queue, or the picker completion on the event's
// queue), and what it tears down and restarts afterwards.

#include <functional>
#include <typeinfo>

#include "RKRostaKitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using KindTest = bool (*)(const ErrorPtr&);

template <typename K>
bool kindIs(const ErrorPtr& e) {
    return isKind<K>(e);
}
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
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const LinkFailureCase& c, std::ostream* os) {
    *os << modeName(c.mode) << " platform code "
        << (c.platformCode ? std::to_string(*c.platformCode) : "none");
}

std::string linkCaseName(const ::testing::TestParamInfo<LinkFailureCase>& info) {
    const auto& c = info.param;
    return modeName(c.mode) + (c.platformCode ? "Code" + std::to_string(*c.platformCode) : "NoError");
}

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
            std::lock_guard lock(delegate->mutex);
            EXPECT_TRUE(c.kind(delegate->errors.at(0)));
            EXPECT_EQ(delegate->errors.at(0)->domain(), "RKErrorDomain");
        }
        EXPECT_EQ(outcome.calls(), 0u);
    } else {
        makeKit(false);
        openPicker();
        scale->queueConnectResult(result);
        chooseFirstRow();
        EXPECT_TRUE(delegate->snapshot().empty());
        std::lock_guard lock(outcome.mutex);
        if (c.reported) {
            ASSERT_EQ(outcome.results.size(), 1u);
            EXPECT_EQ(outcome.results[0]->code(), *c.reported);
            EXPECT_TRUE(c.kind(outcome.results[0]));
            EXPECT_FALSE(outcome.onMainThread[0]);  // called on the Bluetooth queue
        } else {
            EXPECT_TRUE(outcome.results.empty());
        }
        // Nothing restarts and the picker stays open.
        EXPECT_FALSE(scanning());
        EXPECT_NE(kit->scanViewController(), nullptr);
        EXPECT_EQ(presenter->view->dismissals, 0);
    }
    EXPECT_EQ(delegate->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Matrix, KitLinkFailure,
    ::testing::Values(LinkFailureCase{Mode::Auto, 10, std::nullopt, nullptr},
                      LinkFailureCase{Mode::Auto, 11, 103, &kindIs<RKErrorLEConnectionUnknownC>},
                      LinkFailureCase{Mode::Auto, 12, 104, &kindIs<RKErrorLEConnectionInvalidParametersC>},
                      LinkFailureCase{Mode::Auto, 13, 105, &kindIs<RKErrorLEConnectionInvalidHandleC>},
                      LinkFailureCase{Mode::Auto, 14, 106, &kindIs<RKErrorLEConnectionTimeoutC>},
                      LinkFailureCase{Mode::Auto, 15, std::nullopt, nullptr},
                      LinkFailureCase{Mode::Auto, std::nullopt, 105,
                                      &kindIs<RKErrorLEConnectionInvalidHandleC>},
                      LinkFailureCase{Mode::Picker, 10, std::nullopt, nullptr},
                      LinkFailureCase{Mode::Picker, 11, 103, &kindIs<RKErrorLEConnectionUnknownC>},
                      LinkFailureCase{Mode::Picker, 12, 104, &kindIs<RKErrorLEConnectionInvalidParametersC>},
                      LinkFailureCase{Mode::Picker, 13, 105, &kindIs<RKErrorLEConnectionInvalidHandleC>},
                      LinkFailureCase{Mode::Picker, 14, 106, &kindIs<RKErrorLEConnectionTimeoutC>},
                      LinkFailureCase{Mode::Picker, 15, std::nullopt, nullptr},
                      LinkFailureCase{Mode::Picker, std::nullopt, 110, &plain}),
    linkCaseName);

// --- Device failures, as the kit receives them ------------------------------------------------------

struct DeviceFailureCase {
    Mode mode;
    std::optional<std::int64_t> deviceCode;  // nullopt: a failure without an error
    std::optional<std::int64_t> reported;
    KindTest kind;
    bool toDelegate;  // else to the picker completion
    bool dropped;
};
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const DeviceFailureCase& c, std::ostream* os) {
    *os << modeName(c.mode) << " device code " << (c.deviceCode ? std::to_string(*c.deviceCode) : "none");
}

std::string deviceCaseName(const ::testing::TestParamInfo<DeviceFailureCase>& info) {
    const auto& c = info.param;
    return modeName(c.mode) + (c.deviceCode ? "Code" + std::to_string(*c.deviceCode) : "NoError");
}

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
    if (c.reported && c.toDelegate) expected.push_back("error " + std::to_string(*c.reported));
    if (c.dropped) {
        // The link loss that follows finds no device to hold.
        expected.push_back("disconnected");
        if (c.mode == Mode::Auto) expected.push_back("connected");  // rescanned and found again
    }
    EXPECT_EQ(delegate->snapshot(), expected);
    if (c.reported && c.toDelegate) {
        std::lock_guard lock(delegate->mutex);
        EXPECT_TRUE(c.kind(delegate->errors.at(0)));
    }

    const std::size_t pickerBaseline = c.mode == Mode::Picker ? 1 : 0;  // the success of connecting
    if (c.reported && !c.toDelegate) {
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
        EXPECT_TRUE(kit->isConnected());
        EXPECT_EQ(scale->linkCount(), 1u);
    } else if (c.mode == Mode::Picker) {
        EXPECT_EQ(kit->currentDevice(), nullptr);
        EXPECT_FALSE(kit->isConnected());
        EXPECT_FALSE(scanning());
    } else {
        EXPECT_NE(kit->currentDevice(), device);
        EXPECT_EQ(tares(scale), 2u);  // the new connection was tared too
    }
    EXPECT_EQ(delegate->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Matrix, KitDeviceFailure,
    ::testing::Values(
        DeviceFailureCase{Mode::Auto, 1000, 108, &kindIs<RKErrorLEInvalidDeviceC>, true, true},
        DeviceFailureCase{Mode::Auto, 1001, 108, &kindIs<RKErrorLEInvalidDeviceC>, true, true},
        DeviceFailureCase{Mode::Auto, 1002, 107, &kindIs<RKErrorLEValidationC>, true, true},
        DeviceFailureCase{Mode::Auto, 1003, 107, &kindIs<RKErrorLEValidationC>, true, true},
        DeviceFailureCase{Mode::Auto, 1004, 109, &kindIs<RKErrorLEWriteC>, true, false},
        DeviceFailureCase{Mode::Auto, 1005, 109, &kindIs<RKErrorLEReadC>, true, false},
        DeviceFailureCase{Mode::Auto, 1234, std::nullopt, nullptr, true, true},
        DeviceFailureCase{Mode::Auto, std::nullopt, 110, &plain, true, false},
        DeviceFailureCase{Mode::Picker, 1000, 108, &kindIs<RKErrorLEInvalidDeviceC>, false, true},
        DeviceFailureCase{Mode::Picker, 1001, 108, &kindIs<RKErrorLEInvalidDeviceC>, false, true},
        DeviceFailureCase{Mode::Picker, 1002, 107, &kindIs<RKErrorLEValidationC>, false, true},
        DeviceFailureCase{Mode::Picker, 1003, 107, &kindIs<RKErrorLEValidationC>, false, true},
        // Read and write failures always go to the delegate.
        DeviceFailureCase{Mode::Picker, 1004, 109, &kindIs<RKErrorLEWriteC>, true, false},
        DeviceFailureCase{Mode::Picker, 1005, 109, &kindIs<RKErrorLEReadC>, true, false},
        DeviceFailureCase{Mode::Picker, 999, std::nullopt, nullptr, false, true},
        DeviceFailureCase{Mode::Picker, std::nullopt, 110, &plain, false, false}),
    deviceCaseName);

// --- Device failures raised by a faulty scale, end to end ----------------------------------------------

struct FaultCase {
    std::string name;
    std::function<void(sim::VirtualPeripheral&)> inject;
    std::int64_t reported;
    KindTest kind;
};
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const FaultCase& c, std::ostream* os) {
    *os << c.name;
}

class KitScaleFault : public FailureFixture, public ::testing::WithParamInterface<FaultCase> {};

// In picker mode a set-up failure reaches the completion and drops the link.
TEST_P(KitScaleFault, SetUpFailureReachesThePickerAndDropsTheScale) {
    auto scale = h.addScale();
    makeKit(false);
    openPicker();
    GetParam().inject(*scale);
    chooseFirstRow();

    {
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_EQ(outcome.results[0]->code(), GetParam().reported);
        EXPECT_TRUE(GetParam().kind(outcome.results[0]));
        EXPECT_FALSE(outcome.onMainThread[0]);
    }
    EXPECT_EQ(kit->currentDevice(), nullptr);
    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"disconnected"}));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, KitScaleFault,
    ::testing::Values(
        FaultCase{"NoScaleService", [](auto& s) { s.removeService(wire::kScaleService); }, 108,
                  &kindIs<RKErrorLEInvalidDeviceC>},
        FaultCase{"NoDataCharacteristic",
                  [](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kDataCharacteristic); },
                  108, &kindIs<RKErrorLEInvalidDeviceC>},
        FaultCase{"ServiceDiscoveryError",
                  [](auto& s) { s.failServiceDiscovery(attError(kAttUnlikelyError)); }, 107,
                  &kindIs<RKErrorLEValidationC>},
        FaultCase{
            "CharacteristicDiscoveryError",
            [](auto& s) { s.failCharacteristicDiscovery(wire::kScaleService, attError(kAttUnlikelyError)); },
            107, &kindIs<RKErrorLEValidationC>}),
    [](const auto& info) { return info.param.name; });

TEST_F(FailureFixture, FailedTareWriteIsReportedAndTheLinkKept) {
    auto scale = h.addScale();
    scale->failWrites(wire::kCommandCharacteristic, attError(kAttWriteNotPermitted));
    makeKit();
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "error 109"}));
    {
        std::lock_guard lock(delegate->mutex);
        EXPECT_TRUE(isKind<RKErrorLEWriteC>(delegate->errors.at(0)));
    }
    const auto lines = h.log->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "\n write error"), 1);
    EXPECT_TRUE(kit->isConnected());
    EXPECT_EQ(scale->linkCount(), 1u);
}

TEST_F(FailureFixture, FailedNotificationIsReportedAndWeightsKeepFlowing) {
    auto scale = h.addScale();
    makeKit();
    h.settle();
    scale->notify(wire::kDataCharacteristic, {}, attError(kAttUnlikelyError));
    scale->notify(wire::kDataCharacteristic, weightPacket(scale, 3.0f));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "error 109", "weight 3"}));
    std::lock_guard lock(delegate->mutex);
    EXPECT_TRUE(isKind<RKErrorLEReadC>(delegate->errors.at(0)));
    const auto lines = h.log->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "\n read error"), 1);
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
