#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include "emulator/ScaleEmulator.h"
#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk::emulator {
namespace {

using namespace std::chrono_literals;
using Effect = ScaleEmulator::Effect;

const Clock::TimePoint t0{};

Clock::TimePoint at(double seconds) {
    return t0 + std::chrono::duration_cast<Clock::Duration>(std::chrono::duration<double>(seconds));
}

ScaleOptions quiet() {
    ScaleOptions options;
    options.noiseGrams = 0;
    return options;
}

Effect send(ScaleEmulator& scale, const wire::Frame& frame, Clock::TimePoint now = t0) {
    return scale.handleCommand(frame.span(), now);
}

std::vector<std::uint8_t> recordBytes(const ScaleEmulator& scale) {
    return scale.configurationValue(t0).toVector();
}

TEST(ScaleEmulatorConfig, UnconfiguredUntilTheWholeDefaultSequenceThenSync) {
    ScaleEmulator scale;
    const auto unconfigured = [&] { return wire::isUnconfigured(scale.configurationRecord(t0)); };
    // Synchronise after part of the sequence is not enough, nor the sequence without its closing sync.
    send(scale, wire::unitFrame(1));
    send(scale, wire::synchronizeFrame());
    const auto frames = wire::defaultConfigurationFrames();
    for (std::size_t i = 0; i + 1 < frames.count; ++i) send(scale, frames.frames[i]);
    EXPECT_TRUE(unconfigured());
    send(scale, wire::synchronizeFrame());
    EXPECT_FALSE(unconfigured());
    EXPECT_EQ(recordBytes(scale)[10], 0x30);  // unit code 03
    scale.factoryReset();
    EXPECT_TRUE(unconfigured());
}

TEST(ScaleEmulatorConfig, RecordCarriesTheSettingsVersionBatteryAndChecksum) {
    ScaleOptions options;
    options.info.firmware = "4.17.300";
    options.batteryLevel = 64;
    ScaleEmulator scale(options);
    send(scale, wire::frame(wire::kOpTimer, 0x90));  // the timer byte is kept even before configuration
    EXPECT_EQ(recordBytes(scale)[9], 0x90);
    const auto defaults = wire::defaultConfigurationFrames();
    for (const auto& frame : defaults.span()) send(scale, frame);
    for (const auto& frame : {wire::unitFrame(0), wire::sleepTimeFrame(2, 0), wire::sleepTimeFrame(3, 1),
                              wire::advertisingTimeFrame(1, 0), wire::advertisingTimeFrame(2, 7),
                              wire::powerEnhancedFrame(true), wire::timerAutoStartFrame(false)}) {
        send(scale, frame);
    }
    const auto b = recordBytes(scale);
    ASSERT_EQ(b.size(), 15u);
    EXPECT_EQ((std::vector<std::uint8_t>(b.begin() + 1, b.begin() + 5)),
              (std::vector<std::uint8_t>{4, 17, 255, 64}));
    EXPECT_EQ((std::vector<std::uint8_t>(b.begin() + 9, b.begin() + 13)),
              (std::vector<std::uint8_t>{0x31, 0x22, 0x31, 0x12}));
    std::uint8_t x = 0;
    for (std::size_t i = 0; i < 14; ++i) x ^= b[i];
    EXPECT_EQ(b[14], x);
}

TEST(ScaleEmulatorCommands, MalformedFramesAreIgnoredAndTheUpdateTargetIgnoresScaleCommands) {
    ScaleEmulator scale;
    const std::vector<std::vector<std::uint8_t>> frames = {{},     {0x10, 0x00, 0x00}, {0x05},       {0x0A},
                                                           {0xAA}, {0xAA, 0x54},       {0x01, 0x05}, {0x77}};
    for (const auto& f : frames) EXPECT_EQ(scale.handleCommand(f, t0), Effect::None);
    EXPECT_EQ(scale.counters().ignored, frames.size());
    EXPECT_EQ(scale.counters().frames, 0u);

    EXPECT_EQ(send(scale, wire::firmwareDisconnectFrame()), Effect::Disconnect);
    EXPECT_FALSE(scale.inUpdateMode());
    EXPECT_EQ(send(scale, wire::dfuFrame()), Effect::RestartForUpdate);
    EXPECT_EQ(scale.write(wire::kCommandCharacteristic, wire::tareFrame().span(), t0), Effect::None);
    scale.finishUpdate(t0);
    scale.write(wire::kCommandCharacteristic, wire::tareFrame().span(), t0);
    EXPECT_EQ(scale.counters().tares, 1u);
}

TEST(ScaleEmulatorWeight, TareZeroesAndOnlyAFreshConnectionsFirstTareStartsAShotWithAutoPour) {
    auto options = quiet();
    options.initialLoadGrams = 312.5;
    options.autoPour = false;
    ScaleEmulator manual(options);
    manual.connected(t0);
    send(manual, wire::tareFrame(), at(1));
    EXPECT_FALSE(manual.pourStart().has_value());
    manual.addLoad(-12.5);
    EXPECT_DOUBLE_EQ(manual.weightAt(at(3)), -12.5);

    ScaleEmulator scale(quiet());
    scale.connected(at(0));
    send(scale, wire::tareFrame(), at(1));
    EXPECT_EQ(scale.pourStart(), at(2.5));
    EXPECT_GT(scale.weightAt(at(2.5 + 15)), 5.0);
    send(scale, wire::tareFrame(), at(60));
    EXPECT_EQ(scale.pourStart(), at(2.5));
    EXPECT_NEAR(scale.weightAt(at(90)), 0.0, 1e-9);
}

TEST(ScaleEmulatorWeight, ShotsAreFiniteAndMonotoneEvenWithOddParametersAndSettleOnTheirMass) {
    ShotParameters odd;
    odd.finalGrams = -5;
    odd.pumpSeconds = 0;
    odd.preinfusionSeconds = 1e9;
    odd.tailSeconds = std::numeric_limits<double>::quiet_NaN();
    for (const PourProfile& pour : {PourProfile{}, PourProfile{odd}}) {
        double previous = 0;
        for (double t = -1; t <= 45; t += 0.05) {
            const double m = pour.massAt(t);
            ASSERT_TRUE(std::isfinite(m)) << "at " << t;
            ASSERT_GE(m, previous - 1e-12) << "at " << t;
            previous = m;
        }
        EXPECT_EQ(pour.massAt(std::numeric_limits<double>::quiet_NaN()), 0.0);
    }
    const PourProfile pour;
    EXPECT_NEAR(pour.massAt(pour.settledAfterSeconds()), 36.0, 0.011);
}

TEST(ScaleEmulatorWeight, PacketsSaturateInsteadOfWrappingAndCarryTheUntaredLoad) {
    for (auto format : {WeightFormat::Binary, WeightFormat::Text}) {
        const char* name = format == WeightFormat::Binary ? "Plenk Scale" : "Coffee Scale";
        ScaleOptions options;
        options.format = format;
        ScaleEmulator scale(options);
        for (float value : {-1.0f, 65536.0f, -838860.0f}) {
            EXPECT_EQ(wire::decodeWeight(name, scale.encodeWeightPacket(value).span()), value) << name;
        }
        EXPECT_LE(scale.encodeWeightPacket(-838860.7f).size(), bt::Bytes::kInline);  // never allocates
    }
    ScaleOptions cup = quiet();
    cup.initialLoadGrams = 200;
    ScaleEmulator scale(cup);
    EXPECT_FLOAT_EQ(wire::decodeWeight("Plenk", scale.encodeWeightPacket(1e9f).span()), 838860.7f);
    send(scale, wire::tareFrame(), t0);
    const auto packet = scale.packetAt(t0).toVector();
    ASSERT_EQ(packet.size(), 9u);
    EXPECT_FLOAT_EQ(wire::decodeBinaryWeight(packet), 0.0f);
    EXPECT_FLOAT_EQ(wire::decodeBinaryWeight(std::span(packet).subspan(4)), 200.0f);
}

TEST(ScaleEmulatorDevice, BatteryDrainsAndClampsAndOnlyReadableValuesAreServed) {
    ScaleOptions options;
    options.batteryLevel = 80;
    options.batteryDrainPerHour = 10;
    ScaleEmulator scale(options);
    EXPECT_EQ(scale.batteryLevelAt(at(3600 * 1.5)), 65);
    EXPECT_EQ(scale.batteryLevelAt(at(3600 * 100)), 0);
    scale.setBatteryLevel(300, at(0));
    EXPECT_EQ(scale.read(wire::kBatteryLevel, at(0))->toVector(), std::vector<std::uint8_t>{0xFF});
    EXPECT_FALSE(scale.read(wire::kDataCharacteristic, t0).has_value());
}

}  // namespace
}  // namespace plenk::emulator
