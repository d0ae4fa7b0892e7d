#pragma once

#include <string>
#include <string_view>

#include <PlenkKit/Error.h>

namespace plenk::bluez {

// A D-Bus error as bluetoothd (or the bus) answered it.
struct BusError {
    std::string name;     // "org.bluez.Error.Failed"
    std::string message;  // "le-connection-abort-by-remote"
};

// What a failed Device1.Connect means to the backend.
enum class ConnectOutcome {
    Linked,     // the link is up after all ("already connected")
    Busy,       // another Connect is still pending in bluetoothd: try again shortly
    Cancelled,  // a Disconnect ended the attempt
    Failed,     // a real failure: report connectError()
};

ConnectOutcome classifyConnectFailure(const BusError& error);

// The platform error (link domain) a failed connection attempt is reported
// with. The kit reads codes 11 (unknown), 12 (invalid parameters), 13 (invalid
// handle) and 14 (time-out); every row says why it lands where it does.
ErrorPtr connectError(const BusError& error);

// The error a failed GATT request (read, write, notify) is reported with: the
// ATT domain when the peer refused it, else the link domain.
ErrorPtr requestError(const BusError& error);

}  // namespace plenk::bluez
