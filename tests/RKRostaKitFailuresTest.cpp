// What the kit reports for failed connections and failed scale devices, to
// whom (delegate on the main queue, or the picker completion on the event's
// queue), and what it tears down and restarts afterwards.

#include <typeinfo>

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using KindTest = bool (*)(const ErrorPtr&);
using Log = std::vector<std::string>;

// The kindless error: exactly an Error, no subclass.
bool plain(const ErrorPtr& e) {
    if (!e) return false;
    const Error& error = *e;
    return typeid(error) == typeid(Error);
}

// Connected by auto-connect, or by choosing the first row of an open picker.
class FailureFixture : public KitFixture {
protected:
    void openPicker() {
        makeKit(false);
        h.settle();
        kit->showDevicePickerOnViewContoller(presenter, outcome.completion(h.mainLoop));
        h.settle();
        ASSERT_EQ(kit->discoveredResults().size(), 1u);
    }
    void chooseFirstRow() {
        presenter->presented->tableViewDidSelectRowAtIndexPath({0, 0});
        h.settle();
    }

    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    PickerOutcome outcome;
};

// A failure code (nullopt: no error), what is reported (nullopt: nothing), its kind.
struct FailureCase {
    bool picker;
    std::optional<std::int64_t> code;
    std::optional<std::int64_t> reported;
    KindTest kind;
    bool dropped = true;  // device failures only
};

std::string caseName(const ::testing::TestParamInfo<FailureCase>& info) {
    const auto& c = info.param;
    return std::string(c.picker ? "Picker" : "Auto") +
           (c.code ? "Code" + std::to_string(*c.code) : "NoError");
}

// The code mapping is checked in auto mode; picker mode checks the routing.
const std::vector<FailureCase> kLinkFailures = {
    {false, 10, std::nullopt, nullptr},
    {false, 11, 103, &isKind<RKErrorLEConnectionUnknownC>},
    {false, 12, 104, &isKind<RKErrorLEConnectionInvalidParametersC>},
    {false, 13, 105, &isKind<RKErrorLEConnectionInvalidHandleC>},
    {false, 14, 106, &isKind<RKErrorLEConnectionTimeoutC>},
    {false, 15, std::nullopt, nullptr},
    {false, std::nullopt, 105, &isKind<RKErrorLEConnectionInvalidHandleC>},
    {true, 10, std::nullopt, nullptr},
    {true, 14, 106, &isKind<RKErrorLEConnectionTimeoutC>},
    {true, std::nullopt, 110, &plain},
};

