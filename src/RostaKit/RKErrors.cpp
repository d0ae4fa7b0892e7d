#include <PlenkKit/RKErrors.h>

// The exported domain constants. The header's extern declarations give these
// definitions external linkage and default visibility.
extern "C" {
const char* const LEErrorDomain = "LEErrorDomain";
const char* const RKErrorDomain = "RKErrorDomain";
const char* const LEDeviceErrorDomain = "DeviceErrorDomain";
}

namespace plenk {

RKErrorLENotAvailableC::~RKErrorLENotAvailableC() = default;

// Each kind overrides only its description; the destructor is its key function,
// so the kind's type information is emitted (and exported) here once.
#define PLENK_DEFINE_ERROR_KIND(Name, Text)          \
    Name::~Name() = default;                         \
    std::string Name::localizedDescription() const { \
        return Text;                                 \
    }

PLENK_DEFINE_ERROR_KIND(RKErrorLECancelC, "Device BLE Connection Cancelled")
PLENK_DEFINE_ERROR_KIND(RKErrorLENotAvailableCUnknown, "Device BLE unknown state")
PLENK_DEFINE_ERROR_KIND(RKErrorLENotAvailableCOff, "Device BLE power off")
PLENK_DEFINE_ERROR_KIND(RKErrorLENotAvailableCNotSupport, "Device BLE not supported")
PLENK_DEFINE_ERROR_KIND(RKErrorLENotAvailableCUnauthorized, "Device BLE unauthorized")
PLENK_DEFINE_ERROR_KIND(RKErrorLEDeviceAllreadyConnectedC, "Device BLE Already connected")
PLENK_DEFINE_ERROR_KIND(RKErrorLEConnectionUnknownC, "Connection unknown error")
PLENK_DEFINE_ERROR_KIND(RKErrorLEConnectionInvalidParametersC, "Connection Invalid Parameter")
PLENK_DEFINE_ERROR_KIND(RKErrorLEConnectionInvalidHandleC, "Connection Invalid Handle")
PLENK_DEFINE_ERROR_KIND(RKErrorLEConnectionTimeoutC, "Connection Timed out")
PLENK_DEFINE_ERROR_KIND(RKErrorLEValidationC, "validate failed")
PLENK_DEFINE_ERROR_KIND(RKErrorLEInvalidDeviceC, "Not a Rosta device")
PLENK_DEFINE_ERROR_KIND(RKErrorLEWriteC, "fail to write")
PLENK_DEFINE_ERROR_KIND(RKErrorLEReadC, "fail to read")
PLENK_DEFINE_ERROR_KIND(RKErrorAccelerometerNotAvailableC, "built-in accelerometer not available")
PLENK_DEFINE_ERROR_KIND(RKErrorGyroNotAvailableC, "built-in gyro not available")
PLENK_DEFINE_ERROR_KIND(RKErrorDeviceMotionNotAvailableC, "built-in device motion not available")
PLENK_DEFINE_ERROR_KIND(RKErrorDeviceDisconnectedC, "The device has disconnected")
PLENK_DEFINE_ERROR_KIND(RKErrorDeviceNOCharacteristic, "No such characteristic")

#undef PLENK_DEFINE_ERROR_KIND

}  // namespace plenk
