#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Export.h>

namespace plenk {

// A Bluetooth UUID. Short forms ("180F", 16 or 32 bits) are stored as their
// 128-bit form on the Bluetooth base UUID 0000xxxx-0000-1000-8000-00805F9B34FB,
// so "180F" equals "0000180F-0000-1000-8000-00805F9B34FB". Peripherals, services
// and characteristics are identified by one; compared by value.
class PLENK_EXPORT Uuid {
public:
    constexpr Uuid() = default;  // the nil UUID
    constexpr explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    // Accepts 4 or 8 hex digits, or the 36-character 8-4-4-4-12 form, any case.
    // Throws std::invalid_argument naming the text otherwise.
    static Uuid fromString(std::string_view text);
    static std::optional<Uuid> parse(std::string_view text) noexcept;
    // Usable in constant expressions, so UUID tables can be inline constexpr.
    static constexpr Uuid from16(std::uint16_t value) noexcept { return from32(value); }
    static constexpr Uuid from32(std::uint32_t value) noexcept {
        std::array<std::uint8_t, 16> bytes = kBase;
        bytes[0] = static_cast<std::uint8_t>(value >> 24);
        bytes[1] = static_cast<std::uint8_t>(value >> 16);
        bytes[2] = static_cast<std::uint8_t>(value >> 8);
        bytes[3] = static_cast<std::uint8_t>(value);
        return Uuid(bytes);
    }
    static Uuid random();

    // "180F" for a 16-bit base UUID, "0001180F" for 32 bits, else the upper-case
    // 8-4-4-4-12 form.
    std::string toString() const;
    // The whole 8-4-4-4-12 form in lower case, as BlueZ writes every UUID.
    std::string fullString() const;
    // The byte form, most significant byte first: 2, 4 or 16 bytes.
    std::vector<std::uint8_t> data() const;
    const std::array<std::uint8_t, 16>& bytes() const noexcept { return bytes_; }
    bool isNil() const noexcept { return *this == Uuid{}; }

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend bool operator<(const Uuid& a, const Uuid& b) noexcept { return a.bytes_ < b.bytes_; }

private:
    // The Bluetooth base UUID 00000000-0000-1000-8000-00805F9B34FB.
    static constexpr std::array<std::uint8_t, 16> kBase{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                                        0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB};

    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace plenk

template <>
struct std::hash<plenk::Uuid> {
    std::size_t operator()(const plenk::Uuid& u) const noexcept {
        std::size_t h = 1469598103934665603ULL;
        for (auto b : u.bytes()) h = (h ^ b) * 1099511628211ULL;
        return h;
    }
};
