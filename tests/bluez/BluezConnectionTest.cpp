// The library on the bluez backend against the fake bluetoothd: the
// connection road, weights, commands, battery, configuration, reconnects.
#include "bluez/BluezRig.h"

#include <algorithm>

#include "wire/GattUuids.h"

namespace plenk::test {
namespace {

TEST(BluezConnection, ConnectsTaresAndStreamsWeightsInBothFormats) {
    for (const auto format : {emulator::WeightFormat::Binary, emulator::WeightFormat::Text}) {
        for (const auto notify : {bluez::NotifyMode::Property, bluez::NotifyMode::Socket}) {
            BluezRig rig({.notify = notify});
            rig.fake.addAdapter({});
            fakebluez::ScaleSetup scale;
            scale.address = kScaleAddress;
            scale.options.format = format;
            rig.fake.addScale(scale);
            rig.start();
            ASSERT_TRUE(rig.waitFor([&] { return rig.host->connections == 1; })) << rig.log();
            ASSERT_TRUE(rig.waitFor([&] { return rig.host->weights.size() >= 5; })) << rig.log();
            const auto writes = rig.fake.writes(kScaleAddress);
            ASSERT_FALSE(writes.empty());
            EXPECT_EQ(writes.front().characteristic, wire::kCommandCharacteristic);
            EXPECT_EQ(writes.front().value, std::vector<std::uint8_t>{0x10}) << "tare on connection";
        }
    }
}

}  // namespace
}  // namespace plenk::test
