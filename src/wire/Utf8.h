#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Strict UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF): the
// one check for device texts, weight text and the tool's JSON output.
namespace plenk::wire {

// Length of the well-formed sequence at the start of `text` (1 for ASCII, up
// to 4), or 0 when it is malformed, truncated or `text` is empty.
std::size_t utf8SequenceLength(std::span<const std::uint8_t> text) noexcept;
bool isValidUtf8(std::span<const std::uint8_t> text) noexcept;

inline std::span<const std::uint8_t> utf8Bytes(std::string_view text) noexcept {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline std::size_t utf8SequenceLength(std::string_view text) noexcept {
    return utf8SequenceLength(utf8Bytes(text));
}
inline bool isValidUtf8(std::string_view text) noexcept {
    return isValidUtf8(utf8Bytes(text));
}

}  // namespace plenk::wire
