#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bt/Central.h"

namespace plenk {
struct Context;
}

namespace plenk::bt {

// A Bluetooth stack behind the port. Each central it makes owns one serial
// queue labelled `queueLabel` on which all its events and those of its
// peripherals are delivered.
class Backend {
public:
    virtual ~Backend();
    virtual std::string name() const = 0;
    // Must not wait for the new central's queue: its first events may block
    // until the caller has stored the central.
    virtual std::shared_ptr<Central> makeCentral(std::weak_ptr<CentralDelegate> delegate,
                                                 const std::string& queueLabel, const Context& context) = 0;
};

// Backends selectable by name at run time.
class BackendRegistry {
public:
    using Factory = std::function<std::shared_ptr<Backend>(const Context&)>;

    static void add(std::string name, Factory factory);
    // Throws std::invalid_argument listing the known names.
    static std::shared_ptr<Backend> create(std::string_view name, const Context& context);
    static std::vector<std::string> names();
    // The name used when neither PLENK_BACKEND nor the host chooses.
    static std::string defaultName();
};

}  // namespace plenk::bt
