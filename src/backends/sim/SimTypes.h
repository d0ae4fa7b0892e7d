#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/PlatformErrors.h>

#include "bt/Bytes.h"
#include "bt/Peripheral.h"
#include "bt/Uuid.h"
#include "emulator/GattProfile.h"

namespace plenk::sim {

// How long the simulated radio takes. Every delay runs on the world's Clock
// (a VirtualClock makes them deterministic); zero means "post at once".
struct Timings {
    // Repeat interval of advertisements, seen only by scans that allow
    // duplicates (others report each advertiser once per scan, at once).
    // Zero: no repeats at all.
    Clock::Duration advertisingInterval = std::chrono::milliseconds(100);
    // From connectPeripheral to didConnect / didFailToConnect.
    Clock::Duration connectLatency = std::chrono::milliseconds(30);
    // From a GATT request (discovery, read, write, notify switch, RSSI) to its result.
    Clock::Duration gattLatency = std::chrono::milliseconds(2);

    static Timings zero() {
        return Timings{Clock::Duration::zero(), Clock::Duration::zero(), Clock::Duration::zero()};
    }
};

// What a connect attempt to a peripheral does once the connect latency has passed.
struct ConnectResult {
    enum class Kind { Succeed, Fail, Hang };
    Kind kind = Kind::Succeed;
    ErrorPtr error;  // for Fail; may be null (a failure without error)

    static ConnectResult succeed() { return {}; }
    static ConnectResult fail(ErrorPtr error = nullptr) { return {Kind::Fail, std::move(error)}; }
    static ConnectResult failWithCode(std::int64_t code) { return fail(platformError(code)); }
    // Stays "connecting" until the central cancels it.
    static ConnectResult hang() { return {Kind::Hang, nullptr}; }
};

// One write that reached the simulated peripheral, in arrival order.
struct WriteRecord {
    bt::Uuid characteristic;
    bt::Bytes value;
    bt::WriteType type = bt::WriteType::WithResponse;
    ErrorPtr error;  // the scripted error it was answered with; null when applied
};

// A virtual peripheral as it starts out; everything can be changed later
// through its VirtualPeripheral handle.
struct PeripheralOptions {
    std::optional<std::string> name;  // advertised and GAP name; none = nameless
    bt::Uuid identifier;              // nil: a random one
    std::vector<bt::Uuid> advertisedServices;
    int rssi = -58;
    bool advertising = true;
    // Most single-link devices stop advertising while a central holds them.
    bool advertisesWhileConnected = false;
    // Held connected by the system (another application): listed by
    // retrieveConnectedPeripheralsWithServices, connects without advertising.
    bool connectedToSystem = false;
    // Listed by retrievePeripheralsWithIdentifiers.
    bool knownToSystem = true;
    emulator::GattProfile profile;
    // Scales only: stream weights while a central listens. Default: the world's.
    std::optional<bool> streaming;
};

}  // namespace plenk::sim
