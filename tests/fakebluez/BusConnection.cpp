#include "BusConnection.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>

namespace plenk::fakebluez {

namespace {

std::string orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

int onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
    return static_cast<BusConnection*>(self)->handleMessage(message);
}

int onNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    return static_cast<BusConnection*>(self)->handleNameOwnerChanged(message);
}

void check(int r, const char* what) {
    if (r < 0) throw std::runtime_error(std::string("fake bluetoothd: ") + what + ": " + std::strerror(-r));
}

}  // namespace

// --- Call ------------------------------------------------------------------------

Call::Call(sd_bus_message* message)
    : message_(sd_bus_message_ref(message)),
      sender_(orEmpty(sd_bus_message_get_sender(message))),
      path_(orEmpty(sd_bus_message_get_path(message))),
      interface_(orEmpty(sd_bus_message_get_interface(message))),
      member_(orEmpty(sd_bus_message_get_member(message))) {}

Call::~Call() {
    sd_bus_message_unref(message_);
}

void Call::replyEmpty() {
    if (replied_) return;
    replied_ = true;
    sd_bus_reply_method_return(message_, nullptr);
}

void Call::replyError(const std::string& name, const std::string& text) {
    if (replied_) return;
    replied_ = true;
    sd_bus_reply_method_errorf(message_, name.c_str(), "%s", text.c_str());
}

void Call::reply(const std::function<int(sd_bus_message*)>& append) {
    if (replied_) return;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(message_, &reply);
    if (r >= 0) r = append(reply);
    if (r >= 0) {
        replied_ = true;
        sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    if (r < 0) replyError("org.bluez.Error.Failed", std::strerror(-r));
}

// --- BusConnection ---------------------------------------------------------------

BusConnection::BusConnection(dispatch::PollLoop& loop, const std::string& address, CallHandler onCall,
                             ClientGone onClientGone)
    : loop_(loop), onCall_(std::move(onCall)), onClientGone_(std::move(onClientGone)) {
    check(sd_bus_new(&bus_), "sd_bus_new");
    try {
        check(sd_bus_set_address(bus_, address.c_str()), "set address");
        check(sd_bus_set_bus_client(bus_, 1), "set bus client");
        check(sd_bus_negotiate_fds(bus_, 1), "negotiate fds");
        check(sd_bus_start(bus_), "connect");
        check(sd_bus_add_fallback(bus_, &objectSlot_, "/", &onMessage, this), "add fallback");
        check(sd_bus_match_signal(bus_, &matchSlot_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameOwnerChanged", &onNameOwnerChanged, this),
              "watch NameOwnerChanged");
    } catch (...) {
        sd_bus_slot_unref(matchSlot_);
        sd_bus_slot_unref(objectSlot_);
        sd_bus_flush_close_unref(bus_);
        throw;
    }
    loop_.setPump(this);
}

BusConnection::~BusConnection() {
    loop_.setPump(nullptr);
    sd_bus_slot_unref(matchSlot_);
    sd_bus_slot_unref(objectSlot_);
    sd_bus_flush_close_unref(bus_);
}

void BusConnection::requestName(const std::string& name) {
    check(sd_bus_request_name(bus_, name.c_str(), 0), "request name");
}

void BusConnection::emitSignal(const std::string& path, const std::string& interface,
                               const std::string& member, const std::function<int(sd_bus_message*)>& append) {
    sd_bus_message* signal = nullptr;
    int r = sd_bus_message_new_signal(bus_, &signal, path.c_str(), interface.c_str(), member.c_str());
    if (r >= 0) r = append(signal);
    if (r >= 0) sd_bus_send(bus_, signal, nullptr);
    sd_bus_message_unref(signal);
}

void BusConnection::emitPropertiesChanged(const std::string& path, const std::string& interface,
                                          const Properties& changed,
                                          const std::vector<std::string>& invalidated) {
    emitSignal(path, "org.freedesktop.DBus.Properties", "PropertiesChanged", [&](sd_bus_message* m) {
        int r = sd_bus_message_append_basic(m, 's', interface.c_str());
        if (r >= 0) r = appendProperties(m, changed);
        if (r >= 0) r = appendValue(m, invalidated);
        return r;
    });
}

void BusConnection::emitInterfacesAdded(const std::string& path, const Interfaces& interfaces) {
    emitSignal("/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded", [&](sd_bus_message* m) {
        int r = sd_bus_message_append_basic(m, 'o', path.c_str());
        return r < 0 ? r : appendInterfaces(m, interfaces);
    });
}

void BusConnection::emitInterfacesRemoved(const std::string& path,
                                          const std::vector<std::string>& interfaces) {
    emitSignal("/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved", [&](sd_bus_message* m) {
        int r = sd_bus_message_append_basic(m, 'o', path.c_str());
        return r < 0 ? r : appendValue(m, interfaces);
    });
}

BusConnection::PollData BusConnection::pollData() const {
    PollData data{sd_bus_get_fd(bus_), 0, std::nullopt};
    const int events = sd_bus_get_events(bus_);
    data.events = static_cast<short>(events < 0 ? 0 : events);
    std::uint64_t usec = 0;
    if (sd_bus_get_timeout(bus_, &usec) >= 0 && usec != UINT64_MAX)
        data.deadline = dispatch::PollLoop::TimePoint(std::chrono::microseconds(usec));
    return data;
}

void BusConnection::pump() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
}

int BusConnection::handleMessage(sd_bus_message* message) {
    std::uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
    onCall_(std::make_shared<Call>(message));
    return 1;
}

int BusConnection::handleNameOwnerChanged(sd_bus_message* message) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    // A unique name is its own owner; it leaves when its owner becomes empty.
    if (name[0] == ':' && newOwner[0] == '\0') onClientGone_(name);
    return 0;
}

}  // namespace plenk::fakebluez
