#include <PlenkKit/Context.h>

#include <cstdlib>

#include <PlenkKit/RunLoop.h>

#include "bt/Backend.h"
#include "composition/BackendRegistry.h"

namespace plenk {

// How a context is resolved lives here, above the backends, so that neither
// the port nor the dispatch layer has to know which backends exist.
Context Context::resolved() const {
    Context out = *this;
    if (!out.clock) out.clock = Clock::steady();
    if (!out.mainQueue) out.mainQueue = RunLoop::main();
    if (!out.notifications) out.notifications = NotificationCenter::defaultCenter();
    if (!out.log) out.log = LogSink::standardOutput();
    if (out.adapter.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): read once per context, never written by the library
        if (const char* env = std::getenv("PLENK_ADAPTER"); env != nullptr) out.adapter = env;
    }
    if (!out.backend) {
        std::string name = out.backendName;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): read once per context, never written by the library
        if (const char* env = std::getenv("PLENK_BACKEND"); env != nullptr && *env != '\0') name = env;
        if (name.empty()) name = BackendRegistry::defaultName();
        out.backendName = name;
        out.backend = BackendRegistry::create(name, out);
    } else {
        out.backendName = out.backend->name();
    }
    return out;
}

}  // namespace plenk
