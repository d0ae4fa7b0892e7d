#include "composition/BackendRegistry.h"

#include <map>
#include <mutex>
#include <stdexcept>

#include "backends/sim/SimBackend.h"
#ifdef PLENK_HAVE_BLUEZ
#include "backends/bluez/BluezBackend.h"
#endif

namespace plenk {

namespace {
struct Registry {
    std::mutex mutex;
    std::map<std::string, BackendRegistry::Factory, std::less<>> factories;
};

Registry& storage() {
    static auto* const instance = new Registry;
    return *instance;
}

// The built-in backends, registered on first use: no static-initialisation order games.
Registry& registry() {
    static std::once_flag builtins;
    std::call_once(builtins, [] {
        BackendRegistry::add("sim", sim::makeBackend);
#ifdef PLENK_HAVE_BLUEZ
        BackendRegistry::add("bluez", bluez::makeBackend);
#endif
    });
    return storage();
}
}  // namespace

void BackendRegistry::add(std::string name, Factory factory) {
    auto& r = storage();
    std::lock_guard lock(r.mutex);
    r.factories[std::move(name)] = std::move(factory);
}

std::shared_ptr<bt::Backend> BackendRegistry::create(std::string_view name, const Context& context) {
    Factory factory;
    {
        auto& r = registry();
        std::lock_guard lock(r.mutex);
        if (auto it = r.factories.find(name); it != r.factories.end()) factory = it->second;
    }
    if (!factory) {
        std::string known;
        for (const auto& n : names()) known += (known.empty() ? "" : ", ") + n;
        throw std::invalid_argument("unknown Bluetooth backend \"" + std::string(name) +
                                    "\" (known: " + known + ")");
    }
    return factory(context);
}

std::vector<std::string> BackendRegistry::names() {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    std::vector<std::string> out;
    for (const auto& [n, f] : r.factories) out.push_back(n);
    return out;
}

std::string BackendRegistry::defaultName() {
    // Real Bluetooth when it is built in; the simulator stays one word away.
#ifdef PLENK_HAVE_BLUEZ
    return "bluez";
#else
    return "sim";
#endif
}

}  // namespace plenk
