// A tiny host program built against the installed library, through the CMake
// package and through pkg-config.
#include <PlenkKit/PlenkKit.h>

#include <cstdio>
#include <cstring>

int main() {
    unsigned char out[2] = {0, 0};
    stringToHexConverter("0A1B", out);
    auto error = plenk::Error::make<plenk::RKErrorLENotAvailableCOff>(RKErrorDomain, 101);
    std::printf("%s|%.1f|%02x%02x|%s|%d\n", reinterpret_cast<const char*>(PlenkKitVersionString),
                PlenkKitVersionNumber, out[0], out[1], error->localizedDescription().c_str(),
                plenk::isKind<plenk::RKErrorLENotAvailableC>(error) ? 1 : 0);
    auto plenk = plenk::PKPlenk::create();
    std::printf("auto-connect %d connected %d\n", plenk->isAutoConnectEnabled() ? 1 : 0,
                plenk->isConnected() ? 1 : 0);
    return std::strcmp(LEDeviceErrorDomain, "DeviceErrorDomain") == 0 ? 0 : 1;
}
