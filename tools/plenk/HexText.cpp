#include "HexText.h"

#include <cstdio>

namespace plenk::cli {

namespace {

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isSeparator(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ':';
}

// A character as it may be shown inside quotes on one line of an error message.
std::string printable(char c) {
    const auto u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7F && c != '\'' && c != '\\') return std::string(1, c);
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "\\x%02x", u);
    return buffer;
}

}  // namespace

HexParseResult parseHexText(std::string_view text) {
    HexParseResult result;
    result.bytes.reserve(text.size() / 2);
    std::size_t i = 0;
    while (i < text.size()) {
        if (isSeparator(text[i])) {
            ++i;
            continue;
        }
        // A group may carry a 0x prefix, as byte arguments of `frame` do ("0x0a31", "0x0a 0x31").
        if (text.size() - i >= 2 && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            i += 2;
            if (i == text.size() || isSeparator(text[i])) {
                result.bytes.clear();
                result.error =
                    "invalid hex text: no hex digits after '0x' at offset " + std::to_string(i - 2);
                return result;
            }
        }
        const std::size_t groupStart = i;
        while (i < text.size() && !isSeparator(text[i])) {
            if (hexValue(text[i]) < 0) {
                result.bytes.clear();
                result.error = "invalid hex text: '" + printable(text[i]) + "' at offset " +
                               std::to_string(i) + " is not a hex digit";
                return result;
            }
            ++i;
        }
        const std::size_t digits = i - groupStart;
        if (digits % 2 != 0) {
            result.bytes.clear();
            result.error = "invalid hex text: odd number of hex digits (" + std::to_string(digits) +
                           ") in the group at offset " + std::to_string(groupStart);
            return result;
        }
        for (std::size_t k = groupStart; k < i; k += 2) {
            result.bytes.push_back(static_cast<std::uint8_t>(hexValue(text[k]) * 16 + hexValue(text[k + 1])));
        }
    }
    return result;
}

std::string hexByte(std::uint8_t byte) {
    static constexpr char kDigits[] = "0123456789abcdef";
    return {kDigits[byte >> 4], kDigits[byte & 0x0F]};
}

std::string formatHex(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out.push_back(' ');
        out += hexByte(bytes[i]);
    }
    return out;
}

}  // namespace plenk::cli
