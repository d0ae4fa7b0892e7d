// The scale device on the emulated scale: discovery and its failure codes,
// command frames, write-result slots, configuration reads and notifications.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>

#include "DeviceTestSupport.h"
#include "RostaKit/RKDeviceCore.h"
#include "wire/ConfigurationRecord.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk {
namespace {

using test::SimHarness;
namespace em = emulator;
using Frames = std::vector<std::vector<std::uint8_t>>;

class RKDeviceTest : public ::testing::Test {
protected:
    // Links the scale and creates the device on it; discovery runs to the end.
    void start(const std::shared_ptr<sim::VirtualPeripheral>& peripheral) {
        link = test::connect(h, peripheral);
        ASSERT_TRUE(link.peripheral);
        device = RKDeviceCore::create(link.peripheral, h.log, delegate);
        ASSERT_TRUE(device);
        h.settle();
        peripheral->clearWrites();
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

    SimHarness h;
    std::shared_ptr<sim::VirtualPeripheral> scale = h.addScale("Plenk Scale");
    std::shared_ptr<test::RecordingDeviceDelegate> delegate =
        std::make_shared<test::RecordingDeviceDelegate>();
    test::Link link;
    std::shared_ptr<RKDeviceCore> device;
};

TEST_F(RKDeviceTest, DiscoveryFindsTheScaleServiceThenSwitchesNotificationsOn) {
    std::atomic<std::size_t> listenersAtDiscovery{99};
    delegate->onDiscoverAll = [&] {
        listenersAtDiscovery = scale->subscriberCount(wire::kDataCharacteristic);
    };
    start(scale);
    EXPECT_EQ(delegate->discoveredAll(), 1);
    EXPECT_EQ(listenersAtDiscovery, 0u);  // told before the switch-on
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    EXPECT_EQ(scale->subscriberCount(wire::kControlCharacteristic), 1u);
    EXPECT_TRUE(delegate->errors().empty());
    ASSERT_TRUE(device->scaleService());
    EXPECT_EQ(device->scaleService()->uuid(), wire::kScaleService);
    EXPECT_EQ(device->cmdChar()->uuid(), wire::kCommandCharacteristic);
    EXPECT_EQ(device->dataChar()->uuid(), wire::kDataCharacteristic);
    EXPECT_EQ(device->controlChar()->uuid(), wire::kControlCharacteristic);
    EXPECT_EQ(device->infoChar()->uuid(), wire::kInfoCharacteristic);
    EXPECT_TRUE(commandFrames().empty());  // the device itself sends nothing
}

TEST_F(RKDeviceTest, DiscoveryFailuresReportTheirCodes) {
    struct Case {
        const char* name;
        std::function<void(sim::VirtualPeripheral&)> script;
        std::int64_t code;
    };
    const ErrorPtr platform = attError(kAttUnlikelyError);
    const std::vector<Case> cases = {
        {"no scale service", [](auto& s) { s.removeService(wire::kScaleService); }, 1000},
        {"no data characteristic",
         [](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kDataCharacteristic); }, 1001},
        {"no command characteristic",
         [](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic); }, 1001},
        {"service discovery error", [&](auto& s) { s.failServiceDiscovery(platform); }, 1002},
        {"scale characteristics error",
         [&](auto& s) { s.failCharacteristicDiscovery(wire::kScaleService, platform); }, 1003},
        {"battery characteristics error",
         [&](auto& s) { s.failCharacteristicDiscovery(wire::kBatteryService, platform); }, 1003},
    };
    for (const auto& c : cases) {
        SimHarness world;
        auto peripheral = world.addScale();
        c.script(*peripheral);
        auto recorder = std::make_shared<test::RecordingDeviceDelegate>();
        auto l = test::connect(world, peripheral);
        auto d = RKDeviceCore::create(l.peripheral, world.log, recorder);
        world.settle();
        ASSERT_EQ(recorder->errorCodes(), std::vector<std::int64_t>{c.code}) << c.name;
        EXPECT_EQ(recorder->errors()[0]->domain(), "DeviceErrorDomain") << c.name;
        EXPECT_EQ(recorder->errors()[0]->domain(), LEDeviceErrorDomain) << c.name;
        // A failure on another service does not stop the scale service.
        const bool scaleReady = c.name == std::string("battery characteristics error");
        EXPECT_EQ(recorder->discoveredAll(), scaleReady ? 1 : 0) << c.name;
        EXPECT_EQ(peripheral->subscriberCount(wire::kDataCharacteristic), scaleReady ? 1u : 0u) << c.name;
    }
}

TEST_F(RKDeviceTest, OptionalCharacteristicsMayBeMissing) {
    scale->removeCharacteristic(wire::kScaleService, wire::kControlCharacteristic);
    scale->removeCharacteristic(wire::kScaleService, wire::kInfoCharacteristic);
    start(scale);
    EXPECT_EQ(delegate->discoveredAll(), 1);
    EXPECT_TRUE(delegate->errors().empty());
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    EXPECT_EQ(h.simLog->count("dropped"), 0u);  // nothing asked of an absent characteristic

    std::atomic<int> reads{0};
    test::Results init;
    device->readConfiguration([&](RKConfiguration) { ++reads; });
    device->readRawData([&](RKConfigurationRecord) { ++reads; });
    device->initializeConfiguration(init.completion());
    h.settle();
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(init.count(), 0u);
    EXPECT_FALSE(device->configCompletion());
}

