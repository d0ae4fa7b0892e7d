#include <gtest/gtest.h>

#include <algorithm>
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

void sendDefaultSequence(ScaleEmulator& scale) {
    const auto frames = wire::defaultConfigurationFrames();
    for (const auto& frame : frames.span()) send(scale, frame);
}

std::vector<std::uint8_t> recordBytes(const ScaleEmulator& scale) {
    return scale.configurationValue(t0).toVector();
}

// --- configuration --------------------------------------------------------------

TEST(ScaleEmulatorConfig, UnconfiguredUntilTheWholeDefaultSequenceThenSync) {
    ScaleEmulator scale;
    const auto unconfigured = [&] { return wire::isUnconfigured(scale.configurationRecord(t0)); };
    EXPECT_TRUE(unconfigured());
    // Synchronise after part of the sequence is not enough, nor the sequence without its closing sync.
    send(scale, wire::unitFrame(1));
    send(scale, wire::timerFrame(false, false));
    send(scale, wire::synchronizeFrame());
    const auto frames = wire::defaultConfigurationFrames();
    for (std::size_t i = 0; i + 1 < frames.count; ++i) send(scale, frames.frames[i]);
    EXPECT_TRUE(unconfigured());
    EXPECT_FALSE(scale.isConfigured());

    send(scale, wire::synchronizeFrame());
    EXPECT_TRUE(scale.isConfigured());
    EXPECT_FALSE(unconfigured());
    const auto config = wire::decodeConfiguration(scale.configurationRecord(t0));
    EXPECT_EQ(config.timerOn, 0);
    EXPECT_EQ(config.byte10High, 3);  // unit code 03
    EXPECT_EQ(config.byte10Low, 0);
    EXPECT_FALSE(config.byte12HighSet);

    scale.factoryReset();
    EXPECT_TRUE(unconfigured());
    ScaleOptions options;
    options.startConfigured = true;
    EXPECT_FALSE(wire::isUnconfigured(ScaleEmulator(options).configurationRecord(t0)));
}

TEST(ScaleEmulatorConfig, RecordReflectsTheSettingsOnceConfigured) {
    ScaleEmulator scale;
    // The timer byte is the last timer frame's, even before configuration.
    for (std::uint8_t t : {0x03, 0x90}) {
        send(scale, wire::frame(wire::kOpTimer, t));
        EXPECT_EQ(recordBytes(scale)[9], t);
    }
    sendDefaultSequence(scale);
    send(scale, wire::unitFrame(0));                // 02
    send(scale, wire::sleepTimeFrame(2, 0));        // 05 02
    send(scale, wire::sleepTimeFrame(3, 1));        // 06 03
    send(scale, wire::advertisingTimeFrame(1, 0));  // 07 01
    send(scale, wire::advertisingTimeFrame(2, 7));  // 08 02
    send(scale, wire::powerEnhancedFrame(true));
    send(scale, wire::timerAutoStartFrame(false));  // 0A 31

    const auto record = scale.configurationRecord(t0);
    EXPECT_EQ(static_cast<std::uint8_t>(record.timerByte), 0x31);
    const auto config = wire::decodeConfiguration(record);
    EXPECT_EQ(config.byte10High, 2);
    EXPECT_EQ(config.byte10Low, 2);
    EXPECT_EQ(config.byte11High, 3);
    EXPECT_EQ(config.byte11Low, 1);
    EXPECT_EQ(config.byte12Low, 2);
    EXPECT_TRUE(config.byte12HighSet);

    send(scale, wire::powerEnhancedFrame(false));
    EXPECT_FALSE(wire::decodeConfiguration(scale.configurationRecord(t0)).byte12HighSet);
}

