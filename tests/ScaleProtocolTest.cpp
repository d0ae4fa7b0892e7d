// The scale's wire format at its edges. Each command's bytes are checked end to
// end by the device and kit tests; here are the cases those do not reach.
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

TEST(WireFramesTest, EdgeFrames) {
    struct Case {
        const char* name;
        Frame frame;
        ByteVec bytes;
    };
    const std::vector<Case> cases = {
        {"timer off default off", timerFrame(false, false), {0x0A, 0x00}},
        {"segment block 0", segmentBlockFrame(0, 0x3F), {0xE0, 0x3F}},
        {"segment block 7", segmentBlockFrame(7, 0x01), {0xE7, 0x01}},
        {"segment block 0xFF keeps low bits", segmentBlockFrame(0xFF, 0x00), {0xE7, 0x00}},
        // Any mode but 0 picks the second opcode.
        {"sleep mode -5", sleepTimeFrame(1, -5), {0x06, 0x01}},
        {"advertising mode 7", advertisingTimeFrame(2, 7), {0x08, 0x02}},
    };
    for (const auto& c : cases) EXPECT_EQ(bytesOf(c.frame), c.bytes) << c.name;
}

TEST(WireFramesTest, LevelsOutsideOneToThreeAreSentAsZero) {
    constexpr auto lowest = std::numeric_limits<std::int32_t>::min();
    constexpr auto highest = std::numeric_limits<std::int32_t>::max();
    const std::vector<std::pair<std::int32_t, std::uint8_t>> cases = {
        {0, 0}, {1, 1}, {3, 3}, {4, 0}, {-1, 0}, {256 + 1, 0}, {lowest, 0}, {highest, 0}};
    for (const auto& [level, sent] : cases) {
        SCOPED_TRACE(level);
        EXPECT_EQ(bytesOf(advertisingTimeFrame(level, 0)), (ByteVec{0x07, sent}));
        EXPECT_EQ(bytesOf(sleepTimeFrame(level, 1)), (ByteVec{0x06, sent}));
    }
}

TEST(WireWeightTest, BinaryPackets) {
    struct Case {
        ByteVec packet;
        float weight;
    };
    const std::vector<Case> cases = {
        {{0x00, 0x39, 0x30, 0x00, 0xFF}, 1234.5f},
        {{0x00, 0xC7, 0xCF, 0xFF, 0xFF}, -1234.5f},  // 24-bit mantissa, sign-extended
        {{0x00, 0xE8, 0x03, 0x00, 0xFE}, 10.0f},
        {{0x00, 0xFF, 0xFF, 0xFF, 0x00}, -1.0f},
        {{0x00, 0xFF, 0xFF, 0x7F, 0x00}, 8388607.0f},
        {{0x00, 0x00, 0x00, 0x80, 0x00}, -8388608.0f},
        {{0x00, 0x01, 0x00, 0x00, 0x80}, 0.0f},  // 10^-128 underflows
        {{0x00, 0x01, 0x00, 0x00, 0x03}, 1000.0f},
        {{0x00, 0x01, 0x00, 0x00, 0x7F}, std::numeric_limits<float>::infinity()},
        {{0x00, 0xFF, 0xFF, 0xFF, 0x7F}, -std::numeric_limits<float>::infinity()},
        // Byte 0 and the second value are never read.
        {{0xFF, 0x05, 0x00, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD}, 5.0f},
        // Short packets: missing bytes count as 0x00.
        {{}, 0.0f},
        {{0x00, 0x39}, 57.0f},
        {{0x00, 0x39, 0x30}, 12345.0f},
        {{0x00, 0x39, 0x30, 0x80}, -8376263.0f},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decodeBinaryWeight(c.packet), c.weight) << ::testing::PrintToString(c.packet);
    }
    // 0 × 10^127 in single precision is 0 × inf: the value is passed on as it is.
    EXPECT_TRUE(std::isnan(decodeBinaryWeight(ByteVec{0x00, 0x00, 0x00, 0x00, 0x7F})));
    // The scale's side: both values little-endian, negative mantissas in two's complement.
    EXPECT_EQ(encodeBinaryWeight(-12345, -1, 1, 2),
              (std::array<std::uint8_t, 9>{0, 0xC7, 0xCF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x02}));
}

