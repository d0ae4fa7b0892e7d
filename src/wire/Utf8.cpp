#include "wire/Utf8.h"

namespace plenk::wire {

std::size_t utf8SequenceLength(std::span<const std::uint8_t> text) noexcept {
    if (text.empty()) return 0;
    const std::uint8_t c = text[0];
    if (c < 0x80) return 1;
    std::size_t length = 0;
    std::uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the first continuation byte
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        if (c == 0xE0) lo = 0xA0;  // overlong
        if (c == 0xED) hi = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        if (c == 0xF0) lo = 0x90;  // overlong
        if (c == 0xF4) hi = 0x8F;  // above U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < length || text[1] < lo || text[1] > hi) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) return 0;
    }
    return length;
}

bool isValidUtf8(std::span<const std::uint8_t> text) noexcept {
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        if (length == 0) return false;
        text = text.subspan(length);
    }
    return true;
}

}  // namespace plenk::wire
