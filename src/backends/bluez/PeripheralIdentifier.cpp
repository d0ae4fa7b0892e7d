#include "backends/bluez/PeripheralIdentifier.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace plenk::bluez {

namespace {

std::uint32_t rotl(std::uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}

// SHA-1 of a short message: only name-based UUIDs need it, so one pass over a
// padded copy is enough.
std::array<std::uint8_t, 20> sha1(const std::vector<std::uint8_t>& message) {
    std::vector<std::uint8_t> data = message;
    const std::uint64_t bits = static_cast<std::uint64_t>(message.size()) * 8;
    data.push_back(0x80);
    while (data.size() % 64 != 56) data.push_back(0);
    for (int i = 7; i >= 0; --i) data.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));

    std::uint32_t h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    for (std::size_t block = 0; block < data.size(); block += 64) {
        std::uint32_t w[80];
        for (int i = 0; i < 16; ++i) {
            const auto* p = &data[block + 4 * static_cast<std::size_t>(i)];
            w[i] =
                (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
        }
        for (int i = 16; i < 80; ++i) w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
        std::uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
        for (int i = 0; i < 80; ++i) {
            std::uint32_t f = 0, k = 0;
            if (i < 20) {
                f = (b & c) | (~b & d), k = 0x5A827999;
            } else if (i < 40) {
                f = b ^ c ^ d, k = 0x6ED9EBA1;
            } else if (i < 60) {
                f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
            } else {
                f = b ^ c ^ d, k = 0xCA62C1D6;
            }
            const std::uint32_t t = rotl(a, 5) + f + e + k + w[i];
            e = d, d = c, c = rotl(b, 30), b = a, a = t;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
    }
    std::array<std::uint8_t, 20> out{};
    for (std::size_t i = 0; i < 20; ++i) out[i] = static_cast<std::uint8_t>(h[i / 4] >> (24 - 8 * (i % 4)));
    return out;
}

std::string upper(std::string_view text) {
    std::string out(text);
    for (auto& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

// The namespace of PlenkKit's peripheral identifiers. Never change it: hosts
// store identifiers made with it.
constexpr bt::Uuid kPeripheralNamespace{
    {0x5C, 0x1F, 0x3A, 0x80, 0x7B, 0x2E, 0x4D, 0x91, 0xA6, 0x0C, 0xE4, 0x52, 0x18, 0x9D, 0x6F, 0x37}};

}  // namespace

bt::Uuid nameBasedUuid(const bt::Uuid& space, std::string_view name) {
    std::vector<std::uint8_t> message(space.bytes().begin(), space.bytes().end());
    message.insert(message.end(), name.begin(), name.end());
    const auto digest = sha1(message);
    std::array<std::uint8_t, 16> bytes{};
    std::copy(digest.begin(), digest.begin() + 16, bytes.begin());
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x50);  // version 5
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return bt::Uuid(bytes);
}

bt::Uuid peripheralIdentifier(std::string_view adapterAddress, std::string_view deviceAddress) {
    return nameBasedUuid(kPeripheralNamespace, upper(adapterAddress) + "/" + upper(deviceAddress));
}

}  // namespace plenk::bluez
