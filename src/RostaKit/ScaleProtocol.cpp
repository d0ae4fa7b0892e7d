#include "RostaKit/ScaleProtocol.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace plenk::wire {

namespace {

constexpr std::uint8_t kTimerOff = 0x00;
constexpr std::uint8_t kTimerOn = 0x01;
constexpr std::uint8_t kTimerOnDefaultOn = 0x03;
constexpr std::uint8_t kTimerAutoStartOn = 0x01;
// High nibble 3 is what the record reports as "auto-start off"; bit 0 keeps the timer on.
constexpr std::uint8_t kTimerAutoStartOff = 0x31;
constexpr std::uint8_t kDefaultConfig09Data = 0x01;

// Byte i of a value, 0x00 past its end.
std::uint8_t byteAt(std::span<const std::uint8_t> value, std::size_t i) noexcept {
    return i < value.size() ? value[i] : std::uint8_t{0};
}

// Signed 24-bit little-endian mantissa at `offset`, then a signed 8-bit power of ten.
float decodeScaledValue(std::span<const std::uint8_t> value, std::size_t offset) noexcept {
    const std::uint8_t b0 = byteAt(value, offset);
    const std::uint8_t b1 = byteAt(value, offset + 1);
    const std::uint8_t b2 = byteAt(value, offset + 2);
    std::uint32_t bits = std::uint32_t{b0} | std::uint32_t{b1} << 8 | std::uint32_t{b2} << 16;
    if ((b2 & 0x80) != 0) bits |= 0xFF000000u;
    const auto mantissa = static_cast<std::int32_t>(bits);
    const auto exponent = static_cast<std::int8_t>(byteAt(value, offset + 3));
    return static_cast<float>(mantissa) * std::pow(10.0f, static_cast<float>(exponent));
}

// Strict UTF-8 check (no overlong forms, no surrogates, nothing above U+10FFFF).
bool isValidUtf8(const std::uint8_t* p, std::size_t n) noexcept {
    std::size_t i = 0;
    while (i < n) {
        const std::uint8_t c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t extra = 0;
        std::uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the first continuation byte
        if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else {
            return false;
        }
        if (n - i - 1 < extra) return false;
        if (p[i + 1] < lo || p[i + 1] > hi) return false;
        for (std::size_t k = 2; k <= extra; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
        }
        i += extra + 1;
    }
    return true;
}

bool isSpace(std::uint8_t c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
bool isDigit(std::uint8_t c) noexcept {
    return c >= '0' && c <= '9';
}

// Length of the longest prefix of the form digits [. digits] [e [sign] digits]
// with at least one mantissa digit; 0 if there is none. An 'e' without
// exponent digits is not part of the number.
std::size_t numberLength(const std::uint8_t* p, std::size_t n) noexcept {
    std::size_t i = 0;
    std::size_t digits = 0;
    for (; i < n && isDigit(p[i]); ++i) ++digits;
    if (i < n && p[i] == '.') {
        for (++i; i < n && isDigit(p[i]); ++i) ++digits;
    }
    if (digits == 0) return 0;
    if (i < n && (p[i] == 'e' || p[i] == 'E')) {
        std::size_t j = i + 1;
        if (j < n && (p[j] == '+' || p[j] == '-')) ++j;
        if (j < n && isDigit(p[j])) {
            while (j < n && isDigit(p[j])) ++j;
            i = j;
        }
    }
    return i;
}

// A number that does not fit a float: the sign of its decimal magnitude tells
// overflow (infinity) from underflow (zero). Saturating, since the exponent
// text may be arbitrarily long.
float outOfRangeValue(const std::uint8_t* p, std::size_t n, bool negative) noexcept {
    constexpr std::int64_t kCap = std::int64_t{1} << 40;
    std::size_t i = 0;
    std::int64_t magnitude = 0;  // decimal exponent of the leading non-zero digit
    bool seenNonZero = false;
    bool afterPoint = false;
    for (; i < n && (isDigit(p[i]) || p[i] == '.'); ++i) {
        if (p[i] == '.') {
            afterPoint = true;
        } else if (!seenNonZero) {
            if (p[i] != '0') {
                seenNonZero = true;
                if (afterPoint) --magnitude;
            } else if (afterPoint) {
                --magnitude;
            }
        } else if (!afterPoint && magnitude < kCap) {
            ++magnitude;
        }
    }
    if (i < n && (p[i] == 'e' || p[i] == 'E')) {
        ++i;
        bool expNegative = false;
        if (i < n && (p[i] == '+' || p[i] == '-')) expNegative = p[i++] == '-';
        std::int64_t exponent = 0;
        for (; i < n && isDigit(p[i]); ++i) {
            if (exponent < kCap) exponent = exponent * 10 + (p[i] - '0');
        }
        magnitude += expNegative ? -exponent : exponent;
    }
    const float result = magnitude > 0 ? std::numeric_limits<float>::infinity() : 0.0f;
    return negative ? -result : result;
}

}  // namespace

Frame tareFrame() noexcept {
    return frame(kOpTare);
}
Frame calibrateFrame(std::uint8_t value) noexcept {
    return frame(kOpCalibrate, value);
}
Frame unitFrame(std::int32_t unit) noexcept {
    return frame(unit == 1 ? kOpUnit3 : kOpUnit2);
}

Frame timerFrame(bool on, bool defaultOn) noexcept {
    return frame(kOpTimer, !on ? kTimerOff : (defaultOn ? kTimerOnDefaultOn : kTimerOn));
}

Frame timerAutoStartFrame(bool autoStart) noexcept {
    return frame(kOpTimer, autoStart ? kTimerAutoStartOn : kTimerAutoStartOff);
}

Frame powerEnhancedFrame(bool enhanced) noexcept {
    return frame(kOpPowerEnhanced, enhanced ? 0x01 : 0x00);
}

Frame sleepTimeFrame(std::int32_t level, std::int32_t mode) noexcept {
    return frame(mode == 0 ? kOpSleepMode0 : kOpSleepMode1, clampLevel(level));
}

Frame advertisingTimeFrame(std::int32_t level, std::int32_t mode) noexcept {
    return frame(mode == 0 ? kOpAdvertisingMode0 : kOpAdvertisingMode1, clampLevel(level));
}

Frame firmwareDisconnectFrame() noexcept {
    return frame(kOpFirmwareDisconnect);
}
Frame synchronizeFrame() noexcept {
    return frame(kOpSynchronize);
}
Frame dfuFrame() noexcept {
    return frame(kOpDfu, kDfuMagic);
}
Frame firmwareVersionFrame() noexcept {
    return frame(kOpFirmwareVersion);
}
Frame indicationLedFrame(bool on) noexcept {
    return frame(kOpDisplayControl, on ? 0x01 : 0x00);
}
Frame engineeringModeFrame(bool on) noexcept {
    return frame(kOpDisplayControl, on ? 0x11 : 0x10);
}

Frame segmentBlockFrame(std::uint8_t block, std::uint8_t value) noexcept {
    return frame(static_cast<std::uint8_t>(kOpSegmentBlockBase | (block & 0x07)), value);
}

Frame segmentPresetFrame(std::uint8_t preset) noexcept {
    return frame(kOpSegmentPreset, preset);
}
Frame segmentUpdateFrame() noexcept {
    return frame(kOpSegmentUpdate);
}
Frame segmentReleaseFrame() noexcept {
    return frame(kOpSegmentRelease);
}
Frame segmentSwitchFrame(bool on) noexcept {
    return frame(on ? kOpSegmentOn : kOpSegmentOff);
}

FrameList ledDisplayFrames(bool on) noexcept {
    FrameList list;
    if (on) {
        // The display is handed back to the scale before it is switched on.
        list.frames[list.count++] = segmentReleaseFrame();
        list.frames[list.count++] = segmentSwitchFrame(true);
    } else {
        list.frames[list.count++] = segmentSwitchFrame(false);
    }
    return list;
}

FrameList defaultConfigurationFrames() noexcept {
    FrameList list;
    for (const Frame& f : {unitFrame(1), timerFrame(false, false), sleepTimeFrame(0, 1), sleepTimeFrame(0, 0),
                           advertisingTimeFrame(0, 1), advertisingTimeFrame(0, 0),
                           frame(kOpDefaultConfig09, kDefaultConfig09Data), synchronizeFrame()}) {
        list.frames[list.count++] = f;
    }
    return list;
}

std::uint8_t clampLevel(std::int32_t level) noexcept {
    return (level >= 1 && level <= 3) ? static_cast<std::uint8_t>(level) : std::uint8_t{0};
}

float decodeWeight(std::optional<std::string_view> peripheralName,
                   std::span<const std::uint8_t> value) noexcept {
    if (!peripheralName) return 0.0f;
    // "Coffee" first: a name holding both texts is a text-protocol scale.
    if (peripheralName->find("Coffee") != std::string_view::npos) return decodeTextWeight(value);
    if (peripheralName->find("Plenk") != std::string_view::npos) return decodeBinaryWeight(value);
    return 0.0f;
}

float decodeTextWeight(std::span<const std::uint8_t> value) noexcept {
    return lenientTextToFloat(value) / 10.0f;
}

float decodeBinaryWeight(std::span<const std::uint8_t> value) noexcept {
    const float weight = decodeScaledValue(value, 1);
    // The second value is part of the packet but never reported.
    [[maybe_unused]] const float second = decodeScaledValue(value, 5);
    return weight;
}

float lenientTextToFloat(std::span<const std::uint8_t> text) noexcept {
    const std::uint8_t* p = text.data();
    const void* nul = text.empty() ? nullptr : std::memchr(p, 0, text.size());
    const std::size_t end =
        nul ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - p) : text.size();
    if (end == 0 || !isValidUtf8(p, end)) return 0.0f;

