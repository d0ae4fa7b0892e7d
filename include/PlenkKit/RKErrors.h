#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <PlenkKit/Error.h>
#include <PlenkKit/Export.h>

// The three exported domain constants. LEDeviceErrorDomain's value is
// "DeviceErrorDomain": the symbol carries the "LE" prefix, the value does not.
extern "C" {
PLENK_EXPORT extern const char* const LEErrorDomain;
PLENK_EXPORT extern const char* const RKErrorDomain;
PLENK_EXPORT extern const char* const LEDeviceErrorDomain;
}

namespace plenk {

// The codes of the kit's own errors (domain RKErrorDomain). Each kind is always
// made with the same code; the four "not available" kinds share one, and so do
// the read and write kinds.
enum RKErrorCode : std::int64_t {
    kRKErrorCodeCancel = 100,
    kRKErrorCodeNotAvailable = 101,
    kRKErrorCodeAlreadyConnected = 102,
    kRKErrorCodeConnectionUnknown = 103,
    kRKErrorCodeConnectionInvalidParameters = 104,
    kRKErrorCodeConnectionInvalidHandle = 105,
    kRKErrorCodeConnectionTimeout = 106,
    kRKErrorCodeValidation = 107,
    kRKErrorCodeInvalidDevice = 108,
    kRKErrorCodeReadWrite = 109,
    kRKErrorCodeKindless = 110,  // a plain Error: a failure that carried no error of its own
};

// The generic device's firmware-version error domain; not exported.
inline constexpr std::string_view kDeviceDomain = "DeviceDomain";
// Its one code: the firmware revision characteristic is not known.
inline constexpr std::int64_t kDeviceCodeNoCharacteristic = 1;

// NOLINTNEXTLINE(bugprone-macro-parentheses): Parent names a base class
#define PLENK_DECLARE_ERROR_KIND(Name, Parent)             \
    class PLENK_EXPORT Name : public Parent {              \
    public:                                                \
        using Parent::Parent;                              \
        ~Name() override;                                  \
        std::string localizedDescription() const override; \
    }

// A parent with no description of its own: it keeps the default one.
class PLENK_EXPORT RKErrorLENotAvailableC : public Error {
public:
    using Error::Error;
    ~RKErrorLENotAvailableC() override;
};

PLENK_DECLARE_ERROR_KIND(RKErrorLECancelC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLENotAvailableCUnknown, RKErrorLENotAvailableC);
PLENK_DECLARE_ERROR_KIND(RKErrorLENotAvailableCOff, RKErrorLENotAvailableC);
PLENK_DECLARE_ERROR_KIND(RKErrorLENotAvailableCNotSupport, RKErrorLENotAvailableC);
PLENK_DECLARE_ERROR_KIND(RKErrorLENotAvailableCUnauthorized, RKErrorLENotAvailableC);
PLENK_DECLARE_ERROR_KIND(RKErrorLEDeviceAllreadyConnectedC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEConnectionUnknownC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEConnectionInvalidParametersC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEConnectionInvalidHandleC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEConnectionTimeoutC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEValidationC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEInvalidDeviceC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEWriteC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorLEReadC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorAccelerometerNotAvailableC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorGyroNotAvailableC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorDeviceMotionNotAvailableC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorDeviceDisconnectedC, Error);
PLENK_DECLARE_ERROR_KIND(RKErrorDeviceNOCharacteristic, Error);

#undef PLENK_DECLARE_ERROR_KIND

}  // namespace plenk
