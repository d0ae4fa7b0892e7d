#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace plenk::cli {

// Bytes written as hex text: "0a31", "0A 31", "0a:31", "0x0a31", "0x0a 0x31" and
// any mix of white space and colons between bytes. Each run of digits between
// separators (after an optional 0x) must have an even length ("0 39" is rejected
// rather than guessed at).
struct HexParseResult {
    std::vector<std::uint8_t> bytes;
    std::string error;  // empty on success; one line, no trailing period

    bool ok() const noexcept { return error.empty(); }
};

HexParseResult parseHexText(std::string_view text);

// "0a 31": lower-case, one space between bytes.
std::string formatHex(std::span<const std::uint8_t> bytes);
// "0a": one byte, lower-case.
std::string hexByte(std::uint8_t byte);

}  // namespace plenk::cli
