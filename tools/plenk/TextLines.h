#pragma once

#include <string_view>

namespace plenk::cli {

// Calls `line` with each line of `text` that is not blank, trimmed of spaces,
// tabs and carriage returns at both ends (the library's diagnostics come with
// leading line feeds and padding).
template <typename F>
void forEachTrimmedLine(std::string_view text, F&& line) {
    while (!text.empty()) {
        const auto end = text.find('\n');
        auto part = text.substr(0, end);
        const auto first = part.find_first_not_of(" \t\r");
        if (first != std::string_view::npos)
            line(part.substr(first, part.find_last_not_of(" \t\r") - first + 1));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

}  // namespace plenk::cli
