#include <PlenkKit/PlatformErrors.h>

#include <string>

namespace plenk {

ErrorPtr platformError(std::int64_t code) {
    return Error::make(std::string(kPlatformErrorDomain), code);
}

ErrorPtr attError(std::int64_t code) {
    return Error::make(std::string(kAttErrorDomain), code);
}

}  // namespace plenk
