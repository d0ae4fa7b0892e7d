#include <PlenkKit/RKErrors.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace plenk {
namespace {

TEST(ErrorsTest, EveryKindHasItsExactDescriptionAndParent) {
    const std::string rk = RKErrorDomain;
    const std::vector<std::tuple<ErrorPtr, const char*, bool>> cases = {
        {Error::make<RKErrorLECancelC>(rk, 100), "Device BLE Connection Cancelled", false},
        {Error::make<RKErrorLENotAvailableCUnknown>(rk, 101), "Device BLE unknown state", true},
        {Error::make<RKErrorLENotAvailableCOff>(rk, 101), "Device BLE power off", true},
        {Error::make<RKErrorLENotAvailableCNotSupport>(rk, 101), "Device BLE not supported", true},
        {Error::make<RKErrorLENotAvailableCUnauthorized>(rk, 101), "Device BLE unauthorized", true},
        {Error::make<RKErrorLEDeviceAllreadyConnectedC>(rk, 102), "Device BLE Already connected", false},
        {Error::make<RKErrorLEConnectionUnknownC>(rk, 103), "Connection unknown error", false},
        {Error::make<RKErrorLEConnectionInvalidParametersC>(rk, 104), "Connection Invalid Parameter", false},
        {Error::make<RKErrorLEConnectionInvalidHandleC>(rk, 105), "Connection Invalid Handle", false},
        {Error::make<RKErrorLEConnectionTimeoutC>(rk, 106), "Connection Timed out", false},
        {Error::make<RKErrorLEValidationC>(rk, 107), "validate failed", false},
        {Error::make<RKErrorLEInvalidDeviceC>(rk, 108), "Not a Rosta device", false},
        {Error::make<RKErrorLEWriteC>(rk, 109), "fail to write", false},
        {Error::make<RKErrorLEReadC>(rk, 109), "fail to read", false},
        {Error::make<RKErrorAccelerometerNotAvailableC>("", 0), "built-in accelerometer not available",
         false},
        {Error::make<RKErrorGyroNotAvailableC>("", 0), "built-in gyro not available", false},
        {Error::make<RKErrorDeviceMotionNotAvailableC>("", 0), "built-in device motion not available", false},
        {Error::make<RKErrorDeviceDisconnectedC>("", 0), "The device has disconnected", false},
        {Error::make<RKErrorDeviceNOCharacteristic>("", 0), "No such characteristic", false},
        // Kindless errors and the bare parent fall back to naming domain and code.
        {Error::make(rk, 110), "The operation couldn\u2019t be completed. (RKErrorDomain error 110.)", false},
        {Error::make<RKErrorLENotAvailableC>(rk, 101),
         "The operation couldn\u2019t be completed. (RKErrorDomain error 101.)", true},
        {Error::make(LEDeviceErrorDomain, -1),
         "The operation couldn\u2019t be completed. (DeviceErrorDomain error -1.)", false},
    };
    for (const auto& [error, description, notAvailable] : cases) {
        EXPECT_EQ(error->localizedDescription(), description);
        EXPECT_EQ(isKind<RKErrorLENotAvailableC>(error), notAvailable) << description;
    }
    // The description belongs to the kind, not its domain and code; write
    // and read share a code, not a kind.
    EXPECT_EQ(Error::make<RKErrorLEWriteC>("SomethingElse", -7)->localizedDescription(), "fail to write");
    EXPECT_FALSE(isKind<RKErrorLEWriteC>(Error::make<RKErrorLEReadC>(rk, 109)));
    EXPECT_FALSE(isKind<Error>(nullptr));
}

}  // namespace
}  // namespace plenk
