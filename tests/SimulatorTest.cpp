// The public simulator as a host uses it: only <PlenkKit/PlenkKit.h>, a facade
// made on the simulator's context, and the scale scripts a host test would run,
// each seen through what the host hears.

#include <PlenkKit/PlenkKit.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using plenk::Simulator;

// What the host's delegate heard, in order (the main queue runs on the test's thread).
struct Host final : plenk::PKPlenkDelegate {
    std::vector<std::string> events;
    float weight = 0;

    void plenkDidConnected(plenk::PKPlenk&) override { events.emplace_back("connected"); }
    void plenkDidDisconnected(plenk::PKPlenk&) override { events.emplace_back("disconnected"); }
    void plenkDidErrorOccur(plenk::PKPlenk&, const plenk::ErrorPtr& error) override {
        events.push_back("error " + std::to_string(error->code()));
    }
    void plenkWeightDidUpdate(float grams) override { weight = grams; }
    void plenkDeviceDidClickButton(std::uint64_t button) override {
        events.push_back("button " + std::to_string(button));
    }
};

// Each script runs on a linked scale; the kit then links again if it lost the scale.
TEST(SimulatorTest, ScaleScriptsReachTheHostAsTheirEvents) {
    Simulator::Options options;
    options.log = plenk::LogSink::discard();
    Simulator sim(options);
    auto host = std::make_shared<Host>();
    auto scale = sim.addScale({.name = "Coffee Scale",
                               .format = Simulator::WeightFormat::Text,
                               .pourOnConnect = false,
                               .noiseGrams = 0});
    auto plenk = plenk::PKPlenk::create(sim.context());
    plenk->setDelegate(host);
    plenk->setIsAutoConnectEnabled(true);
    ASSERT_TRUE(sim.runUntil([&] { return plenk->isConnected(); }));
    // The host's test can tell which scale the library linked.
    ASSERT_EQ(plenk->rosta()->currentDevice()->peripheral()->identifier(), scale.identifier());
    sim.advance(1s);
    EXPECT_EQ(scale.tareCount(), 1u);  // the kit tares every fresh connection
    EXPECT_EQ(scale.receivedCommands(), (std::vector<std::vector<std::uint8_t>>{{0x10}}));
    scale.addLoad(123.4);
    sim.advance(1s);
    EXPECT_NEAR(host->weight, 123.4, 0.01);  // sent as text, as the name calls for

    using Characteristic = Simulator::Characteristic;
    using Log = std::vector<std::string>;
    struct Case {
        const char* what;
        std::function<void(Simulator::Scale&)> script;
        Log events;
    };
    const Case cases[] = {
        {"button and battery",
         [&](auto& s) {
             s.pressButton(1);
             s.setBatteryLevel(42);
             plenk->readPlenkBatteryLifeWithCompletion(
                 [&](std::int64_t level) { host->events.push_back("battery " + std::to_string(level)); });
         },
         {"button 1", "battery 42"}},
        {"failed battery read",
         [&](auto& s) {
             s.failReads(Characteristic::BatteryLevel, plenk::attError(plenk::kAttReadNotPermitted));
             plenk->readPlenkBatteryLifeWithCompletion(
                 [&](std::int64_t) { host->events.emplace_back("level"); });
             sim.advance(100ms);
             s.failReads(Characteristic::BatteryLevel, nullptr);
         },
         {"error 109"}},
        {"refused tare",
         [&](auto& s) {
             s.failWrites(Characteristic::Command, plenk::attError(plenk::kAttWriteNotPermitted));
             plenk->tare();
             sim.advance(100ms);
             s.failWrites(Characteristic::Command, nullptr);
             EXPECT_EQ(s.tareCount(), 1u);  // never reached the scale
         },
         {"error 109"}},
        {"out of range and back",
         [&](auto& s) {
             s.setInRange(false);
             sim.advance(3s);
             s.setInRange(true);
         },
         {"disconnected", "connected"}},
        {"reconnect fails with a platform code",
         [](auto& s) {
             s.queueConnectOutcome(
                 Simulator::ConnectOutcome::failWithCode(plenk::kPlatformConnectionLimitReached));
             s.dropLink();
         },
         {"disconnected", "error 103", "connected"}},
        {"characteristic discovery fails",
         [&](auto& s) {
             s.failCharacteristicDiscovery(Simulator::Service::Scale,
                                           plenk::attError(plenk::kAttUnlikelyError));
             s.dropLink();
             while (host->events.size() < 2) sim.advance(1ms);  // the first failure only
             s.failCharacteristicDiscovery(Simulator::Service::Scale, nullptr);
         },
         {"disconnected", "error 107", "disconnected", "connected"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        host->events.clear();
        c.script(scale);
        EXPECT_TRUE(sim.runUntil([&] { return plenk->isConnected() && scale.isConnected(); }));
        sim.advance(1s);
        EXPECT_EQ(host->events, c.events);
    }

    host->events.clear();
    scale.restartIntoUpdateMode();
    sim.advance(100ms);
    EXPECT_EQ(host->events, Log{"disconnected"});
    EXPECT_EQ(scale.name(), "DfuTarg");
    scale.finishFirmwareUpdate();
    EXPECT_EQ(scale.name(), "Coffee Scale");
}

TEST(SimulatorEdges, RealTimeBadInputAndEmptyHandles) {
    Simulator::Options options;
    options.clock = plenk::Clock::steady();
    options.log = plenk::LogSink::discard();
    Simulator real(options);
    EXPECT_FALSE(real.hasVirtualTime());
    EXPECT_THROW(real.advance(1s), std::logic_error);
    auto scale = real.addScale();
    auto plenk = plenk::PKPlenk::create(real.context());
    plenk->setIsAutoConnectEnabled(true);
    EXPECT_TRUE(real.runUntil([&] { return plenk->isConnected(); }, 5s));
    EXPECT_THROW(scale.pressButton(2), std::invalid_argument);
}

}  // namespace
