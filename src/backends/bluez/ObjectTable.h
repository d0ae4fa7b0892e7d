#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "backends/bluez/BluezProperties.h"

namespace plenk::bluez {

// The backend's copy of what org.bluez exports: object path → interface →
// properties, kept current from GetManagedObjects, InterfacesAdded,
// InterfacesRemoved and PropertiesChanged. Used on the event loop only.
class ObjectTable {
public:
    void clear() { objects_.clear(); }
    // Adds the interface or merges into it.
    void add(const std::string& path, const std::string& interface, const BluezProperties& properties);
    void remove(const std::string& path, const std::vector<std::string>& interfaces);
    // Merges a change into a known interface; returns the result, or null when
    // the interface is not known (a change that raced its removal).
    const BluezProperties* change(const std::string& path, const std::string& interface,
                                  const BluezProperties& change, const std::vector<std::string>& invalidated);
    const BluezProperties* find(const std::string& path, const std::string& interface) const;

    // Objects with `interface` whose path starts with `prefix`, by path (for
    // GATT objects that is handle order).
    std::vector<std::pair<std::string, const BluezProperties*>> all(const std::string& interface,
                                                                    const std::string& prefix = "/") const;

private:
    std::map<std::string, std::map<std::string, BluezProperties>> objects_;
};

}  // namespace plenk::bluez
