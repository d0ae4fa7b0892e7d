#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/RKErrors.h>

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

// The platform's link error codes (domain kPlatformErrorDomain).
enum PlatformCode : std::int64_t {
    kPlatformUnknown = 0,
    kPlatformInvalidParameters = 1,
    kPlatformInvalidHandle = 2,
    kPlatformNotConnected = 3,
    kPlatformOutOfSpace = 4,
    kPlatformOperationCancelled = 5,
    kPlatformConnectionTimeout = 6,
    kPlatformPeripheralDisconnected = 7,
    kPlatformUuidNotAllowed = 8,
    kPlatformAlreadyAdvertising = 9,
    kPlatformConnectionFailed = 10,
    kPlatformConnectionLimitReached = 11,
    kPlatformUnknownDevice = 12,
    kPlatformOperationNotSupported = 13,
    kPlatformPeerRemovedPairingInformation = 14,
    kPlatformEncryptionTimedOut = 15,
};

// The platform's attribute-protocol error domain and the codes the simulator uses.
inline constexpr std::string_view kAttErrorDomain = "CBATTErrorDomain";
enum AttCode : std::int64_t {
    kAttReadNotPermitted = 2,
    kAttWriteNotPermitted = 3,
    kAttRequestNotSupported = 6,
    kAttUnlikelyError = 14,
};

// An error of the platform's link domain with this code.
inline ErrorPtr platformError(std::int64_t code) {
    return Error::make(std::string(kPlatformErrorDomain), code);
}
inline ErrorPtr attError(std::int64_t code) {
    return Error::make(std::string(kAttErrorDomain), code);
}

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
