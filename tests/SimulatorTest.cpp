// The public simulator as a host uses it: only <PlenkKit/PlenkKit.h>, a facade
// made on the simulator's context, and the scripts a host test would run.

#include <PlenkKit/PlenkKit.h>
#include <gtest/gtest.h>

#include <algorithm>
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
    std::vector<plenk::ErrorPtr> errors;
    float weight = 0;

    void plenkDidConnected(plenk::PKPlenk&) override { events.emplace_back("connected"); }
    void plenkDidDisconnected(plenk::PKPlenk&) override { events.emplace_back("disconnected"); }
    void plenkDidErrorOccur(plenk::PKPlenk&, const plenk::ErrorPtr& error) override {
        errors.push_back(error);
        events.push_back("error " + std::to_string(error->code()));
    }
    void plenkWeightDidUpdate(float grams) override { weight = grams; }
    void plenkDeviceDidClickButton(std::uint64_t button) override {
        events.push_back("button " + std::to_string(button));
    }
    bool contains(const std::string& event) const {
        return std::find(events.begin(), events.end(), event) != events.end();
    }
};

class SimulatorTest : public ::testing::Test {
protected:
    SimulatorTest() : sim(quiet()) {}

    static Simulator::Options quiet() {
        Simulator::Options options;
        options.log = plenk::LogSink::discard();
        return options;
    }
    // A connected facade on `scale`; the host's events start empty.
    void connect(Simulator::ScaleOptions options = {}) {
        scale = sim.addScale(std::move(options));
        plenk = plenk::PKPlenk::create(sim.context());
        plenk->setDelegate(host);
        plenk->setIsAutoConnectEnabled(true);
        ASSERT_TRUE(sim.runUntil([&] { return plenk->isConnected(); }));
        // The host's test can tell which scale the library linked.
        ASSERT_EQ(plenk->rosta()->currentDevice()->peripheral()->identifier(), scale.identifier());
        sim.advance(1s);
        host->events.clear();
    }

    Simulator sim;
    Simulator::Scale scale;
    std::shared_ptr<Host> host = std::make_shared<Host>();
    std::shared_ptr<plenk::PKPlenk> plenk;
};

TEST_F(SimulatorTest, WeightsInTheFormatTheNameCallsForButtonsAndBattery) {
    for (const auto& [name, format] : {std::pair{"Plenk Scale", Simulator::WeightFormat::Binary},
                                       std::pair{"Coffee Scale", Simulator::WeightFormat::Text}}) {
        SCOPED_TRACE(name);
        connect({.name = name, .format = format, .pourOnConnect = false, .noiseGrams = 0});
        EXPECT_EQ(scale.tareCount(), 1u);  // the kit tares every fresh connection
        scale.addLoad(123.4);
        sim.advance(1s);
        EXPECT_NEAR(host->weight, 123.4, 0.01);

        scale.pressButton(1);
        scale.setBatteryLevel(42);
        std::int64_t battery = -1;
        plenk->readPlenkBatteryLifeWithCompletion([&](std::int64_t level) { battery = level; });
        sim.advance(100ms);
        EXPECT_EQ(host->events, std::vector<std::string>{"button 1"});
        EXPECT_EQ(battery, 42);
        plenk.reset();
        sim.removeScale(scale);
        sim.settle();
    }
}

TEST_F(SimulatorTest, LinkLossAndConnectFailuresReachTheHostAndTheKitRelinks) {
    using Script = std::function<void(Simulator&, Simulator::Scale&)>;
    const auto error = [](std::int64_t code) { return plenk::platformError(code); };
    struct Case {
        const char* what;
        Script script;
        const char* hostError;  // expected among the events, or null for none
    };
    const Case cases[] = {
        {"supervision timeout", [&](auto&, auto& s) { s.dropLink(error(plenk::kPlatformConnectionTimeout)); },
         nullptr},
        {"out of range and back",
         [](auto& w, auto& s) {
             s.setInRange(false);
             w.advance(3s);
             s.setInRange(true);
         },
         nullptr},
        {"reconnect fails with a platform code",
         [](auto&, auto& s) {
             s.queueConnectOutcome(
                 Simulator::ConnectOutcome::failWithCode(plenk::kPlatformConnectionLimitReached));
             s.dropLink();
         },
         "error 103"},
        {"characteristic discovery fails",
         [](auto& w, auto& s) {
             s.failCharacteristicDiscovery(Simulator::Service::Scale,
                                           plenk::attError(plenk::kAttUnlikelyError));
             s.dropLink();
             w.advance(200ms);
             s.failCharacteristicDiscovery(Simulator::Service::Scale, nullptr);
         },
         "error 107"},
    };
    connect();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        host->events.clear();
        c.script(sim, scale);
        EXPECT_TRUE(sim.runUntil([&] { return plenk->isConnected() && scale.isConnected(); }));
        sim.advance(1s);
        ASSERT_FALSE(host->events.empty());
        EXPECT_EQ(host->events.front(), "disconnected");
        EXPECT_EQ(host->events.back(), "connected");
        EXPECT_TRUE(c.hostError == nullptr || host->contains(c.hostError));
    }
}

TEST_F(SimulatorTest, ReadWriteFailuresAndTheUpdateRestart) {
    connect({.pourOnConnect = false, .noiseGrams = 0});
    scale.failReads(Simulator::Characteristic::BatteryLevel, plenk::attError(plenk::kAttReadNotPermitted));
    scale.failWrites(Simulator::Characteristic::Command, plenk::attError(plenk::kAttWriteNotPermitted));
    plenk->readPlenkBatteryLifeWithCompletion(
        [](std::int64_t) { ADD_FAILURE() << "a failed read has no level"; });
    plenk->tare();
    sim.advance(100ms);
    EXPECT_EQ(host->events, (std::vector<std::string>{"error 109", "error 109"}));
    EXPECT_EQ(scale.tareCount(), 1u);  // the refused tare never reached the scale

    host->events.clear();
    scale.restartIntoUpdateMode();
    sim.advance(100ms);
    EXPECT_TRUE(host->contains("disconnected"));
    EXPECT_EQ(scale.name(), "DfuTarg");
    scale.finishFirmwareUpdate();
    EXPECT_EQ(scale.name(), "Plenk Scale");
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
