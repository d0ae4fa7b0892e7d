#pragma once

#include <memory>
#include <optional>
#include <string>

#include <PlenkKit/Export.h>
#include <PlenkKit/Uuid.h>

namespace plenk {

// Connection state, numbered as the platform numbers it.
enum class PeripheralState : int { Disconnected = 0, Connecting = 1, Connected = 2, Disconnecting = 3 };

// A remote Bluetooth device as the library sees it, read-only: what a host
// needs to tell two scales apart and to show them. The library hands these out
// (discoveredResults, connectingPeripheral, dfuPeripheral, the connecter's
// events, a device's peripheral) and takes them back (connectPeripheral); the
// GATT operations behind it stay inside the library. Two handles are the same
// device when their identifiers are equal. Every accessor may be called from
// any thread.
class PLENK_EXPORT Peripheral {
public:
    virtual ~Peripheral();

    // The advertised or GAP name; absent when the device never gave one.
    virtual std::optional<std::string> name() const = 0;
    // Stable for one adapter and device address across runs.
    virtual Uuid identifier() const = 0;
    virtual PeripheralState state() const = 0;
    // The last signal strength measured for the device, in dBm: from its last
    // advertisement seen by a scan, or the last signal-strength read on the
    // link. Absent before either.
    virtual std::optional<int> rssi() const = 0;

protected:
    Peripheral() = default;
    Peripheral(const Peripheral&) = delete;
    Peripheral& operator=(const Peripheral&) = delete;
};

using PeripheralPtr = std::shared_ptr<Peripheral>;

}  // namespace plenk