class KitLinkFailure : public FailureFixture, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(KitLinkFailure, IsReportedByModeAndRescannedOnlyInAutoMode) {
    const auto& c = GetParam();
    auto scale = h.addScale();
    const auto result =
        c.code ? sim::ConnectResult::failWithCode(*c.code) : sim::ConnectResult::fail(nullptr);
    if (!c.picker) {
        scale->queueConnectResult(result);
        makeKit();
        h.settle();
        // Reported first, then the rescan finds the scale again and connects.
        Log expected;
        if (c.reported) expected.push_back("error " + std::to_string(*c.reported));
        expected.push_back("connected");
        EXPECT_EQ(delegate->snapshot(), expected);
        if (c.reported) {
            EXPECT_TRUE(c.kind(delegate->errors().at(0)));
            EXPECT_EQ(delegate->errors().at(0)->domain(), "RKErrorDomain");
        }
    } else {
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

INSTANTIATE_TEST_SUITE_P(Matrix, KitLinkFailure, ::testing::ValuesIn(kLinkFailures), caseName);

// In picker mode every report but a read or write failure (1004, 1005) goes to
// the picker completion; set-up failures (1000 to 1003) drop the link.
const std::vector<FailureCase> kDeviceFailures = {
    {false, 1000, 108, &isKind<RKErrorLEInvalidDeviceC>},
    {false, 1001, 108, &isKind<RKErrorLEInvalidDeviceC>},
    {false, 1002, 107, &isKind<RKErrorLEValidationC>},
    {false, 1003, 107, &isKind<RKErrorLEValidationC>},
    {false, 1004, 109, &isKind<RKErrorLEWriteC>, false},
    {false, 1005, 109, &isKind<RKErrorLEReadC>, false},
    {false, 1234, std::nullopt, nullptr},
    {false, std::nullopt, 110, &plain, false},
    {true, 1001, 108, &isKind<RKErrorLEInvalidDeviceC>},
    {true, 1004, 109, &isKind<RKErrorLEWriteC>, false},
    {true, 999, std::nullopt, nullptr},
    {true, std::nullopt, 110, &plain, false},
};

class KitDeviceFailure : public FailureFixture, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(KitDeviceFailure, IsTranslatedAndTearsDownOnlySetUpFailures) {
    const auto& c = GetParam();
    auto scale = h.addScale();
    if (c.picker) {
        openPicker();
        chooseFirstRow();
    } else {
        makeKit();
        h.settle();
    }
    const auto device = kit->currentDevice();
    ASSERT_NE(device, nullptr);
    delegate->clear();

    // The kit looks at the code only, never at the domain.
    core().deviceDidFailConfigureWithError(*device, c.code ? Error::make("AnyDomain", *c.code) : nullptr);
    const std::size_t pickerCallsAtOnce = outcome.calls();
    h.settle();

    const bool readOrWrite = c.code == 1004 || c.code == 1005;
    const bool toPicker = c.picker && c.reported && !readOrWrite;
    Log expected;
    if (c.reported && !toPicker) expected.push_back("error " + std::to_string(*c.reported));
    if (c.dropped) expected.push_back("disconnected");            // the link loss finds no device to hold
    if (c.dropped && !c.picker) expected.push_back("connected");  // rescanned and found again
    EXPECT_EQ(delegate->snapshot(), expected);
    if (c.reported && !toPicker) {
        EXPECT_TRUE(c.kind(delegate->errors().at(0)));
    }
    EXPECT_EQ(h.log->count("\n write error"), c.code == 1004 ? 1u : 0u);
    EXPECT_EQ(h.log->count("\n read error"), c.code == 1005 ? 1u : 0u);

    const std::size_t pickerBaseline = c.picker ? 1 : 0;  // the success of connecting
    // A picker report is synchronous, on the thread the failure arrived on.
    EXPECT_EQ(pickerCallsAtOnce, pickerBaseline + (toPicker ? 1 : 0));
    EXPECT_EQ(outcome.calls(), pickerCallsAtOnce);
    if (toPicker) {
        std::lock_guard lock(outcome.mutex);
        EXPECT_TRUE(c.kind(outcome.results.back()));
    }
    if (!c.dropped) {
        EXPECT_EQ(kit->currentDevice(), device);
        EXPECT_EQ(scale->linkCount(), 1u);
    } else if (c.picker) {
        EXPECT_FALSE(kit->isConnected());
        EXPECT_FALSE(scanning());
    } else {
        EXPECT_EQ(tares(scale), 2u);  // every fresh connection is tared
    }
    EXPECT_EQ(delegate->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(Matrix, KitDeviceFailure, ::testing::ValuesIn(kDeviceFailures), caseName);

TEST_F(FailureFixture, FailureOfAHeldDeviceWithoutACompletionOrOfAReleasedDevice) {
    auto scale = h.addScale();
    connectHeld();  // picker mode, no picker ever shown
    auto stale = kit->currentDevice();
    core().deviceDidFailConfigureWithError(*stale, Error::make(LEDeviceErrorDomain, 1000));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (Log{"connected", "disconnected"}));

    kit->scanDeivces();
    h.settle();
    ASSERT_TRUE(kit->isConnected());
    core().deviceDidFailConfigureWithError(*stale, Error::make(LEDeviceErrorDomain, 1000));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (Log{"connected", "disconnected", "connected"}));
    EXPECT_TRUE(kit->isConnected());
}

// The picker-mode failure completion runs on the Bluetooth queue; the host
// may call into the kit from it.
TEST_F(FailureFixture, HostMayCallTheKitFromInsideAFailureCompletion) {
    auto scale = h.addScale();
    openPicker();
    std::atomic<int> calls{0};
    kit->setPickerCompletion([&, weak = std::weak_ptr<RKRostaKit>(kit)](const ErrorPtr& error) {
        ++calls;
        if (auto k = weak.lock(); k && error) {
            k->scanDeivces();
            k->setIsAutoConnectEnabled(true);
            (void)k->isConnected();
        }
    });
    scale->queueConnectResult(sim::ConnectResult::failWithCode(14));
    chooseFirstRow();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(kit->isConnected());
}

}  // namespace
}  // namespace plenk::test
