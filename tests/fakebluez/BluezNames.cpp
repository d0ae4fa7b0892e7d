#include "BluezNames.h"

#include <cctype>
#include <cstdio>

namespace plenk::fakebluez {

std::optional<std::string> normalizedAddress(const std::string& address) {
    if (address.size() != 17) return std::nullopt;
    std::string out;
    for (std::size_t i = 0; i < address.size(); ++i) {
        const char c = address[i];
        if (i % 3 == 2) {
            if (c != ':') return std::nullopt;
            out += ':';
        } else {
            if (std::isxdigit(static_cast<unsigned char>(c)) == 0) return std::nullopt;
            out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
    }
    return out;
}

std::string addressPathPart(const std::string& address) {
    std::string part = normalizedAddress(address).value_or(address);
    for (char& c : part) {
        if (c == ':') c = '_';
    }
    return part;
}

DbusError attErrorToDbus(std::uint8_t code) {
    const std::string bluez = "org.bluez.Error.";
    switch (code) {
        case 0x02:
            return {bluez + "NotPermitted", "Read not permitted"};
        case 0x03:
            return {bluez + "NotPermitted", "Write not permitted"};
        case 0x05:  // insufficient authentication
        case 0x0C:  // insufficient encryption key size
        case 0x0F:  // insufficient encryption
            return {bluez + "NotPermitted", "Not paired"};
        case 0x07:
            return {bluez + "InvalidArguments", "Invalid offset"};
        case 0x0D:
            return {bluez + "InvalidArguments", "Invalid Length"};
        case 0x08:
            return {bluez + "NotAuthorized", "Operation Not Authorized"};
        case 0x06:
            return {bluez + "NotSupported", "Operation is not supported"};
        default: {
            char text[48];
            std::snprintf(text, sizeof text, "Operation failed with ATT error: 0x%02x", code);
            return {bluez + "Failed", text};
        }
    }
}

}  // namespace plenk::fakebluez
