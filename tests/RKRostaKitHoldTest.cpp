// A held connection (auto-connect off, continuous connection on) always ends
// within the watchdog's bound: relinked silently, or torn down with one
// rostaDidDisconnected. Each road below once left the kit claiming a
// connection that nothing would ever end.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/KitTestSupport.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;

struct HoldRoad {
    std::string name;
    // Ends a held link in its own way; runs after connectHeld().
    std::function<void(KitFixture& f, const std::shared_ptr<sim::VirtualPeripheral>& scale)> provoke;
};

class KitHold : public KitFixture, public ::testing::WithParamInterface<HoldRoad> {};

// A reconnect that hangs, started by a link loss.
void dropWithHangingReconnect(KitFixture& f, const std::shared_ptr<sim::VirtualPeripheral>& scale) {
    scale->queueConnectResult(sim::ConnectResult::hang());
    scale->dropLink(platformError(kPlatformConnectionTimeout));
    f.h.settle();
}

// Links up after 100 ms and discovers for 500 ms more.
void slowLink(KitFixture& f) {
    auto timings = sim::Timings::zero();
    timings.connectLatency = 100ms;
    timings.gattLatency = 500ms;
    f.h.world->setTimings(timings);
}

const std::vector<HoldRoad> kRoads = {
    {"UnknownToTheSystem",
     [](KitFixture& f, const auto& scale) {
         // Nothing to take back: let go at once, not at the watchdog.
         scale->setKnownToSystem(false);
         scale->dropLink();
         f.h.settle();
         EXPECT_FALSE(f.kit->isConnected());
     }},
    {"RadioOffWhileHeld",
     [](KitFixture& f, const auto&) {
         // The links drop first; the reconnect goes to a radio that is off.
         f.h.world->setRadioState(bt::ManagerState::PoweredOff);
         f.h.settle();
         f.h.world->setRadioState(bt::ManagerState::PoweredOn);
         f.h.settle();
     }},
    {"RadioOffDuringAPendingReconnect",
     [](KitFixture& f, const auto& scale) {
         dropWithHangingReconnect(f, scale);
         f.h.world->setRadioState(bt::ManagerState::PoweredOff);
         f.h.settle();
     }},
    {"ReconnectFails",
     [](KitFixture& f, const auto& scale) {
         scale->queueConnectResult(sim::ConnectResult::failWithCode(kPlatformConnectionFailed));
         scale->dropLink();
         f.h.settle();
     }},
    {"HostDisconnectWhileReconnectPending",
     [](KitFixture& f, const auto& scale) {
         dropWithHangingReconnect(f, scale);
         ASSERT_TRUE(f.kit->isConnected());
         f.kit->disconnect();
         EXPECT_FALSE(f.kit->isConnected());  // at once: no event comes for a cancelled attempt
         f.h.settle();
     }},
    {"HostDisconnectWhileTheRelinkDiscovers",
     [](KitFixture& f, const auto& scale) {
         slowLink(f);
         scale->dropLink();
         f.h.advance(200ms);  // linked again, still discovering: its loss is reported later
         ASSERT_EQ(scale->linkCount(), 1u);
         f.kit->disconnect();
         f.h.settle();
     }},
    {"SystemHeldScaleReconnectHangs",
     [](KitFixture& f, const auto& scale) {
         scale->setConnectedToSystem(true);
         dropWithHangingReconnect(f, scale);
     }},
    {"ReconnectDroppedByThePlatform",
     [](KitFixture& f, const auto& scale) {
         dropWithHangingReconnect(f, scale);
         // The attempt vanishes without an event: the watchdog finds state 0.
         const auto peripheral = f.kit->currentDevice()->peripheral();
         BLEConnecterCore::of(*f.kit->connecter())
             .cbManager()
             ->cancelPeripheralConnection(bt::portPeripheral(peripheral));
         f.h.settle();
         ASSERT_EQ(peripheral->state(), bt::PeripheralState::Disconnected);
     }},
    {"LinkFlapsWhileTheRelinkDiscovers",
     [](KitFixture& f, const auto& scale) {
         // The second loss keeps the first loss's deadline.
         slowLink(f);
         scale->dropLink();
         f.h.advance(400ms);
         ASSERT_EQ(scale->linkCount(), 1u);
         scale->queueConnectResult(sim::ConnectResult::hang());
         scale->dropLink();
         f.h.advance(2600ms);
         EXPECT_FALSE(f.kit->isConnected());
     }},
};

TEST_P(KitHold, EndsWithinTheWatchdogBoundWithOneDisconnect) {
    auto scale = h.addScale();
    connectHeld();
    GetParam().provoke(*this, scale);
    h.advance(3s);

    EXPECT_FALSE(kit->isConnected());
    EXPECT_EQ(kit->currentDevice(), nullptr);
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "disconnected"}));
    EXPECT_EQ(h.log->count(" $ normal disconnection "), 1u);
    EXPECT_FALSE(scanning());  // auto-connect is off: no rescan

    // Nothing comes back to life or reports again later.
    h.advance(10s);
    EXPECT_EQ(scale->linkCount(), 0u);
    EXPECT_EQ(delegate->count("disconnected"), 1u);
    EXPECT_EQ(h.clock->pendingTimers(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Roads, KitHold, ::testing::ValuesIn(kRoads),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace plenk::test
