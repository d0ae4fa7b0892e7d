#include "TerminalText.h"

#include <langinfo.h>
#include <locale.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace plenk::cli {

namespace {

struct CodePoint {
    char32_t value = 0;
    std::size_t length = 0;  // 0: not a well-formed UTF-8 sequence
};

// The UTF-8 sequence at the start of `text`: no overlong forms, surrogates or
// code points above U+10FFFF.
CodePoint decode(std::string_view text) {
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
    char32_t value = lead & (0x7Fu >> length);
    if (text.size() < length) return {};
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0u) != 0x80u) return {};
        value = (value << 6) | (byte(i) & 0x3Fu);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kSmallest[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return {};
    return {value, length};
}

// Columns of one printable code point: the locale's width where it knows
// one, else one.
int columnsOf(char32_t c) {
    if (c < 0x80) return 1;
    const int width = wcwidth(static_cast<wchar_t>(c));
    return width < 0 ? 1 : width;
}

bool isControl(char32_t c) {
    return c < 0x20 || c == 0x7F || (c >= 0x80 && c <= 0x9F);
}

}  // namespace

TerminalText TerminalText::fromLocale() {
    // Only LC_CTYPE comes from the environment; numbers keep the C format.
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
    if (locale == static_cast<locale_t>(nullptr)) return TerminalText(false);
    const char* codeset = nl_langinfo_l(CODESET, locale);
    const bool utf8 = codeset != nullptr && std::strcmp(codeset, "UTF-8") == 0;
    if (utf8) uselocale(locale);
    return TerminalText(utf8);
}

std::string TerminalText::clean(std::string_view text) const {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const CodePoint c = decode(text);
        const bool printable = c.length > 0 && !isControl(c.value) && (utf8_ || c.value < 0x80);
        if (printable) {
            out.append(text.substr(0, c.length));
        } else {
            out.push_back('?');
        }
        text.remove_prefix(c.length > 0 ? c.length : 1);
    }
    return out;
}

int TerminalText::width(std::string_view cleaned) const {
    int columns = 0;
    while (!cleaned.empty()) {
        const CodePoint c = decode(cleaned);
        columns += c.length > 0 ? columnsOf(c.value) : 1;
        cleaned.remove_prefix(c.length > 0 ? c.length : 1);
    }
    return columns;
}

std::string TerminalText::fit(std::string_view cleaned, int columns) const {
    if (width(cleaned) <= columns) return std::string(cleaned);
    const int room = columns - width(ellipsis());
    std::string out;
    int used = 0;
    while (!cleaned.empty()) {
        const CodePoint c = decode(cleaned);
        const std::size_t length = c.length > 0 ? c.length : 1;
        const int w = c.length > 0 ? columnsOf(c.value) : 1;
        if (used + w > room) break;
        out.append(cleaned.substr(0, length));
        used += w;
        cleaned.remove_prefix(length);
    }
    return room < 0 ? std::string() : out + ellipsis();
}

std::string TerminalText::pad(std::string_view cleaned, int columns) const {
    std::string out(cleaned);
    out.append(static_cast<std::size_t>(std::max(0, columns - width(cleaned))), ' ');
    return out;
}

}  // namespace plenk::cli
