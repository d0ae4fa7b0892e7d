// Thousands of connect / drop / reconnect cycles and failures on the simulated
// radio, through the public facade: no object may pile up and not one weight
// may be lost, duplicated or reordered.
//
// The short form runs a few hundred cycles in seconds. The long form:
//     PLENK_SOAK_CYCLES=20000 ./plenk_tests --gtest_filter='Soak*'

#include <chrono>
#include <cstdlib>
#include <functional>

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;

int soakCycles() {
    const char* env = std::getenv("PLENK_SOAK_CYCLES");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 ? n : 300;
}

class Soak : public FacadeFixture {
protected:
    // Runs `cycles` rounds of five sequence-numbered weights and one `drop`,
    // then checks every weight arrived once and in order, the reports, and
    // that exactly one device and no stray work is left.
    void run(bool autoConnect, const std::function<void(int)>& drop, int reconnects, int errors) {
        scale = h.addScale();
        makeFacade(autoConnect);
        if (!autoConnect) plenk->rosta()->scanDeivces();
        h.settle();
        std::vector<std::weak_ptr<RKDevice>> devices;
        const auto recordDevice = [&] {
            auto device = plenk->rosta()->currentDevice();
            if (device && (devices.empty() || devices.back().lock() != device)) devices.push_back(device);
        };
        const auto liveDevices = [&] {
            return std::count_if(devices.begin(), devices.end(), [](const auto& d) { return !d.expired(); });
        };
        int sent = 0;
        for (int i = 0; i < cycles; ++i) {
            ASSERT_TRUE(plenk->isConnected()) << "cycle " << i;
            recordDevice();
            for (int k = 0; k < 5; ++k) {
                scale->notify(wire::kDataCharacteristic, weightPacket(scale, static_cast<float>(++sent)));
            }
            h.settle();
            drop(i);
            ASSERT_LE(liveDevices(), 1) << "cycle " << i;
        }
        recordDevice();
        std::vector<float> expected(static_cast<std::size_t>(sent));
        for (int i = 0; i < sent; ++i) expected[static_cast<std::size_t>(i)] = static_cast<float>(i + 1);
        EXPECT_EQ(host->weights(), expected);
        EXPECT_EQ(host->count("connected"), static_cast<std::size_t>(reconnects + 1));
        EXPECT_EQ(host->count("disconnected"), static_cast<std::size_t>(reconnects));
        EXPECT_EQ(host->errors().size(), static_cast<std::size_t>(errors));
        EXPECT_EQ(host->count("error 105"), static_cast<std::size_t>(errors));
        EXPECT_EQ(host->offMainThread, 0);
        EXPECT_EQ(liveDevices(), 1);
        EXPECT_EQ(devices.size(), static_cast<std::size_t>(reconnects + 1));
        EXPECT_EQ(h.world->centralCount(), 1u);
        EXPECT_EQ(h.clock->pendingTimers(), 0u);
        EXPECT_EQ(h.mainLoop->pendingTasks(), 0u);
        EXPECT_TRUE(plenk->rosta()->discoveredResults().empty());
    }

    const int cycles = soakCycles();
    std::shared_ptr<sim::VirtualPeripheral> scale;
};

// Auto-connect: every drop tears down and connects afresh; every fourth
// reconnect fails once first and is retried by the rescan.
TEST_F(Soak, AutoConnectDropsAndFailedReconnects) {
    run(
        true,
        [this](int i) {
            if (i % 4 == 3) scale->queueConnectResult(sim::ConnectResult::failWithCode(13));
            scale->dropLink(i % 2 == 0 ? platformError(kPlatformConnectionTimeout) : nullptr);
            h.settle();
        },
        cycles, cycles / 4);
}

// A held scale (auto-connect off): drops come back silently on the same
// device; every fifth reconnect hangs, the watchdog gives up after three
// seconds and the host connects afresh.
TEST_F(Soak, HeldConnectionDropsAndWatchdogs) {
    run(
        false,
        [this](int i) {
            if (i % 5 != 4) {
                scale->dropLink(platformError(kPlatformConnectionTimeout));
                h.advance(3s);  // the watchdog finds the link up
                return;
            }
            scale->queueConnectResult(sim::ConnectResult::hang());
            scale->dropLink();
            h.advance(3s);
            ASSERT_FALSE(plenk->isConnected()) << "cycle " << i;
            plenk->rosta()->scanDeivces();
            h.settle();
        },
        cycles / 5, 0);
}

}  // namespace
}  // namespace plenk::test
