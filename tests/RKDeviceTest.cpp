// The scale device on the emulated scale: discovery and its failure codes,
// command frames, write-result slots, configuration reads and notifications.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>

#include "RostaKit/RKDeviceCore.h"
#include "support/DeviceTestSupport.h"
#include "wire/ConfigurationRecord.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk {
namespace {

using test::SimHarness;
using Frames = std::vector<std::vector<std::uint8_t>>;
using Log = std::vector<std::string>;

class RKDeviceTest : public ::testing::Test {
protected:
    // Links the scale and creates the device on it; discovery runs to the end.
    void start() {
        link = test::connect(h, scale);
        ASSERT_TRUE(link.peripheral);
        device = RKDeviceCore::create(link.peripheral, h.log, delegate);
        h.settle();
        scale->clearWrites();
    }

    // The frames that reached the command characteristic since start().
    Frames commandFrames() const {
        Frames frames;
        for (const auto& w : scale->writes()) {
            EXPECT_EQ(w.characteristic, wire::kCommandCharacteristic);
            EXPECT_EQ(w.type, bt::WriteType::WithResponse);
            frames.push_back(w.value.toVector());
        }
        return frames;
    }
    // A completion that records its result in the delegate's log.
    RKDevice::ResultCompletion result(std::string name) {
        return [this, name](bool ok, const ErrorPtr& error) {
            delegate->add(name + (ok ? " ok" : " failed") + (error ? " with error" : ""));
        };
    }

    SimHarness h;
    std::shared_ptr<sim::VirtualPeripheral> scale = h.addScale("Plenk Scale");
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    test::Link link;
    std::shared_ptr<RKDeviceCore> device;
};

TEST_F(RKDeviceTest, DiscoveryFindsTheScaleServiceThenSwitchesNotificationsOn) {
    std::atomic<std::size_t> listenersAtDiscovery{99};
    delegate->onDiscoverAll = [&] {
        listenersAtDiscovery = scale->subscriberCount(wire::kDataCharacteristic);
    };
    start();
    EXPECT_EQ(delegate->snapshot(), Log{"discovered"});
    EXPECT_EQ(listenersAtDiscovery, 0u);  // told before the switch-on
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    EXPECT_EQ(scale->subscriberCount(wire::kControlCharacteristic), 1u);
    EXPECT_EQ(device->infoChar()->uuid(), wire::kInfoCharacteristic);
    EXPECT_TRUE(commandFrames().empty());  // the device itself sends nothing
}

TEST_F(RKDeviceTest, DiscoveryFailuresReportTheirCodes) {
    struct Case {
        const char* name;
        std::function<void(sim::VirtualPeripheral&)> script;
        Log log;  // a failure on another service does not stop the scale service
    };
    const ErrorPtr platform = attError(kAttUnlikelyError);
    const std::vector<Case> cases = {
        {"no scale service", [](auto& s) { s.removeService(wire::kScaleService); }, {"error 1000"}},
        {"no data characteristic",
         [](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kDataCharacteristic); },
         {"error 1001"}},
        {"no command characteristic",
         [](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic); },
         {"error 1001"}},
        {"service discovery error", [&](auto& s) { s.failServiceDiscovery(platform); }, {"error 1002"}},
        {"scale characteristics error",
         [&](auto& s) { s.failCharacteristicDiscovery(wire::kScaleService, platform); },
         {"error 1003"}},
        {"battery characteristics error",
         [&](auto& s) { s.failCharacteristicDiscovery(wire::kBatteryService, platform); },
         {"error 1003", "discovered"}},
    };
    for (const auto& c : cases) {
        SimHarness world;
        auto peripheral = world.addScale();
        c.script(*peripheral);
        auto recorder = std::make_shared<test::RecordingDelegate>();
        auto l = test::connect(world, peripheral);
        auto d = RKDeviceCore::create(l.peripheral, world.log, recorder);
        world.settle();
        EXPECT_EQ(recorder->snapshot(), c.log) << c.name;
        EXPECT_EQ(recorder->errors().at(0)->domain(), "DeviceErrorDomain") << c.name;
        EXPECT_EQ(peripheral->subscriberCount(wire::kDataCharacteristic), c.log.size() - 1) << c.name;
    }
}