TEST(ScaleEmulatorConfig, RecordCarriesVersionBatteryAndChecksum) {
    ScaleOptions options;
    options.info.firmware = "4.17.300";
    options.batteryLevel = 64;
    ScaleEmulator scale(options);
    const auto b = recordBytes(scale);
    ASSERT_EQ(b.size(), 15u);
    EXPECT_EQ(b[1], 4);
    EXPECT_EQ(b[2], 17);
    EXPECT_EQ(b[3], 255);  // saturates
    EXPECT_EQ(b[4], 64);
    std::uint8_t x = 0;
    for (std::size_t i = 0; i < 14; ++i) x ^= b[i];
    EXPECT_EQ(b[14], x);
}

// --- commands -------------------------------------------------------------------

TEST(ScaleEmulatorCommands, DisplayLedSegmentsAndCalibrationChangeState) {
    ScaleEmulator scale;
    send(scale, wire::indicationLedFrame(true));
    send(scale, wire::engineeringModeFrame(true));
    send(scale, wire::segmentBlockFrame(13, 0x42));  // block 13 & 7 = 5
    send(scale, wire::segmentPresetFrame(9));
    send(scale, wire::segmentUpdateFrame());
    send(scale, wire::segmentSwitchFrame(false));
    send(scale, wire::calibrateFrame(200));
    const auto& s = scale.settings();
    EXPECT_TRUE(s.indicationLed);
    EXPECT_TRUE(s.engineeringMode);
    EXPECT_EQ(s.segmentBlocks[5], 0x42);
    EXPECT_EQ(s.segmentPreset, 9);
    EXPECT_EQ(s.segmentUpdates, 1u);
    EXPECT_TRUE(s.displayHeldByClient);
    EXPECT_FALSE(s.displayOn);
    EXPECT_EQ(s.calibration, 200);

    const auto displayOn = wire::ledDisplayFrames(true);
    for (const auto& frame : displayOn.span()) send(scale, frame);  // EC, ED
    EXPECT_TRUE(scale.settings().displayOn);
    EXPECT_FALSE(scale.settings().displayHeldByClient);
    EXPECT_EQ(recordBytes(scale)[7] & 0x0F, 0x01 | 0x02 | 0x04);
}

TEST(ScaleEmulatorCommands, MalformedFramesAreIgnoredAndTheUpdateTargetIgnoresScaleCommands) {
    ScaleEmulator scale;
    const std::vector<std::vector<std::uint8_t>> frames = {
        {},                  // empty write
        {0x10, 0x00, 0x00},  // more than one frame's worth
        {0x05},              // sleep level without its data byte
        {0x0A},              // timer without data
        {0xAA},              // update without the magic
        {0xAA, 0x54},        // wrong magic
        {0x01, 0x05},        // display control with an unknown data byte
        {0x77},              // unknown opcode
    };
    for (const auto& f : frames) EXPECT_EQ(scale.handleCommand(f, t0), Effect::None);
    EXPECT_EQ(scale.counters().ignored, frames.size());
    EXPECT_EQ(scale.counters().frames, 0u);
    EXPECT_FALSE(scale.inUpdateMode());

    EXPECT_EQ(send(scale, wire::firmwareDisconnectFrame()), Effect::Disconnect);
    EXPECT_FALSE(scale.inUpdateMode());
    EXPECT_EQ(send(scale, wire::dfuFrame()), Effect::RestartForUpdate);
    EXPECT_EQ(scale.write(wire::kCommandCharacteristic, wire::tareFrame().span(), t0), Effect::None);
    EXPECT_EQ(scale.counters().tares, 0u);
    scale.finishUpdate(t0);
    EXPECT_EQ(scale.write(wire::kCommandCharacteristic, wire::tareFrame().span(), t0), Effect::None);
    EXPECT_EQ(scale.counters().tares, 1u);
}

// --- weight ---------------------------------------------------------------------

