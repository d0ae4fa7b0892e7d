// The scale device on the emulated scale: what the kit tests cannot see from
// above (failure codes, frames the kit never sends, write-result slots,
// configuration read routing, name-based weight decoding).
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

    SimHarness h;
    std::shared_ptr<sim::VirtualPeripheral> scale = h.addScale("Plenk Scale");
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    test::Link link;
    std::shared_ptr<RKDeviceCore> device;
};

// A failure on another service does not stop the scale service, nor does a
// missing button or configuration characteristic.
TEST_F(RKDeviceTest, DiscoveryFailuresReportTheirCodes) {
    const ErrorPtr platform = attError(kAttUnlikelyError);
    const std::vector<std::pair<std::function<void(sim::VirtualPeripheral&)>, Log>> cases = {
        {[](auto& s) { s.removeService(wire::kScaleService); }, {"error 1000"}},
        {[](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kDataCharacteristic); },
         {"error 1001"}},
        {[](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kCommandCharacteristic); },
         {"error 1001"}},
        {[&](auto& s) { s.failServiceDiscovery(platform); }, {"error 1002"}},
        {[&](auto& s) { s.failCharacteristicDiscovery(wire::kScaleService, platform); }, {"error 1003"}},
        {[&](auto& s) { s.failCharacteristicDiscovery(wire::kBatteryService, platform); },
         {"error 1003", "discovered"}},
        {[](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kControlCharacteristic); },
         {"discovered"}},
        {[](auto& s) { s.removeCharacteristic(wire::kScaleService, wire::kInfoCharacteristic); },
         {"discovered"}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SimHarness world;
        auto peripheral = world.addScale();
        cases[i].first(*peripheral);
        auto recorder = std::make_shared<test::RecordingDelegate>();
        auto l = test::connect(world, peripheral);
        auto d = RKDeviceCore::create(l.peripheral, world.log, recorder);
        world.settle();
        EXPECT_EQ(recorder->snapshot(), cases[i].second) << i;
        for (const auto& e : recorder->errors()) EXPECT_EQ(e->domain(), "DeviceErrorDomain") << i;
    }
}

// Frames the kit's own table does not reach.
TEST_F(RKDeviceTest, CommandsWriteTheirFrames) {
    start();
    device->setLEDDisplayOn(true);
    device->setTimerOn(false, true);
    device->setTimerAutoStart(true);
    device->setBLEPowerEnhanced(false);
    device->setSleepTime(1000, 1);
    device->setAdvertisingTime(3, 5);
    h.settle();
    EXPECT_EQ(commandFrames(),
              (Frames{{0xEC}, {0xED}, {0x0A, 0x00}, {0x0A, 0x01}, {0x0B, 0x00}, {0x06, 0x00}, {0x08, 0x03}}));
}

// A failure with no slot pending is a write error; on another characteristic
// it is one even with a slot pending. Results are not matched to frames:
// each one feeds the first pending slot (dfu, sync, init).
TEST_F(RKDeviceTest, WriteResultsFeedSlotsInPriorityOrderNotByFrame) {
    start();
    scale->failWrites(wire::kCommandCharacteristic, attError(kAttWriteNotPermitted));
    device->synchronize(delegate->result("sync"));
    device->tare();
    h.settle();
    device->setSyncCompletion(delegate->result("pending"));
    device->peripheralDidWriteValueForCharacteristicError(*link.peripheral, device->dataChar(),
                                                          attError(kAttWriteNotPermitted));

    scale->failWrites(wire::kCommandCharacteristic, nullptr);
    scale->clearWrites();
    // Results take a while, as on a real link: every slot is armed before the first answer.
    h.world->setTimings(sim::Timings{{}, {}, std::chrono::milliseconds(10)});
    device->setInitCompletion(delegate->result("init"));
    device->tare();
    device->tare();
    device->enableDFUMode(delegate->result("dfu"));
    h.advance(std::chrono::milliseconds(100));
    EXPECT_EQ(commandFrames(), (Frames{{0x10}, {0x10}, {0xAA, 0x55}}));
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "sync failed with error", "error 1004", "error 1004",
                                         "dfu ok", "pending ok", "init ok"}));
    EXPECT_TRUE(scale->inUpdateMode());
}

// A raw read takes the next value; otherwise values go to the decoded
// receiver, which stays in place and is replaced by a later request.
TEST_F(RKDeviceTest, ConfigurationValuesPreferAPendingRawRead) {
    start();
    h.world->setTimings(sim::Timings{{}, {}, std::chrono::milliseconds(2)});  // both out before a reply
    std::atomic<int> first{0}, decoded{0}, raw{0};
    device->readConfiguration([&](RKConfiguration) { ++first; });
    device->readConfiguration([&](RKConfiguration c) { decoded += c.byte12Low == 15 ? 1 : 100; });
    h.advance(std::chrono::milliseconds(10));
    device->readRawData([&](RKConfigurationRecord r) { raw += wire::isUnconfigured(r) ? 1 : 100; });
    h.advance(std::chrono::milliseconds(10));
    device->peripheralDidUpdateValueForCharacteristicError(*link.peripheral, device->infoChar(), nullptr);
    EXPECT_EQ((std::vector<int>{first, decoded, raw}), (std::vector<int>{0, 3, 1}));
}

// Weights are decoded by the name the peripheral has now, buttons are 1 and 2
// only, and a failed update or configuration read is a read error.
TEST_F(RKDeviceTest, NotificationsBecomeWeightsButtonsOrErrors) {
    start();
    const auto binary = wire::encodeBinaryWeight(12345, -1);
    const auto weigh = [&](const char* name, bt::Bytes value) {
        scale->setName(name);
        h.settle();
        scale->notify(wire::kDataCharacteristic, std::move(value));
        h.settle();
    };
    weigh("Plenk Scale", bt::Bytes(std::span<const std::uint8_t>(binary)));
    weigh("Coffee Scale", bt::Bytes{'3', '6', '4'});
    weigh("Kitchen", bt::Bytes(std::span<const std::uint8_t>(binary)));
    for (std::uint8_t b : {0x01, 0x00, 0x02, 0x03, 0xFF})
        scale->notify(wire::kControlCharacteristic, bt::Bytes{b});
    scale->notify(wire::kControlCharacteristic, bt::Bytes{});
    scale->notify(wire::kDataCharacteristic, bt::Bytes{}, attError(kAttUnlikelyError));
    scale->failReads(wire::kInfoCharacteristic, attError(kAttReadNotPermitted));
    device->readRawData([&](RKConfigurationRecord) { delegate->add("raw"); });
    h.settle();
    EXPECT_EQ(delegate->snapshot(), (Log{"discovered", "weight 1234.5", "weight 36.4", "weight 0", "button 0",
                                         "button 1", "error 1005", "error 1005"}));
    EXPECT_TRUE(device->configValueCompletion());  // still waiting
}

}  // namespace
}  // namespace plenk