    std::size_t i = 0;
    while (i < end && isSpace(p[i])) ++i;
    bool negative = false;
    if (i < end && (p[i] == '+' || p[i] == '-')) negative = p[i++] == '-';
    const std::size_t start = i;
    const std::size_t length = numberLength(p + start, end - start);
    if (length == 0) return 0.0f;

    // from_chars gets exactly the number (without its sign): no locale, no
    // allocation, and nothing it would accept beyond the lenient rule (inf, nan).
    const char* first = reinterpret_cast<const char*>(p + start);
    float result = 0.0f;
    const std::errc ec = std::from_chars(first, first + length, result, std::chars_format::general).ec;
    if (ec == std::errc::result_out_of_range) return outOfRangeValue(p + start, length, negative);
    if (ec != std::errc{}) return 0.0f;
    return negative ? -result : result;
}

std::optional<std::uint64_t> decodeButton(std::span<const std::uint8_t> value) noexcept {
    if (value.empty()) return std::nullopt;
    switch (static_cast<std::int8_t>(value[0])) {
        case 0x01:
            return 0;
        case 0x02:
            return 1;
        default:
            return std::nullopt;
    }
}

RKConfigurationRecord recordFromBytes(std::span<const std::uint8_t> value) noexcept {
    RKConfigurationRecord record{};
    if (!value.empty()) std::memcpy(&record, value.data(), std::min(value.size(), sizeof record));
    return record;
}