TEST_F(RKDeviceTest, CommandsWriteTheirFrames) {
    start(scale);
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
    start(scale);
    ASSERT_EQ(delegate->errorCodes(), std::vector<std::int64_t>{1001});
    test::Results results;
    device->tare();
    device->setLEDDisplayOn(true);
    device->sevenSegmentCommand(0x01, 0x02);
    device->synchronize(results.completion());
    device->enableDFUMode(results.completion());
    device->setDeaultConfiguartion(results.completion());
    device->initializeConfiguration(results.completion());  // "EF83" is there: reads, then cannot write
    h.settle();
    EXPECT_TRUE(scale->writes().empty());
    EXPECT_EQ(results.count(), 0u);
    EXPECT_FALSE(device->syncCompletion());
    EXPECT_FALSE(device->dfuCompletion());
    EXPECT_FALSE(device->initCompletion());
    EXPECT_EQ(delegate->errorCodes(), std::vector<std::int64_t>{1001});
}

TEST_F(RKDeviceTest, WriteResultsFeedSlotsInPriorityOrderNotByFrame) {
    start(scale);
    std::vector<std::string> order;
    std::mutex mutex;
    const auto slot = [&](std::string name) {
        return [&, name](bool success, ErrorPtr error) {
            EXPECT_TRUE(success);
            EXPECT_EQ(error, nullptr);
            std::lock_guard lock(mutex);
            order.push_back(name);
        };
    };
    device->setInitCompletion(slot("init"));
    device->setSyncCompletion(slot("sync"));
    device->setDfuCompletion(slot("dfu"));
    for (int i = 0; i < 4; ++i) device->tare();
    h.settle();
    EXPECT_EQ(order, (std::vector<std::string>{"dfu", "sync", "init"}));
    EXPECT_EQ(h.log->count("\n init completaion "), 1u);
    EXPECT_TRUE(delegate->errors().empty());  // the fourth result found no slot, and succeeded
}

TEST_F(RKDeviceTest, SynchronizeThenTareWithFailingWrites) {
    start(scale);
    const auto failure = attError(kAttWriteNotPermitted);
    scale->failWrites(wire::kCommandCharacteristic, failure);
    test::Results sync;
    device->synchronize(sync.completion());
    device->tare();
    h.settle();
    ASSERT_EQ(sync.count(), 1u);
    EXPECT_FALSE(sync.all()[0].first);
    EXPECT_EQ(sync.all()[0].second, failure);
    // The tare's failure found no slot: a write error for the delegate.
    EXPECT_EQ(delegate->errorCodes(), std::vector<std::int64_t>{1004});
    EXPECT_EQ(h.log->count("\n write error -> "), 1u);
    EXPECT_EQ(commandFrames(), (Frames{{0x04}, {0x10}}));
}

TEST_F(RKDeviceTest, AFailedWriteElsewhereIsAnErrorEvenWithASlotPending) {
    start(scale);
    test::Results sync;
    device->setSyncCompletion(sync.completion());
    device->peripheralDidWriteValueForCharacteristicError(*link.peripheral, device->dataChar(),
                                                          attError(kAttWriteNotPermitted));
    EXPECT_EQ(delegate->errorCodes(), std::vector<std::int64_t>{1004});
    EXPECT_EQ(sync.count(), 0u);
    EXPECT_TRUE(device->syncCompletion());
    // A successful write with nothing pending is no news.
    device->setSyncCompletion(nullptr);
    device->peripheralDidWriteValueForCharacteristicError(*link.peripheral, device->cmdChar(), nullptr);
    EXPECT_EQ(delegate->errorCodes(), std::vector<std::int64_t>{1004});
}

TEST_F(RKDeviceTest, InitialisingAnUnconfiguredScaleWritesTheDefaultsAndCompletesTwice) {
    start(scale);
    test::Results results;
    device->initializeConfiguration(results.completion());
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0x03},
                                       {0x0A, 0x00},
                                       {0x06, 0x00},
                                       {0x05, 0x00},
                                       {0x08, 0x00},
                                       {0x07, 0x00},
                                       {0x09, 0x01},
                                       {0x04}}));
    ASSERT_EQ(results.count(), 2u);
    for (const auto& [success, error] : results.all()) {
        EXPECT_TRUE(success);
        EXPECT_EQ(error, nullptr);
    }
    EXPECT_EQ(h.log->count("\n setting default"), 1u);
    EXPECT_EQ(h.log->count("\n init completaion "), 1u);
    EXPECT_FALSE(device->syncCompletion());
    EXPECT_FALSE(device->initCompletion());
    EXPECT_TRUE(delegate->errors().empty());  // the six other results found no slot
    bool configured = false;
    scale->withScale([&](em::ScaleEmulator& e) { configured = e.isConfigured(); });
    EXPECT_TRUE(configured);

    // Now configured: one (true, null) and no writes.
    scale->clearWrites();
    test::Results again;
    device->initializeConfiguration(again.completion());
    h.settle();
    EXPECT_TRUE(scale->writes().empty());
    ASSERT_EQ(again.count(), 1u);
    EXPECT_TRUE(again.all()[0].first);
    EXPECT_EQ(h.log->count("\n setting default"), 1u);
}

