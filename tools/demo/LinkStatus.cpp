#include "LinkStatus.h"

#include <PlenkKit/RKRostaKit.h>

namespace plenk::demo {

std::string linkStatusText(const LinkFacts& facts) {
    // A held link keeps its device (and "connected") while it is being
    // relinked, so the reconnection is told first.
    if (facts.reconnecting) return "Reconnecting…";
    if (facts.connected) return "Connected";
    switch (facts.radio) {
        case RKRostaKit::kLEStatePoweredOn:
            break;
        case RKRostaKit::kLEStatePoweredOff:
            return "Bluetooth is off";
        case RKRostaKit::kLEStateNotSupported:
            return "No Bluetooth adapter";
        case RKRostaKit::kLEStateUnauthorized:
            return "Bluetooth not permitted";
        default:
            return "Waiting for Bluetooth…";
    }
    if (facts.connecting) return "Connecting…";
    if (facts.searching) return "Searching…";
    return "Disconnected";
}

}  // namespace plenk::demo
