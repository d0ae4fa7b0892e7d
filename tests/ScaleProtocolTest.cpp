#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
#include "wire/GattUuids.h"
#include "wire/Notifications.h"

namespace plenk::wire {
namespace {

using ByteVec = std::vector<std::uint8_t>;

ByteVec bytesOf(const Frame& f) {
    return {f.span().begin(), f.span().end()};
}
ByteVec textBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

// ---- Command frames -------------------------------------------------------

TEST(WireFramesTest, EveryCommandFrame) {
    struct Case {
        const char* name;
        Frame frame;
        ByteVec bytes;
    };
    const std::vector<Case> cases = {
        {"tare", tareFrame(), {0x10}},
        {"calibrate 0", calibrateFrame(0), {0xCA, 0x00}},
        {"calibrate 255", calibrateFrame(255), {0xCA, 0xFF}},
        {"unit 1", unitFrame(1), {0x03}},
        {"unit 0", unitFrame(0), {0x02}},
        {"unit 2", unitFrame(2), {0x02}},
        {"unit -1", unitFrame(-1), {0x02}},
        {"timer off", timerFrame(false, false), {0x0A, 0x00}},
        {"timer off default on", timerFrame(false, true), {0x0A, 0x00}},
        {"timer on", timerFrame(true, false), {0x0A, 0x01}},
        {"timer on default on", timerFrame(true, true), {0x0A, 0x03}},
        {"auto start on", timerAutoStartFrame(true), {0x0A, 0x01}},
        {"auto start off", timerAutoStartFrame(false), {0x0A, 0x31}},
        {"power enhanced on", powerEnhancedFrame(true), {0x0B, 0x01}},
        {"power enhanced off", powerEnhancedFrame(false), {0x0B, 0x00}},
        {"sleep mode 0", sleepTimeFrame(2, 0), {0x05, 0x02}},
        {"sleep mode 1", sleepTimeFrame(3, 1), {0x06, 0x03}},
        {"sleep mode -5", sleepTimeFrame(1, -5), {0x06, 0x01}},
        {"advertising mode 0", advertisingTimeFrame(1, 0), {0x07, 0x01}},
        {"advertising mode 7", advertisingTimeFrame(2, 7), {0x08, 0x02}},
        {"fw disconnect", firmwareDisconnectFrame(), {0xF1}},
        {"synchronize", synchronizeFrame(), {0x04}},
        {"dfu", dfuFrame(), {0xAA, 0x55}},
        {"fw version", firmwareVersionFrame(), {0x00}},
        {"led on", indicationLedFrame(true), {0x01, 0x01}},
        {"led off", indicationLedFrame(false), {0x01, 0x00}},
        {"engineering on", engineeringModeFrame(true), {0x01, 0x11}},
        {"engineering off", engineeringModeFrame(false), {0x01, 0x10}},
        {"segment block 0", segmentBlockFrame(0, 0x3F), {0xE0, 0x3F}},
        {"segment block 7", segmentBlockFrame(7, 0x01), {0xE7, 0x01}},
        {"segment block 9 keeps low bits", segmentBlockFrame(9, 0x02), {0xE1, 0x02}},
        {"segment block 0xFF", segmentBlockFrame(0xFF, 0x00), {0xE7, 0x00}},
        {"segment preset", segmentPresetFrame(4), {0xEB, 0x04}},
        {"segment update", segmentUpdateFrame(), {0xEA}},
        {"segment release", segmentReleaseFrame(), {0xEC}},
        {"segment on", segmentSwitchFrame(true), {0xED}},
        {"segment off", segmentSwitchFrame(false), {0xEE}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(bytesOf(c.frame), c.bytes);
    }
}

TEST(WireFramesTest, LevelsOutsideOneToThreeAreSentAsZero) {
    const std::vector<std::pair<std::int32_t, std::uint8_t>> cases = {
        {0, 0},
        {1, 1},
        {2, 2},
        {3, 3},
        {4, 0},
        {-1, 0},
        {1000, 0},
        {256 + 1, 0},
        {std::numeric_limits<std::int32_t>::min(), 0},
        {std::numeric_limits<std::int32_t>::max(), 0},
    };
    for (const auto& [level, sent] : cases) {
        SCOPED_TRACE(level);
        EXPECT_EQ(clampLevel(level), sent);
        EXPECT_EQ(bytesOf(advertisingTimeFrame(level, 0)), (ByteVec{0x07, sent}));
        EXPECT_EQ(bytesOf(sleepTimeFrame(level, 1)), (ByteVec{0x06, sent}));
    }
}

TEST(WireFramesTest, LedDisplayOnReleasesThenSwitchesOn) {
    const FrameList on = ledDisplayFrames(true);
    ASSERT_EQ(on.count, 2u);
    EXPECT_EQ(bytesOf(on.frames[0]), ByteVec{0xEC});
    EXPECT_EQ(bytesOf(on.frames[1]), ByteVec{0xED});
    const FrameList off = ledDisplayFrames(false);
    ASSERT_EQ(off.count, 1u);
    EXPECT_EQ(bytesOf(off.frames[0]), ByteVec{0xEE});
}

TEST(WireFramesTest, DefaultConfigurationSequence) {
    const FrameList list = defaultConfigurationFrames();
    const std::vector<ByteVec> expected = {{0x03},       {0x0A, 0x00}, {0x06, 0x00}, {0x05, 0x00},
                                           {0x08, 0x00}, {0x07, 0x00}, {0x09, 0x01}, {0x04}};
    ASSERT_EQ(list.count, expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(bytesOf(list.span()[i]), expected[i]) << i;
}

// ---- Weight packets -------------------------------------------------------

TEST(WireWeightTest, BinaryPackets) {
    struct Case {
        ByteVec packet;
        float weight;
    };
    const std::vector<Case> cases = {
        {{0x00, 0x39, 0x30, 0x00, 0xFF}, 1234.5f},
        {{0x00, 0xC7, 0xCF, 0xFF, 0xFF}, -1234.5f},
        {{0x00, 0xE8, 0x03, 0x00, 0xFE}, 10.0f},
        {{0x00, 0xFF, 0xFF, 0xFF, 0x00}, -1.0f},
        {{0x00, 0xFF, 0xFF, 0x7F, 0x00}, 8388607.0f},
        {{0x00, 0x00, 0x00, 0x80, 0x00}, -8388608.0f},
        {{0x00, 0x01, 0x00, 0x00, 0x80}, 0.0f},  // 10^-128 underflows
        {{0x00, 0x01, 0x00, 0x00, 0x03}, 1000.0f},
        {{0x00, 0x01, 0x00, 0x00, 0x7F}, std::numeric_limits<float>::infinity()},
        {{0x00, 0xFF, 0xFF, 0xFF, 0x7F}, -std::numeric_limits<float>::infinity()},
        {{0xFF, 0x05, 0x00, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD}, 5.0f},  // byte 0 is not read
        // Short packets: missing bytes count as 0x00.
        {{}, 0.0f},
        {{0x00}, 0.0f},
        {{0x00, 0x39}, 57.0f},
        {{0x00, 0x39, 0x30}, 12345.0f},
        {{0x00, 0x39, 0x30, 0x80}, -8376263.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.packet));
        EXPECT_EQ(decodeBinaryWeight(c.packet), c.weight);
    }
}

TEST(WireWeightTest, ZeroTimesHugePowerIsNotANumber) {
    // 0 × 10^127 in single precision is 0 × inf: the value is passed on as it is.
    EXPECT_TRUE(std::isnan(decodeBinaryWeight(ByteVec{0x00, 0x00, 0x00, 0x00, 0x7F})));
}

TEST(WireWeightTest, SecondValueIsNeverReported) {
    const auto a = encodeBinaryWeight(12345, -1, 0, 0);
    const auto b = encodeBinaryWeight(12345, -1, -999, 5);
    EXPECT_EQ(decodeBinaryWeight(a), 1234.5f);
    EXPECT_EQ(decodeBinaryWeight(b), 1234.5f);
}

TEST(WireWeightTest, EncoderRoundTrips) {
    EXPECT_EQ(encodeBinaryWeight(12345, -1),
              (std::array<std::uint8_t, 9>{0, 0x39, 0x30, 0x00, 0xFF, 0, 0, 0, 0}));
    EXPECT_EQ(encodeBinaryWeight(-12345, -1, 1, 2),
              (std::array<std::uint8_t, 9>{0, 0xC7, 0xCF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x02}));
    for (std::int32_t m : {0, 1, -1, 8388607, -8388608, 4242}) {
        for (std::int8_t e : {std::int8_t{-3}, std::int8_t{0}, std::int8_t{2}}) {
            EXPECT_EQ(decodeBinaryWeight(encodeBinaryWeight(m, e)),
                      static_cast<float>(m) * std::pow(10.0f, static_cast<float>(e)));
        }
    }
}

TEST(WireWeightTest, TextPackets) {
    struct Case {
        ByteVec text;
        float number;  // before the division by ten
    };
    const std::vector<Case> cases = {
        {textBytes("1234"), 1234.0f},
        {textBytes("0"), 0.0f},
        {textBytes(" \t\n\r\v\f-12.5"), -12.5f},
        {textBytes("+7"), 7.0f},
        {textBytes("1e2"), 100.0f},
        {textBytes("1E+2"), 100.0f},
        {textBytes("25e-1g"), 2.5f},
        {textBytes("1e"), 1.0f},  // no exponent digits: the 'e' is not part of the number
        {textBytes("1e+"), 1.0f},
        {textBytes(".5"), 0.5f},
        {textBytes("5."), 5.0f},
        {textBytes("12abc"), 12.0f},
        {textBytes("1.2.3"), 1.2f},
        {textBytes("0x1A"), 0.0f},
        {textBytes("abc"), 0.0f},
        {textBytes(""), 0.0f},
        {textBytes("   "), 0.0f},
        {textBytes("-"), 0.0f},
        {textBytes("+-1"), 0.0f},
        {textBytes("."), 0.0f},
        {textBytes("e5"), 0.0f},
        {textBytes("inf"), 0.0f},
        {textBytes("nan"), 0.0f},
        {textBytes("1e40"), std::numeric_limits<float>::infinity()},
        {textBytes("-1e40"), -std::numeric_limits<float>::infinity()},
        {textBytes("1e-60"), 0.0f},
        {textBytes("0.000001e-50"), 0.0f},
        {textBytes("1e99999999999999999999999"), std::numeric_limits<float>::infinity()},
        {textBytes("00012"), 12.0f},
        // The text ends at a NUL byte, or at the value's end.
        {{'1', '2', 0x00, '9', '9'}, 12.0f},
        {{'1', '2', 0x00, 0xFF}, 12.0f},
        {{0x00, '5'}, 0.0f},
        // Bytes that are not UTF-8 give 0, wherever they are in the text.
        {{'1', '2', 0xFF}, 0.0f},
        {{'1', '2', 0xC3}, 0.0f},               // truncated sequence
        {{'1', 0xC0, 0x80}, 0.0f},              // overlong NUL
        {{'1', 0xED, 0xA0, 0x80}, 0.0f},        // surrogate
        {{'1', 0xF4, 0x90, 0x80, 0x80}, 0.0f},  // above U+10FFFF
        {{'1', '2', ' ', 0xC3, 0xA9}, 12.0f},   // valid "é" after the number
        {{'7', 0xF0, 0x9F, 0x98, 0x80}, 7.0f},  // valid 4-byte sequence
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.text));
        EXPECT_EQ(lenientTextToFloat(c.text), c.number);
        EXPECT_EQ(decodeTextWeight(c.text), c.number / 10.0f);
    }
}

TEST(WireWeightTest, DecoderIsChosenByName) {
    const ByteVec text = textBytes("1234");
    const ByteVec binary = {0x00, 0x39, 0x30, 0x00, 0xFF};
    struct Case {
        std::optional<std::string_view> name;
        const ByteVec& packet;
        float weight;
    };
    const std::vector<Case> cases = {
        {"Coffee Scale", text, 123.4f},
        {"Plenk-01", binary, 1234.5f},
        {"PlenkCoffee", text, 123.4f},   // "Coffee" is tested first
        {"Coffee Plenk", binary, 0.0f},  // binary bytes read as text: no number
        {"coffee", text, 0.0f},          // case-sensitive
        {"PLENK", binary, 0.0f},
        {"Kitchen", binary, 0.0f},
        {"", text, 0.0f},
        {std::nullopt, binary, 0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.value_or("<no name>"));
        EXPECT_EQ(decodeWeight(c.name, c.packet), c.weight);
    }
}

// ---- Buttons --------------------------------------------------------------

TEST(WireButtonTest, OnlyOneAndTwoAreButtons) {
    const std::vector<std::pair<ByteVec, std::optional<std::uint64_t>>> cases = {
        {{0x01}, 0},
        {{0x02}, 1},
        {{0x01, 0x02}, 0},
        {{0x02, 0xFF}, 1},
        {{0x00}, std::nullopt},
        {{0x03}, std::nullopt},
        {{0xFF}, std::nullopt},
        {{0x81}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& [packet, button] : cases) {
        SCOPED_TRACE(::testing::PrintToString(packet));
        EXPECT_EQ(decodeButton(packet), button);
    }
}

// ---- Configuration record -------------------------------------------------

ByteVec recordBytes(std::uint8_t timer, std::uint8_t b10, std::uint8_t b11, std::uint8_t b12) {
    return {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, timer, b10, b11, b12, 0xAB, 0xCD};
}

TEST(WireConfigTest, RecordFromBytesPadsAndTruncates) {
    const RKConfigurationRecord full = recordFromBytes(recordBytes(0x03, 0x12, 0x34, 0x56));
    EXPECT_EQ(full.leadingBytes[8], static_cast<char>(0x99));
    EXPECT_EQ(full.timerByte, 0x03);
    EXPECT_EQ(full.byte10, 0x12);
    EXPECT_EQ(full.byte11, 0x34);
    EXPECT_EQ(full.byte12, 0x56);
    EXPECT_EQ(full.trailingBytes[1], static_cast<char>(0xCD));

    ByteVec longer = recordBytes(0x01, 0x02, 0x03, 0x04);
    longer.insert(longer.end(), {0xEE, 0xEE});
    EXPECT_EQ(recordFromBytes(longer).trailingBytes[1], static_cast<char>(0xCD));

    const RKConfigurationRecord shorter = recordFromBytes(ByteVec{1, 2, 3, 4, 5, 6, 7, 8, 9, 0x31, 0xFF});
    EXPECT_EQ(shorter.timerByte, 0x31);
    EXPECT_EQ(shorter.byte10, static_cast<char>(0xFF));
    EXPECT_EQ(shorter.byte11, 0);
    EXPECT_EQ(shorter.byte12, 0);
    EXPECT_EQ(shorter.trailingBytes[0], 0);

    const RKConfigurationRecord empty = recordFromBytes({});
    RKConfiguration zero{};
    zero.timerAutoStart = true;  // a zero high nibble is not the "off" pattern 3
    EXPECT_EQ(decodeConfiguration(empty), zero);
    EXPECT_FALSE(isUnconfigured(empty));
}

TEST(WireConfigTest, UnconfiguredPattern) {
    struct Case {
        std::uint8_t timer, b10, b11, b12;
        bool unconfigured;
    };
    const std::vector<Case> cases = {
        {0x00, 0xFF, 0xFF, 0xFF, true},  {0xFF, 0xFF, 0xFF, 0xFF, true},  {0x31, 0xFF, 0xFF, 0xFF, true},
        {0x00, 0xFF, 0xFF, 0xFE, false}, {0x00, 0xFE, 0xFF, 0xFF, false}, {0x00, 0xFF, 0x7F, 0xFF, false},
        {0xFF, 0x00, 0x00, 0x00, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(recordBytes(c.timer, c.b10, c.b11, c.b12)));
        EXPECT_EQ(isUnconfigured(recordFromBytes(recordBytes(c.timer, c.b10, c.b11, c.b12))), c.unconfigured);
    }
}

TEST(WireConfigTest, TimerByteFields) {
    struct Case {
        std::uint8_t timer;
        std::int32_t on;
        bool defaultOn;
        std::int32_t bit2;
        bool autoStart;
        std::int32_t highNibble;
    };
    const std::vector<Case> cases = {
        // The data bytes of the timer commands decode to what they set.
        {0x00, 0, false, 0, true, 0},
        {0x01, 1, false, 0, true, 0},
        {0x03, 1, true, 0, true, 0},
        {0x31, 1, false, 0, false, 3},
        {0x04, 0, false, 1, true, 0},
        {0x07, 1, true, 1, true, 0},
        {0x30, 0, false, 0, false, 3},
        {0x7F, 1, true, 1, true, 7},
        // From 0x80 up the high nibble keeps the sign bits of the arithmetic shift.
        {0x80, 0, false, 0, true, 248},
        {0x90, 0, false, 0, true, 249},
        {0xB3, 1, true, 0, true, 251},
        {0xFF, 1, true, 1, true, 255},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.timer));
        const RKConfiguration d = decodeConfiguration(recordFromBytes(recordBytes(c.timer, 0, 0, 0)));
        EXPECT_EQ(d.timerOn, c.on);
        EXPECT_EQ(d.timerDefaultOn, c.defaultOn);
        EXPECT_EQ(d.timerBit2, c.bit2);
        EXPECT_EQ(d.timerAutoStart, c.autoStart);
        EXPECT_EQ(d.timerHighNibble, c.highNibble);
    }
}

