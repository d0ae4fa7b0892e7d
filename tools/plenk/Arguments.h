#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace plenk::cli {

// Argument conversions shared by the verbs. Each throws UsageError with a
// message naming `what` and the offending text.

// Decimal ("200") or 0x-hex ("0xC8"), 0..255.
std::uint8_t parseByteArgument(std::string_view text, std::string_view what);
// Decimal with optional sign, or 0x-hex; the whole signed 32-bit range.
std::int32_t parseInt32Argument(std::string_view text, std::string_view what);
// Seconds, decimal ("40", "2.5"): more than 0, at most kMaxDurationSeconds.
inline constexpr double kMaxDurationSeconds = 30 * 24 * 3600.0;
double parseDurationArgument(std::string_view text, std::string_view what);
// Seconds as the loops' duration type, and as text for messages ("20", "2.5").
std::chrono::nanoseconds toDuration(double seconds);
std::string formatSeconds(std::chrono::nanoseconds duration);
// "on" or "off".
bool parseSwitchArgument(std::string_view text, std::string_view what);

}  // namespace plenk::cli
