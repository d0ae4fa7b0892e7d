#pragma once

#include <memory>
#include <string>

#include "backends/bluez/CentralCore.h"
#include "bt/Backend.h"

namespace plenk {
struct Context;
}

namespace plenk::bluez {

// BlueZ over D-Bus (org.bluez on the system bus). Every central it makes has
// its own connection and event loop.
class BluezBackend final : public bt::Backend {
public:
    struct Options {
        // Sockets by default: measured at 1 kHz, the event loop spends about 18 µs
        // per notification on a socket packet against 44 µs on a D-Bus signal,
        // and the value skips dbus-daemon. StartNotify remains the fallback.
        NotifyMode notifyMode = NotifyMode::Socket;
        std::chrono::milliseconds discoveryTimeout{10'000};
        std::string adapter;  // used when the Context names none
    };

    explicit BluezBackend(Options options);

    std::string name() const override { return "bluez"; }
    std::shared_ptr<bt::Central> makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                             const std::string& queueLabel, const Context& context) override;

private:
    const Options options_;
};

// The backend the name "bluez" stands for. The environment chooses what the
// host's Context leaves open: PLENK_ADAPTER the adapter, PLENK_BLUEZ_NOTIFY
// ("acquire", the default, or "start") how notifications arrive.
std::shared_ptr<bt::Backend> makeBackend(const Context& context);

}  // namespace plenk::bluez