TEST(ScaleEmulatorWeight, TareZeroesAndOnlyAFreshConnectionsFirstTareStartsAShotWithAutoPour) {
    auto options = quiet();
    options.initialLoadGrams = 312.5;  // a cup
    options.autoPour = false;
    ScaleEmulator manual(options);
    EXPECT_DOUBLE_EQ(manual.weightAt(t0), 312.5);
    manual.connected(t0);
    send(manual, wire::tareFrame(), at(1));
    EXPECT_DOUBLE_EQ(manual.weightAt(at(2)), 0.0);
    EXPECT_FALSE(manual.pourStart().has_value());
    manual.addLoad(-12.5);
    EXPECT_DOUBLE_EQ(manual.weightAt(at(3)), -12.5);
    EXPECT_FLOAT_EQ(wire::decodeWeight("Plenk Scale", manual.packetAt(at(3)).span()), -12.5f);

    ScaleEmulator scale(quiet());
    scale.connected(at(0));
    send(scale, wire::tareFrame(), at(1));
    ASSERT_TRUE(scale.pourStart().has_value());
    EXPECT_EQ(*scale.pourStart(), at(2.5));
    EXPECT_DOUBLE_EQ(scale.weightAt(at(2.4)), 0.0);
    EXPECT_GT(scale.weightAt(at(2.5 + 15)), 5.0);
    // A second tare on the same connection zeroes but starts nothing.
    send(scale, wire::tareFrame(), at(60));
    EXPECT_EQ(*scale.pourStart(), at(2.5));
    EXPECT_NEAR(scale.weightAt(at(90)), 0.0, 1e-9);
}

TEST(ScaleEmulatorWeight, ShotsAreFiniteAndMonotoneEvenWithOddParameters) {
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
    EXPECT_EQ(pour.massAt(1.0), 0.0);                    // puck still soaking
    EXPECT_GT(pour.flowAt(15.0), 4 * pour.flowAt(5.0));  // steady flow well above the drip
    EXPECT_LT(pour.flowAt(29.9), pour.flowAt(20.0));     // tapered
    EXPECT_NEAR(pour.massAt(pour.settledAfterSeconds()), 36.0, 0.011);
    EXPECT_NEAR(pour.massAt(1e6), 36.0, 1e-9);
    EXPECT_GT(pour.settledAfterSeconds(), 30.0);
    EXPECT_LT(pour.settledAfterSeconds(), 40.0);
}

TEST(ScaleEmulatorWeight, NoiseIsBoundedAndDeterministicPerSeed) {
    ScaleOptions a;
    a.noiseGrams = 0.05;
    a.autoPour = false;
    ScaleOptions b = a;
    b.seed = 2;
    ScaleEmulator one(a), same(a), other(b);
    int differing = 0;
    double sum = 0;
    for (int i = 0; i < 500; ++i) {
        const auto t = t0 + i * one.samplePeriod();
        const double n = one.noiseAt(t);
        ASSERT_LE(std::abs(n), 0.05);
        EXPECT_EQ(n, same.noiseAt(t));
        EXPECT_EQ(n, one.noiseAt(t + one.samplePeriod() / 2));  // constant within a sample
        differing += n != other.noiseAt(t) ? 1 : 0;
        sum += n;
    }
    EXPECT_GT(differing, 450);
    EXPECT_NEAR(sum / 500, 0.0, 0.01);
}

TEST(ScaleEmulatorWeight, SampleRateIsClampedToTenToThousandHertz) {
    struct Case {
        int asked;
        int used;
        Clock::Duration period;
    };
    for (const auto& c : {Case{1, 10, 100ms}, Case{10, 10, 100ms}, Case{50, 50, 20ms}, Case{1000, 1000, 1ms},
                          Case{5000, 1000, 1ms}, Case{-3, 10, 100ms}}) {
        ScaleOptions options;
        options.sampleRateHz = c.asked;
        ScaleEmulator scale(options);
        EXPECT_EQ(scale.options().sampleRateHz, c.used) << c.asked;
        EXPECT_EQ(scale.samplePeriod(), c.period) << c.asked;
    }
}

