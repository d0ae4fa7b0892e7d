// Button notifications: only 01 and 02 are buttons.
#include <cstddef>
#include <cstdint>
#include <span>

#include "wire/Notifications.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto button = plenk::wire::decodeButton(std::span<const std::uint8_t>(data, size));
    if (button) {
        if (size == 0 || *button > 1 || *button != static_cast<std::uint64_t>(data[0] - 1)) __builtin_trap();
    } else if (size != 0 && (data[0] == 0x01 || data[0] == 0x02)) {
        __builtin_trap();
    }
    return 0;
}
