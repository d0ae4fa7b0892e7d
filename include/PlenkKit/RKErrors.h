#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <PlenkKit/Export.h>

// The three exported domain constants. LEDeviceErrorDomain's value is
// "DeviceErrorDomain": the symbol carries the "LE" prefix, the value does not.
extern "C" {
PLENK_EXPORT extern const char* const LEErrorDomain;
PLENK_EXPORT extern const char* const RKErrorDomain;
PLENK_EXPORT extern const char* const LEDeviceErrorDomain;
}

namespace plenk {

// An error value: a domain, a signed 64-bit code, an always-empty user info and
// a kind (the dynamic class) that fixes the English description. Errors are
// immutable and passed as ErrorPtr.
class PLENK_EXPORT Error {
public:
    Error(std::string domain, std::int64_t code);
    virtual ~Error();

    const std::string& domain() const noexcept { return domain_; }
    std::int64_t code() const noexcept { return code_; }
    // Always empty: no error of this library carries user information.
    const std::map<std::string, std::string>& userInfo() const noexcept;
    // A kindless error (and the never-instantiated parent RKErrorLENotAvailableC)
    // describes itself by domain and code.
    virtual std::string localizedDescription() const;

    // The platform's class factory: an error of kind K with this domain and code.
    template <typename K = Error>
    static std::shared_ptr<const Error> make(std::string domain, std::int64_t code) {
        return std::make_shared<const K>(std::move(domain), code);
    }

private:
    std::string domain_;
    std::int64_t code_;
};

using ErrorPtr = std::shared_ptr<const Error>;

// Kind test by class, parents included: isKind<RKErrorLENotAvailableC>(e).
template <typename K>
bool isKind(const ErrorPtr& error) noexcept {
    return dynamic_cast<const K*>(error.get()) != nullptr;
}

// The platform's own domain for link failures; its codes (10 to 15 and others)
// are what the kit maps onto connection kinds.
inline constexpr std::string_view kPlatformErrorDomain = "CBErrorDomain";
// The generic device's firmware-version error domain; not exported.
inline constexpr std::string_view kDeviceDomain = "DeviceDomain";

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
