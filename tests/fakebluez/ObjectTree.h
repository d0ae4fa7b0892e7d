#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BusConnection.h"
#include "DbusValue.h"

// The exported objects and their properties, and the standard interfaces
// around them: ObjectManager at "/" (GetManagedObjects, InterfacesAdded,
// InterfacesRemoved) and Properties (Get, GetAll, PropertiesChanged; every
// property read-only). Changes emit their signals at once, in call order, so
// the model controls the order clients see. Loop thread only.
namespace plenk::fakebluez {

struct DbusError {
    std::string name;
    std::string text;
};

class ObjectTree {
public:
    // Without a connection changes are kept but not signalled (bluetoothd is down).
    void setBus(BusConnection* bus) { bus_ = bus; }

    void add(const std::string& path, Interfaces interfaces);
    void remove(const std::string& path);
    // Every object strictly below `path`, deepest first.
    void removeBelow(const std::string& path);
    // Forgets everything without signals (the owner left the bus).
    void clear() { objects_.clear(); }

    bool has(const std::string& path) const { return objects_.count(path) != 0; }
    const Value* get(const std::string& path, const std::string& interface, const std::string& name) const;
    // Stores and emits PropertiesChanged; `always` emits even an unchanged value.
    void set(const std::string& path, const std::string& interface, const std::string& name, Value value,
             bool always = false);
    // Removes an optional property: PropertiesChanged with it invalidated.
    void unset(const std::string& path, const std::string& interface, const std::string& name);

    // Handles calls on the standard interfaces; false for anything else.
    bool handle(const CallPtr& call);

private:
    void getManagedObjects(const CallPtr& call);
    void properties(const CallPtr& call);

    BusConnection* bus_ = nullptr;
    std::map<std::string, Interfaces> objects_;
};

}  // namespace plenk::fakebluez
