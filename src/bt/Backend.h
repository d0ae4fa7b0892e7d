#pragma once

#include <memory>
#include <string>

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

}  // namespace plenk::bt
