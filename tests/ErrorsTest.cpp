#include <PlenkKit/RKErrors.h>
#include <PlenkKit/Version.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace plenk {
namespace {

struct KindCase {
    const char* name;
    std::function<ErrorPtr()> make;
    const char* domain;
    std::int64_t code;
    const char* description;
    bool notAvailable;
};

// Every kind as the library creates it: same kind, same domain and code.
std::vector<KindCase> kinds() {
    const std::string rk = RKErrorDomain;
    return {
        {"Cancel", [=] { return Error::make<RKErrorLECancelC>(rk, 100); }, "RKErrorDomain", 100,
         "Device BLE Connection Cancelled", false},
        {"Unknown", [=] { return Error::make<RKErrorLENotAvailableCUnknown>(rk, 101); }, "RKErrorDomain", 101,
         "Device BLE unknown state", true},
        {"Off", [=] { return Error::make<RKErrorLENotAvailableCOff>(rk, 101); }, "RKErrorDomain", 101,
         "Device BLE power off", true},
        {"NotSupport", [=] { return Error::make<RKErrorLENotAvailableCNotSupport>(rk, 101); },
         "RKErrorDomain", 101, "Device BLE not supported", true},
        {"Unauthorized", [=] { return Error::make<RKErrorLENotAvailableCUnauthorized>(rk, 101); },
         "RKErrorDomain", 101, "Device BLE unauthorized", true},
        {"AllreadyConnected", [=] { return Error::make<RKErrorLEDeviceAllreadyConnectedC>(rk, 102); },
         "RKErrorDomain", 102, "Device BLE Already connected", false},
        {"ConnUnknown", [=] { return Error::make<RKErrorLEConnectionUnknownC>(rk, 103); }, "RKErrorDomain",
         103, "Connection unknown error", false},
        {"InvalidParameters", [=] { return Error::make<RKErrorLEConnectionInvalidParametersC>(rk, 104); },
         "RKErrorDomain", 104, "Connection Invalid Parameter", false},
        {"InvalidHandle", [=] { return Error::make<RKErrorLEConnectionInvalidHandleC>(rk, 105); },
         "RKErrorDomain", 105, "Connection Invalid Handle", false},
        {"Timeout", [=] { return Error::make<RKErrorLEConnectionTimeoutC>(rk, 106); }, "RKErrorDomain", 106,
         "Connection Timed out", false},
        {"Validation", [=] { return Error::make<RKErrorLEValidationC>(rk, 107); }, "RKErrorDomain", 107,
         "validate failed", false},
        {"InvalidDevice", [=] { return Error::make<RKErrorLEInvalidDeviceC>(rk, 108); }, "RKErrorDomain", 108,
         "Not a Rosta device", false},
        {"Write", [=] { return Error::make<RKErrorLEWriteC>(rk, 109); }, "RKErrorDomain", 109,
         "fail to write", false},
        {"Read", [=] { return Error::make<RKErrorLEReadC>(rk, 109); }, "RKErrorDomain", 109, "fail to read",
         false},
        {"Accelerometer", [] { return Error::make<RKErrorAccelerometerNotAvailableC>("", 0); }, "", 0,
         "built-in accelerometer not available", false},
        {"Gyro", [] { return Error::make<RKErrorGyroNotAvailableC>("", 0); }, "", 0,
         "built-in gyro not available", false},
        {"DeviceMotion", [] { return Error::make<RKErrorDeviceMotionNotAvailableC>("", 0); }, "", 0,
         "built-in device motion not available", false},
        {"Disconnected", [] { return Error::make<RKErrorDeviceDisconnectedC>("", 0); }, "", 0,
         "The device has disconnected", false},
        {"NOCharacteristic",
         [] { return Error::make<RKErrorDeviceNOCharacteristic>(std::string(kDeviceDomain), 1); },
         "DeviceDomain", 1, "No such characteristic", false},
    };
}

TEST(ErrorsTest, EveryKindCarriesItsDomainCodeAndExactDescription) {
    for (const auto& k : kinds()) {
        SCOPED_TRACE(k.name);
        const ErrorPtr e = k.make();
        EXPECT_EQ(e->domain(), k.domain);
        EXPECT_EQ(e->code(), k.code);
        EXPECT_EQ(e->localizedDescription(), k.description);
        EXPECT_TRUE(e->userInfo().empty());
        EXPECT_EQ(isKind<RKErrorLENotAvailableC>(e), k.notAvailable);
        EXPECT_TRUE(isKind<Error>(e));
    }
}

TEST(ErrorsTest, DescriptionIgnoresDomainAndCode) {
    const auto e = Error::make<RKErrorLEWriteC>("SomethingElse", -7);
    EXPECT_EQ(e->localizedDescription(), "fail to write");
    EXPECT_EQ(e->domain(), "SomethingElse");
    EXPECT_EQ(e->code(), -7);
}

TEST(ErrorsTest, WriteAndReadShareTheirCodeButNotTheirKind) {
    const auto write = Error::make<RKErrorLEWriteC>(RKErrorDomain, 109);
    const auto read = Error::make<RKErrorLEReadC>(RKErrorDomain, 109);
    EXPECT_EQ(write->code(), read->code());
    EXPECT_TRUE(isKind<RKErrorLEWriteC>(write));
    EXPECT_FALSE(isKind<RKErrorLEWriteC>(read));
    EXPECT_FALSE(isKind<RKErrorLEReadC>(write));
    EXPECT_NE(write->localizedDescription(), read->localizedDescription());
}

TEST(ErrorsTest, KindlessAndBareParentGetTheDefaultDescriptionNamingDomainAndCode) {
    const auto plain = Error::make(RKErrorDomain, 110);
    EXPECT_EQ(plain->localizedDescription(),
              "The operation couldn\u2019t be completed. (RKErrorDomain error 110.)");
    EXPECT_FALSE(isKind<RKErrorLENotAvailableC>(plain));

    const auto parent = Error::make<RKErrorLENotAvailableC>(RKErrorDomain, 101);
    EXPECT_EQ(parent->localizedDescription(),
              "The operation couldn\u2019t be completed. (RKErrorDomain error 101.)");
    EXPECT_TRUE(isKind<RKErrorLENotAvailableC>(parent));

    const auto negative = Error::make(LEDeviceErrorDomain, -1);
    EXPECT_EQ(negative->localizedDescription(),
              "The operation couldn\u2019t be completed. (DeviceErrorDomain error -1.)");
}

TEST(ErrorsTest, NullErrorIsNoKind) {
    EXPECT_FALSE(isKind<Error>(nullptr));
    EXPECT_FALSE(isKind<RKErrorLENotAvailableC>(nullptr));
}

TEST(ErrorsTest, DomainConstants) {
    EXPECT_STREQ(LEErrorDomain, "LEErrorDomain");
    EXPECT_STREQ(RKErrorDomain, "RKErrorDomain");
    // The symbol has the "LE" prefix, the value does not.
    EXPECT_STREQ(LEDeviceErrorDomain, "DeviceErrorDomain");
    EXPECT_NE(std::string_view(LEDeviceErrorDomain), kDeviceDomain);
    EXPECT_EQ(kDeviceDomain, "DeviceDomain");
}

TEST(ErrorsTest, VersionSymbols) {
    EXPECT_EQ(PlenkKitVersionNumber, 1.0);
    const char expected[] = "@(#)PROGRAM:PlenkKit  PROJECT:PlenkKit-1\n";
    // Compared with its terminating NUL.
    EXPECT_EQ(std::memcmp(PlenkKitVersionString, expected, sizeof expected), 0);
}

}  // namespace
}  // namespace plenk
