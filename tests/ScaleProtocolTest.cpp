// The wire format at the edges the device and kit tests do not reach.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "wire/ConfigurationRecord.h"
#include "wire/Frames.h"
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

// Levels outside 1..3 are sent as 0; any mode but 0 picks the second opcode.
TEST(WireFramesTest, EdgeFrames) {
    const std::vector<std::pair<Frame, ByteVec>> cases = {
        {timerFrame(false, false), {0x0A, 0x00}},
        {segmentBlockFrame(0xFF, 0x00), {0xE7, 0x00}},
        {sleepTimeFrame(3, -5), {0x06, 0x03}},
        {sleepTimeFrame(4, 0), {0x05, 0x00}},
        {advertisingTimeFrame(-1, 7), {0x08, 0x00}},
        {advertisingTimeFrame(std::numeric_limits<std::int32_t>::min(), 0), {0x07, 0x00}},
        {advertisingTimeFrame(256 + 1, 0), {0x07, 0x00}},
    };
    for (const auto& [frame, bytes] : cases)
        EXPECT_EQ(bytesOf(frame), bytes) << ::testing::PrintToString(bytes);
}

TEST(WireWeightTest, BinaryPackets) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const std::vector<std::pair<ByteVec, float>> cases = {
        {{0x00, 0x39, 0x30, 0x00, 0xFF}, 1234.5f},
        {{0x00, 0xC7, 0xCF, 0xFF, 0xFF}, -1234.5f},  // 24-bit mantissa, sign-extended
        {{0x00, 0x00, 0x00, 0x80, 0x00}, -8388608.0f},
        {{0x00, 0x01, 0x00, 0x00, 0x80}, 0.0f},  // 10^-128 underflows
        {{0x00, 0xFF, 0xFF, 0xFF, 0x7F}, -inf},
        {{0xFF, 0x05, 0x00, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD}, 5.0f},  // byte 0 and the second value unread
        {{}, 0.0f},                                                      // missing bytes count as 0x00
        {{0x00, 0x39, 0x30, 0x80}, -8376263.0f},
    };
    for (const auto& [packet, weight] : cases) {
        EXPECT_EQ(decodeBinaryWeight(packet), weight) << ::testing::PrintToString(packet);
    }
    // 0 × 10^127 in single precision is 0 × inf: the value is passed on as it is.
    EXPECT_TRUE(std::isnan(decodeBinaryWeight(ByteVec{0x00, 0x00, 0x00, 0x00, 0x7F})));
    EXPECT_EQ(encodeBinaryWeight(-12345, -1, 1, 2),
              (std::array<std::uint8_t, 9>{0, 0xC7, 0xCF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x02}));
}

// White space, a sign, digits, a point, an exponent with digits; the first misfit ends
// the number, no number at all is 0, the text ends at a NUL, and bytes that are not
// UTF-8 anywhere give 0.
TEST(WireWeightTest, TextPackets) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const std::vector<std::pair<ByteVec, float>> cases = {
        {textBytes(" \t\n\r\v\f-12.5"), -12.5f},
        {textBytes("25e-1g"), 2.5f},
        {textBytes("1e+"), 1},
        {textBytes(".5"), 0.5f},
        {textBytes("1.2.3"), 1.2f},
        {textBytes("+-1"), 0},
        {textBytes("inf"), 0},
        {textBytes("-1e40"), -inf},
        {textBytes("1e99999999999999999999999"), inf},
        {{'1', '2', 0x00, 0xFF}, 12},
        {{'1', '2', 0xC3}, 0},
        {{'1', 0xC0, 0x80}, 0},
        {{'1', 0xED, 0xA0, 0x80}, 0},
        {{'1', 0xF4, 0x90, 0x80, 0x80}, 0},
        {{'7', 0xF0, 0x9F, 0x98, 0x80}, 7},
    };
    for (const auto& [text, number] : cases) {
        SCOPED_TRACE(::testing::PrintToString(text));
        EXPECT_EQ(lenientTextToFloat(text), number);
        EXPECT_EQ(decodeTextWeight(text), number / 10.0f);
    }
}

ByteVec recordBytes(std::uint8_t timer, std::uint8_t b10, std::uint8_t b11, std::uint8_t b12) {
    return {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, timer, b10, b11, b12, 0xAB, 0xCD};
}

TEST(WireConfigTest, RecordsArePaddedOrTruncatedAndOnlyAllOnesIsUnconfigured) {
    ByteVec longer = recordBytes(0x03, 0x12, 0x34, 0x56);
    longer.insert(longer.end(), {0xEE, 0xEE});
    const RKConfigurationRecord full = recordFromBytes(longer);
    EXPECT_EQ(full.timerByte, 0x03);
    EXPECT_EQ(full.byte12, 0x56);
    EXPECT_EQ(full.trailingBytes[1], static_cast<char>(0xCD));
    const RKConfigurationRecord shorter = recordFromBytes(ByteVec{1, 2, 3, 4, 5, 6, 7, 8, 9, 0x31, 0xFF});
    EXPECT_EQ(shorter.byte10, static_cast<char>(0xFF));
    EXPECT_EQ(shorter.byte11, 0);
    RKConfiguration zero{};
    zero.timerAutoStart = true;  // a zero high nibble is not the "off" pattern 3
    EXPECT_EQ(decodeConfiguration(recordFromBytes({})), zero);

    const std::vector<std::pair<ByteVec, bool>> cases = {
        {recordBytes(0xFF, 0xFF, 0xFF, 0xFF), true},
        {recordBytes(0x00, 0xFF, 0xFF, 0xFE), false},
        {ByteVec{}, false},
    };
    for (const auto& [bytes, unconfigured] : cases) {
        EXPECT_EQ(isUnconfigured(recordFromBytes(bytes)), unconfigured) << ::testing::PrintToString(bytes);
    }
}

TEST(WireConfigTest, FieldsDecodeFromTheTimerByteAndTheNibbles) {
    const std::vector<std::pair<ByteVec, RKConfiguration>> cases = {
        {recordBytes(0x00, 0x12, 0x34, 0x56), {0, false, 0, true, true, 0, 1, 2, 3, 4, 6}},
        {recordBytes(0x31, 0x80, 0x08, 0x0F), {1, false, 0, false, false, 3, 8, 0, 0, 8, 15}},
        {recordBytes(0x7F, 0x00, 0x00, 0x90), {1, true, 1, true, true, 7, 0, 0, 0, 0, 0}},
        // From 0x80 up the high nibble keeps the sign bits of the arithmetic shift.
        {recordBytes(0xB3, 0xFF, 0xFF, 0xFF), {1, true, 0, true, true, 251, 15, 15, 15, 15, 15}},
    };
    for (const auto& [bytes, expected] : cases) {
        EXPECT_EQ(decodeConfiguration(recordFromBytes(bytes)), expected) << ::testing::PrintToString(bytes);
    }
}

}  // namespace
}  // namespace plenk::wire
