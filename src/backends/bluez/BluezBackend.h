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
        NotifyMode notifyMode = NotifyMode::Property;
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
// ("start" or "acquire") how notifications arrive.
std::shared_ptr<bt::Backend> makeBackend(const Context& context);

}  // namespace plenk::bluez
