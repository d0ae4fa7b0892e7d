// A small host program built against the installed library only, through the
// CMake package and through pkg-config. On a simulated scale it connects, reads
// its firmware revision and arms firmware-update mode.
#include <PlenkKit/PlenkKit.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace {

// A value handed over from whichever thread a callback runs on.
template <typename T>
class Box {
public:
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    std::optional<T> get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }

private:
    mutable std::mutex mutex_;
    std::optional<T> value_;
};

int fail(const char* what) {
    std::printf("FAILED: %s\n", what);
    return 1;
}

// Connects to the scale on its own, reads its firmware revision and arms DFU mode;
// prints "connected <name>|rssi <0/1>|firmware <text>|dfu <0/1>".
int useAScale() {
    plenk::Simulator::Options options;
    options.log = plenk::LogSink::discard();
    plenk::Simulator sim(options);
    sim.addScale();  // "Plenk Scale"
    // What callbacks hand over; they outlive the facade that may call them.
    Box<std::optional<std::string>> firmware;
    Box<bool> armed;

    auto host = plenk::PKPlenk::create(sim.context());
    host->setIsAutoConnectEnabled(true);
    if (!sim.runUntil([&] { return host->isConnected(); })) return fail("connection");
    const std::shared_ptr<plenk::RKDevice> device = host->rosta()->currentDevice();
    const plenk::PeripheralPtr peripheral = device ? device->peripheral() : nullptr;
    if (!peripheral || peripheral->state() != plenk::PeripheralState::Connected ||
        peripheral->identifier().isNil())
        return fail("peripheral handle");
    const std::string name = peripheral->name().value_or("?");  // before DFU mode renames it

    // Device completions run on the Bluetooth queue.
    device->readFirmwareVersionWithCompletion([&](std::optional<std::string> version, plenk::ErrorPtr error) {
        firmware.set(error ? std::nullopt : std::move(version));
    });
    if (!sim.runUntil([&] { return firmware.get().has_value(); })) return fail("firmware revision");
    device->enableDFUMode([&](bool success, plenk::ErrorPtr error) { armed.set(success && !error); });
    if (!sim.runUntil([&] { return armed.get().has_value(); })) return fail("DFU mode");

    std::printf("connected %s|rssi %d|firmware %s|dfu %d\n", name.c_str(),
                peripheral->rssi().has_value() ? 1 : 0, firmware.get()->value_or("?").c_str(),
                *armed.get() ? 1 : 0);
    return 0;
}

}  // namespace

int main() {
    unsigned char out[2] = {0, 0};
    stringToHexConverter("0A1B", out);
    auto error = plenk::Error::make<plenk::RKErrorLENotAvailableCOff>(RKErrorDomain, 101);
    std::printf("%s|%.1f|%02x%02x|%s|%d\n", reinterpret_cast<const char*>(PlenkKitVersionString),
                PlenkKitVersionNumber, out[0], out[1], error->localizedDescription().c_str(),
                plenk::isKind<plenk::RKErrorLENotAvailableC>(error) ? 1 : 0);
    if (std::strcmp(LEDeviceErrorDomain, "DeviceErrorDomain") != 0) return 1;
    return useAScale();
}
