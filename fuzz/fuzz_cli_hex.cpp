// The CLI's hex text parser: either bytes that print back to an equivalent
// text, or a one-line error.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "HexText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto parsed = plenk::cli::parseHexText(text);
    if (parsed.ok()) {
        const auto again = plenk::cli::parseHexText(plenk::cli::formatHex(parsed.bytes));
        if (!again.ok() || again.bytes != parsed.bytes) __builtin_trap();
    } else if (!parsed.bytes.empty() || parsed.error.find('\n') != std::string::npos) {
        __builtin_trap();
    }
    return 0;
}
