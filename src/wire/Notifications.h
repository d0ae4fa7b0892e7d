#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

// The scale's notifications: weight packets on the data characteristic, button
// presses on the control characteristic. Pure functions, no allocation; every
// decoder reads only the bytes it is given (missing bytes count as 0x00).
namespace plenk::wire {

// Weight from a value of the data characteristic, by the peripheral's name:
// "Coffee" → decimal text / 10; else "Plenk" → binary mantissa × 10^exponent;
// else 0.0.
float decodeWeight(std::optional<std::string_view> peripheralName,
                   std::span<const std::uint8_t> value) noexcept;
float decodeTextWeight(std::span<const std::uint8_t> value) noexcept;
float decodeBinaryWeight(std::span<const std::uint8_t> value) noexcept;
// The lenient text-to-float rule: leading white space, optional sign, digits,
// optional point and exponent; stops at the first misfit; nothing parsed or
// invalid UTF-8 gives 0. Reads up to a NUL byte or the end of the value.
float lenientTextToFloat(std::span<const std::uint8_t> text) noexcept;

// Button number from a value of the control characteristic: 01 → 0, 02 → 1,
// anything else (or an empty value) → none.
std::optional<std::uint64_t> decodeButton(std::span<const std::uint8_t> value) noexcept;

// Encoders, the scale's side (used by the emulator and by tests).
// Binary weight packet: byte 0 (flags), mantissa/exponent, second value.
std::array<std::uint8_t, 9> encodeBinaryWeight(std::int32_t mantissa, std::int8_t exponent,
                                               std::int32_t secondMantissa = 0,
                                               std::int8_t secondExponent = 0) noexcept;

}  // namespace plenk::wire
