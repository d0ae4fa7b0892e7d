// How the kit reports failed connections and failed scale devices, and what it
// tears down and restarts after them.
//
// Two roads, chosen by the mode at the moment of the failure: with auto-connect
// on, the delegate hears rostaDidErrorOccur on the main queue; with it off (the
// picker mode) the picker completion is called at once, on the event's queue.
// Read and write failures always take the delegate road.

#include <utility>

#include <PlenkKit/PlatformErrors.h>

#include "RostaKit/RKRostaKitCore.h"

namespace plenk {

namespace {

// The kindless error for a failure that carried no error at all.
ErrorPtr plainError() {
    return Error::make(RKErrorDomain, kRKErrorCodeKindless);
}

// The platform's connection codes 11..14 each name a kind of their own (the
// names differ from the platform's meanings); any other code is reported as nothing.
ErrorPtr connectionError(std::int64_t platformCode) {
    switch (platformCode) {
        case kPlatformConnectionLimitReached:
            return Error::make<RKErrorLEConnectionUnknownC>(RKErrorDomain, kRKErrorCodeConnectionUnknown);
        case kPlatformUnknownDevice:
            return Error::make<RKErrorLEConnectionInvalidParametersC>(
                RKErrorDomain, kRKErrorCodeConnectionInvalidParameters);
        case kPlatformOperationNotSupported:
            return Error::make<RKErrorLEConnectionInvalidHandleC>(RKErrorDomain,
                                                                  kRKErrorCodeConnectionInvalidHandle);
        case kPlatformPeerRemovedPairingInformation:
            return Error::make<RKErrorLEConnectionTimeoutC>(RKErrorDomain, kRKErrorCodeConnectionTimeout);
        default:
            return nullptr;
    }
}

}  // namespace

void RKRostaKitCore::reportFailure(ErrorPtr error) {
    if (isAutoConnectEnabled_) {
        sendError(std::move(error));
    } else if (pickerCompletion_) {
        // The completion is kept: a later failure calls it again. The copy
        // called here is released on the main queue: if the host lets the kit
        // go inside the call, it is the last copy of the host's closure.
        later([completion = pickerCompletion_, error = std::move(error), queue = mainQueue_]() mutable {
            completion(error);
            queue.post([released = std::move(completion)] {});
        });
    }
}

void RKRostaKitCore::connecterDidFailToConnectPeripheralUserInfo(
    BLEConnecter&, const PeripheralPtr& peripheral, const std::optional<ConnecterUserInfo>& userInfo) {
    const ErrorPtr platformError =
        userInfo && userInfo->has(kBleErrorConnectionError) ? userInfo->error() : nullptr;
    Scope scope(*this);
    if (consumeAbandonedLocked(peripheral)) return;
    ErrorPtr report;
    if (platformError) {
        report = connectionError(platformError->code());
    } else {
        // The two modes report different things for the same event.
        report = isAutoConnectEnabled_ ? Error::make<RKErrorLEConnectionInvalidHandleC>(
                                             RKErrorDomain, kRKErrorCodeConnectionInvalidHandle)
                                       : plainError();
    }
    if (report) reportFailure(std::move(report));
    // A held scale that cannot be reached again is let go: left as it is, the
    // kit would claim a connection that no event will ever end.
    if (isHeldPeripheralLocked(peripheral)) abandonHoldLocked();
    // Otherwise the device, the connecting peripheral and an open picker stay as they are.
    if (isAutoConnectEnabled_) scanDevicesLocked();
}

void RKRostaKitCore::deviceDidFailConfigureWithError(RKDevice& device, const ErrorPtr& error) {
    Scope scope(*this);
    if (&device != currentDevice_.get()) return;  // a released device's late report

    if (!error) {
        reportFailure(plainError());
        return;
    }
    // The code alone decides; the domain is not looked at.
    switch (error->code()) {
        case kRKDeviceValueUpdateFailed:
            writeLog("\n read error");
            sendError(Error::make<RKErrorLEReadC>(RKErrorDomain, kRKErrorCodeReadWrite));
            return;
        case kRKDeviceWriteFailed:
            writeLog("\n write error");
            sendError(Error::make<RKErrorLEWriteC>(RKErrorDomain, kRKErrorCodeReadWrite));
            return;
        case kRKDeviceNoScaleService:
        case kRKDeviceMissingCharacteristic:
            reportFailure(Error::make<RKErrorLEInvalidDeviceC>(RKErrorDomain, kRKErrorCodeInvalidDevice));
            break;
        case kRKDeviceServiceDiscoveryFailed:
        case kRKDeviceCharacteristicDiscoveryFailed:
            reportFailure(Error::make<RKErrorLEValidationC>(RKErrorDomain, kRKErrorCodeValidation));
            break;
        default:
            break;
    }

    // A scale that failed its set-up is dropped. isConnected stays: the link
    // loss that follows finds no device to hold and ends in actDisconnect.
    if (connecter_) {
        if (auto peripheral = currentDevice_->peripheral()) connecter_->disconnect(peripheral);
    }
    later([released = std::move(currentDevice_)] {});
    currentDevice_ = nullptr;
    if (isAutoConnectEnabled_) scanDevicesLocked();
}

}  // namespace plenk
