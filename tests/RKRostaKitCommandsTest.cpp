// The kit's own command mappings (each device command's frame is checked by
// the device test), its configuration exchanges and battery read, and the
// events coming back, all on the main queue.

#include <functional>

#include "support/KitTestSupport.h"
#include "wire/ConfigurationRecord.h"
#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

using Frames = std::vector<std::vector<std::uint8_t>>;
using Log = std::vector<std::string>;

class KitCommands : public KitFixture {
protected:
    void connect() {
        scale = h.addScale();
        makeKit();
        h.settle();
        ASSERT_TRUE(kit->isConnected());
        scale->clearWrites();
        delegate->clear();
    }
    std::shared_ptr<sim::VirtualPeripheral> scale;
};

TEST_F(KitCommands, EachCommandReachesTheScaleAsItsFrames) {
    connect();
    struct Case {
        const char* name;
        std::function<void(RKRostaKit&)> send;
        Frames frames;
    };
    const std::vector<Case> cases = {
        {"tare", [](RKRostaKit& k) { k.tare(); }, {{0x10}}},
        {"calibrate", [](RKRostaKit& k) { k.calibrate(7); }, {{0xCA, 0x07}}},
        // Block numbers are taken modulo 8 into the low bits of 0xE0.
        {"segment block 3", [](RKRostaKit& k) { k.sevenSegmentBlock(3, 0x42); }, {{0xE3, 0x42}}},
        {"segment block 10", [](RKRostaKit& k) { k.sevenSegmentBlock(10, 0x01); }, {{0xE2, 0x01}}},
        {"segment preset", [](RKRostaKit& k) { k.sevenSegmentPreset(5); }, {{0xEB, 0x05}}},
        {"segment update", [](RKRostaKit& k) { k.sevenSegmentUpdate(); }, {{0xEA}}},
        {"segment release", [](RKRostaKit& k) { k.sevenSegmentReleaseControl(); }, {{0xEC}}},
        {"segment on", [](RKRostaKit& k) { k.sevenSegmentSwitchOn(true); }, {{0xED}}},
        {"segment off", [](RKRostaKit& k) { k.sevenSegmentSwitchOn(false); }, {{0xEE}}},
        {"firmware version", [](RKRostaKit& k) { k.getFWVersion(); }, {{0x00}}},
        // The indication LED and the engineering mode share sub-command 0x01.
        {"indication LED on", [](RKRostaKit& k) { k.indicationLEDSwitchOn(true); }, {{0x01, 0x01}}},
        {"engineering on", [](RKRostaKit& k) { k.setEngineeringMode(true); }, {{0x01, 0x11}}},
        // Any non-zero unit is sent as unit 1.
        {"unit 2", [](RKRostaKit& k) { k.setUnit(2); }, {{0x03}}},
        {"unit -1", [](RKRostaKit& k) { k.setUnit(-1); }, {{0x03}}},
        {"unit 0", [](RKRostaKit& k) { k.setUnit(0); }, {{0x02}}},
    };
    for (const auto& c : cases) {
        scale->clearWrites();
        c.send(*kit);
        h.settle();
        EXPECT_EQ(commandFrames(scale), c.frames) << c.name;
    }
}

TEST_F(KitCommands, WithoutADeviceEveryRequestIsDropped) {
    scale = h.addScale();
    makeKit(false);
    h.settle();
    ASSERT_EQ(kit->currentDevice(), nullptr);
    kit->tare();
    kit->setUnit(1);
    kit->synchronize(delegate->result("sync"));
    kit->initializeConfiguration(delegate->result("init"));
    kit->readConfiguration([this](RKConfiguration) { delegate->add("configuration"); });
    kit->readRostaBatteryLifeWithCompletion([this](std::int64_t) { delegate->add("battery"); });
    h.advance(std::chrono::seconds(5));
    EXPECT_TRUE(scale->writes().empty());
    EXPECT_TRUE(delegate->snapshot().empty());
}

// The battery completion is one-shot, a second request replaces the first,
// and a button press reads the battery although nobody asked.
TEST_F(KitCommands, BatteryReadsAndButtonPresses) {
    connect();
    const auto battery = [this](std::string name) {
        return [this, name](std::int64_t level) { delegate->add(name + " " + std::to_string(level)); };
    };
    kit->readRostaBatteryLifeWithCompletion(battery("first"));
    kit->readRostaBatteryLifeWithCompletion(battery("second"));
    h.settle();
    EXPECT_FALSE(kit->batteryCompletion());
    scale->setBatteryLevel(42);
    scale->pressButton(1);
    h.settle();
    EXPECT_EQ(kit->currentDevice()->batteryLife(), 42);

    kit->setBatteryCompletion(battery("armed"));
    scale->setBatteryLevel(41);
    scale->pressButton(0);
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (Log{"second 85", "button 1", "button 0", "armed 41"}));
    EXPECT_EQ(delegate->offMainThread, 0);
}

TEST_F(KitCommands, ConfigurationExchangesCompleteOnTheMainQueue) {
    connect();
    RKConfigurationRecord record{};
    scale->withScale([&](emulator::ScaleEmulator& e) { record = e.configurationRecord(h.clock->now()); });
    kit->readConfiguration([&](RKConfiguration configuration) {
        EXPECT_EQ(configuration, wire::decodeConfiguration(record));
        delegate->add("configuration");
    });
    // The host may call the kit from inside a completion.
    kit->synchronize([this](bool ok, const ErrorPtr&) {
        delegate->add(ok ? "sync ok" : "sync failed");
        kit->tare();
    });
    h.settle();
    EXPECT_EQ(commandFrames(scale), (Frames{{0x04}, {0x10}}));
    EXPECT_EQ(h.log->count("\n did sync in rosta"), 1u);

    // Unconfigured: the defaults are written and the results of the first two
    // writes complete; then configured: a single success, nothing written.
    kit->initializeConfiguration(delegate->result("init"));
    h.settle();
    EXPECT_EQ(commandFrames(scale).size(), 2u + 8u);
    scale->clearWrites();
    kit->initializeConfiguration(delegate->result("again"));
    h.settle();
    EXPECT_TRUE(commandFrames(scale).empty());
    EXPECT_EQ(delegate->snapshot(), (Log{"configuration", "sync ok", "init ok", "init ok", "again ok"}));
    EXPECT_EQ(delegate->offMainThread, 0);
}

}  // namespace
}  // namespace plenk::test
