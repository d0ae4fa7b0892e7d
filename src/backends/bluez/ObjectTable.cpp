#include "backends/bluez/ObjectTable.h"

namespace plenk::bluez {

void ObjectTable::add(const std::string& path, const std::string& interface,
                      const BluezProperties& properties) {
    objects_[path][interface].merge(properties);
}

void ObjectTable::remove(const std::string& path, const std::vector<std::string>& interfaces) {
    auto it = objects_.find(path);
    if (it == objects_.end()) return;
    for (const auto& interface : interfaces) it->second.erase(interface);
    if (it->second.empty()) objects_.erase(it);
}

const BluezProperties* ObjectTable::change(const std::string& path, const std::string& interface,
                                           const BluezProperties& change,
                                           const std::vector<std::string>& invalidated) {
    auto it = objects_.find(path);
    if (it == objects_.end()) return nullptr;
    auto found = it->second.find(interface);
    if (found == it->second.end()) return nullptr;
    found->second.merge(change, invalidated);
    return &found->second;
}

const BluezProperties* ObjectTable::find(const std::string& path, const std::string& interface) const {
    auto it = objects_.find(path);
    if (it == objects_.end()) return nullptr;
    auto found = it->second.find(interface);
    return found == it->second.end() ? nullptr : &found->second;
}

std::vector<std::pair<std::string, const BluezProperties*>> ObjectTable::all(
    const std::string& interface, const std::string& prefix) const {
    std::vector<std::pair<std::string, const BluezProperties*>> out;
    for (auto it = objects_.lower_bound(prefix); it != objects_.end() && it->first.starts_with(prefix);
         ++it) {
        if (auto found = it->second.find(interface); found != it->second.end())
            out.emplace_back(it->first, &found->second);
    }
    return out;
}

}  // namespace plenk::bluez
