#pragma once

#include <cstddef>
#include <string_view>

namespace plenk::cli {

// One code point read from UTF-8 text.
struct CodePoint {
    char32_t value = 0;
    std::size_t length = 0;  // 0: not a well-formed UTF-8 sequence
};

// The UTF-8 sequence at the start of `text`: no overlong forms, surrogates or
// code points above U+10FFFF. Device names come from the air and can hold
// anything, so every text the tool prints or writes as JSON goes through it.
inline CodePoint decodeUtf8(std::string_view text) {
    if (text.empty()) return {};
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return {lead, 1};
    std::size_t length = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
    } else {
        return {};
    }
    if (text.size() < length) return {};
    char32_t value = lead & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0u) != 0x80u) return {};
        value = (value << 6) | (byte(i) & 0x3Fu);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kSmallest[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return {};
    return {value, length};
}

}  // namespace plenk::cli
