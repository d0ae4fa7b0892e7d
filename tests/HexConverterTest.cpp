#include <PlenkKit/StringToHexConverter.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// An output area with guard bytes on both sides, to prove that nothing is written
// outside the n/2 bytes the caller provides.
class GuardedBuffer {
public:
    static constexpr std::size_t kGuard = 16;
    static constexpr std::uint8_t kFill = 0xA5;

    explicit GuardedBuffer(std::size_t size) : size_(size), storage_(size + 2 * kGuard, kFill) {}

    unsigned char* out() { return storage_.data() + kGuard; }
    std::vector<std::uint8_t> written() const {
        return {storage_.begin() + kGuard, storage_.begin() + static_cast<std::ptrdiff_t>(kGuard + size_)};
    }
    bool guardsIntact() const {
        for (std::size_t i = 0; i < kGuard; ++i) {
            if (storage_[i] != kFill || storage_[kGuard + size_ + i] != kFill) return false;
        }
        return true;
    }

private:
    std::size_t size_;
    std::vector<std::uint8_t> storage_;
};

TEST(HexConverterTest, ConvertsPairsInWrittenOrderAndStaysInBounds) {
    struct Case {
        std::string text;
        std::vector<std::uint8_t> bytes;  // the n/2 bytes written
    };
    const std::vector<Case> cases = {
        {"0A1B", {0x0A, 0x1B}},
        {"0a1Bc3", {0x0A, 0x1B, 0xC3}},
        {"ff", {0xFF}},
        {"", {}},
        // No digit check: the character arithmetic decides.
        {"::", {0xAA}},        // ':' is below 'A': 0x3A - '0' = 10
        {"G0", {0x00}},        // 'G' - 'A' + 10 = 16, 16 * 16 wraps to 0
        {"zz", {0x53}},        // 35 * 16 + 35 = 595 = 0x253
        {"\xff\xff", {0xBF}},  // a negative char: -49 * 16 - 49 = -833 = 0xBF mod 256
        // An odd length ignores the leading character.
        {"a", {}},
        {"abc", {0xBC}},
        {"X0102", {0x01, 0x02}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        // The text follows other characters: a literal reading of the loop on an
        // odd length would pick up the byte before the text and write before `out`.
        const std::string padded = "F" + c.text;
        GuardedBuffer buffer(c.bytes.size());
        EXPECT_TRUE(stringToHexConverter(padded.c_str() + 1, buffer.out()));
        EXPECT_EQ(buffer.written(), c.bytes);
        EXPECT_TRUE(buffer.guardsIntact());
    }
    GuardedBuffer none(0);
    EXPECT_TRUE(stringToHexConverter(nullptr, none.out()));
    EXPECT_TRUE(none.guardsIntact());
}

}  // namespace
