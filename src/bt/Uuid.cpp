#include <PlenkKit/Uuid.h>

#include <random>
#include <span>
#include <stdexcept>

namespace plenk {

namespace {
// Bytes 4..15 of the Bluetooth base UUID 00000000-0000-1000-8000-00805F9B34FB.
constexpr std::array<std::uint8_t, 12> kBaseTail{0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                                 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB};

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool onBase(const std::array<std::uint8_t, 16>& b) noexcept {
    for (std::size_t i = 0; i < kBaseTail.size(); ++i) {
        if (b[i + 4] != kBaseTail[i]) return false;
    }
    return true;
}

constexpr char kDigits[] = "0123456789ABCDEF";
}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) noexcept {
    std::array<std::uint8_t, 16> bytes{};
    std::string_view digits = text;
    char compact[32];
    if (text.size() == 36) {
        // 8-4-4-4-12 with dashes at 8, 13, 18 and 23.
        std::size_t n = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            if (dash != (text[i] == '-')) return std::nullopt;
            if (!dash) compact[n++] = text[i];
        }
        digits = std::string_view(compact, n);
    }
    if (digits.size() != 4 && digits.size() != 8 && digits.size() != 32) return std::nullopt;
    std::uint8_t parsed[16]{};
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int hi = hexValue(digits[i]);
        const int lo = hexValue(digits[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        parsed[i / 2] = static_cast<std::uint8_t>(hi * 16 + lo);
    }
    if (digits.size() == 32) {
        std::copy(parsed, parsed + 16, bytes.begin());
    } else {
        const std::size_t n = digits.size() / 2;  // 2 or 4 bytes, right-aligned in the first four
        std::copy(parsed, parsed + n, bytes.begin() + static_cast<std::ptrdiff_t>(4 - n));
        std::copy(kBaseTail.begin(), kBaseTail.end(), bytes.begin() + 4);
    }
    return Uuid(bytes);
}

Uuid Uuid::fromString(std::string_view text) {
    if (auto uuid = parse(text)) return *uuid;
    throw std::invalid_argument(
        "malformed Bluetooth UUID \"" + std::string(text) +
        "\": expected 4 or 8 hex digits or the form XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX");
}

Uuid Uuid::random() {
    static thread_local std::mt19937_64 engine{std::random_device{}()};
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < 16; i += 8) {
        const std::uint64_t r = engine();
        for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return Uuid(bytes);
}

std::vector<std::uint8_t> Uuid::data() const {
    if (onBase(bytes_)) {
        if (bytes_[0] == 0 && bytes_[1] == 0) return {bytes_[2], bytes_[3]};
        return {bytes_[0], bytes_[1], bytes_[2], bytes_[3]};
    }
    return {bytes_.begin(), bytes_.end()};
}

namespace {
std::string hexForm(std::span<const std::uint8_t> form, const char* digits) {
    std::string out;
    for (std::size_t i = 0; i < form.size(); ++i) {
        if (form.size() == 16 && (i == 4 || i == 6 || i == 8 || i == 10)) out += '-';
        out += digits[form[i] >> 4];
        out += digits[form[i] & 0x0F];
    }
    return out;
}
}  // namespace

std::string Uuid::toString() const {
    return hexForm(data(), kDigits);
}

std::string Uuid::fullString() const {
    return hexForm(bytes_, "0123456789abcdef");
}

}  // namespace plenk
