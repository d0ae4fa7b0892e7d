// Thousands of connect / drop / reconnect cycles and failures on the simulated
// radio, through the public facade: no object may pile up and not one weight
// may be lost, duplicated or reordered.
//
// The short form runs a few hundred cycles in seconds. The long form:
//     PLENK_SOAK_CYCLES=20000 ./plenk_tests --gtest_filter='Soak*'

#include <chrono>
#include <cstdlib>

#include "support/KitTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;

int soakCycles() {
    if (const char* env = std::getenv("PLENK_SOAK_CYCLES"); env != nullptr) {
        const int n = std::atoi(env);
        if (n > 0) return n;
    }
    return 300;
}

class Soak : public ::testing::Test {
protected:
    ~Soak() override {
        plenk.reset();
        h.settle();
    }

    void start(bool autoConnect) {
        scale = h.addScale();
        // With auto-connect off the radio reports nothing until the flag is off.
        const auto radio = h.world->radioState();
        if (!autoConnect) h.world->setRadioState(std::nullopt);
        plenk = PKPlenk::create(h.context);
        plenk->setDelegate(host);
        plenk->setIsAutoConnectEnabled(autoConnect);
        if (!autoConnect) {
            h.world->setRadioState(radio);
            plenk->rosta()->scanDeivces();
        }
        h.settle();
    }

    // Sends a few sequence-tagged weights; they must all arrive in order.
    void streamWeights(int count) {
        for (int i = 0; i < count; ++i) {
            ++sent;
            scale->notify(wire::kDataCharacteristic, weightPacket(scale, static_cast<float>(sent)));
        }
    }

    int liveDevices() const {
        int live = 0;
        for (const auto& d : devices) live += d.expired() ? 0 : 1;
        return live;
    }

    void recordDevice() {
        auto device = plenk->rosta()->currentDevice();
        if (device && (devices.empty() || devices.back().lock() != device)) devices.push_back(device);
    }

    // Weights are sequence numbers: every one arrives once, in order.
    void expectEveryWeightOnce() {
        std::vector<float> expected(static_cast<std::size_t>(sent));
        for (int i = 0; i < sent; ++i) expected[static_cast<std::size_t>(i)] = static_cast<float>(i + 1);
        EXPECT_EQ(host->weights(), expected);
    }
    int heard(const std::string& event) const { return static_cast<int>(host->count(event)); }

    SimHarness h;
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>(h.mainLoop);
    std::shared_ptr<sim::VirtualPeripheral> scale;
    std::shared_ptr<PKPlenk> plenk;
    std::vector<std::weak_ptr<RKDevice>> devices;
    int sent = 0;
};

// Auto-connect: every drop tears down and connects afresh; every fourth
// reconnect fails once first and is retried by the rescan.
TEST_F(Soak, AutoConnectDropsAndFailedReconnects) {
    const int cycles = soakCycles();
    start(true);
    int failures = 0;
    for (int i = 0; i < cycles; ++i) {
        ASSERT_TRUE(plenk->isConnected()) << "cycle " << i;
        recordDevice();
        streamWeights(5);
        h.settle();
        if (i % 4 == 3) {
            scale->queueConnectResult(sim::ConnectResult::failWithCode(13));
            ++failures;
        }
        scale->dropLink(i % 2 == 0 ? platformError(kPlatformConnectionTimeout) : nullptr);
        h.settle();
        ASSERT_LE(liveDevices(), 1) << "cycle " << i;
    }
    recordDevice();
    expectEveryWeightOnce();
    EXPECT_EQ(heard("connected"), cycles + 1);
    EXPECT_EQ(heard("disconnected"), cycles);
    EXPECT_EQ(heard("error 105"), failures);
    EXPECT_EQ(host->errors().size(), static_cast<std::size_t>(failures));
    EXPECT_EQ(host->offMainThread, 0);
    EXPECT_EQ(liveDevices(), 1);
    EXPECT_EQ(static_cast<int>(devices.size()), cycles + 1);
    EXPECT_EQ(h.world->centralCount(), 1u);
    EXPECT_EQ(h.mainLoop->pendingTasks(), 0u);
    EXPECT_TRUE(plenk->rosta()->discoveredResults().empty());
}

// A held scale (auto-connect off): drops come back silently on the same
// device; every fifth reconnect hangs, the watchdog gives up after three
// seconds and the host connects afresh.
TEST_F(Soak, HeldConnectionDropsAndWatchdogs) {
    const int cycles = soakCycles();
    start(false);
    int hangs = 0;
    for (int i = 0; i < cycles; ++i) {
        ASSERT_TRUE(plenk->isConnected()) << "cycle " << i;
        recordDevice();
        streamWeights(5);
        h.settle();
        if (i % 5 == 4) {
            scale->queueConnectResult(sim::ConnectResult::hang());
            scale->dropLink();
            h.advance(3s);
            ASSERT_FALSE(plenk->isConnected()) << "cycle " << i;
            ++hangs;
            plenk->rosta()->scanDeivces();
            h.settle();
        } else {
            scale->dropLink(platformError(kPlatformConnectionTimeout));
            h.advance(3s);  // the watchdog finds the link up
        }
        ASSERT_LE(liveDevices(), 1) << "cycle " << i;
    }
    recordDevice();
    expectEveryWeightOnce();
    EXPECT_EQ(heard("connected"), hangs + 1);
    EXPECT_EQ(heard("disconnected"), hangs);
    EXPECT_TRUE(host->errors().empty());
    EXPECT_EQ(host->offMainThread, 0);
    EXPECT_EQ(liveDevices(), 1);
    EXPECT_EQ(static_cast<int>(devices.size()), hangs + 1);
    EXPECT_EQ(h.clock->pendingTimers(), 0u);
    EXPECT_EQ(h.mainLoop->pendingTasks(), 0u);
}

}  // namespace
}  // namespace plenk::test
