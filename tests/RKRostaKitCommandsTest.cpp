// The kit's commands as frames on the scale, its configuration exchanges and
// battery read, and the events coming back (weight, button, battery).

#include <functional>

#include "RKRostaKitTestSupport.h"
#include "wire/ConfigurationRecord.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Frames = std::vector<std::vector<std::uint8_t>>;

class KitCommands : public KitFixture {
protected:
    void connect() {
        scale = h.addScale();
        makeKit();
        h.settle();
        ASSERT_TRUE(kit->isConnected());
        scale->clearWrites();
    }
    std::shared_ptr<sim::VirtualPeripheral> scale;
};

// Records (success, error) results and whether they came on the main loop.
struct Results {
    std::mutex mutex;
    std::vector<std::pair<bool, ErrorPtr>> calls;
    int offMain = 0;

    RKRostaKit::ResultCompletion completion(std::shared_ptr<RunLoop> main) {
        return [this, main](bool ok, const ErrorPtr& error) {
            std::lock_guard lock(mutex);
            calls.emplace_back(ok, error);
            if (!main->isCurrent()) ++offMain;
        };
    }
};

struct CommandCase {
    std::string name;
    std::function<void(RKRostaKit&)> send;
    Frames frames;
};
// Readable parameter names in test listings.
[[maybe_unused]] void PrintTo(const CommandCase& c, std::ostream* os) {
    *os << c.name;
}

class KitCommandFrames : public KitCommands, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(KitCommandFrames, ReachTheScaleAsTheseFrames) {
    connect();
    GetParam().send(*kit);
    h.settle();
    EXPECT_EQ(commandFrames(scale), GetParam().frames);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, KitCommandFrames,
    ::testing::Values(
        CommandCase{"Tare", [](RKRostaKit& k) { k.tare(); }, {{0x10}}},
        CommandCase{"Calibrate", [](RKRostaKit& k) { k.calibrate(7); }, {{0xCA, 0x07}}},
        CommandCase{
            "SegmentCommand", [](RKRostaKit& k) { k.sevenSegmentCommand(0x42, 0x24); }, {{0x42, 0x24}}},
        // Block numbers are taken modulo 8 into the low bits of 0xE0.
        CommandCase{"SegmentBlock3", [](RKRostaKit& k) { k.sevenSegmentBlock(3, 0x42); }, {{0xE3, 0x42}}},
        CommandCase{"SegmentBlock10", [](RKRostaKit& k) { k.sevenSegmentBlock(10, 0x01); }, {{0xE2, 0x01}}},
        CommandCase{"SegmentPreset", [](RKRostaKit& k) { k.sevenSegmentPreset(5); }, {{0xEB, 0x05}}},
        CommandCase{"SegmentUpdate", [](RKRostaKit& k) { k.sevenSegmentUpdate(); }, {{0xEA}}},
        CommandCase{"SegmentRelease", [](RKRostaKit& k) { k.sevenSegmentReleaseControl(); }, {{0xEC}}},
        CommandCase{"SegmentOn", [](RKRostaKit& k) { k.sevenSegmentSwitchOn(true); }, {{0xED}}},
        CommandCase{"SegmentOff", [](RKRostaKit& k) { k.sevenSegmentSwitchOn(false); }, {{0xEE}}},
        CommandCase{"FirmwareVersion", [](RKRostaKit& k) { k.getFWVersion(); }, {{0x00}}},
        // The indication LED and the engineering mode share sub-command 0x01.
        CommandCase{"IndicationLedOn", [](RKRostaKit& k) { k.indicationLEDSwitchOn(true); }, {{0x01, 0x01}}},
        CommandCase{
            "IndicationLedOff", [](RKRostaKit& k) { k.indicationLEDSwitchOn(false); }, {{0x01, 0x00}}},
        CommandCase{"EngineeringOn", [](RKRostaKit& k) { k.setEngineeringMode(true); }, {{0x01, 0x11}}},
        CommandCase{"EngineeringOff", [](RKRostaKit& k) { k.setEngineeringMode(false); }, {{0x01, 0x10}}},
        CommandCase{"AdvertisingTime", [](RKRostaKit& k) { k.setAdvertisingTime(2, 1); }, {{0x08, 0x02}}},
        CommandCase{"SleepTime", [](RKRostaKit& k) { k.setSleepTime(3, 0); }, {{0x05, 0x03}}},
        CommandCase{"TimerOn", [](RKRostaKit& k) { k.setTimerOn(true, true); }, {{0x0A, 0x03}}},
        CommandCase{"TimerAutoStart", [](RKRostaKit& k) { k.setTimerAutoStart(false); }, {{0x0A, 0x31}}},
        CommandCase{"PowerEnhanced", [](RKRostaKit& k) { k.setBLEPowerEnhanced(true); }, {{0x0B, 0x01}}},
        CommandCase{"LedDisplayOn", [](RKRostaKit& k) { k.setLEDDisplayOn(true); }, {{0xEC}, {0xED}}},
        CommandCase{"LedDisplayOff", [](RKRostaKit& k) { k.setLEDDisplayOn(false); }, {{0xEE}}},
        // Any non-zero unit is sent as unit 1.
        CommandCase{"Unit2", [](RKRostaKit& k) { k.setUnit(2); }, {{0x03}}},
        CommandCase{"UnitMinus1", [](RKRostaKit& k) { k.setUnit(-1); }, {{0x03}}},
        CommandCase{"Unit0", [](RKRostaKit& k) { k.setUnit(0); }, {{0x02}}},
        // The scale drops the link on F1; the fresh connection that follows is tared.
        CommandCase{"FirmwareDisconnect", [](RKRostaKit& k) { k.setFWDisconnect(); }, {{0xF1}, {0x10}}}),
    [](const auto& info) { return info.param.name; });

