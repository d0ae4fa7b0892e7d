#pragma once

#include <memory>
#include <string>

#include <PlenkKit/Clock.h>
#include <PlenkKit/Executor.h>
#include <PlenkKit/LogSink.h>
#include <PlenkKit/NotificationCenter.h>

namespace plenk {

namespace bt {
class Backend;
}

// What the library runs on: the host's main queue, the notification centre,
// the diagnostics sink, the clock and the Bluetooth backend. Every member may
// be left empty; resolved() fills it with the process default.
struct PLENK_EXPORT Context {
    // default: RunLoop::main(). The library holds it weakly: keep it alive
    // for as long as the library uses it.
    std::shared_ptr<Executor> mainQueue;
    std::shared_ptr<NotificationCenter> notifications;  // default: NotificationCenter::defaultCenter()
    std::shared_ptr<LogSink> log;                       // default: standard output
    std::shared_ptr<Clock> clock;                       // default: Clock::steady()
    // The backend by name ("sim", later "bluez"); empty = the default. The
    // PLENK_BACKEND environment variable, when set, overrides this name.
    std::string backendName;
    // An explicit backend instance (tests, embedding) wins over any name.
    std::shared_ptr<bt::Backend> backend;
    // The adapter a backend uses: an object path ("/org/bluez/hci1") or a name
    // ("hci1"); empty = the PLENK_ADAPTER environment variable, else the first
    // powered adapter. The simulator ignores it.
    std::string adapter;

    // A copy with every empty member filled in. Throws std::invalid_argument
    // for an unknown backend name.
    Context resolved() const;
};

}  // namespace plenk