TEST_F(RKDeviceTest, RawReadsTakePrecedenceAndTheDecodedReceiverStays) {
    start(scale);
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
    EXPECT_EQ(static_cast<std::uint8_t>(lastRaw.byte10), 0xFF);
    EXPECT_TRUE(wire::isUnconfigured(lastRaw));
    EXPECT_FALSE(device->configValueCompletion());
    EXPECT_TRUE(device->configCompletion());

    // A later value with no raw read pending goes to the decoded receiver again.
    device->peripheralDidUpdateValueForCharacteristicError(*link.peripheral, device->infoChar(), nullptr);
    EXPECT_EQ(second, 3);
    EXPECT_EQ(raw, 1);
}

TEST_F(RKDeviceTest, WeightsAreDecodedByTheNameThePeripheralHasNow) {
    start(scale);
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
    h.settle();
    EXPECT_EQ(delegate->weights(), (std::vector<float>{1234.5f, 36.4f, 0.0f}));
    EXPECT_EQ(device->deviceName(), "Plenk Scale");  // the kept name is not what decides
}

TEST_F(RKDeviceTest, ButtonsAreOneAndTwoOnly) {
    start(scale);
    for (std::uint8_t b : {0x01, 0x00, 0x02, 0x03, 0xFF})
        scale->notify(wire::kControlCharacteristic, bt::Bytes{b});
    scale->notify(wire::kControlCharacteristic, bt::Bytes{});
    scale->pressButton(1);
    h.settle();
    EXPECT_EQ(delegate->buttons(), (std::vector<std::uint64_t>{0, 1, 1}));
    EXPECT_TRUE(delegate->weights().empty());
}

TEST_F(RKDeviceTest, FailedValueUpdatesReport1005) {
    start(scale);
    scale->notify(wire::kDataCharacteristic, bt::Bytes{}, attError(kAttUnlikelyError));
    scale->failReads(wire::kInfoCharacteristic, attError(kAttReadNotPermitted));
    std::atomic<int> raw{0};
    device->readRawData([&](RKConfigurationRecord) { ++raw; });
    h.settle();
    EXPECT_EQ(delegate->errorCodes(), (std::vector<std::int64_t>{1005, 1005}));
    EXPECT_TRUE(delegate->weights().empty());
    EXPECT_EQ(raw, 0);
    EXPECT_TRUE(device->configValueCompletion());  // still waiting
}

TEST_F(RKDeviceTest, DfuModeCompletesWithTheWriteResult) {
    start(scale);
    test::Results results;
    device->enableDFUMode(results.completion());
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0xAA, 0x55}}));
    ASSERT_EQ(results.count(), 1u);
    EXPECT_TRUE(results.all()[0].first);
    EXPECT_TRUE(scale->inUpdateMode());
}

TEST_F(RKDeviceTest, RenewRediscoversOnTheNewPeripheral) {
    start(scale);
    link.central->cancelPeripheralConnection(link.peripheral);
    h.settle();
    auto again = test::connect(h, scale);
    device->renewPeripheral(again.peripheral);
    h.settle();
    EXPECT_EQ(delegate->discoveredAll(), 2);
    EXPECT_EQ(scale->subscriberCount(wire::kDataCharacteristic), 1u);
    device->tare();
    h.settle();
    EXPECT_EQ(commandFrames(), (Frames{{0x10}}));
}

TEST_F(RKDeviceTest, DestructionClearsThePeripheralsDelegateUnlessTakenOver) {
    start(scale);
    ASSERT_EQ(link.peripheral->delegate(), device);
    auto successor = RKDeviceCore::create(link.peripheral, h.log);
    h.settle();
    device.reset();
    EXPECT_EQ(link.peripheral->delegate(), successor);
    successor.reset();
    EXPECT_EQ(link.peripheral->delegate(), nullptr);
}

TEST_F(RKDeviceTest, ADelegateSetThroughTheBaseReachesTheScaleReports) {
    start(scale);
    auto other = std::make_shared<test::RecordingDeviceDelegate>();
    CSRDevice& base = *device;
    base.setDelegate(other);
    EXPECT_EQ(device->delegate(), other);
    EXPECT_EQ(base.delegate(), other);
    scale->pressButton(0);
    scale->setBatteryLevel(50);
    device->readBatteryState();
    h.settle();
    EXPECT_EQ(other->buttons(), std::vector<std::uint64_t>{0});
    EXPECT_EQ(other->battery(), std::vector<std::int64_t>{50});
    EXPECT_TRUE(delegate->buttons().empty());
}

}  // namespace
}  // namespace plenk
