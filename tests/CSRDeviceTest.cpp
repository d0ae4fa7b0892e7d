// The generic device on a simulated peripheral: service dispatch, the battery
// level, Device Information texts and the firmware-version request.
#include <gtest/gtest.h>

#include <string>

#include "ble/CSRDeviceCore.h"
#include "support/DeviceTestSupport.h"
#include "wire/GattUuids.h"

namespace plenk {
namespace {

using test::SimHarness;
using Log = std::vector<std::string>;
namespace em = emulator;

class CSRDeviceTest : public ::testing::Test {
protected:
    // Links `peripheral`, wraps it and runs a full discovery.
    void start(const std::shared_ptr<sim::VirtualPeripheral>& peripheral) {
        link = test::connect(h, peripheral);
        ASSERT_TRUE(link.peripheral);
        device = CSRDeviceCore::create(link.peripheral);
        device->setDelegate(delegate);
        device->discoverServices(std::nullopt);
        h.settle();
    }

    SimHarness h;
    std::shared_ptr<sim::VirtualPeripheral> scale = h.addScale();
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>();
    test::Link link;
    std::shared_ptr<CSRDeviceCore> device;
};

TEST(CSRDeviceTextFromValue, DecodesUpToTheFirstZeroAsStrictUtf8) {
    const std::pair<std::vector<std::uint8_t>, std::optional<std::string>> cases[] = {
        {{}, ""},
        {{0x00, 'a'}, ""},
        {{'1', 0x00, 0xFF}, "1"},                  // invalid bytes after the zero do not count
        {{'a', 0x80}, std::nullopt},               // lone continuation byte
        {{0xC0, 0x80}, std::nullopt},              // overlong
        {{0xF4, 0x90, 0x80, 0x80}, std::nullopt},  // above U+10FFFF
        {{0xE2, 0x82, 0x00}, std::nullopt},        // truncated by the zero
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(CSRDeviceCore::textFromValue(value), text) << ::testing::PrintToString(value);
    }
}

// Cached texts are decoded up to the first zero; uncached ones are empty, not
// null. An empty battery value carries no level and a failed read is ignored:
// nothing changes and nobody is told.
TEST_F(CSRDeviceTest, DiscoveryDecodesTheCachedTextsAndTheBatteryLevelIsTheFirstByteAsSigned) {
    scale->setCharacteristicValue(wire::kManufacturerName, bt::Bytes{'1', '.', '2', '.', '3', 0, 'x'}, true);
    scale->setCharacteristicValue(wire::kModelNumber, bt::Bytes{0xC3, 0x28}, true);
    start(scale);
    EXPECT_EQ(device->manufacturer(), "1.2.3");
    EXPECT_EQ(device->model(), std::nullopt);
    EXPECT_EQ(device->hardwareVersion(), "");
    EXPECT_TRUE(delegate->snapshot().empty());
    const std::vector<std::pair<bt::Bytes, std::int64_t>> values = {
        {{0x64}, 100}, {{0xFF}, -1}, {{0x80}, -128}, {{0x10, 0x99, 0x01}, 16}, {{}, 16}, {{0x20}, 16}};
    for (const auto& [value, level] : values) {
        if (value == bt::Bytes{0x20}) scale->failReads(wire::kBatteryLevel, attError(kAttReadNotPermitted));
        scale->setCharacteristicValue(wire::kBatteryLevel, value);
        device->readBatteryState();
        h.settle();
        EXPECT_EQ(device->batteryLife(), level);
    }
    EXPECT_EQ(delegate->snapshot(), (Log{"battery 100", "battery -1", "battery -128", "battery 16"}));
}

// Requests replace each other; a failed read leaves the last one pending
// until a firmware value arrives, whoever asked for the read.
TEST_F(CSRDeviceTest, OnlyTheLastFirmwareRequestIsAnsweredByTheNextValue) {
    start(scale);
    scale->failReads(wire::kFirmwareRevision, attError(kAttUnlikelyError));
    device->readFirmwareVersionWithCompletion([&](auto, auto) { delegate->add("first"); });
    device->readFirmwareVersionWithCompletion([&](std::optional<std::string> version, ErrorPtr error) {
        delegate->add(version.value_or("null") + (error ? " with error" : ""));
    });
    h.settle();
    EXPECT_TRUE(device->fwVersionBlock());

    scale->failReads(wire::kFirmwareRevision, nullptr);
    for (const auto& service : link.peripheral->services()) {
        for (const auto& c : service->characteristics()) {
            if (c->uuid() == wire::kFirmwareRevision) link.peripheral->readValueForCharacteristic(c);
        }
    }
    h.settle();
    EXPECT_EQ(delegate->snapshot(), Log{"1.2.3"});
    EXPECT_FALSE(device->fwVersionBlock());
}

TEST_F(CSRDeviceTest, WithoutStandardServicesNothingIsReadAndFirmwareFailsAtOnce) {
    // The only battery-level and firmware characteristics sit under a foreign service.
    sim::PeripheralOptions options;
    options.profile.services.push_back(
        em::ServiceDefinition{bt::Uuid::from16(0x1234),
                              true,
                              {{wire::kBatteryLevel, em::kGattRead, bt::Bytes{0x42}, true},
                               {wire::kFirmwareRevision, em::kGattRead, bt::Bytes{'9', '.', '9'}, true}}});
    start(h.world->addPeripheral(std::move(options)));
    device->readBatteryState();
    h.settle();
    EXPECT_TRUE(delegate->snapshot().empty());
    EXPECT_EQ(device->firmwareVersion(), std::nullopt);

    ErrorPtr error;  // on the caller's thread, before returning
    device->readFirmwareVersionWithCompletion(
        [&](auto version, ErrorPtr e) { error = version ? nullptr : e; });
    EXPECT_TRUE(isKind<RKErrorDeviceNOCharacteristic>(error) && error->domain() == "DeviceDomain");
    EXPECT_FALSE(device->fwVersionBlock());
}

}  // namespace
}  // namespace plenk