TEST(ScaleEmulatorWeight, BothFormatsDecodeBackToTheShownWeight) {
    for (auto format : {WeightFormat::Binary, WeightFormat::Text}) {
        const char* name = format == WeightFormat::Binary ? "Plenk Scale" : "Coffee Scale";
        ScaleOptions options;
        options.format = format;
        ScaleEmulator scale(options);
        scale.connected(t0);
        send(scale, wire::tareFrame(), t0);
        for (double s = 0; s < 40; s += 0.7) {
            const float decoded = wire::decodeWeight(name, scale.packetAt(at(s)).span());
            ASSERT_NEAR(decoded, scale.weightAt(at(s)), 0.0501) << name << " at " << s;
        }
        // Caller-given weights: integral ones come back exactly.
        for (float value : {0.0f, 1.0f, -1.0f, 4095.0f, 65536.0f, 838860.0f, -838860.0f}) {
            EXPECT_EQ(wire::decodeWeight(name, scale.encodeWeightPacket(value).span()), value) << name;
        }
        EXPECT_FLOAT_EQ(wire::decodeWeight(name, scale.encodeWeightPacket(12.3f).span()), 12.3f) << name;
        EXPECT_LE(scale.encodeWeightPacket(-838860.7f).size(), bt::Bytes::kInline);  // never allocates
    }
    // Beyond the 24-bit mantissa the binary form saturates instead of wrapping.
    ScaleEmulator binary;
    EXPECT_FLOAT_EQ(wire::decodeWeight("Plenk", binary.encodeWeightPacket(1e9f).span()), 838860.7f);
    EXPECT_FLOAT_EQ(wire::decodeWeight("Plenk", binary.encodeWeightPacket(-1e9f).span()), -838860.7f);
    // The binary packet's second value is the untared load, which clients drop.
    ScaleOptions cup = quiet();
    cup.initialLoadGrams = 200;
    ScaleEmulator scale(cup);
    send(scale, wire::tareFrame(), t0);
    const auto packet = scale.packetAt(t0).toVector();
    ASSERT_EQ(packet.size(), 9u);
    EXPECT_FLOAT_EQ(wire::decodeBinaryWeight(packet), 0.0f);
    EXPECT_FLOAT_EQ(wire::decodeBinaryWeight(std::span(packet).subspan(4)), 200.0f);
}

// --- battery, device information, buttons ------------------------------------------

TEST(ScaleEmulatorDevice, ServesBatteryInformationAndButtons) {
    ScaleOptions options;
    options.batteryLevel = 80;
    options.batteryDrainPerHour = 10;
    ScaleEmulator scale(options);
    EXPECT_EQ(scale.read(wire::kBatteryLevel, t0)->toVector(), std::vector<std::uint8_t>{80});
    EXPECT_EQ(scale.batteryLevelAt(at(3600 * 1.5)), 65);
    EXPECT_EQ(scale.batteryLevelAt(at(3600 * 100)), 0);
    scale.setBatteryLevel(0xFF, at(0));
    scale.setBatteryLevel(300, at(0));  // clamped to a byte
    EXPECT_EQ(scale.read(wire::kBatteryLevel, at(0))->toVector(), std::vector<std::uint8_t>{0xFF});

    const auto text = [&](const bt::Uuid& u) {
        auto v = scale.read(u, t0)->toVector();
        return std::string(v.begin(), v.end());
    };
    EXPECT_EQ(text(wire::kFirmwareRevision), "1.2.3");
    EXPECT_EQ(text(wire::kManufacturerName), "Plenk Instruments");
    EXPECT_EQ(text(wire::kSoftwareRevision), "1.0.0");
    EXPECT_EQ(scale.read(wire::kInfoCharacteristic, t0)->size(), 15u);
    EXPECT_FALSE(scale.read(wire::kDataCharacteristic, t0).has_value());

    EXPECT_EQ(wire::decodeButton(ScaleEmulator::buttonPacket(0).span()), 0u);
    EXPECT_EQ(wire::decodeButton(ScaleEmulator::buttonPacket(1).span()), 1u);
}

}  // namespace
}  // namespace plenk::emulator
