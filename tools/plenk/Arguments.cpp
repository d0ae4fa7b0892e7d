#include "Arguments.h"

#include <charconv>
#include <cstdio>
#include <limits>
#include <string>

#include "Commands.h"

namespace plenk::cli {

namespace {

[[noreturn]] void reject(std::string_view what, std::string_view text, std::string_view expected) {
    throw UsageError(std::string(what) + ": '" + std::string(text) + "' is not " + std::string(expected));
}

// Parses an optionally signed integer, decimal or with a 0x prefix; false if the
// text is not wholly such a number or does not fit in 64 bits.
bool parseInteger(std::string_view text, std::int64_t& value) {
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.front() == '-' || text.front() == '+') return false;
    std::uint64_t magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc{} || end != text.data() + text.size()) return false;
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (magnitude > kMax + (negative ? 1 : 0)) return false;
    value = negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
    return true;
}

}  // namespace

std::uint8_t parseByteArgument(std::string_view text, std::string_view what) {
    std::int64_t value = 0;
    if (!parseInteger(text, value) || value < 0 || value > 255) {
        reject(what, text, "a byte (0..255, decimal or 0x-hex)");
    }
    return static_cast<std::uint8_t>(value);
}

std::int32_t parseInt32Argument(std::string_view text, std::string_view what) {
    std::int64_t value = 0;
    if (!parseInteger(text, value) || value < std::numeric_limits<std::int32_t>::min() ||
        value > std::numeric_limits<std::int32_t>::max()) {
        reject(what, text, "a 32-bit integer");
    }
    return static_cast<std::int32_t>(value);
}

double parseDurationArgument(std::string_view text, std::string_view what) {
    double seconds = 0;
    const auto [end, ec] =
        std::from_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size() || !(seconds > 0) ||
        seconds > kMaxDurationSeconds) {
        reject(what, text, "a number of seconds above 0 and at most 2592000 (30 days)");
    }
    return seconds;
}

std::chrono::nanoseconds toDuration(double seconds) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

std::string formatSeconds(std::chrono::nanoseconds duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", std::chrono::duration<double>(duration).count());
    return text;
}

bool parseSwitchArgument(std::string_view text, std::string_view what) {
    if (text == "on") return true;
    if (text == "off") return false;
    reject(what, text, "'on' or 'off'");
}

}  // namespace plenk::cli
