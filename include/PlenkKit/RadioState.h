#pragma once

namespace plenk {

// The radio's state as the platform reports it, in the platform's six values.
// The Bluetooth port reports it; the simulator scripts it.
enum class RadioState : int {
    Unknown = 0,
    Resetting = 1,
    Unsupported = 2,
    Unauthorized = 3,
    PoweredOff = 4,
    PoweredOn = 5,
};

}  // namespace plenk
