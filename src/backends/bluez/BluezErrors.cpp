#include "backends/bluez/BluezErrors.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

#include <PlenkKit/PlatformErrors.h>

namespace plenk::bluez {

namespace {

constexpr std::string_view kFailed = "org.bluez.Error.Failed";
constexpr std::string_view kInProgress = "org.bluez.Error.InProgress";
constexpr std::string_view kAlreadyConnected = "org.bluez.Error.AlreadyConnected";

// The codes the kit turns into its connection kinds.
constexpr std::int64_t kKitUnknown = 11;
constexpr std::int64_t kKitInvalidParameters = 12;
constexpr std::int64_t kKitInvalidHandle = 13;
constexpr std::int64_t kKitTimeout = 14;

struct ConnectRow {
    std::string_view key;  // a reason text of org.bluez.Error.Failed, or a whole error name
    std::int64_t code;
    // Why: the row's reason, for the reader (the table is the documentation).
    std::string_view why;
};

// Connection failures. bluetoothd answers a failed Connect with
// org.bluez.Error.Failed and one of its reason texts; a few answers come as
// error names of their own, or from the bus itself.
constexpr std::array kConnectRows{
    // The peer never answered: the attempt expired in the controller.
    ConnectRow{"le-connection-timeout", kKitTimeout, "the controller's connect time-out expired"},
    ConnectRow{"br-connection-timeout", kKitTimeout, "the same time-out on the classic bearer"},
    ConnectRow{"br-connection-page-timeout", kKitTimeout, "the peer did not answer the page"},
    // The kernel ends an LE connect it gives up on by aborting it locally: in
    // practice this is how an unreachable scale fails.
    ConnectRow{"le-connection-abort-by-local", kKitTimeout, "the kernel gave the attempt up (its time-out)"},
    ConnectRow{"br-connection-aborted-by-local", kKitTimeout, "as above, classic bearer"},
    // bluetoothd never answered the call: no better word than time-out.
    ConnectRow{"org.freedesktop.DBus.Error.NoReply", kKitTimeout, "bluetoothd did not answer in time"},
    ConnectRow{"org.freedesktop.DBus.Error.Timeout", kKitTimeout, "bluetoothd did not answer in time"},
    // The request itself was malformed or named something that is not there.
    ConnectRow{"le-connection-invalid-arguments", kKitInvalidParameters, "bluetoothd rejected the request"},
    ConnectRow{"br-connection-invalid-argument", kKitInvalidParameters, "bluetoothd rejected the request"},
    ConnectRow{"org.bluez.Error.InvalidArguments", kKitInvalidParameters, "bluetoothd rejected the request"},
    ConnectRow{"org.freedesktop.DBus.Error.UnknownObject", kKitInvalidParameters,
               "the device object is gone: the address no longer names a device"},
    ConnectRow{"org.freedesktop.DBus.Error.UnknownMethod", kKitInvalidParameters,
               "the device object is gone: the address no longer names a device"},
    ConnectRow{"org.bluez.Error.DoesNotExist", kKitInvalidParameters, "the device is not known any more"},
    // The socket bluetoothd made for the link was unusable.
    ConnectRow{"le-connection-bad-socket", kKitInvalidHandle, "the link's socket handle was bad"},
    ConnectRow{"br-connection-bad-socket", kKitInvalidHandle, "the link's socket handle was bad"},
    // Not a fault of the attempt: the radio is off (the state report says so),
    // or bluetoothd is gone (the reset report says so). Outside the kit's codes.
    ConnectRow{"le-connection-adapter-not-powered", kPlatformConnectionFailed, "the radio is off"},
    ConnectRow{"br-connection-adapter-not-powered", kPlatformConnectionFailed, "the radio is off"},
    ConnectRow{"org.bluez.Error.NotReady", kPlatformConnectionFailed, "the adapter is not powered"},
    ConnectRow{"org.freedesktop.DBus.Error.ServiceUnknown", kPlatformConnectionFailed,
               "bluetoothd is not running"},
    ConnectRow{"org.freedesktop.DBus.Error.NameHasNoOwner", kPlatformConnectionFailed,
               "bluetoothd is not running"},
    ConnectRow{"le-connection-not-supported", kPlatformConnectionFailed,
               "the adapter cannot reach LE devices"},
    ConnectRow{"org.bluez.Error.NotSupported", kPlatformConnectionFailed,
               "the adapter cannot reach the device"},
    // Another client's Disconnect cancelled an attempt we still wanted: not a
    // fault of the scale (our own cancels are never reported).
    ConnectRow{"br-connection-canceled", kPlatformOperationCancelled, "someone else cancelled the attempt"},
    // Everything else the peer or the controller did: refused, aborted by the
    // peer, link-layer errors, resource limits. The kit calls these unknown.
    ConnectRow{"le-connection-abort-by-remote", kKitUnknown, "the peer ended the attempt, reason unknown"},
    ConnectRow{"br-connection-aborted-by-remote", kKitUnknown, "the peer ended the attempt, reason unknown"},
    ConnectRow{"le-connection-refused", kKitUnknown, "the peer refused the link"},
    ConnectRow{"br-connection-refused", kKitUnknown, "the peer refused the link"},
    ConnectRow{"le-connection-concurrent-connection-limit", kKitUnknown, "the controller has no link left"},
    ConnectRow{"le-connection-link-layer-protocol-error", kKitUnknown, "the link layer failed"},
    ConnectRow{"le-connection-gatt-browsing", kKitUnknown, "the first GATT browse failed"},
};

// Anything not in the table: an unknown failure.
constexpr std::int64_t kConnectDefault = kKitUnknown;

bool isAnswerOf(const BusError& error, std::string_view key) {
    return error.name == key || (error.name == kFailed && error.message == key);
}

// "Operation failed with ATT error: 0x0e" → 0x0e.
std::optional<std::int64_t> attCodeIn(std::string_view message) {
    const auto at = message.rfind("0x");
    if (at == std::string_view::npos || message.find("ATT error") == std::string_view::npos)
        return std::nullopt;
    unsigned value = 0;
    const auto* first = message.data() + at + 2;
    const auto* last = message.data() + message.size();
    const auto [end, ec] = std::from_chars(first, last, value, 16);
    if (ec != std::errc{} || end == first || value == 0 || value > 0xFF) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

}  // namespace

ConnectOutcome classifyConnectFailure(const BusError& error) {
    if (error.name == kAlreadyConnected || isAnswerOf(error, "le-connection-already-connected") ||
        isAnswerOf(error, "br-connection-already-connected")) {
        return ConnectOutcome::Linked;
    }
    // bluetoothd answers InProgress (or Failed with EALREADY's text) while an
    // earlier Connect to the device is still pending, ours or another client's.
    if (error.name == kInProgress || isAnswerOf(error, "Operation already in progress") ||
        isAnswerOf(error, "le-connection-busy") || isAnswerOf(error, "br-connection-busy")) {
        return ConnectOutcome::Busy;
    }
    if (isAnswerOf(error, "br-connection-canceled")) return ConnectOutcome::Cancelled;
    return ConnectOutcome::Failed;
}

ErrorPtr connectError(const BusError& error) {
    for (const auto& row : kConnectRows) {
        if (isAnswerOf(error, row.key)) return platformError(row.code);
    }
    return platformError(kConnectDefault);
}

ErrorPtr requestError(const BusError& error) {
    const std::string_view name = error.name;
    const std::string_view message = error.message;
    // The peer's ATT error codes, as bluetoothd turns them into names.
    if (name == "org.bluez.Error.NotPermitted") {
        // "Read not permitted" / "Write not permitted"; "Notify acquired" is a
        // write of the configuration descriptor that was refused.
        return attError(message.find("Read") != std::string_view::npos ? kAttReadNotPermitted
                                                                       : kAttWriteNotPermitted);
    }
    if (name == "org.bluez.Error.InvalidArguments") {
        if (message.find("offset") != std::string_view::npos) return attError(kAttInvalidOffset);
        if (message.find("Length") != std::string_view::npos ||
            message.find("length") != std::string_view::npos)
            return attError(kAttInvalidAttributeValueLength);
        return platformError(kPlatformInvalidParameters);  // our request was malformed
    }
    if (name == "org.bluez.Error.NotSupported") return attError(kAttRequestNotSupported);
    if (name == "org.bluez.Error.NotAuthorized") return attError(kAttInsufficientAuthorization);
    if (name == kFailed) {
        if (auto code = attCodeIn(message)) return attError(*code);  // any other ATT code, as sent
        if (message == "Not connected") return platformError(kPlatformNotConnected);
    }
    // The link went down under the request, or bluetoothd did not answer.
    if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Timeout")
        return platformError(kPlatformConnectionTimeout);
    return platformError(kPlatformUnknown);
}

}  // namespace plenk::bluez
