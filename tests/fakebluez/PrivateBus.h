#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

// A dbus-daemon of the test's own: a system-type bus (so it may hold
// org.bluez) whose policy allows every name, every message and fd passing,
// listening in a fresh temporary directory. The daemon is killed and reaped
// with the object, or when the thread that made it ends (a killed test).
namespace plenk::fakebluez {

class PrivateBus {
public:
    // Starts the daemon; throws std::runtime_error when it cannot (for
    // example without dbus-daemon installed).
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return address_; }

private:
    static std::string daemonPath();  // "" when not on PATH
    std::string logPath() const;
    void removeDirectory();

    std::string directory_;
    std::string address_;
    pid_t pid_ = -1;
};

// Points DBUS_SYSTEM_BUS_ADDRESS at `address` for its lifetime, so code that
// opens "the system bus" reaches the private one; restores the old value.
class ScopedSystemBus {
public:
    explicit ScopedSystemBus(const std::string& address);
    ~ScopedSystemBus();
    ScopedSystemBus(const ScopedSystemBus&) = delete;
    ScopedSystemBus& operator=(const ScopedSystemBus&) = delete;

private:
    std::optional<std::string> previous_;
};

}  // namespace plenk::fakebluez
