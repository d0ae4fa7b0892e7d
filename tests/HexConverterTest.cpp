#include <PlenkKit/StringToHexConverter.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Guard bytes on both sides prove nothing is written outside the n/2 bytes given.
struct GuardedBuffer {
    static constexpr std::size_t kGuard = 16;
    explicit GuardedBuffer(std::size_t n) : storage(n + 2 * kGuard, 0xA5) {}
    unsigned char* out() { return storage.data() + kGuard; }
    std::vector<std::uint8_t> written() const { return {storage.begin() + kGuard, storage.end() - kGuard}; }
    bool guardsIntact() const {
        const auto clean = [](auto from) {
            return std::all_of(from, from + kGuard, [](auto b) { return b == 0xA5; });
        };
        return clean(storage.begin()) && clean(storage.end() - kGuard);
    }
    std::vector<std::uint8_t> storage;
};

TEST(HexConverterTest, ConvertsPairsInWrittenOrderAndStaysInBounds) {
    struct Case {
        std::string text;
        std::vector<std::uint8_t> bytes;  // the n/2 bytes written
    };
    const std::vector<Case> cases = {
        {"0A1B", {0x0A, 0x1B}},
        {"0a1Bc3", {0x0A, 0x1B, 0xC3}},
        {"", {}},
        // No digit check: the character arithmetic decides.
        {"::", {0xAA}},        // ':' is below 'A': 0x3A - '0' = 10
        {"zz", {0x53}},        // 35 * 16 + 35 = 595 = 0x253
        {"\xff\xff", {0xBF}},  // a negative char: -49 * 16 - 49 = -833 = 0xBF mod 256
        {"abc", {0xBC}},
        {"X0102", {0x01, 0x02}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        // Preceded by a character: an odd length must not read it or write before `out`.
        const std::string padded = "F" + c.text;
        GuardedBuffer buffer(c.bytes.size());
        EXPECT_TRUE(stringToHexConverter(padded.c_str() + 1, buffer.out()));
        EXPECT_EQ(buffer.written(), c.bytes);
        EXPECT_TRUE(buffer.guardsIntact());
    }
}

}  // namespace