TEST_F(RKDeviceTest, OptionalCharacteristicsMayBeMissing) {
    scale->removeCharacteristic(wire::kScaleService, wire::kControlCharacteristic);
    scale->removeCharacteristic(wire::kScaleService, wire::kInfoCharacteristic);
    start();
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    EXPECT_EQ(h.simLog->count("dropped"), 0u);  // nothing asked of an absent characteristic

    device->readConfiguration([&](RKConfiguration) { delegate->add("configuration"); });
    device->readRawData([&](RKConfigurationRecord) { delegate->add("raw"); });
    device->initializeConfiguration(result("init"));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), Log{"discovered"});
    EXPECT_FALSE(device->configCompletion());
}

TEST_F(RKDeviceTest, CommandsWriteTheirFrames) {
    start();
    struct Case {
        const char* name;
        std::function<void(RKDevice&)> command;
        Frames frames;
    };
    const std::vector<Case> cases = {
        {"tare", [](auto& d) { d.tare(); }, {{0x10}}},
        {"calibrate", [](auto& d) { d.calibrate(0xFE); }, {{0xCA, 0xFE}}},
        {"unit 1", [](auto& d) { d.setUnit(1); }, {{0x03}}},
        {"unit 2", [](auto& d) { d.setUnit(2); }, {{0x02}}},
        {"LED on", [](auto& d) { d.setLEDDisplayOn(true); }, {{0xEC}, {0xED}}},
        {"LED off", [](auto& d) { d.setLEDDisplayOn(false); }, {{0xEE}}},
        {"timer off", [](auto& d) { d.setTimerOn(false, true); }, {{0x0A, 0x00}}},
        {"timer on", [](auto& d) { d.setTimerOn(true, false); }, {{0x0A, 0x01}}},
        {"timer on default", [](auto& d) { d.setTimerOn(true, true); }, {{0x0A, 0x03}}},
        {"auto start", [](auto& d) { d.setTimerAutoStart(true); }, {{0x0A, 0x01}}},
        {"no auto start", [](auto& d) { d.setTimerAutoStart(false); }, {{0x0A, 0x31}}},
        {"power enhanced", [](auto& d) { d.setBLEPowerEnhanced(true); }, {{0x0B, 0x01}}},
        {"power normal", [](auto& d) { d.setBLEPowerEnhanced(false); }, {{0x0B, 0x00}}},
        {"sleep mode 0", [](auto& d) { d.setSleepTime(2, 0); }, {{0x05, 0x02}}},
        {"sleep mode 1", [](auto& d) { d.setSleepTime(1000, 1); }, {{0x06, 0x00}}},
        {"advertising mode 0", [](auto& d) { d.setAdvertisingTime(-1, 0); }, {{0x07, 0x00}}},
        {"advertising mode 5", [](auto& d) { d.setAdvertisingTime(3, 5); }, {{0x08, 0x03}}},
        {"segment", [](auto& d) { d.sevenSegmentCommand(0xEA); }, {{0xEA}}},
        {"segment with data", [](auto& d) { d.sevenSegmentCommand(0xE3, 0x42); }, {{0xE3, 0x42}}},
        // Last: the firmware drops the link on this one.
        {"firmware disconnect", [](auto& d) { d.setFWDisconnect(); }, {{0xF1}}},
    };
    for (const auto& c : cases) {
        scale->clearWrites();
        c.command(*device);
        h.settle();
        EXPECT_EQ(commandFrames(), c.frames) << c.name;
    }
    EXPECT_TRUE(delegate->errors().empty());
}