TEST(WireWeightTest, TextPackets) {
    struct Case {
        Case(std::string_view t, float n) : text(textBytes(t)), number(n) {}
        Case(ByteVec t, float n) : text(std::move(t)), number(n) {}
        ByteVec text;
        float number;  // before the division by ten
    };
    constexpr float inf = std::numeric_limits<float>::infinity();
    // White space, a sign, digits, a point, an exponent with digits ("1e" stops before the
    // 'e'); the first misfit ends the number, and no number at all is 0.
    const std::vector<Case> cases = {
        {"1234", 1234},
        {" \t\n\r\v\f-12.5", -12.5f},
        {"+7", 7},
        {"1E+2", 100},
        {"25e-1g", 2.5f},
        {"1e", 1},
        {"1e+", 1},
        {".5", 0.5f},
        {"5.", 5},
        {"1.2.3", 1.2f},
        {"0x1A", 0},
        {"", 0},
        {"-", 0},
        {"+-1", 0},
        {".", 0},
        {"e5", 0},
        {"inf", 0},
        {"nan", 0},
        {"1e40", inf},
        {"-1e40", -inf},
        {"1e-60", 0},
        {"1e99999999999999999999999", inf},
        // The text ends at a NUL byte (what follows is not even checked), or at the value's end.
        {ByteVec{'1', '2', 0x00, 0xFF}, 12},
        {ByteVec{0x00, '5'}, 0},
        // Bytes that are not UTF-8 give 0 wherever they are: a stray byte, a truncated sequence,
        // an overlong NUL, a surrogate, a code point above U+10FFFF. Valid sequences do not.
        {ByteVec{'1', '2', 0xFF}, 0},
        {ByteVec{'1', '2', 0xC3}, 0},
        {ByteVec{'1', 0xC0, 0x80}, 0},
        {ByteVec{'1', 0xED, 0xA0, 0x80}, 0},
        {ByteVec{'1', 0xF4, 0x90, 0x80, 0x80}, 0},
        {ByteVec{'1', '2', ' ', 0xC3, 0xA9}, 12},
        {ByteVec{'7', 0xF0, 0x9F, 0x98, 0x80}, 7}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.text));
        EXPECT_EQ(lenientTextToFloat(c.text), c.number);
        EXPECT_EQ(decodeTextWeight(c.text), c.number / 10.0f);
    }
}

TEST(WireWeightTest, DecoderIsChosenByNameAndButtonsAreOneAndTwo) {
    const ByteVec text = textBytes("1234");
    const ByteVec binary = {0x00, 0x39, 0x30, 0x00, 0xFF};
    struct Case {
        std::optional<std::string_view> name;
        const ByteVec& packet;
        float weight;
    };
    const std::vector<Case> cases = {
        {"Coffee Scale", text, 123.4f}, {"Plenk-01", binary, 1234.5f},
        {"PlenkCoffee", text, 123.4f},   // "Coffee" is tested first
        {"Coffee Plenk", binary, 0.0f},  // binary bytes read as text: no number
        {"coffee", text, 0.0f},          // case-sensitive
        {"PLENK", binary, 0.0f},        {"", text, 0.0f},
        {std::nullopt, binary, 0.0f},
    };
    for (const auto& c : cases) EXPECT_EQ(decodeWeight(c.name, c.packet), c.weight) << c.name.value_or("-");

    using Button = std::optional<std::uint64_t>;
    const std::vector<std::pair<ByteVec, Button>> buttons = {{{0x01}, 0},  {{0x02, 0xFF}, 1}, {{0x00}, {}},
                                                             {{0x03}, {}}, {{0x81}, {}},      {{}, {}}};
    for (const auto& [packet, button] : buttons) {
        EXPECT_EQ(decodeButton(packet), button) << ::testing::PrintToString(packet);
    }
}

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
        {0x00, 0xFF, 0xFF, 0xFF, true},  {0xFF, 0xFF, 0xFF, 0xFF, true},  {0x00, 0xFF, 0xFF, 0xFE, false},
        {0x00, 0xFE, 0xFF, 0xFF, false}, {0x00, 0xFF, 0x7F, 0xFF, false}, {0xFF, 0x00, 0x00, 0x00, false},
    };
    for (const auto& c : cases) {
        const auto bytes = recordBytes(c.timer, c.b10, c.b11, c.b12);
        EXPECT_EQ(isUnconfigured(recordFromBytes(bytes)), c.unconfigured) << ::testing::PrintToString(bytes);
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
        {0x03, 1, true, 0, true, 0},
        {0x31, 1, false, 0, false, 3},
        {0x04, 0, false, 1, true, 0},
        {0x7F, 1, true, 1, true, 7},
        // From 0x80 up the high nibble keeps the sign bits of the arithmetic shift.
        {0x80, 0, false, 0, true, 248},
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
        // Decoding does not care that this is the unconfigured pattern.
        {0xFF, 0xFF, 0xFF, {0, false, 0, true, true, 0, 15, 15, 15, 15, 15}},
        {0x80, 0x08, 0x0F, {0, false, 0, true, false, 0, 8, 0, 0, 8, 15}},
        {0x00, 0x00, 0x90, {0, false, 0, true, true, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        const auto bytes = recordBytes(0, c.b10, c.b11, c.b12);
        EXPECT_EQ(decodeConfiguration(recordFromBytes(bytes)), c.expected) << ::testing::PrintToString(bytes);
    }
}

// One table serves the device, the emulator and the tool: a typo there would
// agree with itself everywhere else.
TEST(WireIdentifiersTest, MatchTheirWrittenForms) {
    EXPECT_EQ(kScaleService, Uuid::fromString("FF08"));
    EXPECT_EQ(kCommandCharacteristic, Uuid::fromString("EF80"));
    EXPECT_EQ(kDataCharacteristic, Uuid::fromString("0000EF81-0000-1000-8000-00805F9B34FB"));
    EXPECT_EQ(kControlCharacteristic, Uuid::fromString("EF82"));
    EXPECT_EQ(kInfoCharacteristic, Uuid::fromString("EF83"));
    EXPECT_EQ(kDfuService, Uuid::fromString("00001530-1212-EFDE-1523-785FEABCD123"));
}

}  // namespace
}  // namespace plenk::wire
