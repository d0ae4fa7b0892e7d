#include "backends/bluez/BluezBackend.h"

#include <cstdlib>
#include <string_view>

#include <PlenkKit/Context.h>

#include "backends/bluez/BluezCentral.h"

namespace plenk::bluez {

BluezBackend::BluezBackend(Options options) : options_(std::move(options)) {}

std::shared_ptr<bt::Central> BluezBackend::makeCentral(std::weak_ptr<bt::CentralDelegate> delegate,
                                                       const std::string& queueLabel,
                                                       const Context& context) {
    CentralOptions options;
    options.queueLabel = queueLabel;
    options.adapter = context.adapter.empty() ? options_.adapter : context.adapter;
    options.notifyMode = options_.notifyMode;
    options.discoveryTimeout = options_.discoveryTimeout;
    options.log = context.log;
    return BluezCentral::make(std::move(delegate), std::move(options));
}

std::shared_ptr<bt::Backend> makeBackend(const Context& /*context*/) {
    BluezBackend::Options options;
    // NOLINTBEGIN(concurrency-mt-unsafe): read once per backend, never written by the library
    if (const char* adapter = std::getenv("PLENK_ADAPTER"); adapter != nullptr) options.adapter = adapter;
    if (const char* notify = std::getenv("PLENK_BLUEZ_NOTIFY"); notify != nullptr) {
        if (std::string_view(notify) == "acquire") options.notifyMode = NotifyMode::Socket;
        if (std::string_view(notify) == "start") options.notifyMode = NotifyMode::Property;
    }
    // NOLINTEND(concurrency-mt-unsafe)
    return std::make_shared<BluezBackend>(options);
}

}  // namespace plenk::bluez
