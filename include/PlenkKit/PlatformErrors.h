#pragma once

#include <cstdint>
#include <string_view>

#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>

// The Bluetooth platform's error vocabulary. Every backend maps its own
// failures onto these domains and codes, and the layers above (and hosts that
// script the simulator) see nothing else.
namespace plenk {

// The platform's domain for link failures.
inline constexpr std::string_view kPlatformErrorDomain = "CBErrorDomain";

// Link error codes (domain kPlatformErrorDomain). 10 to 15 are the connection
// codes; the kit turns 11 to 14 into its connection kinds.
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

// The attribute protocol's domain: GATT requests the peer refused.
inline constexpr std::string_view kAttErrorDomain = "CBATTErrorDomain";

// The attribute protocol's error codes, as the peer sends them (domain kAttErrorDomain).
enum AttCode : std::int64_t {
    kAttInvalidHandle = 1,
    kAttReadNotPermitted = 2,
    kAttWriteNotPermitted = 3,
    kAttInvalidPdu = 4,
    kAttInsufficientAuthentication = 5,
    kAttRequestNotSupported = 6,
    kAttInvalidOffset = 7,
    kAttInsufficientAuthorization = 8,
    kAttPrepareQueueFull = 9,
    kAttAttributeNotFound = 10,
    kAttAttributeNotLong = 11,
    kAttInsufficientEncryptionKeySize = 12,
    kAttInvalidAttributeValueLength = 13,
    kAttUnlikelyError = 14,
    kAttInsufficientEncryption = 15,
    kAttUnsupportedGroupType = 16,
    kAttInsufficientResources = 17,
};

// A kindless error of the platform's link domain with this code.
PLENK_EXPORT ErrorPtr platformError(std::int64_t code);
// A kindless error of the attribute-protocol domain with this code.
PLENK_EXPORT ErrorPtr attError(std::int64_t code);

}  // namespace plenk
