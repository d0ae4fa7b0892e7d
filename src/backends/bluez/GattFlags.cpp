#include "backends/bluez/GattFlags.h"

#include <string_view>
#include <utility>

#include "bt/CharacteristicProperty.h"

namespace plenk::bluez {

namespace {

constexpr std::pair<std::uint32_t, std::string_view> kFlags[] = {
    {bt::kPropertyRead, "read"},         {bt::kPropertyWriteWithoutResponse, "write-without-response"},
    {bt::kPropertyWrite, "write"},       {bt::kPropertyNotify, "notify"},
    {bt::kPropertyIndicate, "indicate"},
};

}  // namespace

std::uint32_t propertiesFromFlags(const std::vector<std::string>& flags) {
    std::uint32_t bits = 0;
    for (const auto& flag : flags) {
        for (const auto& [bit, name] : kFlags) {
            if (flag == name) bits |= bit;
        }
    }
    return bits;
}

std::vector<std::string> flagsFromProperties(std::uint32_t properties) {
    std::vector<std::string> flags;
    for (const auto& [bit, name] : kFlags) {
        if ((properties & bit) != 0) flags.emplace_back(name);
    }
    return flags;
}

}  // namespace plenk::bluez
