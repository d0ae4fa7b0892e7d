#include <PlenkKit/StringToHexConverter.h>

#include <cstddef>
#include <cstring>

namespace {

// Upper-cases ASCII letters only, so the result does not depend on the host's locale.
int asciiUpper(char ch) noexcept {
    int c = static_cast<signed char>(ch);
    return (c >= 'a' && c <= 'z') ? c - ('a' - 'A') : c;
}

// Digits and anything else below 'A' count from '0'; letters and above from 'A' + 10.
int nibble(char ch) noexcept {
    const int c = asciiUpper(ch);
    return c < 'A' ? c - '0' : c - 'A' + 10;
}

}  // namespace

extern "C" bool stringToHexConverter(const char* text, unsigned char* out) {
    if (text == nullptr) return true;
    const std::size_t n = std::strlen(text);
    const std::size_t bytes = n / 2;
    // Byte k (from the end) comes from the characters n-1-2k (low) and n-2-2k
    // (high); with an odd length the first character has no partner and is skipped.
    for (std::size_t k = 0; k < bytes; ++k) {
        const std::size_t low = n - 1 - 2 * k;
        const int value = nibble(text[low - 1]) * 16 + nibble(text[low]);
        out[bytes - 1 - k] = static_cast<unsigned char>(value);
    }
    return true;
}
