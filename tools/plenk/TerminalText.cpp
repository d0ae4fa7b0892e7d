#include "TerminalText.h"

#include "Utf8Decode.h"

#include <langinfo.h>
#include <locale.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace plenk::cli {

namespace {

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
        const CodePoint c = decodeUtf8(text);
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
        const CodePoint c = decodeUtf8(cleaned);
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
        const CodePoint c = decodeUtf8(cleaned);
        const std::size_t length = c.length > 0 ? c.length : 1;
        const int w = c.length > 0 ? columnsOf(c.value) : 1;
        if (used + w > room) break;
        out.append(cleaned.substr(0, length));
        used += w;
        cleaned.remove_prefix(length);
    }
    return room < 0 ? std::string() : out + ellipsis();
}

std::string_view TerminalText::spinner(std::size_t frame) const {
    static constexpr std::string_view kUtf8[] = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
    static constexpr std::string_view kAscii[] = {"|", "/", "-", "\\"};
    return utf8_ ? kUtf8[frame % std::size(kUtf8)] : kAscii[frame % std::size(kAscii)];
}

std::string TerminalText::pad(std::string_view cleaned, int columns) const {
    std::string out(cleaned);
    out.append(static_cast<std::size_t>(std::max(0, columns - width(cleaned))), ' ');
    return out;
}

}  // namespace plenk::cli
