#include "ObjectTree.h"

#include <systemd/sd-bus.h>

#include <set>

namespace plenk::fakebluez {

namespace {

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

// bluetoothd lists the two standard interfaces of every object with no properties.
Interfaces withStandardInterfaces(Interfaces interfaces) {
    interfaces.emplace(kIntrospectable, Properties{});
    interfaces.emplace(kProperties, Properties{});
    return interfaces;
}

bool isBelow(const std::string& path, const std::string& parent) {
    const std::string prefix = parent == "/" ? "/" : parent + "/";
    return path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

void ObjectTree::add(const std::string& path, Interfaces interfaces) {
    auto& object = objects_[path];
    object = withStandardInterfaces(std::move(interfaces));
    if (bus_ != nullptr) bus_->emitInterfacesAdded(path, object);
}

void ObjectTree::remove(const std::string& path) {
    auto found = objects_.find(path);
    if (found == objects_.end()) return;
    std::vector<std::string> names;
    for (const auto& [name, properties] : found->second) names.push_back(name);
    objects_.erase(found);
    if (bus_ != nullptr) bus_->emitInterfacesRemoved(path, names);
}

void ObjectTree::removeBelow(const std::string& path) {
    std::vector<std::string> below;
    for (const auto& [candidate, interfaces] : objects_) {
        if (isBelow(candidate, path)) below.push_back(candidate);
    }
    // Reverse lexical order removes characteristics before their service.
    for (auto it = below.rbegin(); it != below.rend(); ++it) remove(*it);
}

const Value* ObjectTree::get(const std::string& path, const std::string& interface,
                             const std::string& name) const {
    auto object = objects_.find(path);
    if (object == objects_.end()) return nullptr;
    auto properties = object->second.find(interface);
    if (properties == object->second.end()) return nullptr;
    auto value = properties->second.find(name);
    return value == properties->second.end() ? nullptr : &value->second;
}

void ObjectTree::set(const std::string& path, const std::string& interface, const std::string& name,
                     Value value, bool always) {
    auto object = objects_.find(path);
    if (object == objects_.end()) return;
    auto& properties = object->second[interface];
    auto previous = properties.find(name);
    const bool changed = previous == properties.end() || !(previous->second == value);
    auto& slot = properties[name];
    slot = std::move(value);
    if ((changed || always) && bus_ != nullptr) bus_->emitPropertiesChanged(path, interface, {{name, slot}});
}

void ObjectTree::unset(const std::string& path, const std::string& interface, const std::string& name) {
    auto object = objects_.find(path);
    if (object == objects_.end()) return;
    auto properties = object->second.find(interface);
    if (properties == object->second.end() || properties->second.erase(name) == 0) return;
    if (bus_ != nullptr) bus_->emitPropertiesChanged(path, interface, {}, {name});
}

bool ObjectTree::handle(const CallPtr& call) {
    if (call->interface() == kObjectManager && call->member() == "GetManagedObjects" && call->path() == "/") {
        getManagedObjects(call);
        return true;
    }
    if (call->interface() == kProperties) {
        properties(call);
        return true;
    }
    return false;
}

void ObjectTree::getManagedObjects(const CallPtr& call) {
    call->reply([&](sd_bus_message* m) { return appendObjects(m, objects_); });
}

void ObjectTree::properties(const CallPtr& call) {
    auto object = objects_.find(call->path());
    if (object == objects_.end()) {
        call->replyError("org.freedesktop.DBus.Error.UnknownObject",
                         "No such object path '" + call->path() + "'");
        return;
    }
    const auto& member = call->member();
    const char* interface = nullptr;
    const char* name = nullptr;
    if (sd_bus_message_read_basic(call->message(), 's', &interface) <= 0 ||
        (member != "GetAll" && sd_bus_message_read_basic(call->message(), 's', &name) <= 0)) {
        call->replyError(kInvalidArgs, "Invalid arguments in method call");
        return;
    }
    auto properties = object->second.find(interface);
    if (properties == object->second.end()) {
        call->replyError(kInvalidArgs, std::string("No such interface '") + interface + "'");
        return;
    }
    if (member == "GetAll") {
        call->reply([&](sd_bus_message* reply) { return appendProperties(reply, properties->second); });
        return;
    }
    auto value = properties->second.find(name);
    if (value == properties->second.end()) {
        call->replyError(kInvalidArgs, std::string("No such property '") + name + "'");
        return;
    }
    if (member == "Get") {
        call->reply([&](sd_bus_message* reply) { return appendVariant(reply, value->second); });
    } else if (member == "Set") {  // clients of the fake only read: every property is read-only
        call->replyError("org.freedesktop.DBus.Error.PropertyReadOnly", "Property is read-only");
    } else {
        call->replyError("org.freedesktop.DBus.Error.UnknownMethod", "Unknown method " + member);
    }
}

}  // namespace plenk::fakebluez
