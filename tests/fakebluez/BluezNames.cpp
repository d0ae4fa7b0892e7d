#include "BluezNames.h"

#include <cctype>
#include <cstdio>
#include <regex>

namespace plenk::fakebluez {

std::optional<std::string> normalizedAddress(std::string address) {
    static const std::regex kForm("([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}");
    if (!std::regex_match(address, kForm)) return std::nullopt;
    for (char& c : address) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return address;
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
