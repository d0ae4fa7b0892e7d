#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "DbusValue.h"
#include "dispatch/PollLoop.h"

struct sd_bus;
struct sd_bus_slot;
struct sd_bus_message;

// The fake bluetoothd's own bus connection (sd-bus, driven by the fake's event
// loop). Every method call to any object path arrives at one handler, so the
// fake decides each reply itself: which properties exist, replies deferred
// until a simulated link answers, errors by name. Loop thread only.
namespace plenk::fakebluez {

// One received method call, replied to at most once, possibly later. Holding a
// Call keeps the message (and its connection) alive.
class Call {
public:
    explicit Call(sd_bus_message* message);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const std::string& sender() const { return sender_; }
    const std::string& path() const { return path_; }
    const std::string& interface() const { return interface_; }
    const std::string& member() const { return member_; }
    sd_bus_message* message() const { return message_; }
    bool replied() const { return replied_; }

    void replyEmpty();
    void replyError(const std::string& name, const std::string& text);
    // `append` writes the reply body; a failure there becomes a Failed error.
    void reply(const std::function<int(sd_bus_message*)>& append);

private:
    sd_bus_message* message_;
    std::string sender_;
    std::string path_;
    std::string interface_;
    std::string member_;
    bool replied_ = false;
};

using CallPtr = std::shared_ptr<Call>;

class BusConnection final : public dispatch::PollLoop::Pump {
public:
    using CallHandler = std::function<void(const CallPtr&)>;
    // A unique name left the bus.
    using ClientGone = std::function<void(const std::string& uniqueName)>;

    // Connects to `address` and registers the handlers; throws std::runtime_error.
    BusConnection(dispatch::PollLoop& loop, const std::string& address, CallHandler onCall,
                  ClientGone onClientGone);
    ~BusConnection() override;  // closes the connection (the bus drops its names)
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    void requestName(const std::string& name);

    void emitPropertiesChanged(const std::string& path, const std::string& interface,
                               const Properties& changed, const std::vector<std::string>& invalidated = {});
    void emitInterfacesAdded(const std::string& path, const Interfaces& interfaces);
    void emitInterfacesRemoved(const std::string& path, const std::vector<std::string>& interfaces);

    // PollLoop::Pump
    PollData pollData() const override;
    void pump() override;

    // Entry points of sd-bus's callbacks; not for other callers.
    int handleMessage(sd_bus_message* message);
    int handleNameOwnerChanged(sd_bus_message* message);

private:
    // Sends a signal; `append` writes its body.
    void emitSignal(const std::string& path, const std::string& interface, const std::string& member,
                    const std::function<int(sd_bus_message*)>& append);

    dispatch::PollLoop& loop_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* objectSlot_ = nullptr;
    sd_bus_slot* matchSlot_ = nullptr;
    CallHandler onCall_;
    ClientGone onClientGone_;
};

}  // namespace plenk::fakebluez
