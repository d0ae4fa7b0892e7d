#include "PeripheralBus.h"

#include "backends/bluez/BluezProperties.h"

namespace plenk::emulator_tool {

namespace {

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

using Interfaces = std::map<std::string, bluez::VariantMap>;

std::optional<bool> connectedIn(const bluez::VariantMap& properties) {
    return bluez::parseProperties(properties).connected;
}

}  // namespace

PeripheralBus::PeripheralBus(dispatch::PollLoop& loop, std::string adapterPath, LinkChanged linkChanged,
                             std::function<void()> lost)
    : adapterPath_(std::move(adapterPath)),
      linkChanged_(std::move(linkChanged)),
      connection_(sdbus::createSystemBusConnection()) {
    // Device1 changes of this adapter's devices: the link to a central.
    matches_.push_back(
        connection_->addMatch("type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',"
                              "member='PropertiesChanged',"
                              "arg0='org.bluez.Device1',path_namespace='" +
                                  adapterPath_ + "'",
                              [this](sdbus::Message& message) {
                                  try {
                                      std::string interface;
                                      bluez::VariantMap changed;
                                      message >> interface >> changed;
                                      if (const auto connected = connectedIn(changed))
                                          linkChanged_(message.getPath(), *connected);
                                  } catch (const sdbus::Error&) {
                                      // a signal of the wrong shape is ignored
                                  }
                              }));
    matches_.push_back(
        connection_->addMatch("type='signal',sender='org.bluez',interface='org.freedesktop.DBus."
                              "ObjectManager',member='InterfacesAdded'",
                              [this](sdbus::Message& message) {
                                  try {
                                      sdbus::ObjectPath path;
                                      Interfaces interfaces;
                                      message >> path >> interfaces;
                                      const auto device = interfaces.find(bluez::kDeviceInterface);
                                      if (!underAdapter(path) || device == interfaces.end()) return;
                                      if (connectedIn(device->second).value_or(false))
                                          linkChanged_(path, true);
                                  } catch (const sdbus::Error&) {
                                  }
                              }));
    pump_ = std::make_unique<bluez::BusPump>(loop, *connection_, std::move(lost));
}

PeripheralBus::~PeripheralBus() {
    pump_.reset();
    proxies_.clear();
    matches_.clear();
}

bool PeripheralBus::underAdapter(const std::string& path) const {
    return path.starts_with(adapterPath_ + "/");
}

void PeripheralBus::call(const std::string& path, const char* interface, const char* method, const Fill& fill,
                         const Done& done) {
    try {
        auto& proxy = proxies_[path];
        if (!proxy) proxy = sdbus::createProxy(*connection_, bluez::kBluezService, path);
        auto message = proxy->createMethodCall(interface, method);
        fill(message);
        proxy->callMethod(message, [done](sdbus::MethodReply&, const sdbus::Error* error) { done(error); });
    } catch (const sdbus::Error& e) {
        done(&e);
    }
}

void PeripheralBus::setProperty(const std::string& path, const char* interface, const char* name,
                                const sdbus::Variant& value, const Done& done) {
    call(
        path, kProperties, "Set", [&](sdbus::MethodCall& message) { message << interface << name << value; },
        done);
}

void PeripheralBus::reportConnectedDevices() {
    auto& proxy = proxies_["/"];
    if (!proxy) proxy = sdbus::createProxy(*connection_, bluez::kBluezService, "/");
    auto message = proxy->createMethodCall(kObjectManager, "GetManagedObjects");
    proxy->callMethod(message, [this](sdbus::MethodReply& reply, const sdbus::Error* error) {
        if (error != nullptr) return;
        try {
            std::map<sdbus::ObjectPath, Interfaces> objects;
            reply >> objects;
            for (const auto& [path, interfaces] : objects) {
                const auto device = interfaces.find(bluez::kDeviceInterface);
                if (!underAdapter(path) || device == interfaces.end()) continue;
                if (connectedIn(device->second).value_or(false)) linkChanged_(path, true);
            }
        } catch (const sdbus::Error&) {
        }
    });
}

}  // namespace plenk::emulator_tool
