#pragma once

#include <cstdint>
#include <string>

namespace plenk::demo {

// What the window knows about the link at one moment.
struct LinkFacts {
    std::uint64_t radio = 0;    // RKRostaKit::leState(): 0 before the first report
    bool connected = false;     // between plenkDidConnected and plenkDidDisconnected
    bool reconnecting = false;  // a held link dropped ("Reconnect") and is not back ("Connect")
    bool connecting = false;    // a connection attempt or the set-up of a linked scale runs
    bool searching = false;     // auto-connect is scanning, or the picker is open
};

// The connection state as a user reads it: "Searching…", "Connecting…",
// "Connected", "Reconnecting…", "Disconnected", or what keeps Bluetooth from
// being used.
std::string linkStatusText(const LinkFacts& facts);

}  // namespace plenk::demo
