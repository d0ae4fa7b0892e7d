#include "ErrorText.h"

#include <utility>

#include <PlenkKit/RKErrors.h>

namespace plenk::cli {

namespace {

template <typename K>
std::pair<bool (*)(const Error&), const char*> kind(const char* name) {
    return {[](const Error& e) { return dynamic_cast<const K*>(&e) != nullptr; }, name};
}

}  // namespace

std::string errorKind(const Error& error) {
    // The most specific kinds first: the four "not available" kinds share a parent.
    static const std::pair<bool (*)(const Error&), const char*> kKinds[] = {
        kind<RKErrorLECancelC>("RKErrorLECancelC"),
        kind<RKErrorLENotAvailableCUnknown>("RKErrorLENotAvailableCUnknown"),
        kind<RKErrorLENotAvailableCOff>("RKErrorLENotAvailableCOff"),
        kind<RKErrorLENotAvailableCNotSupport>("RKErrorLENotAvailableCNotSupport"),
        kind<RKErrorLENotAvailableCUnauthorized>("RKErrorLENotAvailableCUnauthorized"),
        kind<RKErrorLENotAvailableC>("RKErrorLENotAvailableC"),
        kind<RKErrorLEDeviceAllreadyConnectedC>("RKErrorLEDeviceAllreadyConnectedC"),
        kind<RKErrorLEConnectionUnknownC>("RKErrorLEConnectionUnknownC"),
        kind<RKErrorLEConnectionInvalidParametersC>("RKErrorLEConnectionInvalidParametersC"),
        kind<RKErrorLEConnectionInvalidHandleC>("RKErrorLEConnectionInvalidHandleC"),
        kind<RKErrorLEConnectionTimeoutC>("RKErrorLEConnectionTimeoutC"),
        kind<RKErrorLEValidationC>("RKErrorLEValidationC"),
        kind<RKErrorLEInvalidDeviceC>("RKErrorLEInvalidDeviceC"),
        kind<RKErrorLEWriteC>("RKErrorLEWriteC"),
        kind<RKErrorLEReadC>("RKErrorLEReadC"),
        kind<RKErrorDeviceNOCharacteristic>("RKErrorDeviceNOCharacteristic"),
    };
    for (const auto& [test, name] : kKinds) {
        if (test(error)) return name;
    }
    return "Error";
}

std::string describeError(const Error& error) {
    return errorKind(error) + " (" + error.domain() + " " + std::to_string(error.code()) +
           "): " + error.localizedDescription();
}

JsonObject& addError(JsonObject& object, const Error& error) {
    return object.string("kind", errorKind(error))
        .string("domain", error.domain())
        .integer("code", error.code())
        .string("description", error.localizedDescription());
}

}  // namespace plenk::cli
