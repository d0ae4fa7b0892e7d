#include "wire/Notifications.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "wire/Utf8.h"

namespace plenk::wire {

namespace {

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
    if (end == 0 || !isValidUtf8(text.first(end))) return 0.0f;

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