bool isUnconfigured(const RKConfigurationRecord& record) noexcept {
    return static_cast<std::uint8_t>(record.byte10) == 0xFF &&
           static_cast<std::uint8_t>(record.byte11) == 0xFF &&
           static_cast<std::uint8_t>(record.byte12) == 0xFF;
}

RKConfiguration decodeConfiguration(const RKConfigurationRecord& record) noexcept {
    // Bytes are taken as signed chars and shifted arithmetically; only the timer's
    // high nibble is left unmasked to 4 bits, so 0x90 gives 0xF9 (249) there.
    const int timer = static_cast<signed char>(record.timerByte);
    const int b10 = static_cast<signed char>(record.byte10);
    const int b11 = static_cast<signed char>(record.byte11);
    const int b12 = static_cast<signed char>(record.byte12);
    const auto high = [](int b) { return (b >> 4) & 0x0F; };
    const auto low = [](int b) { return b & 0x0F; };

    RKConfiguration c{};
    c.timerOn = timer & 1;
    c.timerDefaultOn = ((timer >> 1) & 1) != 0;
    c.timerBit2 = (timer >> 2) & 1;
    c.timerHighNibble = (timer >> 4) & 0xFF;
    c.timerAutoStart = c.timerHighNibble != 3;
    c.byte12HighSet = high(b12) != 0;
    c.byte10High = high(b10);
    c.byte10Low = low(b10);
    c.byte11High = high(b11);
    c.byte11Low = low(b11);
    c.byte12Low = low(b12);
    return c;
}

std::array<std::uint8_t, 9> encodeBinaryWeight(std::int32_t mantissa, std::int8_t exponent,
                                               std::int32_t secondMantissa,
                                               std::int8_t secondExponent) noexcept {
    const auto put = [](std::uint8_t* out, std::int32_t m, std::int8_t e) {
        const auto bits = static_cast<std::uint32_t>(m);
        out[0] = static_cast<std::uint8_t>(bits);
        out[1] = static_cast<std::uint8_t>(bits >> 8);
        out[2] = static_cast<std::uint8_t>(bits >> 16);
        out[3] = static_cast<std::uint8_t>(e);
    };
    std::array<std::uint8_t, 9> packet{};
    put(packet.data() + 1, mantissa, exponent);
    put(packet.data() + 5, secondMantissa, secondExponent);
    return packet;
}

}  // namespace plenk::wire