TEST_F(KitCommands, WithoutADeviceEveryRequestIsDropped) {
    scale = h.addScale();
    makeKit(false);
    h.settle();
    ASSERT_EQ(kit->currentDevice(), nullptr);

    Results results;
    int other = 0;
    kit->tare();
    kit->setLEDDisplayOn(true);
    kit->sevenSegmentBlock(1, 2);
    kit->setUnit(1);
    kit->synchronize(results.completion(h.mainLoop));
    kit->initializeConfiguration(results.completion(h.mainLoop));
    kit->readConfiguration([&](RKConfiguration) { ++other; });
    kit->readRostaBatteryLifeWithCompletion([&](std::int64_t) { ++other; });
    h.advance(std::chrono::seconds(5));
    EXPECT_TRUE(scale->writes().empty());
    EXPECT_TRUE(results.calls.empty());
    EXPECT_EQ(other, 0);
    EXPECT_FALSE(kit->batteryCompletion());
}

// --- Battery -----------------------------------------------------------------------------------------------

TEST_F(KitCommands, BatteryLevelReachesTheCompletionOnTheMainQueue) {
    connect();
    std::vector<std::int64_t> levels;
    int offMain = 0;
    kit->readRostaBatteryLifeWithCompletion([&](std::int64_t level) {
        levels.push_back(level);
        if (!h.mainLoop->isCurrent()) ++offMain;
    });
    h.settle();
    EXPECT_EQ(levels, (std::vector<std::int64_t>{85}));
    EXPECT_EQ(offMain, 0);
    EXPECT_FALSE(kit->batteryCompletion());  // one-shot
}

TEST_F(KitCommands, SecondBatteryReadReplacesTheFirst) {
    connect();
    std::vector<std::string> calls;
    kit->readRostaBatteryLifeWithCompletion(
        [&](std::int64_t level) { calls.push_back("first " + std::to_string(level)); });
    kit->readRostaBatteryLifeWithCompletion(
        [&](std::int64_t level) { calls.push_back("second " + std::to_string(level)); });
    h.settle();
    EXPECT_EQ(calls, (std::vector<std::string>{"second 85"}));
}

