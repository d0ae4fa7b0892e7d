#include "backends/bluez/BluezBus.h"

#include <unistd.h>

namespace plenk::bluez {

namespace {

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";

using Interfaces = std::map<std::string, VariantMap>;

bool isOurs(const std::string& interface) {
    return interface == kAdapterInterface || interface == kDeviceInterface ||
           interface == kServiceInterface || interface == kCharacteristicInterface;
}

void collect(const std::string& path, const Interfaces& interfaces, std::vector<InterfaceUpdate>& out) {
    for (const auto& [interface, properties] : interfaces) {
        if (isOurs(interface)) out.push_back({path, interface, parseProperties(properties)});
    }
}

// A characteristic's changed properties, read in place: with notifications by
// property every value arrives this way, so it is read without a variant.
BluezProperties readCharacteristicChange(sdbus::Message& message) {
    BluezProperties change;
    message.enterContainer("{sv}");
    while (message.enterDictEntry("sv")) {
        std::string key;
        std::string type;
        std::string contents;
        message >> key;
        message.peekType(type, contents);
        if (key == "Value" && contents == "ay") {
            std::vector<std::uint8_t> value;
            message.enterVariant("ay");
            message >> value;
            message.exitVariant();
            change.value = std::move(value);
        } else {
            sdbus::Variant unused;  // Notifying and the like: not needed
            message >> unused;
        }
        message.exitDictEntry();
    }
    message.clearFlags();
    message.exitContainer();
    return change;
}

}  // namespace

OwnedFd& OwnedFd::operator=(OwnedFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

OwnedFd::~OwnedFd() {
    if (fd_ >= 0) ::close(fd_);
}

BluezBus::BluezBus(dispatch::PollLoop& loop, Handlers handlers, std::function<void()> lost)
    : loop_(loop),
      handlers_(std::move(handlers)),
      connection_(sdbus::createSystemBusConnection()),
      alive_(std::make_shared<BluezBus*>(this)) {
    // The owner is tracked as messages arrive, not when the handler runs: the
    // new owner's first signals may come in the same batch.
    matches_.push_back(
        connection_->addMatch("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                              "member='NameOwnerChanged',arg0='org.bluez'",
                              [this](sdbus::Message& message) {
                                  try {
                                      std::string name, previous, owner;
                                      message >> name >> previous >> owner;
                                      owner_ = owner;
                                      later([owner](BluezBus& bus) { bus.handlers_.ownerChanged(owner); });
                                  } catch (const sdbus::Error&) {
                                  }
                              }));
    matches_.push_back(connection_->addMatch(
        "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.ObjectManager'",
        [this](sdbus::Message& message) {
            if (!fromOwner(message)) return;
            try {
                sdbus::ObjectPath path;
                message >> path;
                if (message.getMemberName() == "InterfacesAdded") {
                    Interfaces interfaces;
                    message >> interfaces;
                    std::vector<InterfaceUpdate> updates;
                    collect(path, interfaces, updates);
                    if (updates.empty()) return;
                    later([updates = std::move(updates)](BluezBus& bus) {
                        for (const auto& update : updates) bus.handlers_.interfaceAdded(update);
                    });
                } else if (message.getMemberName() == "InterfacesRemoved") {
                    std::vector<std::string> interfaces;
                    message >> interfaces;
                    later([path = std::string(path), interfaces = std::move(interfaces)](BluezBus& bus) {
                        bus.handlers_.interfacesRemoved(path, interfaces);
                    });
                }
            } catch (const sdbus::Error&) {
                // a signal of the wrong shape is ignored
            }
        }));
    matches_.push_back(connection_->addMatch(
        "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',member='"
        "PropertiesChanged'",
        [this](sdbus::Message& message) {
            if (!fromOwner(message)) return;
            try {
                std::string interface;
                message >> interface;
                if (!isOurs(interface)) return;
                BluezProperties change;
                if (interface == kCharacteristicInterface) {
                    change = readCharacteristicChange(message);
                } else {
                    VariantMap changed;
                    message >> changed;
                    change = parseProperties(changed);
                }
                std::vector<std::string> invalidated;
                message >> invalidated;
                later([path = message.getPath(), interface = std::move(interface), change = std::move(change),
                       invalidated = std::move(invalidated)](BluezBus& bus) {
                    bus.handlers_.propertiesChanged(path, interface, change, invalidated);
                });
            } catch (const sdbus::Error&) {
            }
        }));
    pump_ = std::make_unique<BusPump>(loop_, *connection_, std::move(lost));
}

BluezBus::~BluezBus() {
    pump_.reset();
    proxies_.clear();
    matches_.clear();
}

bool BluezBus::fromOwner(const sdbus::Message& message) const {
    return owner_.empty() || message.getSender() == owner_;
}

void BluezBus::later(std::function<void(BluezBus&)> task) {
    loop_.post([alive = std::weak_ptr<BluezBus*>(alive_), task = std::move(task)] {
        if (auto bus = alive.lock()) task(**bus);
    });
}

void BluezBus::queryOwner() {
    callRaw(
        kBusName, kBusPath, kBusName, "GetNameOwner", [](sdbus::MethodCall& call) { call << kBluezService; },
        [this](sdbus::MethodReply& reply, const sdbus::Error* error) {
            std::string owner;
            if (error == nullptr) {
                try {
                    reply >> owner;
                } catch (const sdbus::Error&) {
                }
            }
            owner_ = owner;
            later([owner](BluezBus& bus) { bus.handlers_.ownerChanged(owner); });
        },
        std::chrono::microseconds::zero());
}

void BluezBus::loadObjects() {
    callRaw(
        kBluezService, "/", kObjectManager, "GetManagedObjects", [](sdbus::MethodCall&) {},
        [this](sdbus::MethodReply& reply, const sdbus::Error* error) {
            if (error != nullptr) {
                later([failure = BusError{error->getName(), error->getMessage()}](BluezBus& bus) {
                    bus.handlers_.objectsFailed(failure);
                });
                return;
            }
            std::vector<InterfaceUpdate> updates;
            try {
                std::map<sdbus::ObjectPath, Interfaces> objects;
                reply >> objects;
                for (const auto& [path, interfaces] : objects) collect(path, interfaces, updates);
            } catch (const sdbus::Error& e) {
                later([failure = BusError{"org.freedesktop.DBus.Error.InvalidSignature", e.getMessage()}](
                          BluezBus& bus) { bus.handlers_.objectsFailed(failure); });
                return;
            }
            later([updates = std::move(updates)](BluezBus& bus) { bus.handlers_.objectsLoaded(updates); });
        },
        std::chrono::microseconds::zero());
}

void BluezBus::forgetUnder(const std::string& path) {
    std::erase_if(proxies_, [&](const auto& entry) {
        const auto& [destination, object] = entry.first;
        return destination == kBluezService && (object == path || object.starts_with(path + "/"));
    });
}

void BluezBus::call(const std::string& path, const char* interface, const char* method, const Fill& fill,
                    Done<bool> done, std::chrono::microseconds timeout) {
    call<bool>(
        path, interface, method, fill, [](sdbus::MethodReply&) { return true; }, std::move(done), timeout);
}

void BluezBus::callRaw(const std::string& destination, const std::string& path, const char* interface,
                       const char* method, const Fill& fill, const RawReply& onReply,
                       std::chrono::microseconds timeout) {
    try {
        auto& proxy = proxyFor(destination, path);
        auto message = proxy.createMethodCall(interface, method);
        fill(message);
        // A copy: when sending fails, the handler still answers below.
        proxy.callMethod(message, onReply, static_cast<std::uint64_t>(timeout.count()));
    } catch (const sdbus::Error& e) {
        // Could not even be sent (a malformed path, a closed connection): answer
        // as the bus would, later, like any reply.
        sdbus::MethodReply none;
        const sdbus::Error error(e.getName().empty() ? "org.freedesktop.DBus.Error.Failed" : e.getName(),
                                 e.getMessage());
        onReply(none, &error);
    }
}

sdbus::IProxy& BluezBus::proxyFor(const std::string& destination, const std::string& path) {
    auto& slot = proxies_[{destination, path}];
    if (!slot) slot = sdbus::createProxy(*connection_, destination, path);
    return *slot;
}

}  // namespace plenk::bluez
