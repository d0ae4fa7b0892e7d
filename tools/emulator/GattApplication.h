#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "bt/Bytes.h"
#include "bt/Uuid.h"
#include "emulator/GattProfile.h"

namespace plenk::emulator_tool {

// A GATT table exported as a BlueZ GATT application: an object manager at
// `root`, a GattService1 object per service and a GattCharacteristic1 object
// per characteristic below it, ready for GattManager1.RegisterApplication.
// bluetoothd calls ReadValue, WriteValue, StartNotify and StopNotify as the
// remote client reads, writes and subscribes; those go to the handlers.
// Lives on the connection's thread.
class GattApplication {
public:
    struct Handlers {
        // The value a read returns; nullopt refuses the read.
        std::function<std::optional<bt::Bytes>(const bt::Uuid&)> read;
        // A write arrived (with or without response); false refuses it.
        std::function<bool(const bt::Uuid&, const std::vector<std::uint8_t>&)> write;
        // The client subscribed (true) or unsubscribed.
        std::function<void(const bt::Uuid&, bool)> subscription;
    };

    GattApplication(sdbus::IConnection& connection, std::string root, const emulator::GattProfile& profile,
                    Handlers handlers);
    ~GattApplication();
    GattApplication(const GattApplication&) = delete;
    GattApplication& operator=(const GattApplication&) = delete;

    const std::string& root() const { return root_; }
    bool isNotifying(const bt::Uuid& characteristic) const;
    // Sends `value` as a notification when the client subscribed to it.
    void notify(const bt::Uuid& characteristic, const bt::Bytes& value);

private:
    struct Characteristic {
        bt::Uuid uuid;
        std::uint32_t properties = 0;
        std::vector<std::uint8_t> value;
        bool notifying = false;
        std::unique_ptr<sdbus::IObject> object;
    };

    void exportService(sdbus::IConnection& connection, const emulator::ServiceDefinition& service,
                       std::size_t index);
    void exportCharacteristic(sdbus::IConnection& connection, Characteristic& characteristic,
                              const std::string& servicePath, std::size_t index);
    std::vector<std::uint8_t> readValue(Characteristic& characteristic,
                                        const std::map<std::string, sdbus::Variant>& options);
    void writeValue(Characteristic& characteristic, const std::vector<std::uint8_t>& value,
                    const std::map<std::string, sdbus::Variant>& options);
    void setNotifying(Characteristic& characteristic, bool on);
    Characteristic* find(const bt::Uuid& uuid);

    std::string root_;
    Handlers handlers_;
    std::unique_ptr<sdbus::IObject> manager_;
    std::vector<std::unique_ptr<sdbus::IObject>> services_;
    // unique_ptr: the registered callbacks hold the characteristic's address.
    std::vector<std::unique_ptr<Characteristic>> characteristics_;
};

}  // namespace plenk::emulator_tool