TEST_F(RKDeviceTest, CommandsBeforeTheCommandCharacteristicAreDroppedSilently) {
    scale->removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic);
    start();
    device->tare();
    device->setLEDDisplayOn(true);
    device->sevenSegmentCommand(0x01, 0x02);
    device->synchronize(result("sync"));
    device->enableDFUMode(result("dfu"));
    device->setDeaultConfiguartion(result("defaults"));
    device->initializeConfiguration(result("init"));  // "EF83" is there: reads, then cannot write
    h.settle();
    EXPECT_TRUE(scale->writes().empty());
    EXPECT_EQ(delegate->snapshot(), Log{"error 1001"});
    EXPECT_FALSE(device->syncCompletion());
    EXPECT_FALSE(device->dfuCompletion());
    EXPECT_FALSE(device->initCompletion());
}

// Write results are not matched to frames: each result on the command
// characteristic feeds the first pending slot (dfu, sync, init).
TEST_F(RKDeviceTest, WriteResultsFeedSlotsInPriorityOrderNotByFrame) {
    start();
    device->setInitCompletion(result("init"));
    device->setSyncCompletion(result("sync"));
    device->setDfuCompletion(result("dfu"));
    for (int i = 0; i < 4; ++i) device->tare();
    h.settle();
    // The fourth result found no slot, and succeeded: no news.
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "dfu ok", "sync ok", "init ok"}));
    EXPECT_EQ(h.log->count("\n init completaion "), 1u);

    // A failure with no slot is a write error for the delegate; on another
    // characteristic it is one even with a slot pending.
    scale->failWrites(wire::kCommandCharacteristic, attError(kAttWriteNotPermitted));
    device->synchronize(result("sync"));
    device->tare();
    h.settle();
    device->setSyncCompletion(result("pending"));
    device->peripheralDidWriteValueForCharacteristicError(*link.peripheral, device->dataChar(),
                                                          attError(kAttWriteNotPermitted));
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "dfu ok", "sync ok", "init ok",
                                         "sync failed with error", "error 1004", "error 1004"}));
    EXPECT_EQ(h.log->count("\n write error -> "), 2u);
    EXPECT_TRUE(device->syncCompletion());
}

TEST_F(RKDeviceTest, InitialisingAnUnconfiguredScaleWritesTheDefaultsAndCompletesTwice) {
    start();
    device->initializeConfiguration(result("init"));
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0x03},
                                       {0x0A, 0x00},
                                       {0x06, 0x00},
                                       {0x05, 0x00},
                                       {0x08, 0x00},
                                       {0x07, 0x00},
                                       {0x09, 0x01},
                                       {0x04}}));
    // The six other results found no slot.
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "init ok", "init ok"}));
    EXPECT_EQ(h.log->count("\n setting default"), 1u);
    EXPECT_FALSE(device->syncCompletion());
    EXPECT_FALSE(device->initCompletion());
    bool configured = false;
    scale->withScale([&](emulator::ScaleEmulator& e) { configured = e.isConfigured(); });
    EXPECT_TRUE(configured);

    // Now configured: one success and no writes.
    scale->clearWrites();
    device->initializeConfiguration(result("again"));
    h.settle();
    EXPECT_TRUE(scale->writes().empty());
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "init ok", "init ok", "again ok"}));
}

TEST_F(RKDeviceTest, RawReadsTakePrecedenceAndTheDecodedReceiverStays) {
    start();
    // Replies take a while, so both requests are out before the first reply.
    h.world->setTimings(sim::Timings{{}, {}, std::chrono::milliseconds(2)});
    std::atomic<int> first{0}, second{0}, raw{0};
    RKConfiguration lastDecoded{};
    RKConfigurationRecord lastRaw{};
    device->readConfiguration([&](RKConfiguration) { ++first; });
    device->readConfiguration([&](RKConfiguration c) {
        lastDecoded = c;
        ++second;
    });
    h.advance(std::chrono::milliseconds(10));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 2);                   // both reads' values went to the receiver in place
    EXPECT_EQ(lastDecoded.byte10High, 15);  // unconfigured: FF FF FF
    EXPECT_EQ(lastDecoded.byte12Low, 15);

    device->readRawData([&](RKConfigurationRecord r) {
        lastRaw = r;
        ++raw;
    });
    h.advance(std::chrono::milliseconds(10));
    EXPECT_EQ(raw, 1);
    EXPECT_EQ(second, 2);
    EXPECT_TRUE(wire::isUnconfigured(lastRaw));
    EXPECT_FALSE(device->configValueCompletion());

    // A later value with no raw read pending goes to the decoded receiver again.
    device->peripheralDidUpdateValueForCharacteristicError(*link.peripheral, device->infoChar(), nullptr);
    EXPECT_EQ(second, 3);
    EXPECT_EQ(raw, 1);
}

