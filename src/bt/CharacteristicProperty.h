#pragma once

#include <cstdint>

namespace plenk::bt {

// Characteristic properties (GATT bit values), shared by the port and the
// emulator's GATT tables.
enum CharacteristicProperty : std::uint32_t {
    kPropertyRead = 0x02,
    kPropertyWriteWithoutResponse = 0x04,
    kPropertyWrite = 0x08,
    kPropertyNotify = 0x10,
    kPropertyIndicate = 0x20,
};

}  // namespace plenk::bt