TEST_F(KitCommands, ButtonPressReadsTheBatteryAndReportsTheButton) {
    connect();
    scale->setBatteryLevel(42);
    scale->pressButton(1);
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "button 1"}));
    // The read happened although nobody asked for the level.
    EXPECT_EQ(kit->currentDevice()->batteryLife(), 42);

    std::vector<std::int64_t> levels;
    kit->setBatteryCompletion([&](std::int64_t level) { levels.push_back(level); });
    scale->setBatteryLevel(41);
    scale->pressButton(0);
    h.settle();
    EXPECT_EQ(levels, (std::vector<std::int64_t>{41}));
    EXPECT_EQ(delegate->count("button 0"), 1u);
}

// --- Configuration exchanges -------------------------------------------------------------------------------

TEST_F(KitCommands, ReadConfigurationDeliversTheDecodedRecordOnTheMainQueue) {
    connect();
    RKConfigurationRecord record{};
    scale->withScale([&](emulator::ScaleEmulator& e) { record = e.configurationRecord(h.clock->now()); });

    std::vector<RKConfiguration> received;
    bool onMain = true;
    kit->readConfiguration([&](RKConfiguration configuration) {
        received.push_back(configuration);
        onMain = onMain && h.mainLoop->isCurrent();
    });
    h.settle();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], wire::decodeConfiguration(record));
    EXPECT_TRUE(onMain);
}

TEST_F(KitCommands, SynchronizeCompletesOnTheMainQueue) {
    connect();
    Results results;
    kit->synchronize(results.completion(h.mainLoop));
    h.settle();
    ASSERT_EQ(results.calls.size(), 1u);
    EXPECT_TRUE(results.calls[0].first);
    EXPECT_EQ(results.calls[0].second, nullptr);
    EXPECT_EQ(results.offMain, 0);
    EXPECT_EQ(commandFrames(scale), (Frames{{0x04}}));
    EXPECT_EQ(h.log->count("\n did sync in rosta"), 1u);
}

TEST_F(KitCommands, InitializingAnUnconfiguredScaleWritesTheDefaultsAndCompletesTwice) {
    connect();
    Results results;
    kit->initializeConfiguration(results.completion(h.mainLoop));
    h.settle();
    EXPECT_EQ(results.calls.size(), 2u);  // the results of the first two writes
    EXPECT_EQ(commandFrames(scale).size(), 8u);
    EXPECT_EQ(results.offMain, 0);

    // Now configured: a single success, nothing written.
    scale->clearWrites();
    Results again;
    kit->initializeConfiguration(again.completion(h.mainLoop));
    h.settle();
    ASSERT_EQ(again.calls.size(), 1u);
    EXPECT_TRUE(again.calls[0].first);
    EXPECT_TRUE(commandFrames(scale).empty());
}

// Write results are not matched to frames: the next result on the command
// characteristic feeds the first pending slot.
TEST_F(KitCommands, NextWriteResultFeedsThePendingSlotAndTheRestAreReported) {
    connect();
    scale->failWrites(wire::kCommandCharacteristic, attError(kAttWriteNotPermitted));
    Results results;
    kit->synchronize(results.completion(h.mainLoop));
    kit->tare();
    h.settle();
    ASSERT_EQ(results.calls.size(), 1u);
    EXPECT_FALSE(results.calls[0].first);
    EXPECT_NE(results.calls[0].second, nullptr);
    // The tare's failure found no slot: a write error for the delegate.
    EXPECT_EQ(delegate->snapshot(), (std::vector<std::string>{"connected", "error 109"}));
}

TEST_F(KitCommands, HostMayCallTheKitFromItsCompletions) {
    connect();
    Results results;
    kit->synchronize([&, weak = std::weak_ptr<RKRostaKit>(kit)](bool ok, const ErrorPtr& error) {
        results.completion(h.mainLoop)(ok, error);
        if (auto k = weak.lock()) {
            k->tare();
            k->readRostaBatteryLifeWithCompletion([k](std::int64_t) { k->setLEDDisplayOn(false); });
        }
    });
    h.settle();
    EXPECT_EQ(commandFrames(scale), (Frames{{0x04}, {0x10}, {0xEE}}));
}

}  // namespace
}  // namespace plenk::test