// Weights are decoded by the name the peripheral has now, buttons are 1 and 2
// only, and a failed update is a read error.
TEST_F(RKDeviceTest, NotificationsBecomeWeightsButtonsOrErrors) {
    start();
    const auto binary = wire::encodeBinaryWeight(12345, -1);
    scale->notify(wire::kDataCharacteristic, bt::Bytes(std::span<const std::uint8_t>(binary)));
    h.settle();
    scale->setName("Coffee Scale");
    h.settle();
    scale->notify(wire::kDataCharacteristic, bt::Bytes{'3', '6', '4'});
    h.settle();
    scale->setName("Kitchen");
    h.settle();
    scale->notify(wire::kDataCharacteristic, bt::Bytes(std::span<const std::uint8_t>(binary)));
    for (std::uint8_t b : {0x01, 0x00, 0x02, 0x03, 0xFF})
        scale->notify(wire::kControlCharacteristic, bt::Bytes{b});
    scale->notify(wire::kControlCharacteristic, bt::Bytes{});
    scale->notify(wire::kDataCharacteristic, bt::Bytes{}, attError(kAttUnlikelyError));
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "weight 1234.5", "weight 36.4", "weight 0", "button 0",
                                         "button 1", "error 1005"}));
    EXPECT_EQ(device->deviceName(), "Plenk Scale");  // the kept name is not what decides

    // A failed configuration read is a read error too, and leaves the request waiting.
    scale->failReads(wire::kInfoCharacteristic, attError(kAttReadNotPermitted));
    device->readRawData([&](RKConfigurationRecord) { delegate->add("raw"); });
    h.settle();
    EXPECT_EQ(delegate->snapshot().back(), "error 1005");
    EXPECT_TRUE(device->configValueCompletion());
}

TEST_F(RKDeviceTest, DfuModeCompletesWithTheWriteResult) {
    start();
    device->enableDFUMode(result("dfu"));
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0xAA, 0x55}}));
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "dfu ok"}));
    EXPECT_TRUE(scale->inUpdateMode());
}

TEST_F(RKDeviceTest, RenewRediscoversOnTheNewPeripheral) {
    start();
    link.central->cancelPeripheralConnection(link.peripheral);
    h.settle();
    auto again = test::connect(h, scale);
    device->renewPeripheral(again.peripheral);
    h.settle();
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    device->tare();
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0x10}}));
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "discovered"}));
}

TEST_F(RKDeviceTest, DestructionClearsThePeripheralsDelegateUnlessTakenOver) {
    start();
    ASSERT_EQ(link.peripheral->delegate(), device);
    auto successor = RKDeviceCore::create(link.peripheral, h.log);
    h.settle();
    device.reset();
    EXPECT_EQ(link.peripheral->delegate(), successor);
    successor.reset();
    EXPECT_EQ(link.peripheral->delegate(), nullptr);
}

TEST_F(RKDeviceTest, ADelegateSetThroughTheBaseReachesTheScaleReports) {
    start();
    auto other = std::make_shared<test::RecordingDelegate>();
    CSRDevice& base = *device;
    base.setDelegate(other);
    EXPECT_EQ(device->delegate(), other);
    scale->pressButton(0);
    scale->setBatteryLevel(50);
    device->readBatteryState();
    h.settle();
    EXPECT_EQ(other->snapshot(), (Log{"button 0", "battery 50"}));
    EXPECT_EQ(delegate->snapshot(), Log{"discovered"});
}

}  // namespace
}  // namespace plenk
