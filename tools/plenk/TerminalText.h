#pragma once

#include <string>
#include <string_view>

namespace plenk::cli {

// Device names as a terminal can show them. Names come from the air and may
// hold anything: control characters (an escape sequence would move the
// cursor), bytes that are not UTF-8, wide characters. Each character is
// counted in the columns the terminal gives it, so tables stay aligned and a
// clipped line never wraps.
class TerminalText {
public:
    // UTF-8 when the locale's character set is (LANG, LC_ALL, LC_CTYPE): then
    // column widths come from it too. Takes effect on the calling thread only
    // (the thread that prints), so no other thread's locale changes under it.
    static TerminalText fromLocale();
    explicit TerminalText(bool utf8) : utf8_(utf8) {}

    bool utf8() const { return utf8_; }
    // `text` safe to print: control characters and bytes that are not UTF-8
    // become '?' (every byte above ASCII too when the terminal is not UTF-8).
    std::string clean(std::string_view text) const;
    // Columns a cleaned text takes.
    int width(std::string_view cleaned) const;
    // A cleaned text cut to at most `columns`, ending with an ellipsis when cut.
    std::string fit(std::string_view cleaned, int columns) const;
    // A cleaned text filled with spaces to `columns` (never cut).
    std::string pad(std::string_view cleaned, int columns) const;
    // "…" or "...".
    // Frame `frame` of a turning spinner, in what the terminal can show.
    std::string_view spinner(std::size_t frame) const;
    const char* ellipsis() const { return utf8_ ? "\u2026" : "..."; }

private:
    bool utf8_;
};

}  // namespace plenk::cli