TEST(WireConfigTest, NibbleFields) {
    struct Case {
        std::uint8_t b10, b11, b12;
        RKConfiguration expected;  // timer byte 0 in every case
    };
    const std::vector<Case> cases = {
        {0x12, 0x34, 0x56, {0, false, 0, true, true, 0, 1, 2, 3, 4, 6}},
        {0xFF, 0xFF, 0xFF, {0, false, 0, true, true, 0, 15, 15, 15, 15, 15}},
        {0x80, 0x08, 0x0F, {0, false, 0, true, false, 0, 8, 0, 0, 8, 15}},
        {0x00, 0x00, 0x90, {0, false, 0, true, true, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(recordBytes(0, c.b10, c.b11, c.b12)));
        EXPECT_EQ(decodeConfiguration(recordFromBytes(recordBytes(0, c.b10, c.b11, c.b12))), c.expected);
    }
}

TEST(WireConfigTest, DecodingIgnoresTheUnconfiguredPattern) {
    const RKConfiguration d = decodeConfiguration(recordFromBytes(recordBytes(0x31, 0xFF, 0xFF, 0xFF)));
    EXPECT_EQ(d.timerOn, 1);
    EXPECT_FALSE(d.timerAutoStart);
    EXPECT_EQ(d.byte10High, 15);
    EXPECT_TRUE(d.byte12HighSet);
}

// ---- Identifiers ----------------------------------------------------------

TEST(WireIdentifiersTest, ServiceAndCharacteristics) {
    EXPECT_EQ(wire::kScaleService, Uuid::from16(0xFF08));
    EXPECT_EQ(wire::kCommandCharacteristic, Uuid::fromString("EF80"));
    EXPECT_EQ(wire::kDataCharacteristic, Uuid::fromString("0000EF81-0000-1000-8000-00805F9B34FB"));
    EXPECT_EQ(wire::kControlCharacteristic, Uuid::from16(0xEF82));
    EXPECT_EQ(wire::kInfoCharacteristic, Uuid::from16(0xEF83));
    EXPECT_EQ(wire::kDfuService.toString(), "00001530-1212-EFDE-1523-785FEABCD123");
}

}  // namespace
}  // namespace plenk::wire
