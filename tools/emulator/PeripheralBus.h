#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "backends/bluez/BusPump.h"
#include "dispatch/PollLoop.h"

namespace plenk::emulator_tool {

// The peripheral's system-bus connection, driven by the loop: every handler
// and reply runs on the loop's thread. It calls org.bluez asynchronously
// (bluetoothd calls back into this process while registering, so a blocking
// call would deadlock) and reports the links of one adapter's devices.
class PeripheralBus {
public:
    using Done = std::function<void(const sdbus::Error* error)>;
    using Fill = std::function<void(sdbus::MethodCall&)>;
    // A Device1 under the adapter connected or disconnected.
    using LinkChanged = std::function<void(const std::string& devicePath, bool connected)>;

    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set). Throws
    // sdbus::Error. `lost` runs once if the connection fails later.
    PeripheralBus(dispatch::PollLoop& loop, std::string adapterPath, LinkChanged linkChanged,
                  std::function<void()> lost);
    ~PeripheralBus();
    PeripheralBus(const PeripheralBus&) = delete;
    PeripheralBus& operator=(const PeripheralBus&) = delete;

    sdbus::IConnection& connection() { return *connection_; }
    const std::string& adapterPath() const { return adapterPath_; }

    // Calls `method` on the org.bluez object at `path`; `done` gets null on success.
    void call(const std::string& path, const char* interface, const char* method, const Fill& fill,
              const Done& done);
    // Sets a property of an org.bluez object.
    void setProperty(const std::string& path, const char* interface, const char* name,
                     const sdbus::Variant& value, const Done& done);
    // Reports the devices that are connected already, through linkChanged.
    void reportConnectedDevices();

private:
    bool underAdapter(const std::string& path) const;

    std::string adapterPath_;
    LinkChanged linkChanged_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::vector<sdbus::Slot> matches_;
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> proxies_;
    std::unique_ptr<bluez::BusPump> pump_;
};

}  // namespace plenk::emulator_tool
