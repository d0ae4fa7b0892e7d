// stringToHexConverter on NUL-terminated copies of any text, odd lengths
// included, into an output buffer of exactly strlen / 2 bytes: ASan reports
// any write past it or read outside the text.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include <PlenkKit/StringToHexConverter.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto text = std::make_unique<char[]>(size + 1);
    if (size != 0) std::memcpy(text.get(), data, size);
    text[size] = '\0';
    const std::size_t length = std::strlen(text.get());
    // A zero-sized array still gets its own allocation, so out-of-bounds writes are caught.
    auto out = std::make_unique<unsigned char[]>(length / 2);
    if (!stringToHexConverter(text.get(), out.get())) __builtin_trap();
    return 0;
}
