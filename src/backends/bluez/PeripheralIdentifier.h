#pragma once

#include <string_view>

#include "bt/Uuid.h"

namespace plenk::bluez {

// A name-based UUID (version 5, SHA-1) of `name` in the namespace `space`.
bt::Uuid nameBasedUuid(const bt::Uuid& space, std::string_view name);

// The identifier of the device at `deviceAddress` as seen through the adapter
// at `adapterAddress` ("AA:BB:CC:DD:EE:FF", any case): the same two addresses
// give the same identifier in every run, so a host may store it.
bt::Uuid peripheralIdentifier(std::string_view adapterAddress, std::string_view deviceAddress);

}  // namespace plenk::bluez
