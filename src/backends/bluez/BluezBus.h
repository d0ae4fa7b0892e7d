#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "backends/bluez/BluezErrors.h"
#include "backends/bluez/BluezProperties.h"
#include "backends/bluez/BusPump.h"
#include "dispatch/PollLoop.h"

namespace plenk::bluez {

// One interface of one object, as org.bluez exported or changed it.
struct InterfaceUpdate {
    std::string path;
    std::string interface;
    BluezProperties properties;
};

// A file descriptor received over the bus, closed unless released.
class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept;
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd();
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

// The central's connection to the system bus and to org.bluez on it. Lives on
// the event loop. Signals and replies are parsed into plain values while sd-bus
// dispatches them and handed to the handlers in tasks posted to the loop, so a
// handler may do anything, including dropping this object.
class BluezBus final {
public:
    struct Handlers {
        // org.bluez got an owner (its unique name) or lost it ("").
        std::function<void(const std::string& owner)> ownerChanged;
        // The answer to loadObjects(): everything org.bluez exports.
        std::function<void(const std::vector<InterfaceUpdate>&)> objectsLoaded;
        std::function<void(const BusError&)> objectsFailed;
        std::function<void(const InterfaceUpdate&)> interfaceAdded;
        std::function<void(const std::string& path, const std::vector<std::string>& interfaces)>
            interfacesRemoved;
        std::function<void(const std::string& path, const std::string& interface,
                           const BluezProperties& change, const std::vector<std::string>& invalidated)>
            propertiesChanged;
    };

    template <typename Result>
    using Done = std::function<void(std::optional<Result>, std::optional<BusError>)>;
    using Fill = std::function<void(sdbus::MethodCall&)>;

    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set) and
    // subscribes to org.bluez's signals. Throws sdbus::Error. `lost` runs once
    // the connection fails. Closing it (the destructor) still sends what was
    // queued, so calls made just before go out.
    BluezBus(dispatch::PollLoop& loop, Handlers handlers, std::function<void()> lost);
    ~BluezBus();
    BluezBus(const BluezBus&) = delete;
    BluezBus& operator=(const BluezBus&) = delete;

    // Asks who owns org.bluez: answered through ownerChanged.
    void queryOwner();
    // Asks for every object: answered through objectsLoaded or objectsFailed.
    void loadObjects();
    // Drops the proxies of the object at `path` and of those under it (their
    // pending calls are never answered).
    void forgetUnder(const std::string& path);

    // Calls `method` on the org.bluez object at `path`. `fill` appends the
    // arguments; `read` takes the result out of a successful reply (inside
    // dispatch); `done` runs later as a task. A reply of the wrong type is an
    // error "org.freedesktop.DBus.Error.InvalidSignature".
    template <typename Result, typename Read>
    void call(const std::string& path, const char* interface, const char* method, const Fill& fill, Read read,
              Done<Result> done, std::chrono::microseconds timeout = std::chrono::microseconds::zero());

    // A call whose reply carries nothing the caller needs.
    void call(const std::string& path, const char* interface, const char* method, const Fill& fill,
              Done<bool> done, std::chrono::microseconds timeout = std::chrono::microseconds::zero());

private:
    using RawReply = std::function<void(sdbus::MethodReply& reply, const sdbus::Error* error)>;
    void callRaw(const std::string& destination, const std::string& path, const char* interface,
                 const char* method, const Fill& fill, const RawReply& onReply,
                 std::chrono::microseconds timeout);
    sdbus::IProxy& proxyFor(const std::string& destination, const std::string& path);
    // Posts `task` to the loop; it runs only while this bus lives.
    void later(std::function<void(BluezBus&)> task);
    bool fromOwner(const sdbus::Message& message) const;

    dispatch::PollLoop& loop_;
    Handlers handlers_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::vector<sdbus::Slot> matches_;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<sdbus::IProxy>> proxies_;
    std::unique_ptr<BusPump> pump_;  // the connection is polled and processed on the loop
    std::string owner_;              // the unique name signals are taken from ("" until known)
    std::shared_ptr<BluezBus*> alive_;
};

template <typename Result, typename Read>
void BluezBus::call(const std::string& path, const char* interface, const char* method, const Fill& fill,
                    Read read, Done<Result> done, std::chrono::microseconds timeout) {
    callRaw(
        kBluezService, path, interface, method, fill,
        [this, read = std::move(read), done = std::move(done)](sdbus::MethodReply& reply,
                                                               const sdbus::Error* error) mutable {
            std::optional<Result> result;
            std::optional<BusError> failure;
            if (error != nullptr) {
                failure = BusError{error->getName(), error->getMessage()};
            } else {
                try {
                    result = read(reply);
                } catch (const sdbus::Error& e) {
                    failure = BusError{"org.freedesktop.DBus.Error.InvalidSignature", e.getMessage()};
                }
            }
            auto shared = std::make_shared<std::pair<std::optional<Result>, std::optional<BusError>>>(
                std::move(result), std::move(failure));
            later([done, shared](BluezBus&) { done(std::move(shared->first), std::move(shared->second)); });
        },
        timeout);
}

}  // namespace plenk::bluez
