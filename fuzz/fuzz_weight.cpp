// Weight notifications under every decoder: text and binary, any length.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "wire/Notifications.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> value(data, size);
    const float text = plenk::wire::decodeWeight("Coffee", value);
    const float binary = plenk::wire::decodeWeight("Plenk", value);
    const float none = plenk::wire::decodeWeight("Kitchen", value);
    if (none != 0.0f) __builtin_trap();
    // Text is decoded from the same bytes either way.
    const float again = plenk::wire::decodeTextWeight(value);
    if (!(again == text || (std::isnan(again) && std::isnan(text)))) __builtin_trap();
    (void)binary;
    return 0;
}
